// Generators, file input and output, graph files and the tessera command.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <OpenImageIO/imagebufalgo.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <thread>

#include "expressionmath/noise.h"
#include "fileio.h"
#include "generatortasks.h"
#include "graphfile.h"
#include "rendersystem/images/imageallocator.h"
#include "support/serial_render.h"

using namespace TESSERA;
using namespace TESSERA::testing;
using Color = Imath::Color4<float>;
using UTIL::Rect;
namespace fs = std::filesystem;

namespace {

class ProductTest : public ::testing::Test {
protected:
    void SetUp() override {
        RenderManager::ClearRenderTaskCache();
        OIIO::attribute("threads", 1);
        dir = fs::temp_directory_path() / ("tessera_product_" + std::to_string(::getpid()));
        fs::create_directories(dir);
    }
    void TearDown() override {
        fs::remove_all(dir);
        RenderManager::setGlobalTileSize(256, 256);
    }
    Color at(const std::vector<Color>& pixels, const Rect& r, int64_t x, int64_t y) {
        return pixels[static_cast<size_t>((y - r.ymin) * r.width() + (x - r.xmin))];
    }
    fs::path dir;
};

// The message loading a graph file's text fails with, or "no error".
std::string error(const std::string& json) {
    try {
        loadGraph(json);
    } catch (const GraphFileError& e) {
        return std::string(e.what());
    }
    return std::string("no error");
}

int run(const std::string& command) {
    const int status = std::system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

TEST_F(ProductTest, GeneratorsAtKnownPoints) {
    const Rect area(0, 0, 64, 32);
    auto pixels = [&](const TaskPtr& t) { return renderPixels(t, area, 16); };
    const Color red(1, 0, 0, 1), blue(0, 0, 1, 1);
    const auto checker = pixels(createCheckerboardTask("c", 0, red, blue, 8, area));
    EXPECT_EQ(at(checker, area, 0, 0), red);
    EXPECT_EQ(at(checker, area, 8, 0), blue);
    EXPECT_EQ(at(checker, area, 9, 9), red);
    const auto ramp = pixels(createLinearRampTask("r", 0, Imath::V2f(0, 0), Color(0, 0, 0, 0),
                                                  Imath::V2f(64, 0), Color(1, 1, 1, 1), area));
    EXPECT_FLOAT_EQ(at(ramp, area, 31, 5).r, 31.5f / 64.0f);
    const auto radial =
        pixels(createRadialRampTask("rr", 0, Imath::V2f(32, 16), 10, red, blue, area));
    EXPECT_EQ(at(radial, area, 63, 16), blue);  // beyond the radius
    EXPECT_NEAR(at(radial, area, 36, 15).r, 1.0f - std::sqrt(4.5f * 4.5f + 0.25f) / 10.0f, 1e-5f);
    const auto bars = pixels(createColorBarsTask("b", 0, area));
    EXPECT_EQ(at(bars, area, 0, 0), Color(.75f, .75f, .75f, 1));
    EXPECT_EQ(at(bars, area, 63, 0), Color(0, 0, 0, 1));
    const auto lattice = pixels(createLatticeTask("l", 0, red, blue, 16, 2, area));
    EXPECT_EQ(at(lattice, area, 16, 5), red);
    EXPECT_EQ(at(lattice, area, 18, 5), blue);
    const auto wheel = pixels(createHueWheelTask("h", 0, Imath::V2f(32, 16), 15, area));
    EXPECT_NEAR(at(wheel, area, 46, 15).r, 1.0f, 0.1f);  // hue 0 to the right: red
    EXPECT_EQ(at(wheel, area, 0, 0).a, 0.0f);            // beyond the radius
    const auto noise =
        pixels(createRandomNoiseTask("n", 0, 5, Color(0, 0, 0, 0), Color(1, 1, 1, 1), area));
    EXPECT_FLOAT_EQ(at(noise, area, 7, 3).g, Orrery3::Expressionmath::v3::randval(7, 3, 5));
    const auto perlin = pixels(
        createPerlinNoiseTask("p", 0, 16, 1, 0.5f, 0, Color(0, 0, 0, 0), Color(1, 1, 1, 1), area));
    EXPECT_NEAR(at(perlin, area, 5, 9).r,
                Orrery3::Expressionmath::v3::noise(5.5f / 16, 9.5f / 16, 0), 1e-6f);
    // The defined region is exactly the area; identical parameters share a cache ID.
    UTIL::Region region;
    createConstantTask("k", 0, red, Rect(3, 4, 5, 6))->getOutputDescription(nullptr, &region);
    EXPECT_EQ(region, UTIL::Region(Rect(3, 4, 5, 6)));
    EXPECT_EQ(createConstantTask("x", 0, red, area)->getCacheID(),
              createConstantTask("y", 0, red, area)->getCacheID());
    EXPECT_THROW(createCheckerboardTask("bad", 0, red, blue, 0, area), InvalidParameterException);
}

TEST_F(ProductTest, FilesRoundTripWithinTheirPrecision) {
    // Several tiles, the last row and column partial.
    const int tileWidth = int(RenderManager::getGlobalTileWidth());
    const int tileHeight = int(RenderManager::getGlobalTileHeight());
    const Rect area(0, 0, tileWidth + 50, tileHeight + 40);
    TaskPtr source = createLinearRampTask("ramp", 0, Imath::V2f(0, 0), Color(0, 0.2f, 0, 1),
                                          Imath::V2f(float(area.xmax), float(area.ymax)),
                                          Color(1, 0.8f, 0.5f, 1), area);
    RCX_ptr_v4::ref_ptr<FileWriter> writer(new FileWriter);
    const std::vector<std::pair<std::string, float>> files = {{"ramp.exr", 1e-3f},
                                                              {"ramp_float.exr", 0.0f},
                                                              {"ramp.tif", 2e-5f},
                                                              {"ramp.png", 1.0f / 255}};
    std::vector<FileOutParams> params;
    for (const auto& f : files) {
        FileOutParams p;
        p.path = (dir / f.first).string();
        if (f.first == "ramp_float.exr") p.dataType = "float";
        params.push_back(p);
    }
    RenderDescription out(source, area, IMGLIB::CHANNELS_RGBA);
    writer->addOutput(0, out, params);
    RenderManager::Render({out}, writer, nullptr, true, RENDERTYPE_BATCH);
    EXPECT_EQ(writer->getErrors(), "");
    const auto expected = renderPixels(source, area, 16);
    for (size_t i = 0; i < files.size(); ++i) {
        TaskPtr read = createFileInTask("in", 0, FileInParams{params[i].path, 0});
        uint64_t channels;
        UTIL::Region region;
        read->getOutputDescription(&channels, &region);
        EXPECT_EQ(channels, IMGLIB::CHANNELS_RGBA) << files[i].first;
        EXPECT_EQ(region, UTIL::Region(area));
        if (std::filesystem::path(params[i].path).extension() == ".exr") {
            // EXR files are streamed as tiles on the render's tile grid.
            auto in = OIIO::ImageInput::open(params[i].path);
            ASSERT_TRUE(in);
            EXPECT_EQ(in->spec().tile_width, tileWidth) << files[i].first;
            EXPECT_EQ(in->spec().tile_height, tileHeight) << files[i].first;
        }
        const auto got = renderPixels(read, area, 16);
        for (size_t p = 0; p < got.size(); ++p)
            for (int c = 0; c < 4; ++c)
                ASSERT_NEAR(got[p][c], expected[p][c], files[i].second + 1e-7f) << files[i].first;
    }
}

TEST_F(ProductTest, TiledFilesAreReadInTheRegionsTheRenderNeeds) {
    // A tiled EXR with a data window away from the origin.
    const int W = 512, H = 384;
    OIIO::ImageSpec spec(W, H, 4, OIIO::TypeDesc::FLOAT);
    spec.x = 100;
    spec.y = -50;
    spec.tile_width = spec.tile_height = 64;
    OIIO::ImageBuf buf(spec);
    for (int y = spec.y; y < spec.y + H; ++y)
        for (int x = spec.x; x < spec.x + W; ++x) {
            const float v[4] = {float(x), float(y), 0.5f, 1};
            buf.setpixel(x, y, v);
        }
    const std::string path = (dir / "tiled.exr").string();
    buf.set_write_tiles(64, 64);
    ASSERT_TRUE(buf.write(path));
    const FileWindows windows = readFileWindows(path);
    EXPECT_EQ(windows.dataWindow, Rect(100, -50, 612, 334));
    TaskPtr read = createFileInTask("tiled", 0, FileInParams{path, 0});
    Private::ImageAllocator::instance().resetStatistics();  // peaks of earlier tests
    const Rect crop(300, 100, 340, 130);
    const auto got = renderPixels(read, crop, 16);
    for (int64_t y = crop.ymin; y < crop.ymax; ++y)
        for (int64_t x = crop.xmin; x < crop.xmax; ++x) {
            ASSERT_EQ(at(got, crop, x, y).r, float(x));
            ASSERT_EQ(at(got, crop, x, y).g, float(y));
        }
    // The crop lies in one 64x64 file tile: that tile alone was decoded, once
    // for every render tile that needed it, and counted as file memory.
    EXPECT_EQ(Private::ImageAllocator::instance().getPeakFileInMemUsage(), 64 * 64 * 16);
}

// Tall files read on two threads with small render tiles: blocks are read
// by several readers at once, dropped once the render has moved on and read
// again if asked again (a blur reads rows above its tile). Every pixel is the
// file's, scanline and tiled alike, and the file memory stays within half
// the image memory budget (here a megabyte for a file of two) although the
// tiles' order (centre first) keeps asking for blocks again.
TEST_F(ProductTest, FilesReadInParallelAndDroppedBehindTheRenderKeepEveryPixel) {
    const int W = 64, H = 2000;
    OIIO::ImageSpec spec(W, H, 4, OIIO::TypeDesc::FLOAT);
    OIIO::ImageBuf buf(spec);
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W; ++x) {
            const float v[4] = {float(x), float(y), float((x * 7 + y) % 13), 1};
            buf.setpixel(x, y, v);
        }
    RenderManager::setRenderThreads(2);
    RenderManager::setSpeculativeCachingEnable(false);
    const uint64_t budget = RenderManager::GetMaxImageMemory();
    RenderManager::SetMaxImageMemory(2);  // MB
    for (const bool tiled : {false, true}) {
        const std::string path = (dir / (tiled ? "tall_tiled.exr" : "tall.exr")).string();
        if (tiled) buf.set_write_tiles(16, 16);
        ASSERT_TRUE(buf.write(path));
        RenderManager::ClearRenderTaskCache();
        Private::ImageAllocator::instance().resetStatistics();
        TaskPtr read = createFileInTask("tall", 0, FileInParams{path, 0});
        PerChannelBlurParameters params;
        params.blur.sizeX = params.blur.sizeY = 9;
        TaskPtr blurred = createBlurTask("soft", 0, params, read);
        const Rect all(0, 0, W, H);
        RenderManager::setGlobalTileSize(16, 16);
        auto observer = make<CollectingObserver>();
        RenderManager::Render({RenderDescription(read, all, IMGLIB::CHANNELS_RGBA),
                               RenderDescription(blurred, all, IMGLIB::CHANNELS_RGBA)},
                              observer, nullptr, true, RENDERTYPE_BATCH);
        for (int y = 0; y < H; ++y)
            for (int x = 0; x < W; ++x)
                ASSERT_EQ(observer->pixel(0, x, y),
                          Color(float(x), float(y), float((x * 7 + y) % 13), 1))
                    << (tiled ? "tiled " : "scanline ") << x << ", " << y;
        // Red and green are ramps, which a symmetric blur leaves as they are
        // away from the edges, wherever the tile and block boundaries fall.
        for (int y = 8; y < H - 8; y += 37) {
            EXPECT_NEAR(observer->pixel(1, 30, y).r, 30.0f, 1e-3f) << y;
            EXPECT_NEAR(observer->pixel(1, 30, y).g, float(y), 1e-3f) << y;
        }
        // Half the budget, and the blocks being read meanwhile.
        EXPECT_LT(Private::ImageAllocator::instance().getPeakFileInMemUsage(),
                  (1 << 20) + (1 << 18));
    }
    RenderManager::SetMaxImageMemory(budget);
    RenderManager::setSpeculativeCachingEnable(true);
    RenderManager::setGlobalTileSize(256, 256);
}

TEST_F(ProductTest, UnreadableFilesNameThemselves) {
    const std::string missing = (dir / "missing.exr").string();
    try {
        createFileInTask("in", 0, FileInParams{missing, 0});
        FAIL();
    } catch (const RenderTaskRenderingException& e) {
        EXPECT_NE(std::string(e.what()).find(missing), std::string::npos) << e.what();
    }
    const std::string corrupt = (dir / "corrupt.exr").string();
    std::ofstream(corrupt) << "not an image at all";
    EXPECT_THROW(createFileInTask("in", 0, FileInParams{corrupt, 0}), RenderTaskRenderingException);
}

TEST_F(ProductTest, GraphFileErrorsNameTheNodeAndField) {
    const std::string bars =
        R"({"id": "bars", "op": "colorbars", "params": {"area": [0, 0, 8, 8]}})";
    const std::string out = R"("outputs": [{"node": "x"}])";
    EXPECT_EQ(error("{"), error("{").substr(0, 0) + error("{"));  // not JSON: reported, not crashed
    EXPECT_NE(error("{").find("not valid JSON"), std::string::npos);
    EXPECT_EQ(error(R"({"nodes": [{"id": "x", "op": "nosuch"}], )" + out + "}"),
              "node 'x', field 'op': unknown operation 'nosuch' (tessera ops lists them)");
    EXPECT_EQ(error(R"({"nodes": [{"id": "x", "op": "colorbars"}], )" + out + "}"),
              "node 'x', field 'area': required");
    EXPECT_EQ(
        error(R"({"nodes": [{"id": "x", "op": "colorbars", "params": {"area": 5}}], )" + out + "}"),
        "node 'x', field 'area': expected [xmin, ymin, xmax, ymax], got 5");
    EXPECT_EQ(
        error(
            R"({"nodes": [{"id": "x", "op": "colorbars", "params": {"area": [0,0,1,1], "size": 3}}], )" +
            out + "}"),
        "node 'x', field 'size': unknown parameter of colorbars");
    EXPECT_EQ(error(R"({"nodes": [{"id": "x", "op": "colorbars", "colour": 1}], )" + out + "}"),
              "node 'x', field 'colour': unknown field");
    EXPECT_EQ(error(R"({"nodes": [{"id": "x", "op": "gain", "inputs": {"input": "ghost"}}], )" +
                    out + "}"),
              "node 'x', field 'input': no node 'ghost'");
    EXPECT_EQ(error(R"({"nodes": [{"id": "x", "op": "gain", "inputs": {"input": "y"}},
                                  {"id": "y", "op": "gain", "inputs": {"input": "x"}}], )" +
                    out + "}"),
              "node 'x', field 'input': the graph has a cycle through this node");
    EXPECT_EQ(
        error(R"({"nodes": [)" + bars + R"(], "outputs": [{"node": "bars", "channels": "RGBQ"}]})"),
        "node 'bars', field 'channels': the node has no channel 'RGBQ' (it has RGBA)");
    EXPECT_EQ(error(R"({"nodes": [)" + bars + R"(], "outputs": [{"node": "bars"}], "extra": 1})"),
              "node '(file)', field 'extra': unknown field");
    // A well-formed graph loads, its output area defaulting to the node's.
    const Graph g = loadGraph(R"({"nodes": [)" + bars + R"(], "outputs": [{"node": "bars"}]})");
    ASSERT_EQ(g.outputs.size(), 1u);
    EXPECT_EQ(g.outputs[0].description.rect, Rect(0, 0, 8, 8));
    EXPECT_NE(describeOperations().find("blur: separable blur"), std::string::npos);
}

