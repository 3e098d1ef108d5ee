// A host's view: only the public headers and the shared library's exports.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "support/watchdog.h"
#include "tessera.h"

using namespace TESSERA;

namespace {

// A source task written as a host would write one.
class Ramp : public RenderTask {
public:
    Ramp(const std::string& name, int64_t width) : RenderTask(name, 1.5f), m_width(width) {}

    std::string getTypeString() override { return "Ramp"; }
    void computeCacheID(CacheIDStream& s) override { s << m_width; }
    uint64_t computeOutputChannels() override { return IMGLIB::CHANNELS_RGBA; }
    UTIL::Region computeOutputDataRegion() override {
        return UTIL::Region(UTIL::Rect(0, 0, m_width, 1));
    }
    void makeInputFormatRequests() override {}
    void computeRequiredInputRectangles(const UTIL::Rect&, std::vector<UTIL::Rect>&) override {}
    void renderRect(const IMGLIB::Image* out, const std::vector<const IMGLIB::Image*>&) override {
        for (int64_t x = out->x1; x < out->x2; ++x) {
            expressions::Image(out).setPixel(static_cast<int>(x), 0,
                                             expressions::Color4(float(x), 0, 0, 1));
        }
    }

private:
    int64_t m_width;
};

}  // namespace

TEST(PublicApi, HostWrittenTaskDescribesAndRendersThroughTheSharedLibrary) {
    TaskPtr ramp(new Ramp("ramp", 16));
    EXPECT_EQ(ramp->getNameAtTime(), "ramp@1.5");
    EXPECT_EQ(ramp->getCacheID().size(), 33u);
    uint64_t channels = 0;
    UTIL::Region region;
    ramp->getOutputDescription(&channels, &region);
    EXPECT_EQ(channels, IMGLIB::CHANNELS_RGBA);
    EXPECT_EQ(region.boundingBox(), UTIL::Rect(0, 0, 16, 1));

    TempImageBuffer out(IMGLIB::CHANNELS_RGBA, UTIL::Rect(4, 0, 8, 1), "out");
    std::vector<ImageBuffer> inputs;
    ramp->render(out.getImage(), inputs);
    EXPECT_EQ(expressions::Image(out.getImage()).getPixel(6, 0), expressions::Color4(6, 0, 0, 1));

    std::vector<TileID> tiles;
    EXPECT_EQ(ramp->convertToTileIDs(UTIL::Rect(0, 0, 600, 10), tiles), 3u);
    EXPECT_GE(RenderTask::s_count.load(), 1u);
    RenderManager::ClearRenderTaskCache();
}

