// Transforms: resampling against closed forms, tiles against whole frames,
// and the factory's rules.
#include <gtest/gtest.h>

#include <cmath>
#include <set>

#include <OpenImageIO/imagebufalgo.h>

#include "graphfile.h"
#include "imglib/pixels.h"
#include "imglib/resample.h"
#include "support/serial_render.h"
#include "support/watchdog.h"
#include "transform/projectivetransformtask.h"
#include "transformtasks.h"
#include "util/exceptions.h"

using namespace TESSERA;
using namespace TESSERA::testing;
using Color = Imath::Color4<float>;
using M33 = Imath::Matrix33<float>;
using UTIL::Rect;

namespace {

// f(x, y) at pixel centres, in every channel: a plane, or a checkerboard.
class Field : public ConstantTask {
public:
    Field(const std::string& name, const Rect& area, bool checker)
        : ConstantTask(name, Color(0, 0, 0, 0), area), checker(checker) {}
    std::string getTypeString() override { return "Field"; }
    void computeCacheID(CacheIDStream& s) override { s << area << checker; }
    void renderRect(const IMGLIB::Image* out, const std::vector<const IMGLIB::Image*>&) override {
        for (int64_t y = out->y1; y < out->y2; ++y)
            for (int64_t x = out->x1; x < out->x2; ++x) {
                const float v = value(float(x) + 0.5f, float(y) + 0.5f);
                const float px[4] = {v, 2 * v, -v, 1};
                IMGLIB::SetPixel(out, x, y, px);
            }
    }
    float value(float x, float y) const {
        if (checker) return ((int64_t(std::floor(x)) + int64_t(std::floor(y))) & 1) ? 1.0f : 0.0f;
        return 0.25f * x - 0.125f * y + 3.0f;
    }
    bool checker;
};

M33 rotateScale(float degrees, float scale, float tx, float ty) {
    M33 r;
    r.setRotation(degrees * 3.14159265f / 180.0f);
    M33 s;
    s.setScale(Imath::V2f(scale, scale));
    M33 t;
    t.setTranslation(Imath::V2f(tx, ty));
    return s * r * t;  // row vectors: scale, then rotate, then move
}

class TransformTest : public ::testing::Test {
protected:
    void SetUp() override {
        RenderManager::ClearRenderTaskCache();
        RenderManager::clearSpeculativeCache();
    }
    void TearDown() override {
        RenderManager::setGlobalTileSize(256, 256);
        RenderManager::ClearRenderTaskCache();
    }
    std::vector<Color> render(const TaskPtr& task, const Rect& rect, int tile) {
        return renderPixels(task, rect, tile);
    }
};

}  // namespace

TEST_F(TransformTest, InterpolatingKernelsReproduceAPlane) {
    // Catmull-Rom, triangle and Lanczos reproduce linear functions: inside
    // the data the output is the plane at the mapped point.
    auto field = RCX_ptr_v4::ref_ptr<Field>(new Field("plane", Rect(-50, -50, 150, 150), false));
    const M33 m = rotateScale(17.0f, 1.25f, 10.0f, -5.0f);
    const M33 inverse = m.inverse();
    for (IMGLIB::KernelType k : {IMGLIB::KERNEL_CATMULL_ROM, IMGLIB::KERNEL_TRIANGLE}) {
        for (bool affine : {false, true}) {
            RenderManager::ClearRenderTaskCache();
            HomTransformParams params;
            params.primaryKernel = params.secondaryKernel = k;
            params.useAffine = affine;
            TaskPtr t = createHomTransformTask("t", 0, params, {m}, field);
            const Rect rect(20, 20, 80, 80);
            const std::vector<Color> got = render(t, rect, 32);
            for (int64_t y = rect.ymin; y < rect.ymax; ++y)
                for (int64_t x = rect.xmin; x < rect.xmax; ++x) {
                    const Imath::V3f q = Imath::V3f(float(x) + 0.5f, float(y) + 0.5f, 1) * inverse;
                    const float want = field->value(q.x / q.z, q.y / q.z);
                    const Color c = got[static_cast<size_t>((y - 20) * 60 + (x - 20))];
                    ASSERT_NEAR(c.r, want, 2e-3f) << "kernel " << k << " affine " << affine;
                    ASSERT_NEAR(c.g, 2 * want, 4e-3f);
                    ASSERT_NEAR(c.a, 1.0f, 1e-5f);
                }
        }
    }
}

