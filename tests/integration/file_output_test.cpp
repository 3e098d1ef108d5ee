// Files written while the render runs hold the pixels an in-memory render
// gives, in every format and compression, whatever the tile grid, the
// output's corner and the number of threads; and they read back the same
// as tiled or scanline inputs.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <OpenImageIO/half.h>
#include <OpenImageIO/imageio.h>

#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstring>
#include <filesystem>

#include "fileio.h"
#include "filtertasks.h"
#include "generatortasks.h"
#include "memoryimage.h"
#include "rendersystem/images/imageallocator.h"
#include "support/serial_render.h"
#include "support/test_tasks.h"
#include "support/watchdog.h"

using namespace TESSERA;
using namespace TESSERA::testing;
using Color = Imath::Color4<float>;
using UTIL::Rect;
namespace fs = std::filesystem;

namespace {

class FileOutputTest : public ::testing::Test {
protected:
    void SetUp() override {
        dir = fs::temp_directory_path() / ("tessera_fileout_" + std::to_string(::getpid()));
        fs::create_directories(dir);
    }
    void TearDown() override {
        fs::remove_all(dir);
        RenderManager::setGlobalTileSize(256, 256);
        RenderManager::setRenderThreads(2);
    }
    fs::path dir;
};

// Pixels as the file holds them, as floats, in R, G, B, A order.
std::vector<float> readFile(const std::string& path, const Rect& area) {
    auto in = OIIO::ImageInput::open(path);
    EXPECT_TRUE(in) << OIIO::geterror();
    if (!in) return {};
    const OIIO::ImageSpec& s = in->spec();
    // TIFF and PNG keep no negative origin: their size is checked.
    const Rect window(s.x, s.y, s.x + s.width, s.y + s.height);
    if (fs::path(path).extension() == ".exr") {
        EXPECT_EQ(window, area) << path;
    }
    EXPECT_EQ(window.width(), area.width());
    EXPECT_EQ(window.height(), area.height());
    std::vector<float> pixels(size_t(area.area()) * 4);
    EXPECT_TRUE(in->read_image(0, 0, 0, 4, OIIO::TypeDesc::FLOAT, pixels.data())) << path;
    return pixels;
}

// Renders `task` over `area` to the files and returns what failed.
std::string writeFiles(const TaskPtr& task, const Rect& area,
                       const std::vector<FileOutParams>& files) {
    RCX_ptr_v4::ref_ptr<FileWriter> writer(new FileWriter);
    RenderDescription out(task, area, IMGLIB::CHANNELS_RGBA);
    writer->addOutput(0, out, files);
    RenderManager::Render({out}, writer, nullptr, true, RENDERTYPE_BATCH);
    return writer->getErrors();
}

void writeImage(const std::string& path, const OIIO::ImageSpec& spec, OIIO::TypeDesc type,
                const void* pixels) {
    auto out = OIIO::ImageOutput::create(path);
    ASSERT_TRUE(out && out->open(path, spec));
    ASSERT_TRUE(out->write_image(type, pixels));
    ASSERT_TRUE(out->close());
}

float toHalf(float v) {
    return float(Imath::half(v));
}
float quantized(float v, float levels) {
    return std::round(std::clamp(v, 0.0f, 1.0f) * levels) / levels;
}

}  // namespace

