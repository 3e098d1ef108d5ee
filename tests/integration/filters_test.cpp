// The neighbourhood filter family: each member's defining property against
// a closed form or another member, its padding (tiles equal the whole
// frame), its construction rules and its handling of bad sizes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "filtertasks.h"
#include "graphfile.h"
#include "imglib/defocus.h"
#include "imglib/depthoffield.h"
#include "imglib/rankfilters.h"
#include "support/serial_render.h"
#include "support/test_tasks.h"
#include "util/exceptions.h"

using namespace TESSERA;
using namespace TESSERA::testing;
using Color = Imath::Color4<float>;
using UTIL::Rect;

namespace {

const Rect kArea(0, 0, 61, 47);

// A hash-like pattern in every channel, alpha in (0, 1].
float noise(int64_t x, int64_t y, int c) {
    const int64_t h = (x * 7919 + y * 104729 + c * 7307) % 1009;
    return c == 3 ? 0.25f + float(h % 4) * 0.25f : float(h) / 1009.0f;
}

TaskPtr pattern(const std::string& tag, const Rect& area, FunctionTask::Pattern f,
                uint64_t channels = IMGLIB::CHANNELS_RGBA) {
    return make<FunctionTask>(tag, area, std::move(f), channels);
}

// The same value in R, G, B; alpha 1.
TaskPtr grey(const std::string& tag, const Rect& area, std::function<float(int64_t, int64_t)> f) {
    return pattern(tag, area, [f](int64_t x, int64_t y, int c) { return c == 3 ? 1.0f : f(x, y); });
}

// A single channel (depth, vectors) of a function.
TaskPtr channelPattern(const std::string& tag, const Rect& area, uint64_t channels,
                       std::function<float(int64_t, int64_t, int)> f) {
    return pattern(tag, area, std::move(f), channels);
}

class FilterTest : public ::testing::Test {
protected:
    void SetUp() override {
        RenderManager::ClearRenderTaskCache();
        RenderManager::clearSpeculativeCache();
    }
    std::vector<Color> render(const TaskPtr& task, const Rect& rect, int tile = 1024) {
        return renderPixels(task, rect, tile);
    }
    static Color at(const std::vector<Color>& pixels, const Rect& rect, int64_t x, int64_t y) {
        return pixels[static_cast<size_t>((y - rect.ymin) * rect.width() + (x - rect.xmin))];
    }
    static void expectNear(const std::vector<Color>& got, const std::vector<Color>& want,
                           float tolerance, const std::string& what) {
        ASSERT_EQ(got.size(), want.size()) << what;
        for (size_t i = 0; i < got.size(); ++i)
            for (int c = 0; c < 4; ++c)
                ASSERT_NEAR(got[i][c], want[i][c], tolerance)
                    << what << " pixel " << i << " c" << c;
    }
};

}  // namespace

// Every member rendered in small odd tiles equals the same render in one
// tile: the padding covers each operator's reach, region growth included.
TEST_F(FilterTest, EveryMemberRendersTheSamePixelsInTilesAsWhole) {
    TaskPtr image = pattern("noise", kArea, noise);
    TaskPtr control = pattern("control", kArea, [](int64_t x, int64_t y, int c) {
        return c == 3 ? float((x + 2 * y) % 9) / 8.0f : 0.0f;
    });
    TaskPtr depth = channelPattern("depth", kArea, IMGLIB::CHANNEL_Z, [](int64_t x, int64_t, int) {
        return x < 30 ? 5.0f : 1.0f + 0.1f * float(x % 5);
    });
    TaskPtr vectors = channelPattern("vectors", kArea, IMGLIB::CHANNEL_U | IMGLIB::CHANNEL_V,
                                     [](int64_t x, int64_t y, int c) {
                                         return c == 5 ? float(x % 7) - 3.0f : float(y % 5) - 2.0f;
                                     });
    TaskPtr kernel = pattern("kernel", Rect(0, 0, 4, 3), [](int64_t x, int64_t y, int) {
        return float(1 + x + 2 * y) / 20.0f;
    });
    const BloomControlSettings bloom = noBloom();

    IMGLIB::RadialBlurParams zoom;
    zoom.centreX = 20.5f, zoom.centreY = 30.0f, zoom.amount = 0.3f, zoom.samples = 8;
    IMGLIB::RadialBlurParams spin = zoom;
    spin.type = IMGLIB::RADIAL_SPIN, spin.amount = 25.0f;
    DefocusParams hexagon;
    hexagon.size = 9.0f, hexagon.blades = 6, hexagon.rotation = 15.0f, hexagon.aspect = 1.5f;
    ImageDefocusParams imageDefocus;
    imageDefocus.defocus.size = 7.0f, imageDefocus.layers = 4;
    ImageBlurParams imageBlur;
    imageBlur.sizeX = 9.0f, imageBlur.sizeY = 5.0f, imageBlur.layers = 3;
    DirectionalBlurParams line;
    line.length = 9.0f, line.angle = 30.0f, line.offset = 0.5f;
    DirectionalBlurParams nearestLine = line;
    nearestLine.bilinear = false, nearestLine.filter = IMGLIB::KERNEL_TRIANGLE;
    VectorBlurParams gather;
    gather.vectors.maxLength = 6.0f;
    VectorBlurParams splat = gather;
    splat.splat = true;
    MedianFilterParams median;
    median.sizeX = 5, median.sizeY = 3, median.circular = true;
    ErodeDilateParams erode{-2.5f, 1.0f};
    BilateralFilterParams bilateral{3, 2, 2.0f, 0.2f};
    EdgeDetectParams babuSelect{EDGE_BABU, true, 0.05f};
    EdgeDetectParams sobel{EDGE_SOBEL, false, 0.0f};
    GlintParams glint{5, 7.0f, 10.0f};
    DepthOfFieldParams dof;
    dof.lens.maxCoc = 6.0f, dof.layers = 3, dof.lens.fStop = 1.4f;
    DepthOfFieldParams physical = dof;
    physical.physical = true;
    PerChannelBlurParameters blur;
    blur.blur.sizeX = 6.5f, blur.blur.sizeY = 3.0f;
    blur.blur.extendMethod = IMGLIB::EXTEND_MIRROR;

    const std::vector<std::pair<std::string, TaskPtr>> members = {
        {"blur", createBlur("blur", 0, blur, image)},
        {"defocus", createDefocusTask("defocus", 0, hexagon, image, true)},
        {"hard defocus", createDefocusTask("hard", 0, hexagon, image, false)},
        {"image defocus", createImageDefocusTask("imageDefocus", 0, imageDefocus, image, control)},
        {"image blur", createImageBlur("imageBlur", 0, imageBlur, bloom, image, control)},
        {"convolve", createImageConvolveTask("convolve", 0, true, {}, image, kernel)},
        {"energy", createEnergyNormalizationTask("energy", 0, Rect(0, 0, 4, 3), kernel)},
        {"zoom", createRadialBlur("zoom", 0, zoom, IMGLIB::EXTEND_CLAMP, false, Rect(), image)},
        {"spin",
         createRadialBlur("spin", 0, spin, IMGLIB::EXTEND_BACKGROUND, false, Rect(), image)},
        {"line", createDirectionalBlur("line", 0, line, bloom, image)},
        {"nearest line", createDirectionalBlur("nearestLine", 0, nearestLine, bloom, image)},
        {"vector gather", createVectorBlur("gather", 0, gather, bloom, image, vectors)},
        {"vector splat", createVectorBlur("splat", 0, splat, bloom, image, vectors)},
        {"median", createMedianFilterTask("median", 0, median, image)},
        {"erode", createErodeDilateTask("erode", 0, erode, image)},
        {"bilateral", createBilateralFilterTask("bilateral", 0, bilateral, image)},
        {"babu select", createEdgeDetectTask("babu", 0, babuSelect, image)},
        {"sobel", createEdgeDetectTask("sobel", 0, sobel, image)},
        {"unsharp", createUnSharpTask("unsharp", 0, Color(1.5f), Color(0.01f), image,
                                      createBlur("soft", 0, blur, image))},
        {"perimeter", createPerimeterExtendTask("perimeter", 0, 3.5f, image)},
        {"glint", createGlintTask("glint", 0, true, glint, image,
                                  createGlintControlTask("gc", 0, {0.5f, 2.0f}, image))},
        {"coc max", createCircleOfConfusionTask("cocMax", 0, dof, IMGLIB::CHANNEL_R,
                                                COC_OUTPUT_MAXIMAL, depth)},
        {"dof", createDepthOfFieldTask("dof", 0, dof, bloom, image, depth, control)},
        {"physical dof", createDepthOfFieldTask("pdof", 0, physical, bloom, image, depth, nullptr)},
        {"depth cleanup", createDOFDepthCleanupTask("clean", 0, dof, depth)},
    };
    const Rect rect(-9, -7, 70, 55);
    for (const auto& [what, task] : members) {
        const std::vector<Color> whole = render(task, rect);
        RenderManager::ClearRenderTaskCache();
        expectNear(render(task, rect, 13), whole, 2e-5f, what);
        RenderManager::ClearRenderTaskCache();
    }
}

