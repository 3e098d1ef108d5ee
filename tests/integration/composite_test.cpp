// The compositing factory rendered end to end, against OpenImageIO where it
// defines the same operator.
#include <gtest/gtest.h>

#include <OpenImageIO/imagebuf.h>
#include <OpenImageIO/imagebufalgo.h>

#include <cmath>
#include <cstring>

#include "colortasks.h"
#include "compositetasks.h"
#include "imglib/pixels.h"
#include "support/serial_render.h"

using namespace TESSERA;
using namespace TESSERA::testing;
using Color = Imath::Color4<float>;
using UTIL::Rect;

namespace {

constexpr int kW = 40, kH = 20;

// A premultiplied pattern over `area`, different for each seed.
class Layer : public ConstantTask {
public:
    Layer(const std::string& name, int seed, const Rect& area, const Color& bg = Color(0, 0, 0, 0))
        : ConstantTask(name, Color(0, 0, 0, 0), area), seed(seed) {
        background = bg;
    }
    std::string getTypeString() override { return "Layer"; }
    void computeCacheID(CacheIDStream& s) override { s << seed << area << background; }
    void renderRect(const IMGLIB::Image* out, const std::vector<const IMGLIB::Image*>&) override {
        for (int64_t y = out->y1; y < out->y2; ++y)
            for (int64_t x = out->x1; x < out->x2; ++x) {
                const Color c = at(seed, x, y);
                const float v[4] = {c.r, c.g, c.b, c.a};
                IMGLIB::SetPixel(out, x, y, v);
            }
    }
    static Color at(int seed, int64_t x, int64_t y) {
        const float a = float((x * 3 + y * seed) % 11) / 10.0f;
        return Color(a * (0.2f + 0.05f * float((x + seed) % 9)), a * 0.5f,
                     a * (1.2f - 0.03f * float(y % 13)), a);
    }
    int seed;
};

class CompositeTest : public ::testing::Test {
protected:
    void SetUp() override {
        RenderManager::ClearRenderTaskCache();
        RenderManager::clearSpeculativeCache();
        RenderManager::setGlobalTileSize(16, 16);
    }
    void TearDown() override { RenderManager::setGlobalTileSize(256, 256); }

    std::vector<float> render(const TaskPtr& task) {
        auto observer = RCX_ptr_v4::ref_ptr<CollectingObserver>(new CollectingObserver);
        renderSerially({RenderOutput{task, Rect(0, 0, kW, kH), IMGLIB::CHANNELS_RGBA, 0}},
                       observer);
        std::vector<float> pixels;
        for (int y = 0; y < kH; ++y)
            for (int x = 0; x < kW; ++x) {
                const Color c = observer->pixel(0, x, y);
                pixels.insert(pixels.end(), {c.r, c.g, c.b, c.a});
            }
        return pixels;
    }
    static std::vector<float> layerPixels(int seed) {
        std::vector<float> pixels;
        for (int y = 0; y < kH; ++y)
            for (int x = 0; x < kW; ++x) {
                const Color c = Layer::at(seed, x, y);
                pixels.insert(pixels.end(), {c.r, c.g, c.b, c.a});
            }
        return pixels;
    }
    TaskPtr a = TaskPtr(new Layer("a", 3, Rect(0, 0, kW, kH)));
    TaskPtr b = TaskPtr(new Layer("b", 7, Rect(0, 0, kW, kH)));
};

TaskPtr composite(CompositeOp op, TaskPtr a, TaskPtr b, bool flag = false) {
    return createCompositeTask("comp", 0, op, flag, flag, false, 1.0f, a, b);
}

}  // namespace