TEST_F(ProductTest, TheCommandExitsCleanlyAndTheDemoMatchesItsReference) {
    const std::string cli = TESSERA_CLI_PATH;
    EXPECT_EQ(run(cli + " ops > /dev/null"), 0);

    // The demo, written under a scratch folder, against the checked-in reference.
    ASSERT_EQ(run("cd " + dir.string() + " && " + cli + " demo --threads 2 --tile 128 > /dev/null"),
              0);
    OIIO::ImageBuf rendered((dir / "out/demo.exr").string());
    ASSERT_TRUE(rendered.read(0, 0, true, OIIO::TypeDesc::FLOAT)) << rendered.geterror();
    EXPECT_EQ(rendered.spec().width, 1280);
    // Reduced as the reference was, and clamped as its 8-bit file is.
    OIIO::ImageBuf small = OIIO::ImageBufAlgo::clamp(
        OIIO::ImageBufAlgo::resize(rendered, "", 0, OIIO::ROI(0, 160, 0, 90, 0, 1, 0, 4)), 0.0f,
        1.0f);
    OIIO::ImageBuf reference(std::string(TESSERA_TEST_DATA) + "/demo_reference.png");
    ASSERT_TRUE(reference.read(0, 0, true, OIIO::TypeDesc::FLOAT));
    const auto comparison = OIIO::ImageBufAlgo::compare(small, reference, 2.5f / 255, 2.5f / 255);
    EXPECT_EQ(comparison.nfail, 0u) << "max error " << comparison.maxerror;
    EXPECT_TRUE(fs::exists(dir / "out/demo.png"));
}