TEST_F(FilterTest, MedianRemovesSaltAndPepperAndKeepsEdges) {
    // A step edge with isolated impulses none of which share a 3x3 window.
    const auto clean = [](int64_t x, int64_t) { return x < 30 ? 0.2f : 0.7f; };
    const auto impulse = [](int64_t x, int64_t y) {
        return (x % 6 == 3 && y % 6 == 3 && x != 27 && x != 33) ? (x % 12 == 3 ? 5.0f : -5.0f)
                                                                : 0.0f;
    };
    TaskPtr noisy =
        grey("impulses", kArea, [&](int64_t x, int64_t y) { return clean(x, y) + impulse(x, y); });
    const Rect inside(2, 2, 59, 45);
    const std::vector<Color> got =
        render(createMedianFilterTask("m", 0, {3, 3, false, 0}, noisy), inside);
    for (int64_t y = inside.ymin; y < inside.ymax; ++y)
        for (int64_t x = inside.xmin; x < inside.xmax; ++x)
            ASSERT_EQ(at(got, inside, x, y).r, clean(x, y)) << x << "," << y;
    // Above the impulses' height nothing counts as an outlier.
    const std::vector<Color> kept =
        render(createMedianFilterTask("k", 0, {3, 3, false, 6.0f}, noisy), inside);
    EXPECT_EQ(at(kept, inside, 3, 3).r, 0.2f + 5.0f);
    // Any 3x3 window, with NaN sorting after every number.
    const auto value = [](int64_t x, int64_t y, int c) {
        return x == 20 && y == 20 ? std::nanf("") : noise(x, y, c);
    };
    TaskPtr random = pattern("random", kArea, value);
    const std::vector<Color> median =
        render(createMedianFilterTask("r", 0, {3, 3, false, 0}, random), inside);
    for (int64_t y = inside.ymin; y < inside.ymax; ++y)
        for (int64_t x = inside.xmin; x < inside.xmax; ++x)
            for (int c = 0; c < 4; ++c) {
                std::vector<float> window;
                for (int64_t dy = -1; dy <= 1; ++dy)
                    for (int64_t dx = -1; dx <= 1; ++dx) window.push_back(value(x + dx, y + dy, c));
                std::sort(window.begin(), window.end(), [](float a, float b) {
                    return !std::isnan(a) && (std::isnan(b) || a < b);
                });
                ASSERT_EQ(at(median, inside, x, y)[c], window[4]) << x << "," << y;
            }
    EXPECT_EQ(IMGLIB::GetMedianPadding(3.0f), 1);
    EXPECT_EQ(IMGLIB::GetMedianPadding(std::nanf("")), 0);
}

