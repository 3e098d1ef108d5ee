// Tiling never changes a pixel: every operation a graph file may use,
// rendered with tile sizes from 16 to the full frame on 1, 2 and 4 threads,
// gives the same bits, whether the file source is read through tiles or
// directly by its consumers, and whether the output's tiles are handed to
// an observer or rendered in the host's buffer.
#include <gtest/gtest.h>

#include <OpenImageIO/imageio.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "graphfile.h"
#include "private/tile.h"
#include "support/serial_render.h"
#include "support/sweep_graph.h"
#include "support/watchdog.h"

using namespace TESSERA;
using namespace TESSERA::testing;
namespace fs = std::filesystem;

namespace {

// Every float of every output tile, in pixel order. With the tile cache on,
// the file is read through tiles of its own; with it off, its consumers
// read it directly.
std::vector<float> render(const Graph& graph, int tile, int threads, bool cache) {
    RenderManager::setSpeculativeCachingEnable(cache);
    std::vector<float> pixels;
    for (const Imath::Color4<float>& c :
         renderOnThreads(graph.outputs[0].description, tile, threads))
        pixels.insert(pixels.end(), {c.r, c.g, c.b, c.a});
    return pixels;
}

// The same, rendered by renderInto straight into a host's buffer whose
// rows are padded and start off the allocator's alignment, as a host's
// frame may be laid out.
std::vector<float> renderInPlace(const Graph& graph, int tile, int threads) {
    const RenderDescription& output = graph.outputs[0].description;
    EXPECT_EQ(output.channels, IMGLIB::CHANNELS_RGBA);
    const HostFrame frame(output.rect, 3, 1, -7.0f);
    RenderManager::setGlobalTileSize(tile, tile);
    RenderManager::setRenderThreads(uint64_t(threads));
    // The cache emptied: tiles it kept would be copied in, not rendered there.
    RenderManager::clearSpeculativeCache();
    renderInto(output.task, frame.image);
    const int64_t width = output.rect.width();
    std::vector<float> pixels;
    bool outsideKept = frame.buffer[0] == -7.0f;
    for (int64_t y = output.rect.ymin; y < output.rect.ymax; ++y) {
        const float* row = frame.row(y);
        pixels.insert(pixels.end(), row, row + width * 4);
        outsideKept = outsideKept && row[width * 4] == -7.0f && row[width * 4 + 2] == -7.0f;
    }
    EXPECT_TRUE(outsideKept) << "a pixel outside the destination's rows was written";
    return pixels;
}

}  // namespace

TEST(TilingSweep, EveryOperationGivesTheSameBitsForEveryTileSizeAndThreadCount) {
    OIIO::attribute("threads", 1);
    const SweepFiles files;
    const std::vector<OperationDescription> operations = listOperations();
    ASSERT_GT(operations.size(), 50u);
    withinSeconds(1200, "the tiling sweep", [&] {
        for (const OperationDescription& op : operations) {
            RenderManager::ClearRenderTaskCache();
            const Graph graph = loadGraph(sweepGraph(op, files), files.dir.string());
            const std::vector<float> reference = render(graph, 4096, 1, false);
            // The operation made an image, not a uniform fill.
            ASSERT_NE(
                std::count(reference.begin(), reference.end(), reference[4 * 20 * 88 + 4 * 40]),
                std::ptrdiff_t(reference.size()))
                << op.name;
            for (int tile : {16, 37, 64, 256, 4096})
                for (int threads : {1, 2, 4}) {
                    if (tile == 4096 && threads == 1) continue;
                    const std::vector<float> got = render(graph, tile, threads, threads == 2);
                    ASSERT_EQ(got.size(), reference.size());
                    ASSERT_EQ(std::memcmp(got.data(), reference.data(), got.size() * sizeof(float)),
                              0)
                        << op.name << ": tile " << tile << ", " << threads << " threads";
                }
            for (int tile : {37, 4096}) {
                const std::vector<float> got = renderInPlace(graph, tile, 2);
                ASSERT_EQ(got.size(), reference.size());
                ASSERT_EQ(std::memcmp(got.data(), reference.data(), got.size() * sizeof(float)), 0)
                    << op.name << ": rendered in place, tile " << tile;
            }
        }
    });
    RenderManager::setGlobalTileSize(256, 256);
    RenderManager::setSpeculativeCachingEnable(true);
    RenderManager::ClearRenderTaskCache();
    EXPECT_EQ(Private::Tile::liveCount(), 0u);
}
