// Input requests: required rectangles and the images built from input tiles.
#include <gtest/gtest.h>

#include "imglib/extend.h"
#include "imglib/pixels.h"
#include "rendersystem/core/inputrequest.h"
#include "rendersystem/core/renderplan.h"
#include "support/test_tasks.h"

using namespace TESSERA;
using namespace TESSERA::testing;
using Color = Imath::Color4<float>;
using Private::RenderPlan;
using UTIL::Rect;

namespace {

const Color kBackground(0.5f, 0.25f, 0.125f, 1.0f);

// The pattern value of a data pixel.
float pattern(int64_t x, int64_t y) {
    return float(100 * y + x);
}

// A finished tile image over `rect` holding the pattern in every channel.
ImageBuffer tileImage(const Rect& rect, uint64_t channels = IMGLIB::CHANNELS_RGBA) {
    ImageBuffer image(channels, rect, "tile");
    ImageBuffer_LockScoper lock(image);
    for (int64_t y = rect.ymin; y < rect.ymax; ++y)
        for (int64_t x = rect.xmin; x < rect.xmax; ++x) {
            const float v[4] = {pattern(x, y), pattern(x, y), pattern(x, y), pattern(x, y)};
            IMGLIB::SetPixel(image.getImage(), x, y, v);
        }
    return image;
}

class InputRequestTest : public ::testing::Test {
protected:
    void SetUp() override { RenderManager::ClearRenderTaskCache(); }

    // A consumer of a source defined over `data`, with the given request made.
    const Private::InputRequest& request(const Rect& data, IMGLIB::ExtendMethod method,
                                         bool overscan = false, const Rect& display = Rect()) {
        auto source =
            RCX_ptr_v4::ref_ptr<ConstantTask>(new ConstantTask("src", Color(1, 1, 1, 1), data));
        source->background = kBackground;
        consumer = RCX_ptr_v4::ref_ptr<GainTask>(new GainTask("use", {source}, 1.0f));
        consumer->getCacheID();
        plan = std::make_unique<RenderPlan>();
        Private::RenderNode& node = plan->nodeFor(consumer);
        Private::RenderNode::Scope setUp(node);
        consumer->addInputRequest(0, IMGLIB::CHANNELS_RGBA, method, overscan, display);
        return *node.getInputRequest(0);
    }

    // Every pixel of the built image against expected(x, y).
    static void expectPixels(const ImageBuffer& built, const Rect& rect,
                             const std::function<float(int64_t, int64_t)>& expected) {
        ASSERT_FALSE(built.isNull());
        ImageBuffer image = built;
        ImageBuffer_LockScoper lock(image);
        for (int64_t y = rect.ymin; y < rect.ymax; ++y)
            for (int64_t x = rect.xmin; x < rect.xmax; ++x)
                ASSERT_EQ(pixelAt(image.getImage(), x, y).r, expected(x, y))
                    << "at (" << x << ", " << y << ")";
    }

    RCX_ptr_v4::ref_ptr<GainTask> consumer;
    std::unique_ptr<RenderPlan> plan;
};

}  // namespace

TEST_F(InputRequestTest, ColourRequestsFetchOnlyDataAndFillTheRest) {
    const Rect data(0, 0, 8, 8);
    const auto& r = request(data, IMGLIB::EXTEND_BACKGROUND);
    // Wholly outside the data: nothing fetched, a missing input.
    EXPECT_TRUE(r.requiredInputRect(Rect(20, 20, 30, 30)).isNull());
    EXPECT_TRUE(r.buildImage(Rect(20, 20, 30, 30), {}).isNull());

    const Rect wanted(-2, 4, 4, 10);
    EXPECT_EQ(r.requiredInputRect(wanted), Rect(0, 4, 4, 8));
    ImageBuffer built = r.buildImage(wanted, {tileImage(Rect(0, 0, 8, 8))});
    EXPECT_EQ(built.getBounds(), wanted);
    EXPECT_EQ(built.getComment(), "Temporary Image From Single Tiles");
    expectPixels(built, wanted, [&](int64_t x, int64_t y) {
        return data.contains(x, y) ? pattern(x, y) : kBackground.r;
    });

    // Inside one tile with the same channels: the tile's own image, no copy.
    ImageBuffer tile = tileImage(Rect(0, 0, 8, 8));
    EXPECT_TRUE(r.buildImage(Rect(1, 1, 3, 3), {tile}) == tile);
    // Other channels: a copy with just those.
    ImageBuffer rgb = tileImage(Rect(0, 0, 8, 8), IMGLIB::CHANNELS_RGB);
    EXPECT_FALSE(r.buildImage(Rect(1, 1, 3, 3), {rgb}) == rgb);

    // Assembled from several tiles.
    ImageBuffer many =
        r.buildImage(Rect(2, 2, 6, 6), {tileImage(Rect(0, 0, 4, 8)), tileImage(Rect(4, 0, 8, 8))});
    EXPECT_EQ(many.getComment(), "Temporary Image From Many Tiles");
    expectPixels(many, Rect(2, 2, 6, 6), pattern);
}