TEST_F(FilterTest, ErodeAndDilateMoveASquaresEdgesByTheRadius) {
    TaskPtr square = grey("square", Rect(0, 0, 50, 50), [](int64_t x, int64_t y) {
        return x >= 20 && x < 30 && y >= 20 && y < 30 ? 1.0f : 0.0f;
    });
    const Rect rect(10, 10, 40, 40);
    const auto inBox = [](int64_t x, int64_t y, int64_t lo, int64_t hi) {
        return x >= lo && x < hi && y >= lo && y < hi;
    };
    const std::vector<Color> grown = render(createErodeDilateTask("d", 0, {3, 3}, square), rect);
    const std::vector<Color> shrunk = render(createErodeDilateTask("e", 0, {-3, -3}, square), rect);
    const std::vector<Color> half = render(createErodeDilateTask("h", 0, {2.5f, 0}, square), rect);
    for (int64_t y = rect.ymin; y < rect.ymax; ++y)
        for (int64_t x = rect.xmin; x < rect.xmax; ++x) {
            ASSERT_EQ(at(grown, rect, x, y).r, inBox(x, y, 17, 33) ? 1.0f : 0.0f) << x << "," << y;
            ASSERT_EQ(at(shrunk, rect, x, y).r, inBox(x, y, 23, 27) ? 1.0f : 0.0f) << x << "," << y;
            const bool rows = y >= 20 && y < 30;
            const float expectHalf = !rows                  ? 0.0f
                                     : (x >= 18 && x < 32)  ? 1.0f
                                     : (x == 17 || x == 32) ? 0.5f
                                                            : 0.0f;
            ASSERT_EQ(at(half, rect, x, y).r, expectHalf) << x << "," << y;
        }
}

TEST_F(FilterTest, BilateralSmoothsNoiseButNotAcrossAnEdge) {
    TaskPtr image = grey("noisyEdge", kArea, [](int64_t x, int64_t y) {
        return (x < 30 ? 0.2f : 0.8f) + ((x + y) % 2 ? 0.01f : -0.01f);
    });
    const Rect rect(5, 5, 55, 40);
    const std::vector<Color> got =
        render(createBilateralFilterTask("b", 0, {2, 2, 2.0f, 0.05f}, image), rect);
    for (int64_t y = rect.ymin; y < rect.ymax; ++y)
        for (int64_t x = rect.xmin; x < rect.xmax; ++x) {
            const float side = x < 30 ? 0.2f : 0.8f;
            ASSERT_NEAR(at(got, rect, x, y).r, side, 0.005f) << x << "," << y;
        }
    // Images without alpha take the general path: the same weights.
    TaskPtr rgb = pattern("rgb", kArea, noise, IMGLIB::CHANNELS_RGB);
    TaskPtr rgba = pattern("rgba", kArea, noise);
    const std::vector<Color> general =
        render(createBilateralFilterTask("g", 0, {3, 2, 2.0f, 0.3f}, rgb), rect);
    const std::vector<Color> vector =
        render(createBilateralFilterTask("v", 0, {3, 2, 2.0f, 0.3f}, rgba), rect);
    for (size_t i = 0; i < general.size(); ++i)
        for (int c = 0; c < 3; ++c) ASSERT_NEAR(general[i][c], vector[i][c], 2e-5f) << i;
}

TEST_F(FilterTest, EdgeDetectorsFindAStepWhereItIs) {
    TaskPtr step = grey("step", kArea, [](int64_t x, int64_t) { return x < 20 ? 0.0f : 1.0f; });
    const Rect rect(5, 5, 40, 40);
    const auto run = [&](EdgeDetectMethod method, bool select) {
        return render(createEdgeDetectTask("edges", 0, {method, select, 0.1f}, step), rect);
    };
    const std::vector<Color> sobel = run(EDGE_SOBEL, false), babu = run(EDGE_BABU, false);
    const std::vector<Color> sobelSelect = run(EDGE_SOBEL, true), babuSelect = run(EDGE_BABU, true);
    for (int64_t x = rect.xmin; x < rect.xmax; ++x) {
        const float sobelWant = x == 19 || x == 20 ? 1.0f : 0.0f;
        const float babuWant = x == 19 || x == 20 ? 1.0f : (x == 18 || x == 21 ? 0.5f : 0.0f);
        for (int64_t y : {10, 25}) {
            EXPECT_NEAR(at(sobel, rect, x, y).r, sobelWant, 1e-6f) << x;
            EXPECT_NEAR(at(babu, rect, x, y).g, babuWant, 1e-6f) << x;
            EXPECT_EQ(at(sobelSelect, rect, x, y).b, x == 19 ? 1.0f : 0.0f) << x;
            EXPECT_EQ(at(babuSelect, rect, x, y).r, x == 19 ? 1.0f : 0.0f) << x;
            EXPECT_EQ(at(sobel, rect, x, y).a, 0.0f);  // constant alpha has no edges
        }
    }
}

TEST_F(FilterTest, DefocusSpreadsAPointOverTheAperture) {
    int64_t padX, padY;
    IMGLIB::GetDefocusPadding(9, 1, 0, 0, true, padX, padY);
    EXPECT_EQ(padX, 4);
    EXPECT_EQ(padY, 4);
    IMGLIB::GetDefocusPadding(10, 2, 6, 30, false, padX, padY);
    EXPECT_EQ(padX, 5);
    EXPECT_EQ(padY, 10);
    IMGLIB::GetDefocusPadding(std::nanf(""), 1, 0, 0, true, padX, padY);
    EXPECT_EQ(padX + padY, 0);

    TaskPtr point = grey("point", Rect(0, 0, 51, 51),
                         [](int64_t x, int64_t y) { return x == 25 && y == 25 ? 1.0f : 0.0f; });
    const Rect rect(0, 0, 51, 51);
    DefocusParams disc;
    disc.size = 9.0f;
    const std::vector<Color> hard = render(createDefocusTask("hard", 0, disc, point, false), rect);
    int inside = 0;
    for (int64_t dy = -4; dy <= 4; ++dy)
        for (int64_t dx = -4; dx <= 4; ++dx) inside += dx * dx + dy * dy <= 4.5 * 4.5;
    double total = 0;
    for (int64_t y = 0; y < 51; ++y)
        for (int64_t x = 0; x < 51; ++x) {
            const double d2 = double((x - 25) * (x - 25) + (y - 25) * (y - 25));
            ASSERT_NEAR(at(hard, rect, x, y).r, d2 <= 4.5 * 4.5 ? 1.0f / float(inside) : 0.0f,
                        1e-6f);
            total += at(hard, rect, x, y).r;
        }
    EXPECT_NEAR(total, 1.0, 1e-5);
    // A smooth hexagon keeps the energy and a constant image constant.
    disc.blades = 6, disc.rotation = 10.0f;
    const std::vector<Color> hexagon = render(createDefocusTask("hex", 0, disc, point, true), rect);
    total = 0;
    for (const Color& c : hexagon) total += c.r;
    EXPECT_NEAR(total, 1.0, 1e-5);
    // An aperture far larger than the image takes in all of it from anywhere
    // near: every pixel is the image's sum over the aperture's pixel count.
    TaskPtr flat = grey("flat", Rect(0, 0, 51, 51), [](int64_t, int64_t) { return 0.3f; });
    disc.size = 501.0f, disc.blades = 0;
    int64_t count = 0;
    for (int64_t dy = -250; dy <= 250; ++dy)
        for (int64_t dx = -250; dx <= 250; ++dx) count += dx * dx + dy * dy <= 250 * 250 + 250;
    const std::vector<Color> huge =
        render(createDefocusTask("huge", 0, disc, flat, false), Rect(20, 20, 30, 30));
    for (const Color& c : huge) ASSERT_NEAR(c.r, 0.3 * 51 * 51 / double(count), 1e-6);
}

