// A host's view: only the public headers and the shared library's exports.
#include <gtest/gtest.h>

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
