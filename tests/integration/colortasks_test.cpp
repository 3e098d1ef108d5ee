// The colour-operation factories rendered end to end.
#include <gtest/gtest.h>

#include <cmath>

#include "colortasks.h"
#include "imglib/pixels.h"
#include "ociotasks.h"
#include "support/serial_render.h"

using namespace TESSERA;
using namespace TESSERA::testing;
using Color = Imath::Color4<float>;
using UTIL::Rect;

namespace {

// A source whose pixel (x, y) is a known colour, alpha varying 0..1.
class Source : public ConstantTask {
public:
    explicit Source(const Color& bg = Color(0, 0, 0, 0))
        : ConstantTask("source", Color(0, 0, 0, 0), Rect(0, 0, 24, 8)) {
        background = bg;
    }
    std::string getTypeString() override { return "Source"; }
    void computeCacheID(CacheIDStream& s) override { s << background; }
    void renderRect(const IMGLIB::Image* out, const std::vector<const IMGLIB::Image*>&) override {
        for (int64_t y = out->y1; y < out->y2; ++y)
            for (int64_t x = out->x1; x < out->x2; ++x) {
                const Color c = at(x, y);
                const float v[4] = {c.r, c.g, c.b, c.a};
                IMGLIB::SetPixel(out, x, y, v);
            }
    }
    static Color at(int64_t x, int64_t y) {
        return Color(0.05f * float(x) - 0.2f, 0.1f * float(y), 1.5f - 0.05f * float(x + y),
                     float(x % 5) / 4.0f);
    }
};

class ColorTasksTest : public ::testing::Test {
protected:
    void SetUp() override {
        RenderManager::ClearRenderTaskCache();
        RenderManager::clearSpeculativeCache();
        RenderManager::setGlobalTileSize(16, 16);
        source = TaskPtr(new Source);
    }
    void TearDown() override {
        RenderManager::setGlobalTileSize(256, 256);
        RenderManager::ClearRenderTaskCache();
    }
    // Renders task over the source's area and checks every pixel.
    void expectPixels(const TaskPtr& task, const std::function<Color(Color)>& expected,
                      float tol = 1e-5f, uint64_t channels = IMGLIB::CHANNELS_RGBA) {
        auto observer = RCX_ptr_v4::ref_ptr<CollectingObserver>(new CollectingObserver);
        renderSerially({RenderOutput{task, Rect(0, 0, 24, 8), channels, 0}}, observer);
        for (int64_t y = 0; y < 8; ++y)
            for (int64_t x = 0; x < 24; ++x) {
                const Color want = expected(Source::at(x, y)), got = observer->pixel(0, x, y);
                for (int c = 0; c < 4; ++c) {
                    if (!(channels & (uint64_t(1) << c))) continue;
                    ASSERT_NEAR(got[c], want[c], tol * std::max(1.0f, std::fabs(want[c])))
                        << task->getName() << " (" << x << "," << y << ") channel " << c;
                }
            }
    }
    TaskPtr source;
};

}  // namespace

TEST_F(ColorTasksTest, ShortCutsReturnTheVeryInput) {
    const Color ones(1, 1, 1, 1), zeros(0, 0, 0, 0);
    EXPECT_EQ(createClampTask("c", 0, zeros, ones, false, false, source).get(), source.get());
    EXPECT_EQ(createGammaTask("g", 0, ones, ones, source).get(), source.get());
    EXPECT_EQ(createExponentialTask("e", 0, ones, ones, source).get(), source.get());
    EXPECT_EQ(createContrastTask("k", 0, ones, zeros, source).get(), source.get());
    EXPECT_EQ(createRGBACurvesTask("r", 0, {}, {}, {}, {}, source).get(), source.get());
    // Anything else builds a task, even a no-op.
    EXPECT_NE(createClampTask("c", 0, zeros, ones, false, true, source).get(), source.get());
    EXPECT_NE(createGainTask("gain", 0, ones, source).get(), source.get());
    // A gamma of (1, 1, 1, 0.5) squares alpha only.
    expectPixels(createGammaTask("g", 0, Color(1, 1, 1, 0.5f), ones, source), [](Color c) {
        c.a = c.a * c.a;
        return c;
    });
}