TEST_F(FilterTest, ControlImagesPickTheBlurSizeLayerByLayer) {
    TaskPtr image = pattern("noise", kArea, noise);
    const auto constant = [](float alpha) {
        return pattern("alpha" + std::to_string(alpha), kArea,
                       [alpha](int64_t, int64_t, int c) { return c == 3 ? alpha : 0.0f; });
    };
    const Rect rect(5, 5, 56, 42);
    ImageBlurParams params;
    params.sizeX = 12.0f, params.sizeY = 6.0f, params.layers = 2;
    PerChannelBlurParameters reference;
    reference.blur.sizeX = 12.0f, reference.blur.sizeY = 6.0f;
    const std::vector<Color> full = render(createBlur("ref", 0, reference, image), rect);
    reference.blur.sizeX = 6.0f, reference.blur.sizeY = 3.0f;
    const std::vector<Color> half = render(createBlur("half", 0, reference, image), rect);
    const BloomControlSettings bloom = noBloom();
    expectNear(render(createImageBlur("ib1", 0, params, bloom, image, constant(1.0f)), rect), full,
               1e-5f, "control 1");
    expectNear(render(createImageBlur("ib5", 0, params, bloom, image, constant(0.5f)), rect), half,
               1e-5f, "control 1/2");
    expectNear(render(createImageBlur("ib0", 0, params, bloom, image, constant(0.0f)), rect),
               render(image, rect), 0.0f, "control 0");

    ImageDefocusParams defocus;
    defocus.defocus.size = 8.0f, defocus.layers = 4;
    expectNear(render(createImageDefocusTask("id", 0, defocus, image, constant(2.0f)), rect),
               render(createDefocusTask("d", 0, defocus.defocus, image, true), rect), 1e-5f,
               "defocus at full size");
    EXPECT_THROW(createImageBlur("x", 0, params, bloom, image, nullptr), UTIL::ErrorException);
    // A bloom other than none goes in front of the blur.
    TaskPtr bloomed = createImageBlur("bl", 0, params, BloomControlSettings(), image, constant(1));
    EXPECT_EQ(bloomed->imp().getInputTask(0)->getName(), "bl.Bloom");
}

TEST_F(FilterTest, ImageConvolutionAndEnergyNormalization) {
    TaskPtr image = pattern("noise", kArea, noise);
    TaskPtr ones = grey("ones", Rect(0, 0, 3, 3), [](int64_t, int64_t) { return 1.0f; });
    const Rect rect(2, 2, 58, 44);
    PerChannelBlurParameters box;
    box.blur.sizeX = box.blur.sizeY = 3.0f;
    box.blur.filterX = box.blur.filterY = IMGLIB::KERNEL_BOX;
    expectNear(render(createImageConvolveTask("c", 0, true, {}, image, ones), rect),
               render(createBlur("box", 0, box, image), rect), 1e-6f, "3x3 mean");
    // A kernel whose only weight sits one pixel right of its centre moves
    // the image one pixel right.
    TaskPtr shift =
        grey("shift", Rect(0, 0, 3, 1), [](int64_t x, int64_t) { return x == 2 ? 1.0f : 0.0f; });
    const std::vector<Color> moved =
        render(createImageConvolveTask("s", 0, false, {}, image, shift), rect);
    const std::vector<Color> original = render(image, Rect(1, 2, 57, 44));
    for (int64_t y = rect.ymin; y < rect.ymax; ++y)
        for (int64_t x = rect.xmin; x < rect.xmax; ++x)
            ASSERT_EQ(at(moved, rect, x, y).g, at(original, Rect(1, 2, 57, 44), x - 1, y).g);

    TaskPtr twos = grey("twos", Rect(0, 0, 2, 2), [](int64_t, int64_t) { return 2.0f; });
    const std::vector<Color> unit =
        render(createEnergyNormalizationTask("e", 0, Rect(0, 0, 2, 2), twos), Rect(0, 0, 2, 2));
    for (const Color& c : unit) EXPECT_FLOAT_EQ(c.r, 0.25f);

    const auto message = [](const std::function<void()>& f) {
        try {
            f();
        } catch (const UTIL::ErrorException& e) {
            return std::string(e.what());
        }
        return std::string("no error");
    };
    EXPECT_EQ(message([&] { createImageConvolveTask("c", 0, true, {}, nullptr, ones); }),
              "ImageConvolve requires an input.");
    EXPECT_EQ(message([&] { createImageConvolveTask("c", 0, true, {}, image, nullptr); }),
              "ImageConvolve requires an kernel input.");
    EXPECT_EQ(message([&] { createEnergyNormalizationTask("e", 0, Rect(), nullptr); }),
              "EnergyNormalization requires an kernel input.");
    for (TaskPtr task : {createEnergyNormalizationTask("e", 0, Rect(), ones),
                         createImageConvolveTask("c", 0, true, {}, image, ones)}) {
        task->getCacheID();  // describes the task, its type included
        EXPECT_EQ(task->imp().m_typeString,
                  task->getName() == "e" ? "EnergyNormalization" : "ImageConvolve");
    }
}