// Usage and graph-file mistakes exit with 2 and one line naming the
// problem; option values outside what they allow are refused before
// anything runs.
TEST_F(ProductTest, TheCommandRefusesBadUsageWithOneLineAndStatusTwo) {
    const std::string cli = TESSERA_CLI_PATH;
    const std::string log = (dir / "err.txt").string();
    const auto fails = [&](const std::string& args) {
        const int status = run(cli + " " + args + " > /dev/null 2> " + log);
        std::ifstream in(log);
        std::string first;
        std::getline(in, first);
        return std::make_pair(status, first);
    };
    const std::string bad = (dir / "bad.json").string();
    std::ofstream(bad) << R"({"nodes": [{"id": "x", "op": "gain"}], "outputs": [{"node": "x"}]})";
    const std::pair<std::string, std::string> cases[] = {
        {"", "A subcommand is required"},
        {"frobnicate", "frobnicate"},
        {"render " + (dir / "none.json").string(), "none.json"},
        {"render " + dir.string(), "directory"},
        {"demo --threads zero", "--threads"},
        {"demo --threads 99999999999999999999", "--threads"},
        {"demo --threads 0", "--threads"},
        {"demo --mem 8796093022208", "--mem"},
        {"demo --tile -4", "--tile"},
        {"ops nosuch", "unknown operation 'nosuch'"},
        {"render " + bad, "node 'x'"},
        {"render " + bad + " --set x", "NODE.PARAM=VALUE"},
        {"render " + bad + " --set y.gain=2", "node 'y'"},
    };
    for (const auto& [args, named] : cases) {
        const auto [status, line] = fails(args);
        EXPECT_EQ(status, 2) << args;
        EXPECT_NE(line.find(named), std::string::npos) << args << ": " << line;
    }
    // Help and version are answers, not errors.
    EXPECT_EQ(run(cli + " --help > " + log), 0);
    EXPECT_EQ(run(cli + " render --help > /dev/null"), 0);
    EXPECT_EQ(run(cli + " --version > " + log), 0);
    std::ifstream version(log);
    std::string line;
    std::getline(version, line);
    EXPECT_EQ(line, "tessera " TESSERA_VERSION);
}