TEST_F(FileOutputTest, EveryFormatHoldsTheRenderedPixelsWhateverTheTilesAndThreads) {
    // Values that use every bit of a float, over a rectangle whose corner is
    // on no tile grid. (8-bit files, which divide colour by alpha, have
    // their own round trip.)
    const Rect area(-13, 7, 301, 190);
    TaskPtr source = createPerlinNoiseTask("n", 0, 9, 3, 0.5f, 0, Color(-0.2f, 0, 0.1f, 0.3f),
                                           Color(1.3f, 1, 0.7f, 1), area);
    const auto expected = renderPixels(source, area, 16);
    struct Case {
        std::string file, dataType, compression;
        std::function<float(float)> stored;  // what the format keeps of a value
        float tolerance;
    };
    const auto exact = [](float v) { return v; };
    const auto u16 = [](float v) { return quantized(v, 65535); };
    const std::vector<Case> cases = {
        {"none.exr", "float", "none", exact, 0},
        {"rle.exr", "float", "rle", exact, 0},
        {"zips.exr", "float", "zips", exact, 0},
        {"zip.exr", "float", "zip:9", exact, 0},
        {"piz.exr", "float", "piz", exact, 0},
        {"half.exr", "half", "zip", toHalf, 0},
        {"pxr24.exr", "half", "pxr24", toHalf, 0},
        {"dwaa.exr", "half", "dwaa", toHalf, 0.02f},  // lossy, written in scanlines
        {"float.tif", "float", "zip", exact, 0},
        {"u16.tif", "uint16", "none", u16, 1e-7f},
    };
    std::vector<FileOutParams> files;
    for (const Case& c : cases)
        files.push_back(FileOutParams{(dir / c.file).string(), c.dataType, c.compression});
    for (const auto& [tile, threads] : {std::pair{16, 1}, {64, 3}, {1024, 2}}) {
        RenderManager::setGlobalTileSize(tile, tile);
        RenderManager::setRenderThreads(threads);
        RenderManager::ClearRenderTaskCache();
        ASSERT_EQ(writeFiles(source, area, files), "");
        for (const Case& c : cases) {
            const std::vector<float> got = readFile((dir / c.file).string(), area);
            ASSERT_EQ(got.size(), expected.size() * 4);
            for (size_t p = 0; p < expected.size(); ++p)
                for (int ch = 0; ch < 4; ++ch)
                    ASSERT_NEAR(got[p * 4 + ch], c.stored(expected[p][ch]), c.tolerance)
                        << c.file << " tile " << tile << " pixel " << p << " channel " << ch;
        }
        // No temporary file is left beside them.
        for (const auto& entry : fs::directory_iterator(dir))
            EXPECT_NE(entry.path().filename().string()[0], '.') << entry.path();
    }
}

TEST_F(FileOutputTest, WrittenFilesReadBackAsTiledAndScanlineInputs) {
    const Rect area(0, 0, 200, 150);
    TaskPtr source =
        createPerlinNoiseTask("n", 0, 11, 2, 0.5f, 0, Color(0, 0, 0, 0), Color(1, 1, 1, 1), area);
    RenderManager::setGlobalTileSize(32, 32);
    // The EXR is tiled on the render's grid; the TIFF is in scanlines.
    const std::vector<FileOutParams> files = {{(dir / "tiled.exr").string(), "float", "zip"},
                                              {(dir / "half.exr").string(), "half", "piz"},
                                              {(dir / "scanline.tif").string(), "float", "none"}};
    ASSERT_EQ(writeFiles(source, area, files), "");
    auto tiled = OIIO::ImageInput::open(files[0].path);
    ASSERT_TRUE(tiled);
    EXPECT_EQ(tiled->spec().tile_width, 32);
    const auto expected = renderPixels(source, area, 16);
    for (const FileOutParams& file : files) {
        // A copy through the file, on another grid: the same pixels.
        RenderManager::setGlobalTileSize(48, 48);
        TaskPtr read = createFileInTask("in", 0, FileInParams{file.path, 0});
        const std::string copy =
            (dir / ("copy_" + fs::path(file.path).stem().string() + ".exr")).string();
        ASSERT_EQ(writeFiles(read, area, {{copy, "float", "piz"}}), "");
        const std::vector<float> got = readFile(copy, area);
        for (size_t p = 0; p < expected.size(); ++p)
            for (int ch = 0; ch < 4; ++ch)
                ASSERT_EQ(got[p * 4 + ch],
                          file.dataType == "half" ? toHalf(expected[p][ch]) : expected[p][ch])
                    << file.path << " pixel " << p << " channel " << ch;
    }
}

TEST_F(FileOutputTest, UnknownCompressionIsRefusedNamingTheFile) {
    const Rect area(0, 0, 8, 8);
    TaskPtr source = createConstantTask("c", 0, Color(1, 1, 1, 1), area);
    const std::string path = (dir / "odd.exr").string();
    for (const auto& [compression, reason] :
         {std::pair<std::string, std::string>{"lzma", "unknown compression 'lzma'"},
          {"zip:0", "compression 'zip:0' has a zip level that is not a whole number from 1 to 9"},
          {"zips:10", "compression 'zips:10' has a zip level"},
          {"zip:fast", "compression 'zip:fast' has a zip level"}}) {
        RCX_ptr_v4::ref_ptr<FileWriter> writer(new FileWriter);
        try {
            writer->addOutput(0, RenderDescription(source, area, IMGLIB::CHANNELS_RGBA),
                              {{path, "half", compression}});
            ADD_FAILURE() << compression << " was taken";
        } catch (const UTIL::ErrorException& e) {
            EXPECT_NE(std::string(e.what()).find("cannot write '" + path + "': " + reason),
                      std::string::npos)
                << e.what();
        }
        EXPECT_TRUE(fs::is_empty(dir));
    }
}