TEST_F(FilterTest, RadialBlurLeavesTheCentreAndAveragesAlongRays) {
    // Pixel values equal to x: linear, so bilinear reads are exact and a
    // zoom's mean along a ray has a closed form.
    TaskPtr ramp = grey("ramp", Rect(0, 0, 80, 60), [](int64_t x, int64_t) { return float(x); });
    IMGLIB::RadialBlurParams p;
    p.centreX = 40.5f, p.centreY = 30.5f, p.amount = 0.4f, p.samples = 9;
    const Rect rect(20, 20, 60, 40);
    const std::vector<Color> zoom =
        render(createRadialBlur("z", 0, p, IMGLIB::EXTEND_BACKGROUND, false, Rect(), ramp), rect);
    for (int64_t y = rect.ymin; y < rect.ymax; ++y)
        for (int64_t x = rect.xmin; x < rect.xmax; ++x) {
            const double want = p.centreX + (x + 0.5 - p.centreX) * (1.0 - p.amount / 2.0) - 0.5;
            ASSERT_NEAR(at(zoom, rect, x, y).r, want, 1e-4) << x << "," << y;
        }
    p.type = IMGLIB::RADIAL_SPIN, p.amount = 90.0f;
    const std::vector<Color> spin =
        render(createRadialBlur("s", 0, p, IMGLIB::EXTEND_BACKGROUND, false, Rect(), ramp), rect);
    EXPECT_EQ(at(spin, rect, 40, 30).r, 40.0f);
    EXPECT_LT(at(spin, rect, 49, 30).r, 48.5f);  // an arc bends back towards the centre
    // The zoom reaches out of the data by the inverse of its shortest scale.
    UTIL::Rect reached;
    p.type = IMGLIB::RADIAL_ZOOM, p.amount = 0.5f, p.centreX = 0.0f, p.centreY = 0.0f;
    IMGLIB::GetRadialBlurredOutputRect(Rect(0, 0, 10, 10), reached, p);
    EXPECT_TRUE(reached.contains(Rect(0, 0, 20, 20))) << reached;
    p.amount = 1.0f;
    EXPECT_THROW(createRadialBlur("bad", 0, p, IMGLIB::EXTEND_CLAMP, false, Rect(), ramp),
                 UTIL::ErrorException);
}

TEST_F(FilterTest, DirectionalAndVectorBlursFollowTheirLines) {
    // A linear image is its own mean along a centred line; a line wholly
    // ahead reads it half a length further on.
    TaskPtr plane = grey("plane", Rect(0, 0, 80, 60),
                         [](int64_t x, int64_t y) { return 0.1f * float(x) + 0.05f * float(y); });
    const Rect rect(20, 20, 60, 40);
    DirectionalBlurParams line;
    line.length = 7.0f, line.angle = 30.0f;
    const BloomControlSettings none = noBloom();
    expectNear(render(createDirectionalBlur("l", 0, line, none, plane), rect), render(plane, rect),
               1e-4f, "centred line");
    line.offset = 1.0f;
    const std::vector<Color> ahead = render(createDirectionalBlur("a", 0, line, none, plane), rect);
    const float shift = 3.5f * (0.1f * std::cos(0.5235988f) - 0.05f * std::sin(0.5235988f));
    EXPECT_NEAR(at(ahead, rect, 30, 30).r, 0.1f * 30 + 0.05f * 30 + shift, 1e-4f);

    // A bright square moving right: gathering keeps the still background as
    // it is; splatting smears the square over it.
    TaskPtr square = grey("sq", Rect(0, 0, 60, 40), [](int64_t x, int64_t y) {
        return x >= 20 && x < 30 && y >= 10 && y < 20 ? 1.0f : 0.0f;
    });
    TaskPtr motion =
        channelPattern("motion", Rect(0, 0, 60, 40), IMGLIB::CHANNEL_U | IMGLIB::CHANNEL_V,
                       [](int64_t x, int64_t y, int c) {
                           return c == 5 && x >= 20 && x < 30 && y >= 10 && y < 20 ? 8.0f : 0.0f;
                       });
    VectorBlurParams params;
    const Rect strip(18, 15, 36, 16);
    const std::vector<Color> gathered =
        render(createVectorBlur("g", 0, params, none, square, motion), strip);
    params.splat = true;
    const std::vector<Color> splatted =
        render(createVectorBlur("s", 0, params, none, square, motion), strip);
    EXPECT_EQ(at(gathered, strip, 31, 15).r, 0.0f);
    EXPECT_GT(at(splatted, strip, 31, 15).r, 0.1f);
    EXPECT_EQ(at(splatted, strip, 35, 15).r, 0.0f);  // beyond half the motion
    EXPECT_THROW(createVectorBlur("v", 0, params, none, square, nullptr), UTIL::ErrorException);
}

TEST_F(FilterTest, UnsharpMaskSteepensAnEdgeAndPerimeterExtendCarriesColourOut) {
    TaskPtr step = grey("step", kArea, [](int64_t x, int64_t) { return x < 30 ? 0.2f : 0.8f; });
    PerChannelBlurParameters soft;
    soft.blur.sizeX = soft.blur.sizeY = 7.0f;
    soft.blur.extendMethod = IMGLIB::EXTEND_CLAMP;
    TaskPtr blurred = createBlur("soft", 0, soft, step);
    const Rect rect(10, 20, 50, 21);
    const std::vector<Color> b = render(blurred, rect);
    const std::vector<Color> sharp =
        render(createUnSharpTask("u", 0, Color(2.0f), Color(0.05f), step, blurred), rect);
    for (int64_t x = rect.xmin; x < rect.xmax; ++x) {
        const float in = x < 30 ? 0.2f : 0.8f, detail = in - at(b, rect, x, 20).r;
        const float want = std::fabs(detail) > 0.05f ? in + 2.0f * detail : in;
        EXPECT_NEAR(at(sharp, rect, x, 20).r, want, 1e-6f) << x;
    }
    EXPECT_LT(at(sharp, rect, 29, 20).r, 0.2f);
    EXPECT_GT(at(sharp, rect, 30, 20).r, 0.8f);

    TaskPtr matte = pattern("matte", Rect(0, 0, 50, 50), [](int64_t x, int64_t y, int c) {
        const bool in = x >= 20 && x < 30 && y >= 20 && y < 30;
        const float premultiplied[4] = {0.4f, 0.2f, 0.1f, 0.5f};
        return in ? premultiplied[c] : 0.0f;
    });
    const Rect area(15, 15, 35, 35);
    const std::vector<Color> extended =
        render(createPerimeterExtendTask("p", 0, 3.0f, matte), area);
    EXPECT_EQ(at(extended, area, 31, 25), Color(0.8f, 0.4f, 0.2f, 0.0f));  // 2 from the edge
    EXPECT_EQ(at(extended, area, 31, 31), Color(0.8f, 0.4f, 0.2f, 0.0f));  // sqrt(8) away
    EXPECT_EQ(at(extended, area, 33, 25), Color(0, 0, 0, 0));              // 4 away
    EXPECT_EQ(at(extended, area, 32, 32), Color(0, 0, 0, 0));              // sqrt(18) away
    EXPECT_EQ(at(extended, area, 25, 25), Color(0.4f, 0.2f, 0.1f, 0.5f));
}