TEST_F(ColorTasksTest, CacheIDsLeaveInactiveParametersOut) {
    const Color low(0, 0, 0, 0);
    auto a = createClampTask("a", 0, low, Color(1, 1, 1, 1), true, false, source);
    auto b = createClampTask("b", 0, low, Color(5, 5, 5, 5), true, false, source);
    auto c = createClampTask("c", 0, low, Color(5, 5, 5, 5), true, true, source);
    EXPECT_EQ(a->getCacheID(), b->getCacheID());
    EXPECT_NE(a->getCacheID(), c->getCacheID());
    auto t1 = createThresholdTask("t1", 0, low, false, Color(1, 1, 1, 1), true, low, source);
    auto t2 = createThresholdTask("t2", 0, low, false, Color(2, 2, 2, 2), true, low, source);
    EXPECT_EQ(t1->getCacheID(), t2->getCacheID());
}

TEST_F(ColorTasksTest, BackgroundColoursFollowTheOperators) {
    TaskPtr bgSource(new Source(Color(0.5f, 0.25f, 2.0f, 0.5f)));
    EXPECT_EQ(createNContrastBoostTask("n", 0, 0.5f, false, bgSource)->getBackgroundColor().a,
              1.0f);
    EXPECT_EQ(createScreenRGBToAlphaTask("s", 0, 3, bgSource)->getBackgroundColor().a, 0.0f);
    EXPECT_EQ(createMaxRGBToAlphaTask("m", 0, bgSource)->getBackgroundColor().a, 2.0f);
    // Through a chain that render set-up collapses: upstream first.
    auto gain = createGainTask("gain", 0, Color(2, 2, 2, 1), bgSource);
    auto contrast = createContrastTask("k", 0, Color(2, 2, 2, 1), Color(0.5f, 0.5f, 0.5f, 0), gain);
    auto clamp =
        createClampTask("clamp", 0, Color(0, 0, 0, 0), Color(1, 1, 1, 1), true, true, contrast);
    const Color bg = clamp->getBackgroundColor();
    // gain: (1, 0.5, 4, 0.5); contrast: (1.5, 0.5, 7.5, 0.5); clamp: (1, 0.5, 1, 0.5)
    EXPECT_EQ(bg, Color(1, 0.5f, 1, 0.5f));
    expectPixels(clamp, [](Color c) {
        for (int k = 0; k < 3; ++k) c[k] = std::clamp((c[k] * 2 - 0.5f) * 2 + 0.5f, 0.0f, 1.0f);
        c.a = std::clamp(c.a, 0.0f, 1.0f);
        return c;
    });
    EXPECT_EQ(static_cast<InPlaceTask&>(*clamp).getOps().size(), 3u);  // one fused pass
}

TEST_F(ColorTasksTest, ChannelRulesWidenTheRequests) {
    auto observer = RCX_ptr_v4::ref_ptr<CollectingObserver>(new CollectingObserver);
    auto maxToAlpha = createMaxRGBToAlphaTask("max", 0, source);
    const RenderOutput alpha{maxToAlpha, Rect(0, 0, 8, 8), IMGLIB::CHANNEL_A, 0};
    EXPECT_EQ(RenderPlan::setUp({alpha})->findNode(source->imp())->requiredOutputChannels(),
              IMGLIB::CHANNELS_RGBA);
    renderSerially({alpha}, observer);
    EXPECT_NEAR(observer->pixel(0, 3, 2).a,
                std::max({Source::at(3, 2).r, Source::at(3, 2).g, Source::at(3, 2).b}), 1e-6f);
    RenderManager::ClearRenderTaskCache();
    auto compress = createStandardCompressRangeTask("cr", 0, source);
    const RenderOutput red{compress, Rect(0, 0, 8, 8), IMGLIB::CHANNEL_R, 0};
    EXPECT_EQ(RenderPlan::setUp({red})->findNode(source->imp())->requiredOutputChannels(),
              IMGLIB::CHANNELS_RGB);
}