TEST_F(TransformTest, TilesEqualTheWholeFrameBitForBit) {
    auto field = TaskPtr(new Field("checker", Rect(0, 0, 97, 61), true));
    const Rect rect(-20, -20, 140, 110);
    for (bool affine : {false, true}) {
        HomTransformParams params;
        params.useAffine = affine;
        params.primaryKernel = IMGLIB::KERNEL_LANCZOS3;
        params.secondaryKernel = IMGLIB::KERNEL_MITCHELL;
        // A rotation that magnifies along one axis and minifies along the other.
        M33 m = rotateScale(31.0f, 1.0f, 20.0f, 5.0f);
        m[0][0] *= 1.7f;
        m[1][1] *= 0.6f;
        TaskPtr t = createHomTransformTask("t", 0, params, {m}, field);
        const std::vector<Color> whole = render(t, rect, 4096);
        EXPECT_EQ(render(t, rect, 64), whole) << "affine " << affine;
        EXPECT_EQ(render(t, rect, 17), whole) << "affine " << affine;
    }
    // Projective too.
    M33 p = rotateScale(10.0f, 1.0f, 0.0f, 0.0f);
    p[0][2] = 0.002f;
    TaskPtr proj = createHomTransformTask("p", 0, HomTransformParams(), {p}, field);
    EXPECT_EQ(render(proj, rect, 32), render(proj, rect, 4096));
}

// The projective path is not reachable from graph files (their transform is
// affine), so the tiling sweep cannot reach it: a keystone that enlarges at
// one corner and reduces at the other (footprint tables built on whichever
// thread comes first) gives the same bits for every tile size and thread
// count.
TEST_F(TransformTest, ProjectiveTilesAndThreadsGiveTheSameBits) {
    auto field = TaskPtr(new Field("checker", Rect(0, 0, 97, 61), true));
    M33 keystone = rotateScale(8.0f, 1.3f, 3.0f, 2.0f);
    keystone[0][2] = 0.006f;
    keystone[1][2] = 0.004f;
    TaskPtr t = createHomTransformTask("keystone", 0, HomTransformParams(), {keystone}, field);
    const RenderDescription output(t, Rect(-10, -10, 110, 90), IMGLIB::CHANNELS_RGBA);
    TESSERA::testing::withinSeconds(120, "the projective tiling", [&] {
        const std::vector<Color> whole = renderOnThreads(output, 4096, 1);
        for (int tile : {16, 37, 64, 4096})
            for (int threads : {1, 2, 4})
                EXPECT_EQ(renderOnThreads(output, tile, threads), whole) << tile << " " << threads;
    });
    RenderManager::setRenderThreads(2);
}

TEST_F(TransformTest, TenfoldReductionDoesNotAlias) {
    // A one-pixel checkerboard shrunk ten times: every output pixel averages
    // many input pixels, so it is grey, not a moire of 0s and 1s.
    auto field = TaskPtr(new Field("checker", Rect(0, 0, 400, 400), true));
    HomTransformParams params;
    params.useAffine = true;
    TaskPtr t = createHomTransformTask("shrink", 0, params, {rotateScale(0.0f, 0.1f, 0, 0)}, field);
    for (const Color& c : render(t, Rect(5, 5, 35, 35), 16)) ASSERT_NEAR(c.r, 0.5f, 0.02f);
}

TEST_F(TransformTest, MotionBlurAveragesItsMatrices) {
    auto field = RCX_ptr_v4::ref_ptr<Field>(new Field("plane", Rect(-50, -50, 150, 150), false));
    HomTransformParams params;
    params.primaryKernel = params.secondaryKernel = IMGLIB::KERNEL_TRIANGLE;
    M33 a, b;
    a.setTranslation(Imath::V2f(0, 0));
    b.setTranslation(Imath::V2f(4, 0));
    TaskPtr t = createHomTransformTask("blur", 0, params, {a, b}, field);
    ASSERT_NE(dynamic_cast<Private::MotionBlurTransformTask*>(t.get()), nullptr);
    // With one matrix per stratum every pixel averages both: the plane moved by 2.
    const std::vector<Color> got = render(t, Rect(10, 10, 30, 20), 8);
    for (size_t i = 0; i < got.size(); ++i) {
        const float x = 10.5f + float(i % 20), y = 10.5f + float(i / 20);
        ASSERT_NEAR(got[i].r, field->value(x - 2.0f, y), 1e-4f);
    }
    EXPECT_EQ(render(t, Rect(0, 0, 40, 40), 16), render(t, Rect(0, 0, 40, 40), 512));
}

