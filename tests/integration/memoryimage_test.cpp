// Host pixels in memory as a source: read in place where they cover a tile.
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <vector>

#include "filtertasks.h"
#include "generatortasks.h"
#include "imglib/channels.h"
#include "memoryimage.h"
#include "support/serial_render.h"

using namespace TESSERA;
using namespace TESSERA::testing;
using Color = Imath::Color4<float>;
using UTIL::Rect;

namespace {

// Host pixels over `bounds` with rows padded beyond the pixels, so that a
// reader ignoring the row length reads the wrong pixels.
struct HostPixels {
    explicit HostPixels(const Rect& bounds)
        : memory(std::make_shared<std::vector<float>>(
              static_cast<size_t>((bounds.width() * 4 + 8) * bounds.height()))) {
        image.channels = IMGLIB::CHANNELS_RGBA;
        image.x1 = bounds.xmin, image.y1 = bounds.ymin;
        image.x2 = bounds.xmax, image.y2 = bounds.ymax;
        image.rowBytes = (bounds.width() * 4 + 8) * 4;
        image.pixelPtr = memory->data();
    }
    void set(int64_t x, int64_t y, const Color& c) {
        float* p = memory->data() + (y - image.y1) * (image.rowBytes / 4) + (x - image.x1) * 4;
        p[0] = c.r, p[1] = c.g, p[2] = c.b, p[3] = c.a;
    }
    bool holds(const void* pixels) const {
        const float* p = static_cast<const float*>(pixels);
        return p >= memory->data() && p < memory->data() + memory->size();
    }
    std::shared_ptr<std::vector<float>> memory;
    IMGLIB::Image image;
};

Color expected(int64_t x, int64_t y) {
    return Color(float(x), float(y), float(x * y) * 0.01f, 0.5f);
}

TEST(MemoryImageTest, TilesItCoversAreViewsOfTheHostMemory) {
    const Rect bounds(0, 0, 64, 48), rendered(-8, -8, 72, 56);
    HostPixels host(bounds);
    for (int64_t y = 0; y < 48; ++y)
        for (int64_t x = 0; x < 64; ++x) host.set(x, y, expected(x, y));
    TaskPtr task = createMemoryImageTask("plate", 0, host.image, host.memory);
    EXPECT_EQ(host.memory.use_count(), 2);

    RenderManager::ClearRenderTaskCache();
    RenderManager::setGlobalTileSize(16, 16);
    RenderManager::setRenderThreads(2);
    auto observer = RCX_ptr_v4::ref_ptr<CollectingObserver>(new CollectingObserver);
    RenderManager::Render({RenderDescription(task, rendered, IMGLIB::CHANNELS_RGBA)}, observer,
                          nullptr, true, RENDERTYPE_BATCH);
    RenderManager::setGlobalTileSize(256, 256);

    // The 4 x 3 tiles inside the pixels are views; those reaching beyond
    // them are copies, transparent black outside.
    int views = 0;
    for (ImageBuffer& tile : observer->tiles[0]) {
        ImageBuffer_LockScoper lock(tile);
        const bool view = host.holds(tile.getImage()->pixelPtr);
        EXPECT_EQ(view, bounds.contains(tile.getBounds())) << tile.getBounds();
        views += view;
    }
    EXPECT_EQ(views, 12);
    for (int64_t y = rendered.ymin; y < rendered.ymax; ++y)
        for (int64_t x = rendered.xmin; x < rendered.xmax; ++x)
            ASSERT_EQ(observer->pixel(0, x, y),
                      bounds.contains(x, y) ? expected(x, y) : Color(0, 0, 0, 0))
                << x << "," << y;

    // The tiles handed out keep the memory alive after the task has gone,
    // and let it go with them.
    task = nullptr;
    RenderManager::ClearRenderTaskCache();
    EXPECT_GT(host.memory.use_count(), 1);
    observer->tiles.clear();
    EXPECT_EQ(host.memory.use_count(), 1);
}

TEST(MemoryImageTest, ConsumersSeeTheSamePixelsAsFromAnyOtherSource) {
    const Rect bounds(0, 0, 96, 80);
    const TaskPtr board = createCheckerboardTask("board", 0, Color(1, 0.5f, 0.25f, 1),
                                                 Color(0, 0.1f, 0.2f, 0.5f), 7, bounds);
    const std::vector<Color> pixels = renderPixels(board, bounds, 32);
    HostPixels host(bounds);
    for (int64_t y = 0; y < bounds.ymax; ++y)
        for (int64_t x = 0; x < bounds.xmax; ++x)
            host.set(x, y, pixels[static_cast<size_t>(y * bounds.width() + x)]);
    const TaskPtr plate = createMemoryImageTask("plate", 0, host.image, nullptr);

    PerChannelBlurParameters p;
    p.blur.sizeX = 9;
    p.blur.sizeY = 5;
    const Rect out(-6, -6, 102, 86);
    EXPECT_EQ(renderPixels(createBlur("fromMemory", 0, p, plate), out, 32),
              renderPixels(createBlur("fromBoard", 0, p, board), out, 32));

    // Fewer channels than the pixels hold: the tiles are copies of them.
    RenderManager::ClearRenderTaskCache();
    RenderManager::setGlobalTileSize(32, 32);
    auto observer = RCX_ptr_v4::ref_ptr<CollectingObserver>(new CollectingObserver);
    renderSerially({RenderOutput{plate, bounds, IMGLIB::CHANNEL_A, 0}}, observer);
    RenderManager::setGlobalTileSize(256, 256);
    for (ImageBuffer& tile : observer->tiles[0]) {
        ImageBuffer_LockScoper lock(tile);
        EXPECT_EQ(tile.getChannels(), IMGLIB::CHANNEL_A);
        EXPECT_FALSE(host.holds(tile.getImage()->pixelPtr));
    }
    EXPECT_EQ(observer->pixel(0, 7, 0).a, pixels[7].a);
    EXPECT_EQ(observer->pixel(0, 0, 0).a, pixels[0].a);
}

TEST(MemoryImageTest, PixelsThatCannotBeReadNameTheTask) {
    HostPixels host(Rect(0, 0, 8, 4));
    const auto message = [](const IMGLIB::Image& image) {
        try {
            createMemoryImageTask("plate", 0, image, nullptr);
        } catch (const std::invalid_argument& e) {
            return std::string(e.what());
        }
        return std::string("accepted");
    };
    IMGLIB::Image bad = host.image;
    bad.channels = uint64_t(1) << 40;
    EXPECT_EQ(message(bad), "plate: invalid channel mask 1099511627776");
    bad = host.image;
    bad.pixelPtr = nullptr;
    EXPECT_EQ(message(bad), "plate: null pixels");
    bad = host.image;
    bad.rowBytes = 100;
    EXPECT_EQ(message(bad), "plate: rows of 100 bytes hold fewer than 128");
    bad.x2 = bad.x1;  // empty: nothing is read
    EXPECT_EQ(message(bad), "accepted");
}

}  // namespace