TEST_F(FilterTest, GlintStreaksCarryTheHighlightOncePerRay) {
    TaskPtr point = pattern("spark", Rect(0, 0, 61, 61), [](int64_t x, int64_t y, int c) {
        return x == 30 && y == 30 ? (c == 3 ? 1.0f : 3.0f) : 0.0f;
    });
    TaskPtr highlights = createGlintControlTask("gc", 0, {1.0f, 1.0f}, point);
    const Rect rect(0, 0, 61, 61);
    const std::vector<Color> control = render(highlights, rect);
    EXPECT_NEAR(at(control, rect, 30, 30).r, 2.0f, 1e-6f);  // 3 x (3 - 1) / 3
    EXPECT_NEAR(at(control, rect, 30, 30).a, 2.0f, 1e-6f);
    const std::vector<Color> glint =
        render(createGlintTask("g", 0, false, {4, 10.0f, 0.0f}, point, highlights), rect);
    double arms[4] = {0, 0, 0, 0};
    for (int k = 1; k <= 12; ++k) {
        arms[0] += at(glint, rect, 30 + k, 30).r;
        arms[1] += at(glint, rect, 30, 30 - k).r;
        arms[2] += at(glint, rect, 30 - k, 30).r;
        arms[3] += at(glint, rect, 30, 30 + k).r;
    }
    for (double arm : arms) EXPECT_NEAR(arm, 2.0, 1e-4);
    EXPECT_EQ(at(glint, rect, 30, 30).r, 0.0f);
    EXPECT_EQ(at(glint, rect, 35, 35).r, 0.0f);
    EXPECT_GT(at(glint, rect, 31, 30).r, at(glint, rect, 38, 30).r);  // fading out
}

TEST_F(FilterTest, DepthOfFieldFollowsTheThinLens) {
    DepthOfFieldParams p;
    p.lens.focalLength = 50, p.lens.fStop = 2, p.lens.focusDistance = 5;
    p.lens.filmBackWidth = 36, p.lens.imageWidth = 1920, p.lens.maxCoc = 1000;
    const double pixelsPerMm = 1920.0 / 36.0, aperture = 25.0;
    const double at10 = aperture * 50 * 5000 / (10000.0 * 4950) * pixelsPerMm;
    const double atInfinity = aperture * 50 / 4950.0 * pixelsPerMm;
    EXPECT_NEAR(IMGLIB::CircleOfConfusion(p.lens, 10.0f), at10, 1e-4);
    EXPECT_NEAR(IMGLIB::CircleOfConfusion(p.lens, 5.0f), 0.0, 1e-6);
    EXPECT_NEAR(IMGLIB::CircleOfConfusion(p.lens, 0.0f), atInfinity, 1e-4);
    EXPECT_NEAR(IMGLIB::CircleOfConfusion(p.lens, std::nanf("")), atInfinity, 1e-4);

    // Minimal and maximal circles across a boundary between in focus (left)
    // and 10 m away (right), within half the largest circle.
    p.lens.maxCoc = 8.0f;
    TaskPtr depth = channelPattern("depth", kArea, IMGLIB::CHANNEL_Z,
                                   [](int64_t x, int64_t, int) { return x < 30 ? 5.0f : 10.0f; });
    const Rect row(20, 20, 40, 21);
    const auto coc = [&](CircleOfConfusionOutputType type) {
        return render(createCircleOfConfusionTask("coc", 0, p, IMGLIB::CHANNEL_R, type, depth),
                      row);
    };
    const std::vector<Color> own = coc(COC_OUTPUT_COC), low = coc(COC_OUTPUT_MINIMAL),
                             high = coc(COC_OUTPUT_MAXIMAL);
    for (int64_t x = row.xmin; x < row.xmax; ++x) {
        EXPECT_NEAR(at(own, row, x, 20).r, x < 30 ? 0.0 : at10, 1e-4) << x;
        EXPECT_NEAR(at(high, row, x, 20).r, x < 26 ? 0.0 : at10, 1e-4) << x;
        EXPECT_NEAR(at(low, row, x, 20).r, x < 34 ? 0.0 : at10, 1e-4) << x;
    }

    // All in focus: the image as it is. All at infinity (circle clamped to
    // maxCoc): the defocus of maxCoc. A mask of alpha 0: the image.
    TaskPtr image = pattern("noise", kArea, noise);
    TaskPtr focused = channelPattern("focused", kArea, IMGLIB::CHANNEL_Z,
                                     [](int64_t, int64_t, int) { return 5.0f; });
    TaskPtr far =
        channelPattern("far", kArea, IMGLIB::CHANNEL_Z, [](int64_t, int64_t, int) { return 0.0f; });
    TaskPtr clear = pattern("clear", kArea, [](int64_t, int64_t, int) { return 0.0f; });
    const Rect rect(8, 8, 52, 38);
    const BloomControlSettings none = noBloom();
    const std::vector<Color> original = render(image, rect);
    for (bool physical : {false, true}) {
        p.physical = physical;
        expectNear(render(createDepthOfFieldTask("f", 0, p, none, image, focused, nullptr), rect),
                   original, 1e-6f, "in focus");
        expectNear(render(createDepthOfFieldTask("m", 0, p, none, image, far, clear), rect),
                   original, 1e-6f, "masked out");
    }
    p.physical = false;
    DefocusParams disc;
    disc.size = 8.0f;
    expectNear(render(createDepthOfFieldTask("far", 0, p, none, image, far, nullptr), rect),
               render(createDefocusTask("d", 0, disc, image, true), rect), 1e-5f, "at infinity");
    RenderManager::ClearRenderTaskCache();  // else the graph re-uses the renders' own task
    EXPECT_EQ(createDepthOfFieldTask("n", 0, p, none, image, far, nullptr)
                  ->imp()
                  .getInputTask(1)
                  ->getName(),
              "n.CircleOfConfusion");

    // A blurred bright square in front of a sharp dark background: gathering
    // keeps the background sharp, scattering spreads the square over it.
    TaskPtr square = grey("sq", kArea, [](int64_t x, int64_t y) {
        return x >= 20 && x < 30 && y >= 15 && y < 25 ? 1.0f : 0.0f;
    });
    TaskPtr near = channelPattern("near", kArea, IMGLIB::CHANNEL_Z, [](int64_t x, int64_t y, int) {
        return x >= 20 && x < 30 && y >= 15 && y < 25 ? 0.5f : 5.0f;
    });
    const Rect beside(31, 20, 32, 21);
    EXPECT_EQ(render(createDepthOfFieldTask("g", 0, p, none, square, near, nullptr), beside)[0].r,
              0.0f);
    p.physical = true;
    EXPECT_GT(render(createDepthOfFieldTask("s", 0, p, none, square, near, nullptr), beside)[0].r,
              0.05f);

    // Clean-up: a hole takes the nearest depth around it; the foreground
    // widens by the radius.
    p.cleanupRadius = 2.0f;
    TaskPtr holes =
        channelPattern("holes", kArea, IMGLIB::CHANNEL_R, [](int64_t x, int64_t y, int) {
            if (x == 10 && y == 10) return 0.0f;
            if (x == 12 && y == 30) return std::numeric_limits<float>::quiet_NaN();
            return x < 30 ? 3.0f : 7.0f;
        });
    const Rect band(5, 5, 40, 35);
    const std::vector<Color> cleaned = render(createDOFDepthCleanupTask("c", 0, p, holes), band);
    EXPECT_EQ(at(cleaned, band, 10, 10).r, 3.0f);
    EXPECT_EQ(at(cleaned, band, 12, 30).r, 3.0f);
    EXPECT_EQ(at(cleaned, band, 31, 20).r, 3.0f);
    EXPECT_EQ(at(cleaned, band, 32, 20).r, 7.0f);
    p.lens.focusDistance = 0.01f;  // nearer than the focal length
    EXPECT_THROW(createDepthOfFieldTask("bad", 0, p, none, image, far, nullptr),
                 InvalidParameterException);
}

