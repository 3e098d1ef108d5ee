// FastFilter against direct convolution and OpenImageIO, and the blur tasks.
#include <gtest/gtest.h>

#include <OpenImageIO/imagebufalgo.h>

#include <cmath>
#include <random>

#include "filtertasks.h"
#include "imglib/error.h"
#include "imglib/fastfilter.h"
#include "imglib/pixels.h"
#include "support/serial_render.h"
#include "support/test_tasks.h"

using namespace TESSERA;
using namespace TESSERA::testing;
using Color = Imath::Color4<float>;
using UTIL::Rect;

namespace {

struct Plane {
    Plane(const Rect& r, uint64_t channels, unsigned seed) {
        image.channels = channels;
        image.x1 = r.xmin, image.y1 = r.ymin, image.x2 = r.xmax, image.y2 = r.ymax;
        const int n = IMGLIB::GetChannelCount(channels);
        image.rowBytes = (r.width() * 4 * n + 15) & ~int64_t(15);
        pixels.assign(static_cast<size_t>(image.rowBytes / 4 * r.height()), 0.0f);
        image.pixelPtr = pixels.data();
        std::mt19937 random(seed);
        for (int64_t y = r.ymin; y < r.ymax; ++y)
            for (int64_t x = 0; x < r.width() * n; ++x)
                image.row(y)[x] = float(random() % 1000) / 250.0f - 1.0f;
    }
    float at(int64_t x, int64_t y, int c) const {
        const int n = IMGLIB::GetChannelCount(image.channels);
        return IMGLIB::GetPixelAddress(&image, x, y, 4 * n)[c];
    }
    IMGLIB::Image image;
    std::vector<float> pixels;
};

// Taps and weights written out independently of the library.
std::vector<double> reference(IMGLIB::FilterType f, double size) {
    const int pad = int(std::ceil((std::max(size, 1.0) - 1.0) / 2.0));
    if (pad == 0) return {1.0};  // the identity
    std::vector<double> w;
    double sum = 0;
    for (int d = -pad; d <= pad; ++d) {
        double v;
        if (f == IMGLIB::KERNEL_GAUSSIAN) {
            const double sigma = size / 4.0;
            v = std::abs(d) <= size / 2 ? std::exp(-d * d / (2 * sigma * sigma)) : 0.0;
        } else if (f == IMGLIB::KERNEL_BOX) {
            v = std::max(0.0, std::min(d + 0.5, size / 2) - std::max(d - 0.5, -size / 2));
        } else {  // triangle
            v = std::max(0.0, 1.0 - std::abs(d) / (size / 2));
        }
        w.push_back(v);
        sum += v;
    }
    for (double& v : w) v /= sum;
    return w;
}

}  // namespace

TEST(FastFilter, PaddingAndWeights) {
    EXPECT_EQ(IMGLIB::GetFilterPadding(4.0f), 2);
    EXPECT_EQ(IMGLIB::GetFilterPadding(3.0f), 1);
    EXPECT_EQ(IMGLIB::GetFilterPadding(0.5f), 0);
    EXPECT_EQ(IMGLIB::GetFilterPadding(-3.0f), 0);
    EXPECT_EQ(IMGLIB::GetFilterPadding(std::nanf("")), 0);
    EXPECT_EQ(IMGLIB::GetFilterPadding(40.0f), 20);
    for (auto [f, size] :
         {std::pair{IMGLIB::KERNEL_GAUSSIAN, 40.0f}, std::pair{IMGLIB::KERNEL_BOX, 4.5f},
          std::pair{IMGLIB::KERNEL_BOX, 4.0f}, std::pair{IMGLIB::KERNEL_TRIANGLE, 7.0f}}) {
        const std::vector<float> got = IMGLIB::GetFilterWeights(f, size);
        const std::vector<double> want = reference(f, size);
        ASSERT_EQ(got.size(), want.size());
        for (size_t i = 0; i < got.size(); ++i)
            EXPECT_NEAR(got[i], want[i], 1e-6) << f << " " << size;
    }
}