TEST_F(TransformTest, FactoryRules) {
    auto field = TaskPtr(new Field("in", Rect(0, 0, 10, 10), false));
    M33 m = rotateScale(5, 1, 1, 1);
    HomTransformParams params;
    params.useAffine = true;
    // Identical matrices: the projective task, whatever useAffine says.
    TaskPtr same = createHomTransformTask("same", 0, params, {m, m}, field);
    EXPECT_NE(dynamic_cast<Private::ProjectiveTransformTask*>(same.get()), nullptr);
    EXPECT_EQ(dynamic_cast<Private::AffineTransformTask*>(same.get()), nullptr);
    EXPECT_NE(dynamic_cast<Private::AffineTransformTask*>(
                  createHomTransformTask("one", 0, params, {m}, field).get()),
              nullptr);
    // A difference of 1e-12 in an element that is 0 in the first matrix counts.
    M33 nudged = m;
    nudged[0][2] = 1e-12f;
    EXPECT_NE(dynamic_cast<Private::MotionBlurTransformTask*>(
                  createHomTransformTask("n", 0, params, {m, nudged}, field).get()),
              nullptr);
    // Motion-blur cache IDs see every matrix.
    M33 other = m;
    other[2][0] += 3;
    EXPECT_NE(createHomTransformTask("a", 0, params, {m, other}, field)->getCacheID(),
              createHomTransformTask("b", 0, params, {m, nudged}, field)->getCacheID());

    // Wrappers: names, order and caching.
    params.filterInCompressedRange = params.clampOutput = true;
    TaskPtr outer = createHomTransformTask("xf", 0, params, {m}, field);
    EXPECT_EQ(outer->getName(), "xf.clamp");
    TaskPtr expand = outer->imp().getInputTask(0);
    EXPECT_EQ(expand->getName(), "xf.expandRange");
    TaskPtr transform = expand->imp().getInputTask(0);
    EXPECT_EQ(transform->getName(), "xf");
    TaskPtr compress = transform->imp().getInputTask(0);
    EXPECT_EQ(compress->getName(), "in.compressRange");
    EXPECT_TRUE(outer->getCaching());
    EXPECT_FALSE(expand->getCaching());
    EXPECT_FALSE(transform->getCaching());
    EXPECT_TRUE(compress->getCaching());
    EXPECT_FALSE(field->getCaching());

    // Bad input.
    try {
        createHomTransformTask("singular", 0, HomTransformParams(),
                               {M33(0, 0, 0, 0, 0, 0, 0, 0, 1)}, field);
        FAIL();
    } catch (const std::exception& e) {
        EXPECT_STREQ(e.what(), "Cannot invert singular matrix.");
    }
    EXPECT_THROW(createHomTransformTask("empty", 0, HomTransformParams(), {}, field),
                 InvalidParameterException);
    HomTransformParams zero;
    zero.motionSamplesPerStratum = 0;
    EXPECT_THROW(createHomTransformTask("zero", 0, zero, {m, other}, field),
                 InvalidParameterException);
    try {
        createHomTransformTask("null", 0, HomTransformParams(), {m}, TaskPtr());
        FAIL();
    } catch (const UTIL::AssertException& e) {
        EXPECT_EQ(e.expression(), "inputTask");
        EXPECT_EQ(e.source(), "transform/projectivetransformtask");
    }
    // Singular matrices in a motion blur stand for identity.
    EXPECT_NO_THROW(createHomTransformTask("mb", 0, HomTransformParams(),
                                           {m, M33(0, 0, 0, 0, 0, 0, 0, 0, 0)}, field));
}

TEST_F(TransformTest, IndexSetsDrawOneMatrixPerStratumReproducibly) {
    auto field = TaskPtr(new Field("in", Rect(0, 0, 10, 10), false));
    std::vector<M33> five;
    for (int i = 0; i < 5; ++i) {
        M33 m;
        m.setTranslation(Imath::V2f(float(i), 0));
        five.push_back(m);
    }
    HomTransformParams params;
    params.motionSamplesPerStratum = 2;
    TaskPtr t = createHomTransformTask("mb", 0, params, five, field);
    auto* blur = dynamic_cast<Private::MotionBlurTransformTask*>(t.get());
    ASSERT_NE(blur, nullptr);
    const auto sets = blur->buildIndexSets();
    ASSERT_EQ(sets.size(), 1024u);
    std::set<size_t> first, second;
    for (const auto& set : sets) {
        ASSERT_EQ(set.size(), 2u);
        first.insert(set[0]);
        second.insert(set[1]);
    }
    EXPECT_EQ(first, (std::set<size_t>{0, 1}));
    EXPECT_EQ(second, (std::set<size_t>{2, 3}));  // matrix 4 is never used
    EXPECT_EQ(blur->buildIndexSets(), sets);      // the same on every run
}