// --set changes a node's parameter; the file appears only when complete; a
// log gets plain progress lines and --quiet gets none.
TEST_F(ProductTest, TheCommandOverridesParametersAndReportsProgressPlainly) {
    const std::string cli = TESSERA_CLI_PATH;
    const fs::path out = dir / "set.exr";
    const std::string graph = (dir / "set.json").string();
    std::ofstream(graph) << R"({"nodes": [{"id": "c", "op": "constant", "params": {"area": [0, 0,
        64, 64], "color": [0.5, 0.5, 0.5, 1]}}], "outputs": [{"node": "c", "file": [")" +
                                out.string() + R"("], "dataType": "float"}]})";
    const std::string log = (dir / "log.txt").string();
    ASSERT_EQ(run(cli + " render " + graph + " --set 'c.color=[1, 0.25, 0, 1]' --set " +
                  "c.area=[0,0,32,16] > " + log + " 2>&1"),
              0);
    OIIO::ImageBuf image(out.string());
    ASSERT_TRUE(image.read(0, 0, true, OIIO::TypeDesc::FLOAT)) << image.geterror();
    EXPECT_EQ(image.spec().width, 32);
    EXPECT_EQ(image.spec().height, 16);
    float pixel[4];
    image.getpixel(5, 5, pixel);
    EXPECT_EQ(pixel[1], 0.25f);
    std::ifstream in(log);
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_NE(text.find("tessera: 100% (1 of 1 tiles)"), std::string::npos) << text;
    // Nothing but the image is left in the folder: no temporary file.
    for (const auto& entry : fs::directory_iterator(dir))
        EXPECT_EQ(entry.path().filename().string().rfind(".set", 0), std::string::npos)
            << entry.path();

    ASSERT_EQ(run(cli + " render " + graph + " --quiet > " + log + " 2>&1"), 0);
    std::ifstream quiet(log);
    EXPECT_EQ(
        std::string((std::istreambuf_iterator<char>(quiet)), std::istreambuf_iterator<char>()), "");

    // A render refused before it starts (beyond the tile grid) leaves
    // neither the file nor its temporary, though the file was opened.
    const std::string far = (dir / "far.json").string();
    std::ofstream(far) << R"({"nodes": [{"id": "c", "op": "constant", "params": {"area":
        [9999872, 0, 10000128, 64]}}], "outputs": [{"node": "c", "file": [")" +
                              (dir / "far.exr").string() + R"("]}]})";
    EXPECT_EQ(run(cli + " render " + far + " > /dev/null 2>&1"), 1);
    for (const auto& entry : fs::directory_iterator(dir)) {
        const std::string name = entry.path().filename().string();
        EXPECT_TRUE(name == "far.json" || name.find("far") == std::string::npos) << name;
    }
}

