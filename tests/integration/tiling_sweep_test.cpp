// Tiling never changes a pixel: every operation a graph file may use,
// rendered with tile sizes from 16 to the full frame on 1, 2 and 4 threads,
// gives the same bits, whether the file source is read through tiles or
// directly by its consumers. The operations come from the graph format's own list,
// so an operation added later joins the sweep by being declared.
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
#include "support/watchdog.h"

using namespace TESSERA;
using namespace TESSERA::testing;
namespace fs = std::filesystem;

namespace {

const UTIL::Rect kArea(-4, -3, 70, 50);     // the first source's data
const UTIL::Rect kRampArea(18, 9, 76, 66);  // the second's: apart in some tiles
const UTIL::Rect kRender(-9, -7, 79, 58);   // a margin of background around it

// Files the file-reading operations read.
struct SweepFiles {
    fs::path dir = fs::temp_directory_path() / ("tessera_sweep_" + std::to_string(::getpid()));
    SweepFiles() {
        fs::create_directories(dir);
        // An EXR of halves with render passes beside RGBAZ: colour above 1
        // in places, alpha that varies, depth from 0.5 to 12; the passes
        // travel by name (a shuffle and a copy read them).
        const int w = int(kArea.width()), h = int(kArea.height());
        constexpr int kChannels = 7;
        OIIO::ImageSpec spec(w, h, kChannels, OIIO::TypeDesc::HALF);
        spec.channelnames = {"R", "G", "B", "A", "Z", "diffuse.G", "forward.u"};
        spec.x = int(kArea.xmin), spec.y = int(kArea.ymin);
        spec.full_x = spec.x, spec.full_y = spec.y;
        std::vector<float> pixels(size_t(w) * h * kChannels);
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x)
                for (int c = 0; c < kChannels; ++c)
                    pixels[(size_t(y) * w + x) * kChannels + c] =
                        c == 4 ? 0.5f + float((x + 2 * y) % 24) / 2.0f
                               : float((x * 7 + y * 3 + c * 5) % 23) / (c == 3 ? 22.0f : 9.0f);
        auto out = OIIO::ImageOutput::create(image());
        if (!out || !out->open(image(), spec) ||
            !out->write_image(OIIO::TypeDesc::FLOAT, pixels.data()))
            throw std::runtime_error("cannot write " + image());
        out->close();
        std::ofstream(lut()) << "Version 1\nFrom 0.0 1.0\nLength 3\nComponents 1\n{\n"
                                "0.0\n0.3\n1.0\n}\n";
        std::ofstream(config()) << "ocio_profile_version: 1\n"
                                   "roles:\n  default: linear\n"
                                   "displays:\n  sRGB:\n    - !<View> {name: Raw, colorspace: "
                                   "linear}\n"
                                   "colorspaces:\n"
                                   "  - !<ColorSpace>\n    name: linear\n"
                                   "  - !<ColorSpace>\n    name: warm\n"
                                   "    from_reference: !<MatrixTransform> {matrix: [1.2, 0.1, 0, "
                                   "0, 0, 1, 0, 0, 0, 0.2, 0.8, 0, 0, 0, 0, 1]}\n";
    }
    ~SweepFiles() { fs::remove_all(dir); }
    std::string image() const { return (dir / "plate.exr").string(); }
    std::string lut() const { return (dir / "curve.spi1d").string(); }
    std::string config() const { return (dir / "config.ocio").string(); }
};

// A value for a parameter the operation requires: its declared example
// (file names are those SweepFiles writes).
std::string requiredValue(const std::string& op, const OperationParameter& p) {
    if (p.example.empty()) throw std::runtime_error(op + ": no example for required " + p.name);
    return p.example;
}

// A graph of two sources (a plate with alpha and depth, and a ramp with
// depth from its blue) feeding
// `op`, with op as its output.
std::string graphFor(const OperationDescription& op, const SweepFiles& files) {
    std::ostringstream area;
    area << "[" << kArea.xmin << "," << kArea.ymin << "," << kArea.xmax << "," << kArea.ymax << "]";
    std::ostringstream g;
    g << "{\"nodes\": ["
      << "{\"id\": \"plate\", \"op\": \"filein\", \"params\": {\"path\": \"" << files.image()
      << "\"}},"
      << "{\"id\": \"ramp\", \"op\": \"shuffle\", \"params\": {\"z\": \"a.b\"}, "
         "\"inputs\": {\"a\": \"rampRGBA\"}},"
      << "{\"id\": \"rampRGBA\", \"op\": \"linearramp\", \"params\": {\"start\": [0, 0], "
         "\"end\": [60, 45], \"startColor\": [0.9, 0.1, 0.2, 1], \"endColor\": [0.1, 0.6, 1.4, "
         "0.5], \"area\": ["
      << kRampArea.xmin << "," << kRampArea.ymin << "," << kRampArea.xmax << "," << kRampArea.ymax
      << "]}},"
      << "{\"id\": \"op\", \"op\": \"" << op.name << "\", \"params\": {";
    bool first = true;
    for (const OperationParameter& p : op.parameters) {
        // Optional parameters keep their defaults unless the default would
        // make the operation a no-op (the declaration then gives an example).
        if (!p.defaultValue.empty() && p.example.empty()) continue;
        g << (first ? "" : ", ") << "\"" << p.name << "\": " << requiredValue(op.name, p);
        first = false;
    }
    g << "}, \"inputs\": {";
    for (size_t i = 0; i < op.inputs.size(); ++i)
        g << (i ? ", " : "") << "\"" << op.inputs[i] << "\": \"" << (i == 0 ? "plate" : "ramp")
          << "\"";
    g << "}}], \"outputs\": [{\"node\": \"op\", \"rect\": [" << kRender.xmin << "," << kRender.ymin
      << "," << kRender.xmax << "," << kRender.ymax << "], \"channels\": \"RGBA\"}]}";
    return g.str();
}

// Every float of every output tile, in pixel order. With the tile cache on,
// the file is read through tiles of its own; with it off, its consumers
// read it directly.
std::vector<float> render(const Graph& graph, int tile, int threads, bool cache) {
    RenderManager::setGlobalTileSize(tile, tile);
    RenderManager::setRenderThreads(uint64_t(threads));
    RenderManager::setSpeculativeCachingEnable(cache);
    RenderManager::clearSpeculativeCache();
    auto observer = make<RecordingObserver>();
    RenderManager::Render({graph.outputs[0].description}, observer, nullptr, true,
                          RENDERTYPE_BATCH);
    EXPECT_EQ(observer->status, RenderStatus::Success) << observer->message;
    std::vector<float> pixels;
    for (int64_t y = kRender.ymin; y < kRender.ymax; ++y)
        for (int64_t x = kRender.xmin; x < kRender.xmax; ++x) {
            const Imath::Color4<float> c = observer->pixel(0, x, y);
            pixels.insert(pixels.end(), {c.r, c.g, c.b, c.a});
        }
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
            const Graph graph = loadGraph(graphFor(op, files), files.dir.string());
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
        }
    });
    RenderManager::setGlobalTileSize(256, 256);
    RenderManager::setSpeculativeCachingEnable(true);
    RenderManager::ClearRenderTaskCache();
    EXPECT_EQ(Private::Tile::liveCount(), 0u);
}