TEST(FastFilter, MatchesDirectConvolution) {
    const Rect outRect(3, -2, 70, 31);
    for (auto [fx, sx, fy, sy] :
         {std::tuple{IMGLIB::KERNEL_GAUSSIAN, 9.0f, IMGLIB::KERNEL_GAUSSIAN, 13.0f},
          std::tuple{IMGLIB::KERNEL_BOX, 5.5f, IMGLIB::KERNEL_BOX, 4.0f},
          std::tuple{IMGLIB::KERNEL_TRIANGLE, 6.0f, IMGLIB::KERNEL_BOX, 0.0f},
          std::tuple{IMGLIB::KERNEL_BOX, 1.0f, IMGLIB::KERNEL_TRIANGLE, 5.0f}}) {
        for (uint64_t channels :
             {IMGLIB::CHANNELS_RGBA, IMGLIB::CHANNELS_RGB, uint64_t(IMGLIB::CHANNEL_A)}) {
            const int64_t px = IMGLIB::GetFilterPadding(sx), py = IMGLIB::GetFilterPadding(sy);
            Plane in(outRect.grown(px, py), channels, 7), out(outRect, channels, 1);
            ASSERT_EQ(IMGLIB::FastFilter(&out.image, &in.image, fx, sx, fy, sy),
                      IMGLIB::ERROR_NONE);
            const std::vector<double> wx = reference(fx, sx), wy = reference(fy, sy);
            const int n = IMGLIB::GetChannelCount(channels);
            for (int64_t y = outRect.ymin; y < outRect.ymax; y += 3)
                for (int64_t x = outRect.xmin; x < outRect.xmax; x += 5)
                    for (int c = 0; c < n; ++c) {
                        double want = 0;
                        for (int64_t j = -py; j <= py; ++j)
                            for (int64_t i = -px; i <= px; ++i)
                                want += wx[size_t(i + px)] * wy[size_t(j + py)] *
                                        in.at(x + i, y + j, c);
                        ASSERT_NEAR(out.at(x, y, c), want, 2e-5)
                            << fx << " " << sx << " at " << x << "," << y;
                    }
        }
    }
    // The input must cover the output grown by the reach.
    Plane small(outRect, IMGLIB::CHANNELS_RGBA, 3), out(outRect, IMGLIB::CHANNELS_RGBA, 1);
    EXPECT_EQ(IMGLIB::FastFilter(&out.image, &small.image, IMGLIB::KERNEL_GAUSSIAN, 5,
                                 IMGLIB::KERNEL_GAUSSIAN, 5),
              IMGLIB::ERROR_OUT_OF_BOUNDS);
}

TEST(FastFilter, AgreesWithOpenImageIOConvolution) {
    OIIO::attribute("threads", 1);
    const Rect outRect(0, 0, 40, 30);
    const int64_t pad = IMGLIB::GetFilterPadding(9.0f);
    Plane in(outRect.grown(pad, pad), IMGLIB::CHANNELS_RGBA, 11),
        out(outRect, IMGLIB::CHANNELS_RGBA, 1);
    ASSERT_EQ(IMGLIB::FastFilter(&out.image, &in.image, IMGLIB::KERNEL_GAUSSIAN, 9,
                                 IMGLIB::KERNEL_GAUSSIAN, 9),
              IMGLIB::ERROR_NONE);
    // OpenImageIO's gaussian kernel of width 9 over the same pixels.
    OIIO::ImageSpec spec(int(in.image.width()), int(in.image.height()), 4, OIIO::TypeDesc::FLOAT);
    spec.x = int(in.image.x1);
    spec.y = int(in.image.y1);
    std::vector<float> packed;
    for (int64_t y = in.image.y1; y < in.image.y2; ++y)
        packed.insert(packed.end(), in.image.row(y), in.image.row(y) + in.image.width() * 4);
    OIIO::ImageBuf src(spec, packed.data());
    OIIO::ImageBuf kernel = OIIO::ImageBufAlgo::make_kernel("gaussian", 9, 9);
    OIIO::ImageBuf blurred = OIIO::ImageBufAlgo::convolve(src, kernel);
    for (int64_t y = 0; y < 30; ++y)
        for (int64_t x = 0; x < 40; ++x)
            for (int c = 0; c < 4; ++c)
                ASSERT_NEAR(out.at(x, y, c), blurred.getchannel(int(x), int(y), 0, c), 1e-4)
                    << x << "," << y << " channel " << c;
}