TEST_F(ProductTest, EveryExampleGraphLoadsAndRenders) {
    for (const auto& entry : fs::directory_iterator(TESSERA_EXAMPLES)) {
        if (entry.path().extension() != ".json") continue;
        const Graph graph = loadGraphFile(entry.path().string());
        ASSERT_FALSE(graph.outputs.empty()) << entry.path();
        for (const GraphOutput& out : graph.outputs) {
            const UTIL::Rect& r = out.description.rect;
            const Rect corner(r.xmin, r.ymin, std::min(r.xmax, r.xmin + 64),
                              std::min(r.ymax, r.ymin + 64));
            const auto pixels = renderPixels(out.description.task, corner, 32);
            EXPECT_EQ(pixels.size(), size_t(corner.area())) << entry.path();
        }
    }
}

TEST_F(ProductTest, FilesAreReadAsTheyAreOnDiskAndGreyTakesRGB) {
    RenderManager::setSpeculativeCachingEnable(true);
    const std::string path = (dir / "matte.png").string();
    auto write = [&](float grey, float alpha) {
        OIIO::ImageSpec spec(8, 6, 2, OIIO::TypeDesc::UINT8);
        spec.channelnames = {"Y", "A"};
        std::vector<float> pixels(8 * 6 * 2);
        for (size_t i = 0; i < pixels.size(); i += 2) pixels[i] = grey, pixels[i + 1] = alpha;
        auto out = OIIO::ImageOutput::create(path);
        ASSERT_TRUE(out && out->open(path, spec));
        ASSERT_TRUE(out->write_image(OIIO::TypeDesc::FLOAT, pixels.data()));
        out->close();
    };
    auto read = [&] {
        TaskPtr in = createFileInTask("matte", 0, FileInParams{path, 0});
        auto observer = make<CollectingObserver>();
        RenderManager::Render({RenderDescription(in, Rect(0, 0, 8, 6), IMGLIB::CHANNELS_RGBA)},
                              observer, nullptr, true, RENDERTYPE_BATCH);
        return observer->pixel(0, 3, 2);
    };
    write(0.2f, 0.6f);
    const Color first = read();
    EXPECT_NEAR(first.r, 0.2f, 1.0f / 255);
    EXPECT_EQ(first.r, first.g);
    EXPECT_EQ(first.r, first.b);
    EXPECT_NEAR(first.a, 0.6f, 1.0f / 255);
    // Written again at the same path, the same size, a moment later.
    const auto written = fs::last_write_time(path);
    write(0.8f, 1.0f);
    fs::last_write_time(path, written + std::chrono::seconds(1));
    const Color second = read();
    EXPECT_NEAR(second.g, 0.8f, 1.0f / 255);
    EXPECT_EQ(second.a, 1.0f);

    // A change the file system cannot show (same size, time and inode) is
    // made known with forgetFile: the task's cached tiles go, and the next
    // render reads the file again.
    TaskPtr kept = createFileInTask("matte", 0, FileInParams{path, 0});
    auto renderKept = [&] {
        auto observer = make<CollectingObserver>();
        RenderManager::Render({RenderDescription(kept, Rect(0, 0, 8, 6), IMGLIB::CHANNELS_RGBA)},
                              observer, nullptr, true, RENDERTYPE_BATCH);
        return observer->pixel(0, 3, 2);
    };
    EXPECT_NEAR(renderKept().g, 0.8f, 1.0f / 255);
    const auto before = fs::last_write_time(path);
    write(0.4f, 1.0f);
    fs::last_write_time(path, before);
    EXPECT_NEAR(renderKept().g, 0.8f, 1.0f / 255);  // served from the tile cache
    forgetFile(path);
    EXPECT_NEAR(renderKept().g, 0.4f, 1.0f / 255);
    EXPECT_NE(createFileInTask("matte", 0, FileInParams{path, 0})->getCacheID(),
              kept->getCacheID());
}