// Zip chunks are compressed with libdeflate, not zlib: files OpenImageIO
// reads back exactly, at most a percent larger than OpenEXR's own (zlib,
// through OpenImageIO) at the same level; at level 1, where libdeflate
// trades more size for speed, five. Level 4 unless the compression says.
TEST_F(FileOutputTest, ZipFilesAreTheSizeOfZlibsAtTheSameLevel) {
    const Rect area(0, 0, 512, 384);
    TaskPtr source = createPerlinNoiseTask("n", 0, 7, 4, 0.5f, 0, Color(0, 0.1f, 0.2f, 0.5f),
                                           Color(1, 0.9f, 1.5f, 1), area);
    RenderManager::setGlobalTileSize(64, 64);
    const auto rendered = renderPixels(source, area, 64);
    std::vector<Imath::half> halves;
    for (const auto& pixel : rendered)
        for (int ch = 0; ch < 4; ++ch) halves.push_back(Imath::half(pixel[ch]));
    struct Case {
        std::string ours, level;
        double largerAtMost;
    };
    for (const auto& [ours, level, largerAtMost] :
         {Case{"zip", "4", 1.01}, Case{"zips:9", "9", 1.01}, Case{"zip:1", "1", 1.05}}) {
        const std::string path = (dir / "ours.exr").string(), zlib = (dir / "zlib.exr").string();
        ASSERT_EQ(writeFiles(source, area, {{path, "half", ours}}), "");
        OIIO::ImageSpec spec(area.width(), area.height(), 4, OIIO::TypeDesc::HALF);
        spec.tile_width = spec.tile_height = 64;
        spec.attribute("compression", ours.substr(0, ours.find(':')) + ":" + level);
        writeImage(zlib, spec, OIIO::TypeDesc::HALF, halves.data());
        const double size = double(fs::file_size(path)), reference = double(fs::file_size(zlib));
        EXPECT_LT(size, reference * largerAtMost) << ours << ": " << size << " vs " << reference;
        const std::vector<float> got = readFile(path, area);
        for (size_t i = 0; i < halves.size(); ++i) ASSERT_EQ(got[i], float(halves[i])) << ours;
    }
}

// A wide half-float file blurred file to file, with no tile cache: the blur
// reads the file straight into its own input images, and the decoded blocks
// are kept as halves, a few rows of them. The pixels equal the blur of the
// file's pixels as OpenImageIO reads them, held in memory, bit for bit:
// values across the half range, subnormals and negatives included.
TEST_F(FileOutputTest, FilesReadDirectlyKeepHalfBlocksAndEveryPixel) {
    const int W = 2048, H = 512;
    OIIO::ImageSpec spec(W, H, 4, OIIO::TypeDesc::HALF);
    spec.attribute("compression", "zip");
    spec.tile_width = spec.tile_height = 64;
    std::vector<Imath::half> pixels(size_t(W) * H * 4);
    for (size_t i = 0; i < pixels.size(); ++i)
        pixels[i].setBits(uint16_t((i * 40503u) & 0x7bff) | (i % 5 == 0 ? 0x8000 : 0));
    const std::string input = (dir / "wide.exr").string();
    writeImage(input, spec, OIIO::TypeDesc::HALF, pixels.data());
    RenderManager::setGlobalTileSize(64, 64);
    // One thread: how many blocks two threads keep in flight depends on how
    // the machine schedules them (over 5 MB seen on a loaded one).
    RenderManager::setRenderThreads(1);
    const Rect area(0, 0, W, H);
    PerChannelBlurParameters blur;
    blur.blur.sizeX = blur.blur.sizeY = 9;
    auto floats = std::make_shared<std::vector<float>>(readFile(input, area));
    IMGLIB::Image held;
    held.channels = IMGLIB::CHANNELS_RGBA;
    held.x2 = W;
    held.y2 = H;
    held.rowBytes = int64_t(W) * 16;
    held.pixelPtr = floats->data();
    const auto expected = renderPixels(
        createBlurTask("soft", 0, blur, createMemoryImageTask("held", 0, held, floats)), area, 64);

    TaskPtr graph =
        createBlurTask("soft", 0, blur, createFileInTask("in", 0, FileInParams{input, 0}));
    RenderManager::setSpeculativeCachingEnable(false);
    RenderManager::ClearRenderTaskCache();
    Private::ImageAllocator::instance().resetStatistics();
    const std::string output = (dir / "soft.exr").string();
    const std::string errors = writeFiles(graph, area, {{output, "float", "none"}});
    const int64_t peakFileIn = Private::ImageAllocator::instance().getPeakFileInMemUsage();
    RenderManager::setSpeculativeCachingEnable(true);
    ASSERT_EQ(errors, "");
    // Three rows of 64 x 64 blocks as halves (1 MB a row) and a few more;
    // the file kept whole would be 8 MB as halves, 16 MB as floats.
    EXPECT_GT(peakFileIn, 0);
    EXPECT_LT(peakFileIn, int64_t(5) << 20);
    const std::vector<float> got = readFile(output, area);
    for (size_t p = 0; p < expected.size(); ++p)
        for (int ch = 0; ch < 4; ++ch) ASSERT_EQ(got[p * 4 + ch], expected[p][ch]) << p;

    // A host's task rendered full frame reads the file directly too.
    auto doubled = make<GainTask>(
        "doubled", std::vector<TaskPtr>{createFileInTask("in", 0, FileInParams{input, 0})}, 2.0f);
    doubled->setRenderFullFrame(true, false);
    RenderManager::setSpeculativeCachingEnable(false);
    const auto twice = renderPixels(doubled, area, 64);
    RenderManager::setSpeculativeCachingEnable(true);
    for (size_t p = 0; p < twice.size(); ++p)
        for (int ch = 0; ch < 4; ++ch) ASSERT_EQ(twice[p][ch], 2 * (*floats)[p * 4 + ch]) << p;
}