// Sizes of 0, negative or NaN reach nothing and leave the image as it is;
// sizes far beyond the image give the right pixels.
TEST_F(FilterTest, DegenerateAndHugeSizes) {
    TaskPtr image = pattern("noise", kArea, noise);
    const Rect rect(0, 0, 61, 47);
    const std::vector<Color> original = render(image, rect);
    const BloomControlSettings none = noBloom();
    DefocusParams d;
    d.size = 0;
    DirectionalBlurParams line;
    line.length = 0;
    expectNear(render(createDefocusTask("d", 0, d, image, true), rect), original, 0, "defocus");
    expectNear(render(createMedianFilterTask("m", 0, {0, 0, false, 0}, image), rect), original, 0,
               "median");
    expectNear(render(createErodeDilateTask("e", 0, {0, 0}, image), rect), original, 0, "erode");
    expectNear(render(createDirectionalBlur("l", 0, line, none, image), rect), original, 0, "line");
    expectNear(render(createPerimeterExtendTask("p", 0, 0, image), rect), original, 0, "perimeter");
    // A negative size (a negative radius erodes) or NaN is refused, naming it.
    for (float size : {-4.0f, std::nanf("")}) {
        d.size = line.length = size;
        EXPECT_THROW(createDefocusTask("d", 0, d, image, true), InvalidParameterException);
        EXPECT_THROW(createMedianFilterTask("m", 0, {size, size, false, 0}, image),
                     InvalidParameterException);
        EXPECT_THROW(createDirectionalBlur("l", 0, line, none, image), InvalidParameterException);
        EXPECT_THROW(createPerimeterExtendTask("p", 0, size, image), InvalidParameterException);
    }
    EXPECT_THROW(createErodeDilateTask("e", 0, {std::nanf(""), 1}, image),
                 InvalidParameterException);
    // A dilation far wider than the image: every pixel the image's maximum.
    const std::vector<Color> wide =
        render(createErodeDilateTask("w", 0, {500, 500}, image), Rect(0, 0, 8, 8));
    float most = 0;
    for (const Color& c : original) most = std::max(most, c.g);
    for (const Color& c : wide) ASSERT_EQ(c.g, most);
}

TEST_F(FilterTest, GraphFilesBuildTheFiltersWithOptionalInputs) {
    const auto graph = [](const std::string& nodes) {
        return loadGraph(R"({"nodes": [
            {"id": "bars", "op": "colorbars", "params": {"area": [0, 0, 40, 30]}},)" +
                         nodes + R"(], "outputs": [{"node": "f"}]})");
    };
    const auto error = [&](const std::string& nodes) {
        try {
            graph(nodes);
        } catch (const GraphFileError& e) {
            return std::string(e.what());
        }
        return std::string("no error");
    };
    // The source of a glint is optional: without it the input streaks itself.
    const Graph own = graph(R"({"id": "f", "op": "glint", "params": {"length": 6},
                                "inputs": {"input": "bars"}})");
    const Graph given = graph(R"({"id": "f", "op": "glint", "params": {"length": 6},
                                  "inputs": {"input": "bars", "source": "bars"}})");
    const Rect rect(0, 0, 40, 30);
    const std::vector<Color> a = render(own.outputs[0].description.task, rect);
    RenderManager::ClearRenderTaskCache();
    EXPECT_EQ(a, render(given.outputs[0].description.task, rect));
    EXPECT_EQ(error(R"({"id": "f", "op": "edgeDetect", "params": {"method": "canny"},
                        "inputs": {"input": "bars"}})"),
              "node 'f', field 'method': unknown value 'canny' (one of: sobel, babu)");
    EXPECT_EQ(error(R"({"id": "f", "op": "depthOfField", "inputs": {"input": "bars"}})"),
              "node 'f', field 'depth': input required (a node id)");
    EXPECT_EQ(error(R"({"id": "f", "op": "median", "inputs": {"input": "bars", "mask": "bars"}})"),
              "node 'f', field 'mask': unknown input of median");
    EXPECT_NE(describeOperations().find("    input mask (optional)"), std::string::npos);
}