TEST_F(ProductTest, DeepAndHostileGraphFilesAreRefusedOrLoadedWithoutRecursion) {
    // A chain of 20,000 clamps loads and renders.
    std::string chain = R"({"nodes": [{"id": "n0", "op": "constant", "params": {"color": [0.5,
        0.5, 0.5, 1], "area": [0, 0, 4, 4]}})";
    for (int i = 1; i <= 20000; ++i)
        chain += R"(, {"id": "n)" + std::to_string(i) +
                 R"(", "op": "clamp", "inputs": {"input": "n)" + std::to_string(i - 1) + R"("}})";
    chain += R"(], "outputs": [{"node": "n20000"}]})";
    const Graph g = loadGraph(chain);
    RenderManager::setGlobalTileSize(4, 4);
    EXPECT_EQ(renderPixels(g.outputs[0].description.task, Rect(0, 0, 4, 4), 4)[5],
              Color(0.5f, 0.5f, 0.5f, 1));
    // A parameter nested 200,000 levels deep.
    const std::string deep = std::string(200000, '[') + std::string(200000, ']');
    EXPECT_EQ(error(R"({"nodes": [{"id": "x", "op": "colorbars", "params": {"area": )" + deep +
                    R"(}}], "outputs": [{"node": "x"}]})"),
              "node '(file)': values nest more than 64 levels deep");
    // Parameters no render could honour name their node and the value.
    const std::string noise =
        R"({"nodes": [{"id": "n", "op": "perlinnoise", "params": {"octaves": 2147483647,
        "area": [0, 0, 8, 8]}}], "outputs": [{"node": "n"}]})";
    EXPECT_NE(error(noise).find("node 'n', field 'octaves': value 2147483647 is out of range"),
              std::string::npos);
    const std::string defocus =
        R"({"nodes": [{"id": "c", "op": "constant", "params": {"area": [0, 0, 8, 8]}},
        {"id": "d", "op": "defocus", "params": {"size": 5, "blades": 1000000000},
        "inputs": {"input": "c"}}], "outputs": [{"node": "d"}]})";
    EXPECT_NE(error(defocus).find("field 'blades': value 1000000000 is out of range"),
              std::string::npos)
        << error(defocus);
    for (const char* size : {"1e9", "1e300"}) {
        const std::string blur =
            R"({"nodes": [{"id": "c", "op": "constant", "params": {"area": [0, 0, 8, 8]}},
            {"id": "b", "op": "blur", "params": {"size": [)" +
            std::string(size) + R"(, 3]}, "inputs": {"input": "c"}}], "outputs": [{"node": "b"}]})";
        EXPECT_NE(error(blur).find("node 'b'"), std::string::npos) << size;
        EXPECT_NE(error(blur).find("out of range"), std::string::npos) << error(blur);
    }
}

TEST_F(ProductTest, AFileThatCannotBeWrittenFailsTheRenderAndLeavesNothing) {
    const std::string cli = TESSERA_CLI_PATH;
    for (const char* file : {"big.exr", "big.png"}) {
        const fs::path graph = dir / "big.json";
        std::ofstream(graph) << R"({"nodes": [{"id": "n", "op": "perlinnoise", "params": {"area":
            [0, 0, 1024, 1024]}}], "outputs": [{"node": "n", "file": [")" +
                                    (dir / file).string() +
                                    R"("], "dataType": "float", "compression": "none"}]})";
        // Files larger than 100 KiB fail as on a full disk (the signal is
        // ignored, so writes fail with an error instead); `timeout` makes a
        // hang fail the test.
        const std::string log = (dir / "log.txt").string();
        const int status = run("timeout 120 bash -c \"trap '' XFSZ; ulimit -f 100; " + cli +
                               " render " + graph.string() + "\" > " + log + " 2>&1");
        std::ifstream in(log);
        const std::string output((std::istreambuf_iterator<char>(in)),
                                 std::istreambuf_iterator<char>());
        EXPECT_EQ(status, 1) << file << ": " << output;
        EXPECT_NE(output.find("cannot write '" + (dir / file).string() + "': File too large"),
                  std::string::npos)
            << output;
        EXPECT_EQ(output.find("wrote"), std::string::npos) << output;
        EXPECT_FALSE(fs::exists(dir / file)) << file;
    }
}