namespace {

class Dots : public ConstantTask {
public:
    Dots(const Rect& area, const Color& bg) : ConstantTask("dots", Color(0, 0, 0, 0), area) {
        background = bg;
    }
    std::string getTypeString() override { return "Dots"; }
    void computeCacheID(CacheIDStream& s) override { s << area << background; }
    void renderRect(const IMGLIB::Image* out, const std::vector<const IMGLIB::Image*>&) override {
        for (int64_t y = out->y1; y < out->y2; ++y)
            for (int64_t x = out->x1; x < out->x2; ++x) {
                const float v[4] = {value(x, y), 2 * value(x, y), 0.5f, 1};
                IMGLIB::SetPixel(out, x, y, v);
            }
    }
    static float value(int64_t x, int64_t y) { return float((x * 7 + y * 13) % 17) / 16.0f; }
};

class BlurTest : public ::testing::Test {
protected:
    void SetUp() override {
        RenderManager::ClearRenderTaskCache();
        RenderManager::clearSpeculativeCache();
    }
    void TearDown() override { RenderManager::setGlobalTileSize(256, 256); }
    std::vector<Color> render(const TaskPtr& task, const Rect& rect, int tile) {
        return renderPixels(task, rect, tile);
    }
};

}  // namespace

TEST_F(BlurTest, ChainsNamesAndRegions) {
    TaskPtr dots(new Dots(Rect(0, 0, 50, 40), Color(0, 0, 0, 0)));
    PerChannelBlurParameters p;
    p.blur.sizeX = 4.0f;
    p.blur.sizeY = 3.0f;
    TaskPtr blur = createBlurTask("b", 0, p, dots);
    EXPECT_EQ(blur->getName(), "b.vertBlur");
    TaskPtr horizontal = blur->imp().getInputTask(0);
    EXPECT_EQ(horizontal->getName(), "b.horzBlur");
    EXPECT_FALSE(horizontal->getCaching());
    EXPECT_TRUE(blur->getCaching());
    UTIL::Region region;
    horizontal->getOutputDescription(nullptr, &region);
    EXPECT_EQ(region.boundingBox(), Rect(-2, 0, 52, 40));  // x only
    blur->getOutputDescription(nullptr, &region);
    EXPECT_EQ(region.boundingBox(), Rect(-2, -1, 52, 41));  // and y

    p.channelScale[3] = 2.0f;
    TaskPtr split = createBlur("s", 0, p, dots);
    EXPECT_EQ(split->getName(), "s.ChannelMerge");
    EXPECT_EQ(split->imp().m_typeString.empty() ? (split->getCacheID(), split->imp().m_typeString)
                                                : split->imp().m_typeString,
              "BlurChannelMerge");
    EXPECT_EQ(split->imp().getInputTask(3)->getName(), "s.alpha.vertBlur");
    EXPECT_EQ(split->imp().getInputTask(0)->getName(), "s.red.vertBlur");
}

// A vertical pass whose horizontal pass feeds nothing else renders both in
// one sweep; shared, the horizontal pass renders on its own. Either way the
// pixels are those of the two passes.
TEST_F(BlurTest, PassesRunAsOneUnlessTheFirstIsShared) {
    TaskPtr dots(new Dots(Rect(0, 0, 50, 40), Color(0, 0, 0, 0)));
    PerChannelBlurParameters p;
    p.blur.sizeX = 9.0f;
    p.blur.sizeY = 7.0f;
    const Rect rect(-6, -5, 56, 45);
    TaskPtr alone = createBlur("a", 0, p, dots);
    const std::vector<Color> got = render(alone, rect, 16);
    EXPECT_EQ(alone->imp().getInputTask(0).get(), dots.get());
    UTIL::Region region;
    alone->getOutputDescription(nullptr, &region);
    EXPECT_EQ(region.boundingBox(), Rect(-4, -3, 54, 43));
    EXPECT_EQ(render(alone, rect, 16), got) << "a second render of the merged passes";

    // Shared with a sum of both passes: rendered apart, and the same pixels.
    TaskPtr shared = createBlur("s", 0, p, dots);
    TaskPtr horizontal = shared->imp().getInputTask(0);
    const std::vector<Color> first = render(horizontal, rect, 16);
    TaskPtr sum(new GainTask("sum", {shared, horizontal}, 1.0f));
    const std::vector<Color> both = render(sum, rect, 16);
    EXPECT_EQ(shared->imp().getInputTask(0).get(), horizontal.get());
    for (size_t i = 0; i < got.size(); ++i) {
        ASSERT_NEAR(both[i].r, got[i].r + first[i].r, 1e-5f) << i;
        ASSERT_NEAR(both[i].a, got[i].a + first[i].a, 1e-5f) << i;
    }
}