// EXR files of any channel set, half or float, tiled or in scanlines, with
// a data window off the tile grid: each named channel reaches its own
// place (grey in R, G and B; channels the engine does not know left out),
// read through the file's own tiles and directly by a consumer alike.
TEST_F(FileOutputTest, EveryExrChannelReachesItsPlace) {
    const Rect area(-5, 3, 34, 24);
    const int W = int(area.width()), H = int(area.height());
    struct Layout {
        std::vector<std::string> names;
        std::string R, G, B, A;  // the file's channel each takes
    };
    const std::vector<Layout> layouts = {{{"R", "G", "B", "A"}, "R", "G", "B", "A"},
                                         {{"R", "G", "B"}, "R", "G", "B", ""},
                                         {{"Y"}, "Y", "Y", "Y", ""},
                                         {{"Y", "A"}, "Y", "Y", "Y", "A"},
                                         {{"R", "G", "B", "A", "Z", "mask"}, "R", "G", "B", "A"}};
    // A value no other channel or pixel has, exact in half.
    const auto value = [](int channel, int x, int y) {
        return float(channel * 64 + (y * 37 + x) % 61) / 64.0f - 2.0f;
    };
    for (const Layout& layout : layouts)
        for (const OIIO::TypeDesc type : {OIIO::TypeDesc::HALF, OIIO::TypeDesc::FLOAT})
            for (const int tile : {0, 16}) {
                const int n = int(layout.names.size());
                OIIO::ImageSpec spec(W, H, n, type);
                spec.x = int(area.xmin), spec.y = int(area.ymin);
                spec.channelnames = layout.names;
                spec.attribute("compression", "zip");
                spec.tile_width = spec.tile_height = tile;
                std::vector<float> pixels(size_t(W) * H * n);
                for (int y = 0; y < H; ++y)
                    for (int x = 0; x < W; ++x)
                        for (int c = 0; c < n; ++c)
                            pixels[(size_t(y) * W + x) * n + c] = value(c, x, y);
                const std::string path = (dir / "channels.exr").string();
                writeImage(path, spec, OIIO::TypeDesc::FLOAT, pixels.data());
                const auto expect = [&](const std::string& name, int x, int y) {
                    const auto at = std::find(layout.names.begin(), layout.names.end(), name);
                    return value(int(at - layout.names.begin()), x, y);
                };
                for (const bool direct : {false, true}) {
                    RenderManager::setSpeculativeCachingEnable(!direct);
                    TaskPtr in = createFileInTask("in", 0, FileInParams{path, 0});
                    TaskPtr graph =
                        direct ? TaskPtr(make<GainTask>("same", std::vector<TaskPtr>{in}, 1.0f))
                               : in;
                    const auto got = renderPixels(graph, area, 16);
                    RenderManager::setSpeculativeCachingEnable(true);
                    for (int y = 0; y < H; ++y)
                        for (int x = 0; x < W; ++x) {
                            const Color& c = got[size_t(y) * W + x];
                            const std::string where =
                                layout.names[0] + " x " + std::to_string(n) + " " + type.c_str() +
                                " tile " + std::to_string(tile) + (direct ? " direct" : "");
                            ASSERT_EQ(c.r, expect(layout.R, x, y)) << where;
                            ASSERT_EQ(c.g, expect(layout.G, x, y)) << where;
                            ASSERT_EQ(c.b, expect(layout.B, x, y)) << where;
                            if (!layout.A.empty()) {
                                ASSERT_EQ(c.a, expect(layout.A, x, y)) << where;
                            }
                        }
                }
            }
}