TEST_F(ProductTest, AnInterruptedCommandRemovesItsSwapFilesAndItsOutput) {
    const fs::path swap = dir / "swap";
    fs::create_directories(swap);
    const fs::path graph = dir / "swapping.json";
    const fs::path output = dir / "swapping.exr";
    std::ofstream(graph) << R"({"nodes": [{"id": "n", "op": "perlinnoise", "params": {"area":
        [0, 0, 4096, 4096], "octaves": 6}}, {"id": "b", "op": "blur", "params": {"size": [41, 41]},
        "inputs": {"input": "n"}}], "outputs": [{"node": "b", "file": [")" +
                                output.string() + R"("]}]})";
    const std::string cli = TESSERA_CLI_PATH;
    const std::string tmpdir = "MARLIN_TMPDIR=" + swap.string();
    const std::vector<std::string> args = {cli, "render", graph.string(), "--mem", "16"};
    std::vector<char*> argv;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    std::vector<char*> envp{const_cast<char*>(tmpdir.c_str()), nullptr};
    posix_spawn_file_actions_t quiet;
    posix_spawn_file_actions_init(&quiet);
    posix_spawn_file_actions_addopen(&quiet, 2, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&quiet, 1, "/dev/null", O_WRONLY, 0);
    pid_t pid = 0;
    ASSERT_EQ(posix_spawn(&pid, cli.c_str(), &quiet, nullptr, argv.data(), envp.data()), 0);
    posix_spawn_file_actions_destroy(&quiet);
    // Interrupted once it swaps (or after 60 s at the latest).
    const auto start = std::chrono::steady_clock::now();
    while (fs::is_empty(swap) &&
           std::chrono::steady_clock::now() - start < std::chrono::seconds(60))
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(fs::is_empty(swap)) << "the render never swapped";
    ::kill(pid, SIGINT);
    int status = 0;
    for (int waited = 0; waitpid(pid, &status, WNOHANG) == 0; ++waited) {
        if (waited == 6000) {  // 120 s: a hang
            ::kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            FAIL() << "the command did not stop when interrupted";
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 130);
    EXPECT_TRUE(fs::is_empty(swap));
    EXPECT_FALSE(fs::exists(output));
    // Nor the temporary file it was being written to.
    for (const auto& entry : fs::directory_iterator(dir))
        EXPECT_EQ(entry.path().filename().string().rfind(".swapping", 0), std::string::npos)
            << entry.path();
}