// The blocking render into a host's buffer: pixels, progress on the calling
// thread, cancellation from another thread, and a progress callback that
// throws.
TEST(PublicApi, RenderImageFillsTheHostsBufferAndReportsProgress) {
    RenderManager::setGlobalTileSize(32, 32);
    const UTIL::Rect area(-5, 3, 100, 70);
    const TaskPtr ramp = createLinearRampTask("ramp", 0, Imath::V2f(0, 0), {0, 0, 0, 1},
                                              Imath::V2f(100, 0), {1, 2, 3, 1}, area);
    std::vector<RenderProgress> seen;
    const std::thread::id caller = std::this_thread::get_id();
    RenderOptions options;
    options.progress = [&](const RenderProgress& p) {
        EXPECT_EQ(std::this_thread::get_id(), caller);
        seen.push_back(p);
    };
    RenderedImage image = renderImage(ramp, area, IMGLIB::CHANNELS_RGB, options);
    ASSERT_EQ(image.pixels.size(), size_t(area.width() * area.height() * 3));
    for (int64_t y = area.ymin; y < area.ymax; ++y)
        for (int64_t x = area.xmin; x < area.xmax; ++x) {
            const float t = std::min(std::max((float(x) + 0.5f) / 100.0f, 0.0f), 1.0f);
            const float* p =
                &image.pixels[size_t(((y - area.ymin) * area.width() + (x - area.xmin)) * 3)];
            ASSERT_NEAR(p[0], t, 1e-5) << x << ", " << y;
            ASSERT_NEAR(p[2], 3 * t, 1e-5) << x << ", " << y;
        }
    ASSERT_FALSE(seen.empty());
    // 32-pixel tiles over [-5, 100) x [3, 70): 5 columns, 3 rows.
    EXPECT_EQ(seen.back().tilesTotal, 15u);
    EXPECT_EQ(seen.back().tilesDone, 15u);
    for (size_t i = 1; i < seen.size(); ++i) EXPECT_LE(seen[i - 1].tilesDone, seen[i].tilesDone);

    // Into a buffer with padded rows, at an offset: only its own pixels change.
    std::vector<float> host(size_t(12 * 10 * 4), -1.0f);
    IMGLIB::Image destination;
    destination.channels = IMGLIB::CHANNELS_RGBA;
    destination.x1 = 50, destination.y1 = 20, destination.x2 = 60, destination.y2 = 30;
    destination.rowBytes = 12 * 16;
    destination.pixelPtr = host.data();
    renderInto(ramp, destination);
    EXPECT_NEAR(host[0], 0.505f, 1e-5);
    EXPECT_EQ(host[10 * 4], -1.0f);  // the padding
    EXPECT_NEAR(host[size_t((9 * 12 + 9) * 4 + 1)], 2 * 0.595f, 1e-5);
    RenderManager::setGlobalTileSize(256, 256);
}

TEST(PublicApi, RenderImageCancelsFromAnotherThreadAndWhenProgressThrows) {
    RenderManager::setGlobalTileSize(32, 32);
    RenderManager::setSpeculativeCachingEnable(false);
    const UTIL::Rect area(0, 0, 3000, 3000);
    const TaskPtr noise =
        createPerlinNoiseTask("noise", 0, 40, 12, 0.5f, 7, {0, 0, 0, 1}, {1, 1, 1, 1}, area);
    std::atomic<bool> cancel{false};
    std::thread canceller;
    RenderProgress last;
    RenderOptions options;
    options.cancel = &cancel;
    options.progress = [&](const RenderProgress& p) {
        last = p;
        if (p.tilesDone > 0 && !canceller.joinable())
            canceller = std::thread([&] { cancel = true; });
    };
    TESSERA::testing::withinSeconds(120, "a cancelled blocking render", [&] {
        EXPECT_THROW(renderImage(noise, area, IMGLIB::CHANNELS_RGBA, options),
                     RenderCancelledException);
    });
    canceller.join();
    EXPECT_LT(last.tilesDone, last.tilesTotal);

    options.cancel = nullptr;
    options.progress = [](const RenderProgress& p) {
        if (p.tilesDone > 0) throw std::runtime_error("host says stop");
    };
    TESSERA::testing::withinSeconds(120, "a render stopped by its progress callback", [&] {
        try {
            renderImage(noise, area, IMGLIB::CHANNELS_RGBA, options);
            ADD_FAILURE() << "the progress callback's exception was lost";
        } catch (const std::runtime_error& e) {
            EXPECT_STREQ(e.what(), "host says stop");
        }
    });
    // The queue is free again: a small render goes through.
    EXPECT_NO_THROW(renderImage(noise, UTIL::Rect(0, 0, 8, 8), IMGLIB::CHANNELS_RGBA));
    RenderManager::setSpeculativeCachingEnable(true);
    RenderManager::setGlobalTileSize(256, 256);
}

TEST(PublicApi, TheLibraryReportsTheVersionItWasBuiltAs) {
    // The headers and the loaded library are of one build here.
    EXPECT_STREQ(version(), TESSERA_VERSION);
    EXPECT_EQ(std::string(version()).rfind(std::to_string(TESSERA_VERSION_MAJOR) + ".", 0), 0u);
}