TEST_F(CompositeTest, AgreesWithOpenImageIO) {
    namespace IBA = OIIO::ImageBufAlgo;
    // OpenImageIO's own worker threads are not built for ThreadSanitizer.
    OIIO::attribute("threads", 1);
    std::vector<float> pa = layerPixels(3), pb = layerPixels(7);
    const OIIO::ImageSpec spec(kW, kH, 4, OIIO::TypeDesc::FLOAT);
    OIIO::ImageBuf A(spec, pa.data()), B(spec, pb.data());
    struct Case {
        CompositeOp op;
        OIIO::ImageBuf expected;
    };
    std::vector<Case> cases;
    cases.push_back({COMPOSITE_OVER, IBA::over(A, B)});
    cases.push_back({COMPOSITE_OVER_PLAIN, IBA::over(A, B)});
    cases.push_back({COMPOSITE_ADD, IBA::add(A, B)});
    cases.push_back({COMPOSITE_MINUS, IBA::sub(A, B)});
    cases.push_back({COMPOSITE_FROM, IBA::sub(B, A)});
    cases.push_back({COMPOSITE_MULTIPLY, IBA::mul(A, B)});
    cases.push_back({COMPOSITE_DIVIDE, IBA::div(A, B)});
    cases.push_back({COMPOSITE_DIFFERENCE, IBA::absdiff(A, B)});
    cases.push_back({COMPOSITE_MIN, IBA::min(A, B)});
    cases.push_back({COMPOSITE_MAX, IBA::max(A, B)});
    for (Case& c : cases) {
        RenderManager::ClearRenderTaskCache();
        const std::vector<float> got = render(composite(c.op, a, b));
        std::vector<float> want(got.size());
        c.expected.get_pixels(OIIO::ROI(0, kW, 0, kH, 0, 1, 0, 4), OIIO::TypeDesc::FLOAT,
                              want.data());
        for (size_t i = 0; i < got.size(); ++i)
            ASSERT_NEAR(got[i], want[i], 1e-6f * std::max(1.0f, std::fabs(want[i])))
                << "operator " << c.op << " value " << i;
    }
}

TEST_F(CompositeTest, InputOrderAndFlagsFollowTheTable) {
    // In, out, atop and under against their definitions (a is the foreground).
    const std::vector<float> pa = layerPixels(3), pb = layerPixels(7);
    auto check = [&](CompositeOp op,
                     const std::function<float(float, float, float, float, int)>& f) {
        RenderManager::ClearRenderTaskCache();
        const std::vector<float> got = render(composite(op, a, b));
        for (size_t p = 0; p < got.size() / 4; ++p)
            for (int c = 0; c < 4; ++c)
                ASSERT_NEAR(got[4 * p + c],
                            f(pa[4 * p + c], pb[4 * p + c], pa[4 * p + 3], pb[4 * p + 3], c), 1e-6f)
                    << "operator " << op;
    };
    check(COMPOSITE_IN, [](float x, float, float, float bA, int) { return x * bA; });
    check(COMPOSITE_OUT, [](float x, float, float, float bA, int) { return x * (1 - bA); });
    check(COMPOSITE_UNDER, [](float x, float y, float, float bA, int) { return y + x * (1 - bA); });
    check(COMPOSITE_ATOP, [](float x, float y, float aA, float bA, int c) {
        return c == 3 ? bA : x * bA + y * (1 - aA);
    });
    check(COMPOSITE_SCREEN, [](float x, float y, float, float, int) { return x + y - x * y; });
    check(COMPOSITE_AVERAGE, [](float x, float y, float, float, int) { return (x + y) / 2; });
    for (int v : {2, 5, 7, 9, 10, 12, 18}) EXPECT_NO_THROW(render(composite(CompositeOp(v), a, b)));
}

TEST_F(CompositeTest, UnknownOperatorsAreRefused) {
    for (int v : {8, 20, -1, 1000}) {
        try {
            createCompositeTask("bad", 0, CompositeOp(v), false, false, false, 1.0f, a, b);
            FAIL() << v;
        } catch (const RenderTaskRenderingException& e) {
            EXPECT_EQ(e.getMessage(), "Couldn't create a composite task of the requested type.");
            EXPECT_EQ(e.getTaskName(), "createCompositeTask");
        }
    }
}