// Files of every everyday format and depth give the values OpenImageIO's
// own float read gives, bit for bit, including pictures tall enough to be
// read in several bands.
TEST_F(ProductTest, OtherFormatsReadAsOpenImageIOReadsThem) {
    const int w = 1800, h = 800;  // two bands of rows of floats
    const std::vector<std::pair<std::string, OIIO::TypeDesc>> files = {
        {"a.png", OIIO::TypeDesc::UINT8},  {"b.png", OIIO::TypeDesc::UINT16},
        {"c.tif", OIIO::TypeDesc::UINT16}, {"d.tif", OIIO::TypeDesc::FLOAT},
        {"e.dpx", OIIO::TypeDesc::UINT16}, {"f.bmp", OIIO::TypeDesc::UINT8},
        {"g.jpg", OIIO::TypeDesc::UINT8},  {"h.tga", OIIO::TypeDesc::UINT8},
        {"i.tif", OIIO::TypeDesc::UINT8}};
    for (const auto& [name, type] : files) {
        const std::string path = (dir / name).string();
        const int channels = name == "f.bmp" || name == "g.jpg" || name == "e.dpx" ? 3 : 4;
        OIIO::ImageSpec spec(w, h, channels, type);
        std::vector<float> written(size_t(w) * h * size_t(channels));
        for (size_t i = 0; i < written.size(); ++i) written[i] = float((i * 7919) % 1000) / 999.0f;
        auto out = OIIO::ImageOutput::create(path);
        ASSERT_TRUE(out && out->open(path, spec)) << name;
        ASSERT_TRUE(out->write_image(OIIO::TypeDesc::FLOAT, written.data())) << name;
        out->close();

        auto in = OIIO::ImageInput::open(path);
        ASSERT_TRUE(in) << name;
        std::vector<float> theirs(size_t(w) * h * size_t(channels));
        ASSERT_TRUE(in->read_image(0, 0, 0, channels, OIIO::TypeDesc::FLOAT, theirs.data()));
        const auto ours =
            renderPixels(createFileInTask("in", 0, FileInParams{path, 0}), Rect(0, 0, w, h), 256);
        size_t differ = 0;
        for (size_t p = 0; p < ours.size(); ++p)
            for (int c = 0; c < channels; ++c)
                differ += ours[p][c] != theirs[p * size_t(channels) + size_t(c)];
        EXPECT_EQ(differ, 0u) << name;
    }
}

TEST_F(ProductTest, AVeryWideFileIsReadInBoundedBandsOrRefused) {
    // A million pixels wide (4 MB of uint8, tiny once compressed).
    const std::string path = (dir / "wide.png").string();
    {
        OIIO::ImageSpec spec(1000000, 3, 4, OIIO::TypeDesc::UINT8);
        std::vector<unsigned char> pixels(size_t(1000000) * 3 * 4, 200);
        auto out = OIIO::ImageOutput::create(path);
        ASSERT_TRUE(out && out->open(path, spec));
        ASSERT_TRUE(out->write_image(OIIO::TypeDesc::UINT8, pixels.data()));
        out->close();
    }
    TaskPtr wide = createFileInTask("wide", 0, FileInParams{path, 0});
    RenderManager::setGlobalTileSize(256, 256);
    const auto pixels = renderPixels(wide, Rect(1000, 0, 1256, 3), 256);
    EXPECT_NEAR(pixels[300].r, 200.0f / 255, 1e-6f);
    // Bands of one row (16 MB as floats), counted in the image memory: the
    // three rows asked, not 64 rows at once outside any budget.
    EXPECT_EQ(Private::ImageAllocator::instance().getPeakFileInMemUsage(), 3 * 16000000);
    // A budget that cannot hold one row refuses the file by name.
    RenderManager::SetMaxImageMemory(8);
    RenderManager::ClearRenderTaskCache();
    TaskPtr again = createFileInTask("wide", 0, FileInParams{path, 0});
    auto observer = make<CollectingObserver>();
    try {
        RenderManager::Render({RenderDescription(again, Rect(0, 0, 256, 3), 15)}, observer, nullptr,
                              true, RENDERTYPE_BATCH);
        ADD_FAILURE() << "read";
    } catch (const RenderTaskRenderingException& e) {
        EXPECT_NE(e.getMessage().find("more than the image memory budget (8 MB)"),
                  std::string::npos)
            << e.getMessage();
    }
    RenderManager::SetMaxImageMemory(256);
}