// A file the system lets grow to 1 MB only: the render fails naming the
// file and the system's reason, however far the tiles being written had
// got, and leaves neither the file nor its temporary.
TEST_F(FileOutputTest, AWriteThatFailsMidwayFailsTheRenderAndLeavesNothing) {
    const Rect area(0, 0, 1024, 768);  // 12 MB of floats
    TaskPtr source =
        createPerlinNoiseTask("n", 0, 5, 2, 0.5f, 0, Color(0, 0, 0, 0), Color(1, 1, 1, 1), area);
    const std::string path = (dir / "big.exr").string();
    RenderManager::setGlobalTileSize(128, 128);
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
    const auto signalBefore = std::signal(SIGXFSZ, SIG_IGN);  // EFBIG instead
    rlimit small = before;
    small.rlim_cur = 1 << 20;
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    std::string error;
    withinSeconds(120, "a render whose file cannot grow", [&] {
        try {
            writeFiles(source, area, {{path, "float", "none"}});
        } catch (const std::exception& e) {
            error = e.what();
        }
    });
    ::setrlimit(RLIMIT_FSIZE, &before);
    std::signal(SIGXFSZ, signalBefore);
    EXPECT_NE(error.find("cannot write '" + path + "': " + std::strerror(EFBIG)), std::string::npos)
        << error;
    EXPECT_TRUE(fs::is_empty(dir));
}

// A file-to-file render of an image four times the memory budget: the
// engine's images (tiles and decoded blocks) stay within the budget, the
// decoded blocks within a few rows, and the file holds every pixel.
TEST_F(FileOutputTest, FileToFileStaysWithinTheMemoryBudget) {
    const int W = 1024, H = 1024;
    OIIO::ImageSpec spec(W, H, 4, OIIO::TypeDesc::FLOAT);
    spec.attribute("compression", "zip");
    std::vector<float> pixels(size_t(W) * H * 4);
    for (size_t i = 0; i < pixels.size(); ++i) pixels[i] = float((i * 7919) % 1001) / 1000.0f;
    const std::string input = (dir / "in.exr").string();
    writeImage(input, spec, OIIO::TypeDesc::FLOAT, pixels.data());  // scanlines, 16 rows a chunk
    RenderManager::setGlobalTileSize(64, 64);
    // One thread: how many blocks two threads keep in flight depends on how
    // the machine schedules them (over 5 MB seen on a loaded one).
    RenderManager::setRenderThreads(1);
    const Rect area(0, 0, W, H);
    PerChannelBlurParameters blur;
    blur.blur.sizeX = blur.blur.sizeY = 9;
    TaskPtr graph =
        createBlurTask("soft", 0, blur, createFileInTask("in", 0, FileInParams{input, 0}));
    const auto expected = renderPixels(graph, area, 64);

    const uint64_t budget = RenderManager::GetMaxImageMemory();
    RenderManager::SetMaxImageMemory(4);  // MB; the image is 16
    RenderManager::setSpeculativeCachingEnable(false);
    RenderManager::ClearRenderTaskCache();
    Private::ImageAllocator::instance().resetStatistics();
    const std::string output = (dir / "out.exr").string();
    const std::string errors = writeFiles(graph, area, {{output, "float", "zip"}});
    const int64_t peak = Private::ImageAllocator::instance().getPeakMemUsage();
    const int64_t peakFileIn = Private::ImageAllocator::instance().getPeakFileInMemUsage();
    RenderManager::SetMaxImageMemory(budget);
    RenderManager::setSpeculativeCachingEnable(true);
    ASSERT_EQ(errors, "");
    EXPECT_LE(peak, int64_t(4) << 20);
    // Decoded blocks: a few bands of 64 rows (1 MB each), not the file.
    EXPECT_LE(peakFileIn, int64_t(W) * H * 16 / 3);
    const std::vector<float> got = readFile(output, area);
    for (size_t p = 0; p < expected.size(); ++p)
        for (int ch = 0; ch < 4; ++ch) ASSERT_EQ(got[p * 4 + ch], expected[p][ch]) << p;
}