TEST_F(ColorTasksTest, MatrixFamilyAndOpenColorIO) {
    // Gain is a diagonal matrix.
    expectPixels(createGainTask("gain", 0, Color(2, 0.5f, -1, 1), source),
                 [](Color c) { return Color(c.r * 2, c.g * 0.5f, -c.b, c.a); });
    // Full desaturation gives the luma in every channel; a hue turn of 120
    // degrees moves red to green.
    HueShiftParams grey;
    grey.saturation = 0.0f;
    expectPixels(
        createHueShiftTask("grey", 0, grey, source),
        [](Color c) {
            const float l = 0.2126f * c.r + 0.7152f * c.g + 0.0722f * c.b;
            return Color(l, l, l, c.a);
        },
        1e-5f);
    HueShiftParams turn;
    turn.hueShift = 120.0f;
    const Color turned = createHueShiftTask("turn", 0, turn, TaskPtr(new Source(Color(1, 0, 0, 1))))
                             ->getBackgroundColor();
    EXPECT_NEAR(turned.r, 0.0f, 1e-6f);
    EXPECT_NEAR(turned.g, 1.0f, 1e-6f);

    // OpenColorIO: a matrix with an offset, against its formula.
    namespace OCIO = OCIO_NAMESPACE;
    auto matrix = OCIO::MatrixTransform::Create();
    const double m[16] = {0.5, 0.1, 0, 0, 0, 1, 0, 0, 0.2, 0, 2, 0, 0, 0, 0, 1};
    const double offset[4] = {0.01, 0.02, 0.03, 0};
    matrix->setMatrix(m);
    matrix->setOffset(offset);
    auto ocio = createOCIOTransformTask("ocio", 0, matrix, OCIO::TRANSFORM_DIR_FORWARD, source);
    expectPixels(
        ocio,
        [](Color c) {
            return Color(0.5f * c.r + 0.1f * c.g + 0.01f, c.g + 0.02f, 0.2f * c.r + 2 * c.b + 0.03f,
                         c.a);
        },
        1e-5f);
    auto inverse = createOCIOProcessorTask(
        "inverse", 0, OCIO::Config::CreateRaw()->getProcessor(matrix, OCIO::TRANSFORM_DIR_INVERSE),
        ocio);
    expectPixels(
        inverse, [](Color c) { return c; }, 1e-4f);
    for (int c = 0; c < 4; ++c) EXPECT_NEAR(inverse->getBackgroundColor()[c], 0.0f, 1e-6f);
}

TEST_F(ColorTasksTest, EveryFactoryRendersItsFormula) {
    const Color zeros(0, 0, 0, 0);
    expectPixels(createThresholdTask("t", 0, Color(0.5f, 0.5f, 0.5f, 0.5f), true, zeros, true,
                                     Color(1, 1, 1, 1), source),
                 [](Color c) {
                     for (int k = 0; k < 4; ++k) c[k] = c[k] >= 0.5f ? 1.0f : 0.0f;
                     return c;
                 });
    expectPixels(createCleanupClampTask("cc", 0, true, source), [](Color c) {
        for (int k = 0; k < 4; ++k) c[k] = std::clamp(c[k], 0.0f, 1.0f);
        return c;
    });
    expectPixels(createMultInverseTask("mi", 0, source), [](Color c) {
        if (c.a != 0)
            for (int k = 0; k < 3; ++k) c[k] /= c.a;
        return c;
    });
    expectPixels(createInPlaceCopyTask("copy", 0, source), [](Color c) { return c; });
    expectPixels(createPosterizeTask("p", 0, 3, 0, 1, false, true, source), [](Color c) {
        for (int k = 0; k < 3; ++k) c[k] = std::nearbyint(std::clamp(c[k], 0.0f, 1.0f) * 2) / 2;
        return c;
    });
    // Round trips come back where they started.
    expectPixels(
        createHSVConvertTask("back", 0, false, createHSVConvertTask("hsv", 0, true, source)),
        [](Color c) {
            // HSV of negative values is undefined: the source has some in R.
            return c;
        },
        2e-5f, IMGLIB::CHANNELS_RGB | IMGLIB::CHANNEL_A);
    expectPixels(
        createLabTask("rgb", 0, false, createLabTask("lab", 0, true, source)),
        [](Color c) { return c; }, 1e-4f);
    expectPixels(
        createStandardExpandRangeTask("ex", 0, createStandardCompressRangeTask("co", 0, source)),
        [](Color c) { return c; }, 1e-4f);
    const std::vector<float> identity = {0, 0, 1, 1};
    expectPixels(
        createLumaCurvesTask("luma", 0, Imath::Color3<float>(0.3f, 0.6f, 0.1f), identity, source),
        [](Color c) { return c; }, 1e-5f);
    BloomControlSettings bloom;
    bloom.luminance = false;
    bloom.threshold = 0.5f;
    bloom.gain = 0.5f;
    expectPixels(createBloomTask("bloom", 0, bloom, source), [](Color c) {
        for (int k = 0; k < 3; ++k) c[k] = c[k] > 0.5f ? 0.5f + (c[k] - 0.5f) * 0.5f : c[k];
        return c;
    });
    expectPixels(createHSVComponentToAlphaTask("v", 0, HSV_VALUE, source), [](Color c) {
        c.a = std::max({c.r, c.g, c.b});
        return c;
    });
}