TEST_F(CompositeTest, AMissingInputIsItsBackgroundColour) {
    // a covers the left half, b the right half: each tile has one input only.
    TaskPtr left(new Layer("left", 3, Rect(0, 0, 16, kH)));
    TaskPtr right(new Layer("right", 7, Rect(16, 0, 32, kH)));
    auto pixel = [&](const std::vector<float>& img, int x, int y, int c) {
        return img[(static_cast<size_t>(y) * kW + x) * 4 + c];
    };
    const std::vector<float> over = render(composite(COMPOSITE_OVER, left, right));
    EXPECT_EQ(pixel(over, 5, 3, 0), Layer::at(3, 5, 3).r);    // a's tile copied
    EXPECT_EQ(pixel(over, 20, 3, 3), Layer::at(7, 20, 3).a);  // b's tile copied
    EXPECT_EQ(pixel(over, 36, 3, 3), 0.0f);                   // neither: background
    RenderManager::ClearRenderTaskCache();
    const std::vector<float> multiply = render(composite(COMPOSITE_MULTIPLY, left, right));
    EXPECT_EQ(pixel(multiply, 5, 3, 0), 0.0f);
    RenderManager::ClearRenderTaskCache();
    const std::vector<float> minus = render(composite(COMPOSITE_MINUS, left, right));
    EXPECT_EQ(pixel(minus, 20, 3, 2), -Layer::at(7, 20, 3).b);  // general path: 0 - b

    // A missing input with a background colour is not "nothing": the
    // operator runs with that colour.
    RenderManager::ClearRenderTaskCache();
    TaskPtr tinted(new Layer("tinted", 3, Rect(0, 0, 16, kH), Color(0, 0, 0.5f, 0.5f)));
    const std::vector<float> tint = render(composite(COMPOSITE_OVER, tinted, right));
    const Color under = Layer::at(7, 20, 3);
    EXPECT_NEAR(pixel(tint, 20, 3, 2), 0.5f + under.b * 0.5f, 1e-6f);
}

TEST_F(CompositeTest, CleanupClampAndMixWrappers) {
    TaskPtr clamped = createCompositeTask("c", 0, COMPOSITE_ADD, false, false, true, 1.0f, a, b);
    EXPECT_EQ(clamped->getName(), "c.clamp");
    TaskPtr mixed = createCompositeTask("m", 0, COMPOSITE_OVER, false, false, false, 0.25f, a, b);
    EXPECT_EQ(mixed->getName(), "m.Mix");
    const std::vector<float> got = render(mixed), pa = layerPixels(3), pb = layerPixels(7);
    for (size_t i = 0; i < got.size(); i += 17) {
        const size_t p = i / 4 * 4;
        const float over = pa[i] + pb[i] * (1 - pa[p + 3]);
        ASSERT_NEAR(got[i], pb[i] * 0.75f + over * 0.25f, 1e-6f);
    }
    // A NaN or negative mix counts as 0: b itself.
    for (float m : {std::nanf(""), -3.0f}) {
        RenderManager::ClearRenderTaskCache();
        EXPECT_EQ(render(createCompositeTask("n", 0, COMPOSITE_OVER, false, false, false, m, a, b)),
                  pb);
    }
    RenderManager::ClearRenderTaskCache();
    const std::vector<float> sum = render(clamped);
    for (size_t i = 3; i < sum.size(); i += 4) EXPECT_LE(sum[i], 1.0f);
}

TEST_F(CompositeTest, EveryOperatorGivesTheSamePixelsWhateverTheTiles) {
    // Each input has data in some tiles only, one over a coloured background.
    TaskPtr left(new Layer("left", 3, Rect(0, 0, 21, kH), Color(0.1f, 0.2f, 0.3f, 0.4f)));
    TaskPtr right(new Layer("right", 7, Rect(13, 0, 37, kH)));
    for (int v = 0; v < 20; ++v) {
        if (v == 8) continue;
        for (bool flag : {false, true}) {
            std::vector<float> reference;
            for (int tile : {64, 16, 5}) {
                RenderManager::ClearRenderTaskCache();
                RenderManager::setGlobalTileSize(tile, tile);
                const std::vector<float> got = render(composite(CompositeOp(v), left, right, flag));
                if (reference.empty()) reference = got;
                ASSERT_EQ(std::memcmp(got.data(), reference.data(), got.size() * sizeof(float)), 0)
                    << "operator " << v << " flag " << flag << " tile " << tile;
            }
        }
    }
}