TEST_F(BlurTest, TilesEqualTheWholeFrameAndEdgesFollowTheExtension) {
    TaskPtr dots(new Dots(Rect(0, 0, 60, 45), Color(0.1f, 0.2f, 0.3f, 0.4f)));
    PerChannelBlurParameters p;
    p.blur.sizeX = p.blur.sizeY = 9.0f;
    TaskPtr blur = createBlur("b", 0, p, dots);
    const Rect rect(-10, -10, 70, 55);
    const std::vector<Color> whole = render(blur, rect, 1024);
    EXPECT_EQ(render(blur, rect, 16), whole);
    // Far outside the data: the input's background colour.
    EXPECT_EQ(whole[0], Color(0.1f, 0.2f, 0.3f, 0.4f));

    // With clamping, the edge pixel repeats: a blur of a clamped ramp near
    // the left edge against the formula.
    RenderManager::ClearRenderTaskCache();
    p.blur.filterX = p.blur.filterY = IMGLIB::KERNEL_BOX;
    p.blur.sizeX = 5.0f;
    p.blur.sizeY = 1.0f;
    p.blur.extendMethod = IMGLIB::EXTEND_CLAMP;
    TaskPtr clamped = createBlur("c", 0, p, dots);
    const std::vector<Color> got = render(clamped, Rect(0, 0, 60, 45), 16);
    for (int64_t y = 0; y < 45; y += 7)
        for (int64_t x : {0, 1, 30, 58, 59}) {
            float want = 0;
            for (int64_t d = -2; d <= 2; ++d)
                want += Dots::value(std::clamp<int64_t>(x + d, 0, 59), y) / 5;
            ASSERT_NEAR(got[static_cast<size_t>(y * 60 + x)].r, want, 1e-5f) << x << "," << y;
        }
}

TEST_F(BlurTest, PerChannelScalesBlurEachChannelApart) {
    TaskPtr dots(new Dots(Rect(0, 0, 40, 40), Color(0, 0, 0, 0)));
    PerChannelBlurParameters p;
    p.blur.sizeX = p.blur.sizeY = 5.0f;
    p.channelScale[0] = 1.0f;
    p.channelScale[1] = 0.0f;  // green unblurred
    p.channelScale[2] = 1.0f;
    p.channelScale[3] = 1.0f;
    const std::vector<Color> got = render(createBlur("pc", 0, p, dots), Rect(0, 0, 40, 40), 16);
    for (int64_t y = 5; y < 35; y += 6)
        for (int64_t x = 5; x < 35; x += 6)
            EXPECT_EQ(got[static_cast<size_t>(y * 40 + x)].g, 2 * Dots::value(x, y));
    PerChannelBlurParameters same = p;
    same.channelScale[1] = 1.0f;
    RenderManager::ClearRenderTaskCache();
    const std::vector<Color> uniform =
        render(createBlur("u", 0, same, dots), Rect(0, 0, 40, 40), 16);
    for (size_t i = 0; i < got.size(); ++i) ASSERT_NEAR(got[i].r, uniform[i].r, 1e-6f);
}

TEST_F(BlurTest, TheBoxIsTheSameAtEveryTileEdgeAndForgetsAHighlight) {
    // Dark pixels with one very bright one: once the box has passed it, the
    // dark pixels come back exactly.
    auto scene = make<FunctionTask>("highlight", Rect(0, 0, 90, 40), [](int64_t x, int64_t y, int) {
        return x == 20 && y == 10 ? 50000.0f : 0.001f;
    });
    PerChannelBlurParameters p;
    p.blur.filterX = p.blur.filterY = IMGLIB::KERNEL_BOX;
    p.blur.sizeX = 7.0f;
    p.blur.sizeY = 5.0f;
    TaskPtr box = createBlur("box", 0, p, scene);
    const Rect rect(0, 0, 90, 40);
    const std::vector<Color> whole = render(box, rect, 1024);
    for (int tile : {16, 37, 64}) EXPECT_EQ(render(box, rect, tile), whole) << tile;
    for (int64_t x = 40; x < 80; ++x)
        ASSERT_NEAR(whole[static_cast<size_t>(10 * 90 + x)].r, 0.001f, 1e-9f) << x;
    EXPECT_NEAR(whole[10 * 90 + 20].r, 50000.0f / 35.0f + 0.001f * 34 / 35, 1e-2f);
}