TEST_F(TransformTest, RequiredInputOutsideTheDataIsEmpty) {
    auto field = TaskPtr(new Field("in", Rect(0, 0, 10, 10), false));
    M33 m;
    m.setTranslation(Imath::V2f(1000, 0));
    TaskPtr t = createHomTransformTask("far", 0, HomTransformParams(), {m}, field);
    t->getCacheID();
    std::vector<Rect> inputs;
    t->computeRequiredInputRects(Rect(0, 0, 10, 10), inputs);
    EXPECT_TRUE(inputs[0].isNull());
}

TEST_F(TransformTest, IdentityTranslationAndQuarterTurnsAreExact) {
    auto checker = RCX_ptr_v4::ref_ptr<Field>(new Field("src", Rect(0, 0, 40, 30), true));
    const Rect rect(0, 0, 40, 30);
    const std::vector<Color> original = render(checker, rect, 16);
    for (IMGLIB::KernelType k : {IMGLIB::KERNEL_NEAREST, IMGLIB::KERNEL_TRIANGLE,
                                 IMGLIB::KERNEL_CATMULL_ROM, IMGLIB::KERNEL_LANCZOS3}) {
        HomTransformParams params;
        params.primaryKernel = params.secondaryKernel = k;
        for (bool affine : {false, true}) {
            params.useAffine = affine;
            RenderManager::ClearRenderTaskCache();
            EXPECT_EQ(render(createHomTransformTask("id", 0, params, {M33()}, checker), rect, 16),
                      original)
                << "kernel " << k;
            // Moved by (3, -2): pixel (x, y) comes from (x - 3, y + 2).
            M33 move;
            move.setTranslation(Imath::V2f(3, -2));
            const std::vector<Color> moved =
                render(createHomTransformTask("move", 0, params, {move}, checker),
                       Rect(3, -2, 43, 28), 16);
            EXPECT_EQ(moved, original) << "kernel " << k;
            // A quarter turn about the origin: (x, y) -> (-y, x) for row vectors.
            const M33 quarter(0, 1, 0, -1, 0, 0, 0, 0, 1);
            const std::vector<Color> turned =
                render(createHomTransformTask("turn", 0, params, {quarter}, checker),
                       Rect(-30, 0, 0, 40), 16);
            for (int64_t y = 0; y < 40; ++y)
                for (int64_t x = -30; x < 0; ++x) {
                    // Output pixel (x, y) has its centre at the input point (y, -x - 1) + 0.5.
                    const Color want = original[static_cast<size_t>((-x - 1) * 40 + y)];
                    ASSERT_EQ(turned[static_cast<size_t>(y * 30 + (x + 30))], want)
                        << "kernel " << k;
                }
        }
    }
}