TEST_F(CompositeTest, InputsCoveringPartOfATileAreTheirBackgroundBeyondTheirData) {
    // The inputs' tiles reach the composite as they lie, smaller than its
    // tiles: every pixel is checked against over's closed form.
    const Color tint(0.1f, 0.2f, 0.3f, 0.4f);
    TaskPtr left(new Layer("left", 3, Rect(0, 2, 21, 17), tint));
    TaskPtr right(new Layer("right", 7, Rect(13, 0, 37, kH)));
    for (int tile : {64, 16, 5}) {
        RenderManager::ClearRenderTaskCache();
        RenderManager::setGlobalTileSize(tile, tile);
        const std::vector<float> got = render(composite(COMPOSITE_OVER, left, right));
        for (int y = 0; y < kH; ++y)
            for (int x = 0; x < kW; ++x) {
                const Color fg = x < 21 && y >= 2 && y < 17 ? Layer::at(3, x, y) : tint;
                const Color bg = x >= 13 && x < 37 ? Layer::at(7, x, y) : Color(0, 0, 0, 0);
                const float want[4] = {fg.r + bg.r * (1 - fg.a), fg.g + bg.g * (1 - fg.a),
                                       fg.b + bg.b * (1 - fg.a), fg.a + bg.a * (1 - fg.a)};
                for (int c = 0; c < 4; ++c)
                    ASSERT_NEAR(got[(static_cast<size_t>(y) * kW + x) * 4 + c], want[c], 1e-6f)
                        << "tile " << tile << " pixel " << x << "," << y << " channel " << c;
            }
    }
}

TEST_F(CompositeTest, ChannelsBeyondRGBAComeFromTheInputThatHasThem) {
    const uint64_t rgbaz = IMGLIB::CHANNELS_RGBA | IMGLIB::CHANNEL_Z;
    auto depth = [](float base) {
        return [base](int64_t x, int64_t y, int c) {
            return c == 4 ? base + float(x) : c == 3 ? float((x + y) % 2) : 0.25f;
        };
    };
    TaskPtr flat(new Layer("flat", 3, Rect(0, 0, kW, kH)));
    TaskPtr deep(new FunctionTask("deep", Rect(0, 0, kW, kH), depth(100), rgbaz));
    TaskPtr deepFront(new FunctionTask("front", Rect(0, 0, 20, kH), depth(500), rgbaz));
    auto renderZ = [&](const TaskPtr& task, uint64_t channels) {
        auto observer = make<CollectingObserver>();
        renderSerially({RenderOutput{task, Rect(0, 0, kW, kH), channels, 0}}, observer);
        std::vector<float> z;
        for (int y = 0; y < kH; ++y)
            for (int x = 0; x < kW; ++x) {
                ImageBuffer tile;
                for (ImageBuffer& t : observer->tiles[0])
                    if (t.getBounds().contains(x, y)) tile = t;
                ImageBuffer_LockScoper lock(tile);
                const IMGLIB::Image* image = tile.getImage();
                const int n = IMGLIB::GetChannelCount(image->channels);
                z.push_back(IMGLIB::GetPixelAddress(
                    image, x, y,
                    4 * n)[IMGLIB::GetChannelIndex(image->channels, IMGLIB::CHANNEL_Z)]);
            }
        return z;
    };
    // Only the background has depth: it shows through wherever, also when
    // depth is all that is asked.
    for (uint64_t channels : {rgbaz, uint64_t(IMGLIB::CHANNEL_Z)}) {
        RenderManager::ClearRenderTaskCache();
        const std::vector<float> z = renderZ(composite(COMPOSITE_OVER, flat, deep), channels);
        for (int x = 0; x < kW; ++x) ASSERT_EQ(z[static_cast<size_t>(3 * kW + x)], 100.0f + x);
    }
    // Both have depth: the foreground's where it covers (alpha not 0).
    RenderManager::ClearRenderTaskCache();
    const std::vector<float> z = renderZ(composite(COMPOSITE_OVER, deepFront, deep), rgbaz);
    for (int x = 0; x < kW; ++x) {
        const bool covered = x < 20 && (x + 3) % 2 == 1;
        ASSERT_EQ(z[static_cast<size_t>(3 * kW + x)], covered ? 500.0f + x : 100.0f + x) << x;
    }
}