// The parameters each member documents change its pixels as documented.
TEST_F(FilterTest, ParametersShapeTheResult) {
    const BloomControlSettings none = noBloom();
    const Rect rect(10, 10, 50, 36);
    // A vector blur of a constant motion leaves a linear image as it is.
    TaskPtr plane =
        grey("plane", kArea, [](int64_t x, int64_t y) { return 0.02f * x + 0.01f * y; });
    TaskPtr motion = channelPattern("still", kArea, IMGLIB::CHANNEL_U | IMGLIB::CHANNEL_V,
                                    [](int64_t, int64_t, int c) { return c == 5 ? 5.0f : -3.0f; });
    VectorBlurParams gather;
    gather.vectors.maxLength = 8.0f;
    expectNear(render(createVectorBlur("vb", 0, gather, none, plane, motion), rect),
               render(plane, rect), 1e-5f, "linear under constant motion");

    // A hexagon's bokeh: inside the corner radius along a corner, outside it
    // between two corners (where the apothem is shorter).
    TaskPtr point = grey("point", Rect(0, 0, 41, 41),
                         [](int64_t x, int64_t y) { return x == 20 && y == 20 ? 1.0f : 0.0f; });
    DefocusParams hexagon;
    hexagon.size = 20.0f, hexagon.blades = 6;
    const Rect all(0, 0, 41, 41);
    const std::vector<Color> bokeh =
        render(createDefocusTask("hex", 0, hexagon, point, false), all);
    // Corners of the hexagon at 90 + 60k degrees (y up): one straight above.
    EXPECT_GT(at(bokeh, all, 20, 11).r, 0.0f);  // 9 pixels up, towards a corner
    EXPECT_EQ(at(bokeh, all, 29, 20).r, 0.0f);  // 9 pixels right: past the apothem (8.66)
    EXPECT_GT(at(bokeh, all, 28, 20).r, 0.0f);

    // A grey kernel with an explicit centre serves every channel.
    TaskPtr image = pattern("noise", kArea, noise);
    TaskPtr grey1 = channelPattern("k", Rect(0, 0, 2, 1), IMGLIB::CHANNEL_R,
                                   [](int64_t x, int64_t, int) { return x == 0 ? 1.0f : 0.0f; });
    ImageConvolveParams corner;
    corner.centred = false, corner.centreX = 1, corner.centreY = 0;
    const std::vector<Color> shifted =
        render(createImageConvolveTask("kc", 0, false, corner, image, grey1), rect);
    const Rect source(rect.xmin + 1, rect.ymin, rect.xmax + 1, rect.ymax);
    const std::vector<Color> original = render(image, source);
    for (int64_t y = rect.ymin; y < rect.ymax; ++y)
        for (int64_t x = rect.xmin; x < rect.xmax; ++x)
            ASSERT_EQ(at(shifted, rect, x, y),
                      at(original, source, x + 1, y));  // out(p) = in(p + 1)

    // Energy normalisation over the kernel's data when no area is given.
    TaskPtr ramp = grey("kramp", Rect(0, 0, 3, 1), [](int64_t x, int64_t) { return float(x + 1); });
    const std::vector<Color> unit =
        render(createEnergyNormalizationTask("en", 0, Rect(), ramp), Rect(0, 0, 3, 1));
    EXPECT_FLOAT_EQ(unit[2].g, 3.0f / 6.0f);

    // Weak edges fall below the select threshold; strong ones stay.
    TaskPtr steps = grey(
        "steps", kArea, [](int64_t x, int64_t) { return x < 20 ? 0.0f : (x < 40 ? 0.05f : 1.0f); });
    const std::vector<Color> edges =
        render(createEdgeDetectTask("sel", 0, {EDGE_SOBEL, true, 0.1f}, steps), rect);
    EXPECT_EQ(at(edges, rect, 19, 20).r, 0.0f);
    EXPECT_EQ(at(edges, rect, 39, 20).r, 1.0f);

    // Perimeter extension needs a matte: without alpha the image is kept.
    TaskPtr rgb = pattern("rgbOnly", kArea, noise, IMGLIB::CHANNELS_RGB);
    expectNear(render(createPerimeterExtendTask("pe", 0, 4.0f, rgb), rect), render(rgb, rect), 0,
               "no alpha");

    // Unsharp thresholds are per channel: red's stops its sharpening only.
    TaskPtr edge = grey("edge", kArea, [](int64_t x, int64_t) { return x < 30 ? 0.2f : 0.8f; });
    PerChannelBlurParameters soft;
    soft.blur.sizeX = soft.blur.sizeY = 5.0f;
    soft.blur.extendMethod = IMGLIB::EXTEND_CLAMP;
    const std::vector<Color> sharp =
        render(createUnSharpTask("us", 0, Color(1, 1, 1, 0), Color(1, 0, 0, 0), edge,
                                 createBlur("s", 0, soft, edge)),
               rect);
    EXPECT_EQ(at(sharp, rect, 30, 20).r, 0.8f);
    EXPECT_GT(at(sharp, rect, 30, 20).g, 0.8f);

    // Glints added to the image keep it under the streaks; a bloom in front
    // of a filter is its own task.
    TaskPtr spark = grey("spark", Rect(0, 0, 41, 41),
                         [](int64_t x, int64_t y) { return x == 20 && y == 20 ? 4.0f : 0.5f; });
    const std::vector<Color> added =
        render(createGlintTask("ga", 0, true, {4, 6.0f, 0.0f}, spark,
                               createGlintControlTask("gc", 0, {1, 1}, spark)),
               all);
    EXPECT_FLOAT_EQ(at(added, all, 20, 20).r, 4.0f);
    EXPECT_GT(at(added, all, 23, 20).r, 0.5f);
    EXPECT_FLOAT_EQ(at(added, all, 30, 30).r, 0.5f);
    BloomControlSettings bloom;
    bloom.gain = 2.0f;
    EXPECT_EQ(createDirectionalBlur("db", 0, {}, bloom, spark)->imp().getInputTask(0)->getName(),
              "db.Bloom");
}