TEST_F(TransformTest, AgreesWithOpenImageIOWarp) {
    OIIO::attribute("threads", 1);
    constexpr int W = 64, H = 48;
    // A smooth image, so the comparison measures the filters, not aliasing.
    std::vector<float> src(W * H * 4);
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W; ++x)
            for (int c = 0; c < 4; ++c)
                src[(y * W + x) * 4 + c] =
                    0.5f + 0.4f * std::sin(0.2f * x + 0.3f * c) * std::cos(0.15f * y);
    class Buffer : public ConstantTask {
    public:
        explicit Buffer(const std::vector<float>& pixels)
            : ConstantTask("buffer", Color(0, 0, 0, 0), Rect(0, 0, W, H)), pixels(pixels) {}
        std::string getTypeString() override { return "Buffer"; }
        void renderRect(const IMGLIB::Image* out,
                        const std::vector<const IMGLIB::Image*>&) override {
            for (int64_t y = out->y1; y < out->y2; ++y)
                for (int64_t x = out->x1; x < out->x2; ++x)
                    IMGLIB::SetPixel(out, x, y, &pixels[static_cast<size_t>((y * W + x) * 4)]);
        }
        const std::vector<float>& pixels;
    };
    TaskPtr buffer(new Buffer(src));
    // An enlarging rotation, and a keystone whose far corner is reduced
    // about twofold (the footprint, and so the filter's width, changes from
    // pixel to pixel).
    M33 keystone = rotateScale(0.0f, 1.0f, 2.0f, 1.0f);
    keystone[0][2] = 0.012f;
    keystone[1][2] = 0.006f;
    OIIO::ImageBuf in(OIIO::ImageSpec(W, H, 4, OIIO::TypeDesc::FLOAT), src.data());
    for (const M33& m : {rotateScale(20.0f, 1.3f, 4.0f, -3.0f), keystone})
        for (auto [kernel, name] : {std::pair{IMGLIB::KERNEL_TRIANGLE, "triangle"},
                                    std::pair{IMGLIB::KERNEL_CATMULL_ROM, "catmull-rom"}}) {
            OIIO::ImageBuf warped = OIIO::ImageBufAlgo::warp(in, m, name, 0.0f, true);
            HomTransformParams params;
            params.primaryKernel = params.secondaryKernel = kernel;
            RenderManager::ClearRenderTaskCache();
            const Rect inner(0, 0, 100, 100);
            const std::vector<Color> got =
                render(createHomTransformTask("t", 0, params, {m}, buffer), inner, 16);
            float worst = 0;
            int compared = 0;
            const M33 inverse = m.inverse();
            for (int64_t y = inner.ymin; y < inner.ymax; ++y)
                for (int64_t x = inner.xmin; x < inner.xmax; ++x) {
                    // Only where the filters read inside the source.
                    const Imath::V3f q = Imath::V3f(float(x) + 0.5f, float(y) + 0.5f, 1) * inverse;
                    const float u = q.x / q.z, v = q.y / q.z;
                    if (u < 5 || v < 5 || u > W - 5 || v > H - 5) continue;
                    ++compared;
                    float want[4];
                    warped.getpixel(int(x), int(y), want, 4);
                    const Color c = got[static_cast<size_t>(y * 100 + x)];
                    for (int k = 0; k < 4; ++k) worst = std::max(worst, std::fabs(c[k] - want[k]));
                }
            EXPECT_GT(compared, 500);
            // Where the keystone reduces, the two libraries size the
            // filter from the local footprint in slightly different ways.
            EXPECT_LT(worst, m == keystone ? 3e-3f : 2e-3f)
                << name << (m == keystone ? ", keystone" : ", rotation");
        }
}

// A resize to a size gives exactly that size, for every target from one
// pixel to four times the source, on odd sizes and offsets where the
// scaled box's edges fall between pixels.
TEST_F(TransformTest, ResizeGivesExactlyTheSizeAskedFor) {
    for (const Rect source : {Rect(0, 0, 29, 17), Rect(-3, 5, 34, 36), Rect(7, -11, 61, 12)}) {
        TaskPtr field = make<Field>("field", source, false);
        for (int64_t target = 1; target <= 4 * source.width(); ++target) {
            const std::string size = "{\"size\": [" + std::to_string(target) + ", " +
                                     std::to_string(target * 2 / 3 + 1) + "]}";
            TaskPtr resized = createOperationTask("resize", "resize", size, {{"input", field}});
            UTIL::Region region;
            resized->getOutputDescription(nullptr, &region);
            ASSERT_EQ(region.boundingBox(), Rect(source.xmin, source.ymin, source.xmin + target,
                                                 source.ymin + target * 2 / 3 + 1))
                << source << " to " << size;
        }
        // One side given: the other keeps the aspect, rounded to the nearest.
        TaskPtr wide =
            createOperationTask("resize", "wide", "{\"size\": [0, 61]}", {{"input", field}});
        UTIL::Region region;
        wide->getOutputDescription(nullptr, &region);
        EXPECT_EQ(region.boundingBox().width(),
                  int64_t(std::lround(61.0 * double(source.width()) / double(source.height()))));
    }
}

// Nearest point-samples when shrinking as when enlarging: every output
// pixel is the source pixel under its centre, never an average.
TEST_F(TransformTest, NearestPicksSourcePixels) {
    const Rect source(0, 0, 29, 23);
    TaskPtr checker = make<Field>("checker", source, true);
    for (int target : {7, 13, 29, 61}) {
        TaskPtr resized =
            createOperationTask("resize", "nearest",
                                "{\"size\": [" + std::to_string(target) + ", " +
                                    std::to_string(target) + "], \"filter\": \"nearest\"}",
                                {{"input", checker}});
        const Rect out(0, 0, target, target);
        const std::vector<Color> pixels = renderPixels(resized, out, 16);
        for (int y = 0; y < target; ++y)
            for (int x = 0; x < target; ++x) {
                const double sx = (x + 0.5) * 29.0 / target, sy = (y + 0.5) * 23.0 / target;
                const float expected =
                    ((int64_t(std::floor(sx)) + int64_t(std::floor(sy))) & 1) ? 1.0f : 0.0f;
                ASSERT_EQ(pixels[size_t(y) * target + x].r, expected)
                    << "target " << target << " at " << x << ", " << y;
            }
    }
}