TEST_F(InputRequestTest, ClampExtendsFromTheEdgePixels) {
    const Rect data(0, 0, 4, 4);
    const auto& r = request(data, IMGLIB::EXTEND_CLAMP, false, data);
    EXPECT_EQ(r.getMethod(), IMGLIB::EXTEND_CLAMP);
    // Inside the data: exactly the rectangle.
    EXPECT_EQ(r.requiredInputRect(Rect(1, 1, 3, 3)), Rect(1, 1, 3, 3));

    const Rect wanted(-2, -1, 6, 5);
    EXPECT_EQ(r.requiredInputRect(wanted), data);
    ImageBuffer tile = tileImage(data);
    expectPixels(r.buildImage(wanted, {tile}), wanted, [](int64_t x, int64_t y) {
        return pattern(IMGLIB::ClampCoordinate(x, 0, 4), IMGLIB::ClampCoordinate(y, 0, 4));
    });
    // The tile itself was not written to.
    expectPixels(tile, data, pattern);

    // Wholly beside the data: the image is made from pixels outside it.
    const Rect beside(10, 1, 12, 3);
    EXPECT_EQ(r.requiredInputRect(beside), Rect(3, 1, 4, 3));
    expectPixels(r.buildImage(beside, {tile}), beside,
                 [](int64_t, int64_t y) { return pattern(3, y); });
}

TEST_F(InputRequestTest, WithoutOverscanTheExtensionStartsAtTheDisplayEdge) {
    const Rect data(0, 0, 6, 4);     // two columns of overscan data right of
    const Rect display(0, 0, 4, 4);  // the display rectangle
    const Rect wanted(2, 0, 7, 4);
    ImageBuffer tile = tileImage(data);

    const auto& clipped = request(data, IMGLIB::EXTEND_CLAMP, false, display);
    EXPECT_EQ(clipped.requiredInputRect(wanted), Rect(2, 0, 4, 4));
    expectPixels(clipped.buildImage(wanted, {tile}), wanted,
                 [](int64_t x, int64_t y) { return pattern(std::min<int64_t>(x, 3), y); });

    const auto& overscan = request(data, IMGLIB::EXTEND_CLAMP, true, display);
    EXPECT_EQ(overscan.requiredInputRect(wanted), Rect(2, 0, 6, 4));
    expectPixels(overscan.buildImage(wanted, {tile}), wanted,
                 [](int64_t x, int64_t y) { return pattern(std::min<int64_t>(x, 5), y); });
}

TEST_F(InputRequestTest, MirrorReflectsAboutTheDataEdges) {
    const Rect data(0, 0, 4, 4);
    const auto& r = request(data, IMGLIB::EXTEND_MIRROR, false, data);
    const Rect wanted(-3, -2, 9, 6);
    EXPECT_EQ(r.requiredInputRect(wanted), data);
    expectPixels(r.buildImage(wanted, {tileImage(data)}), wanted, [](int64_t x, int64_t y) {
        return pattern(IMGLIB::MirrorCoordinate(x, 0, 4), IMGLIB::MirrorCoordinate(y, 0, 4));
    });
    // Beyond the right edge only the mirrored columns are read.
    EXPECT_EQ(r.requiredInputRect(Rect(5, 0, 6, 4)), Rect(2, 0, 3, 4));
}

TEST_F(InputRequestTest, DisplayRectangleBeyondTheDataIsSourceOfBackground) {
    // Data covers only the left half of the display: the extension reads the
    // display's edge, which holds the background colour.
    const Rect data(0, 0, 2, 2), display(0, 0, 4, 2);
    const auto& r = request(data, IMGLIB::EXTEND_CLAMP, false, display);
    const Rect wanted(0, 0, 6, 2);
    EXPECT_EQ(r.requiredInputRect(wanted), display);
    expectPixels(r.buildImage(wanted, {tileImage(data)}), wanted,
                 [&](int64_t x, int64_t y) { return x < 2 ? pattern(x, y) : kBackground.r; });
}
