// EXR files shaped like production's, written here with OpenEXR's own C++
// library: layers whose channels the file lists alphabetically, views, odd
// data and display windows, every compression. Every channel read must
// equal OpenImageIO's read of the channel of the same name, bit for bit;
// nothing is matched by position.
#include <gtest/gtest.h>

#include <OpenEXR/ImfArray.h>
#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfDeepFrameBuffer.h>
#include <OpenEXR/ImfDeepScanLineOutputFile.h>
#include <OpenEXR/ImfFrameBuffer.h>
#include <OpenEXR/ImfHeader.h>
#include <OpenEXR/ImfInputFile.h>
#include <OpenEXR/ImfIntAttribute.h>
#include <OpenEXR/ImfMultiPartInputFile.h>
#include <OpenEXR/ImfMultiPartOutputFile.h>
#include <OpenEXR/ImfMultiView.h>
#include <OpenEXR/ImfOutputFile.h>
#include <OpenEXR/ImfOutputPart.h>
#include <OpenEXR/ImfPartType.h>
#include <OpenEXR/ImfRgbaFile.h>
#include <OpenEXR/ImfStandardAttributes.h>
#include <OpenEXR/ImfStringAttribute.h>
#include <OpenEXR/ImfTiledOutputFile.h>
#include <OpenImageIO/imagebuf.h>
#include <OpenImageIO/imagebufalgo.h>
#include <OpenImageIO/imageio.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>

#include "exceptions.h"
#include "fileio.h"
#include "graphfile.h"
#include "imglib/channels.h"
#include "renderimage.h"
#include "rendermanager.h"
#include "support/watchdog.h"

using namespace TESSERA;
using TESSERA::testing::withinSeconds;
namespace fs = std::filesystem;

namespace {

const Imath::Box2i kData({-5, 3}, {52, 40});    // 58 x 38, off the origin
const Imath::Box2i kDisplay({0, 0}, {63, 47});  // 64 x 48

struct Plane {
    std::string name;
    Imf::PixelType type = Imf::HALF;
};

// A value every channel tells apart: exact in half, and with a part below
// half's precision in float channels.
float valueAt(size_t channel, int x, int y, Imf::PixelType type) {
    const float v = float((x * 7 + y * 13 + int(channel) * 29) % 61 - 20) / 8.0f;
    return type == Imf::FLOAT ? v + 0.0001f * float(channel + 1) : v;
}

struct Planes {
    std::vector<std::vector<float>> floats;
    std::vector<std::vector<half>> halves;
};

// The frame buffer of `planes` over the data window, filled with valueAt.
Imf::FrameBuffer frameBuffer(const std::vector<Plane>& planes, Planes& storage,
                             const std::string& prefix = "") {
    const int w = kData.max.x - kData.min.x + 1, h = kData.max.y - kData.min.y + 1;
    storage.floats.assign(planes.size(), std::vector<float>(size_t(w) * h));
    storage.halves.assign(planes.size(), std::vector<half>(size_t(w) * h));
    Imf::FrameBuffer fb;
    for (size_t c = 0; c < planes.size(); ++c) {
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                const float v = valueAt(c, x + kData.min.x, y + kData.min.y, planes[c].type);
                storage.floats[c][size_t(y) * w + x] = v;
                storage.halves[c][size_t(y) * w + x] = half(v);
            }
        const bool isHalf = planes[c].type == Imf::HALF;
        char* base = isHalf ? reinterpret_cast<char*>(storage.halves[c].data())
                            : reinterpret_cast<char*>(storage.floats[c].data());
        const size_t element = isHalf ? sizeof(half) : sizeof(float);
        base -= (ptrdiff_t(kData.min.y) * w + kData.min.x) * ptrdiff_t(element);
        fb.insert(prefix + planes[c].name,
                  Imf::Slice(planes[c].type, base, element, element * size_t(w)));
    }
    return fb;
}

Imf::Header headerFor(const std::vector<Plane>& planes, Imf::Compression compression,
                      const std::string& prefix = "") {
    Imf::Header header(kDisplay, kData);
    header.compression() = compression;
    for (const Plane& p : planes) header.channels().insert(prefix + p.name, Imf::Channel(p.type));
    return header;
}

void writeExr(const std::string& path, const std::vector<Plane>& planes,
              Imf::Compression compression, bool tiled) {
    Planes storage;
    Imf::Header header = headerFor(planes, compression);
    if (tiled) {
        header.setTileDescription(Imf::TileDescription(16, 16, Imf::ONE_LEVEL));
        Imf::TiledOutputFile out(path.c_str(), header);
        out.setFrameBuffer(frameBuffer(planes, storage));
        out.writeTiles(0, out.numXTiles() - 1, 0, out.numYTiles() - 1);
    } else {
        Imf::OutputFile out(path.c_str(), header);
        out.setFrameBuffer(frameBuffer(planes, storage));
        out.writePixels(kData.max.y - kData.min.y + 1);
    }
}

// OpenImageIO's read of a file's part: each channel by its full name.
std::map<std::string, std::vector<float>> oiioRead(const std::string& path, int part = 0) {
    auto in = OIIO::ImageInput::open(path);
    if (!in || !in->seek_subimage(part, 0)) throw std::runtime_error("OIIO cannot open " + path);
    const OIIO::ImageSpec spec = in->spec();
    std::vector<float> all(size_t(spec.image_pixels()) * size_t(spec.nchannels));
    if (!in->read_image(part, 0, 0, spec.nchannels, OIIO::TypeDesc::FLOAT, all.data()))
        throw std::runtime_error(in->geterror());
    std::map<std::string, std::vector<float>> channels;
    for (int c = 0; c < spec.nchannels; ++c) {
        std::vector<float>& plane = channels[spec.channel_name(c)];
        for (size_t p = 0; p < size_t(spec.image_pixels()); ++p)
            plane.push_back(all[p * size_t(spec.nchannels) + size_t(c)]);
    }
    return channels;
}

const UTIL::Rect kDataRect(kData.min.x, kData.min.y, kData.max.x + 1, kData.max.y + 1);

// Channel `name` of a render of the file input over the data window.
std::vector<float> channelOf(const RenderedImage& image, const std::string& name) {
    const uint64_t bit = IMGLIB::FindChannel(name);
    const int index = IMGLIB::GetChannelIndex(image.channels, bit);
    if (index < 0) throw std::runtime_error("the render has no channel " + name);
    const int stride = IMGLIB::GetChannelCount(image.channels);
    std::vector<float> plane;
    for (size_t p = 0; p < size_t(image.rect.area()); ++p)
        plane.push_back(image.pixels[p * size_t(stride) + size_t(index)]);
    return plane;
}

bool sameBits(const std::vector<float>& a, const std::vector<float>& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0;
}

// Every channel the file input defines, rendered over the data window.
RenderedImage readAll(const FileInParams& params) {
    TaskPtr in = createFileInTask("in", 0, params);
    uint64_t channels = 0;
    in->getOutputDescription(&channels, nullptr);
    return renderImage(in, kDataRect, channels);
}

FileInParams fileIn(const std::string& path) {
    FileInParams params;
    params.path = path;
    return params;
}

std::string readError(const FileInParams& params) {
    try {
        readAll(params);
    } catch (const std::exception& e) {
        return e.what();
    }
    return "no error";
}

class ExrFiles : public ::testing::Test {
protected:
    fs::path dir = fs::temp_directory_path() / ("tessera_exr_" + std::to_string(::getpid()));
    void SetUp() override { fs::create_directories(dir); }
    void TearDown() override { fs::remove_all(dir); }
    std::string file(const std::string& name) const { return (dir / name).string(); }
};

// A compositor's usual input: a beauty pass with render passes beside it,
// listed alphabetically by the file (diffuse.B before diffuse.R).
const std::vector<Plane> kAovs = {{"R"},
                                  {"G"},
                                  {"B"},
                                  {"A"},
                                  {"diffuse.B"},
                                  {"diffuse.G"},
                                  {"diffuse.R"},
                                  {"forward.u", Imf::FLOAT},
                                  {"forward.v", Imf::FLOAT},
                                  {"mask"},
                                  {"depth.Z", Imf::FLOAT}};

}  // namespace

TEST_F(ExrFiles, EveryChannelIsReadUnderItsName) {
    const std::string path = file("aovs.exr");
    writeExr(path, kAovs, Imf::ZIP_COMPRESSION, false);
    const auto oiio = oiioRead(path);
    const RenderedImage image = readAll(fileIn(path));
    EXPECT_EQ(IMGLIB::GetChannelCount(image.channels), int(kAovs.size()));
    for (const Plane& p : kAovs)
        EXPECT_TRUE(sameBits(channelOf(image, p.name), oiio.at(p.name))) << p.name;
    EXPECT_NE(IMGLIB::GetChannelMaskName(image.channels).find("diffuse.R"), std::string::npos);
}

TEST_F(ExrFiles, ALayerFillsRGBAByNameAndOthersKeepTheirNames) {
    const std::string path = file("aovs.exr");
    writeExr(path, kAovs, Imf::PIZ_COMPRESSION, true);
    const auto oiio = oiioRead(path);
    FileInParams diffuse = fileIn(path);
    diffuse.layer = "diffuse";
    const RenderedImage image = readAll(diffuse);
    for (const char* c : {"R", "G", "B"})
        EXPECT_TRUE(sameBits(channelOf(image, c), oiio.at(std::string("diffuse.") + c))) << c;
    EXPECT_EQ(IMGLIB::GetChannelIndex(image.channels, IMGLIB::CHANNEL_A), -1);
    EXPECT_TRUE(sameBits(channelOf(image, "forward.u"), oiio.at("forward.u")));
    EXPECT_TRUE(sameBits(channelOf(image, "mask"), oiio.at("mask")));

    // Motion vectors are no colour: only asked for explicitly do they fill
    // R and G, in the file's order, and B stays undefined.
    FileInParams forward = fileIn(path);
    forward.layer = "forward";
    const std::string refused = readError(forward);
    EXPECT_NE(refused.find(path), std::string::npos) << refused;
    EXPECT_NE(refused.find("forward.u, forward.v"), std::string::npos) << refused;
    forward.layerInOrder = true;
    const RenderedImage vectors = readAll(forward);
    EXPECT_TRUE(sameBits(channelOf(vectors, "R"), oiio.at("forward.u")));
    EXPECT_TRUE(sameBits(channelOf(vectors, "G"), oiio.at("forward.v")));
    EXPECT_EQ(IMGLIB::GetChannelIndex(vectors.channels, IMGLIB::CHANNEL_B), -1);

    FileInParams missing = fileIn(path);
    missing.layer = "specular";
    const std::string error = readError(missing);
    EXPECT_NE(error.find("no layer 'specular'"), std::string::npos) << error;
    EXPECT_NE(error.find("diffuse"), std::string::npos) << error;
}

// A single channel that is neither grey nor colour stays itself.
TEST_F(ExrFiles, AMaskAloneIsNotGrey) {
    const std::string path = file("mask.exr");
    writeExr(path, {{"mask"}}, Imf::RLE_COMPRESSION, false);
    const RenderedImage image = readAll(fileIn(path));
    EXPECT_EQ(image.channels, IMGLIB::FindChannel("mask"));
    EXPECT_TRUE(sameBits(channelOf(image, "mask"), oiioRead(path).at("mask")));
}

// Every compression OpenEXR 3.1 defines, in scanlines and tiles, half and
// float channels together: the same bits as OpenImageIO (OpenEXR's C++
// library) reads, the lossy ones included.
TEST_F(ExrFiles, EveryCompressionReadsAsOpenImageIOReadsIt) {
    const std::vector<Plane> mixed = {
        {"R"}, {"G"}, {"B"}, {"A"}, {"diffuse.R", Imf::FLOAT}, {"Z", Imf::FLOAT}};
    const std::vector<Plane> floats = {{"R", Imf::FLOAT}, {"G", Imf::FLOAT}, {"B", Imf::FLOAT}};
    for (int c = 0; c < Imf::NUM_COMPRESSION_METHODS; ++c)
        for (int kind = 0; kind < 4; ++kind) {
            const bool tiled = kind & 1;
            const std::vector<Plane>& planes = kind & 2 ? floats : mixed;
            const auto compression = Imf::Compression(c);
            const std::string path =
                file("c" + std::to_string(c) + "_" + std::to_string(kind) + ".exr");
            writeExr(path, planes, compression, tiled);
            const auto oiio = oiioRead(path);
            const RenderedImage image = readAll(fileIn(path));
            for (const Plane& p : planes)
                EXPECT_TRUE(sameBits(channelOf(image, p.name), oiio.at(p.name)))
                    << "compression " << c << (tiled ? " tiled " : " scanline ") << p.name;
        }
}

// Stereo in one part: the default view's channels unprefixed, the other's
// named "right.R"; each view is read under the plain names.
TEST_F(ExrFiles, ViewsOfAMultiViewFile) {
    const std::string path = file("stereo.exr");
    const std::vector<Plane> planes = {{"R"},       {"G"},         {"B"},       {"A"},
                                       {"right.R"}, {"right.G"},   {"right.B"}, {"right.A"},
                                       {"mask"},    {"right.mask"}};
    {
        Planes storage;
        Imf::Header header = headerFor(planes, Imf::ZIPS_COMPRESSION);
        Imf::addMultiView(header, {"left", "right"});
        Imf::OutputFile out(path.c_str(), header);
        out.setFrameBuffer(frameBuffer(planes, storage));
        out.writePixels(kData.max.y - kData.min.y + 1);
    }

    const auto oiio = oiioRead(path);
    const RenderedImage left = readAll(fileIn(path));
    FileInParams rightParams = fileIn(path);
    rightParams.view = "right";
    const RenderedImage right = readAll(rightParams);
    for (const char* c : {"R", "G", "B", "A", "mask"}) {
        EXPECT_TRUE(sameBits(channelOf(left, c), oiio.at(c))) << c;
        EXPECT_TRUE(sameBits(channelOf(right, c), oiio.at(std::string("right.") + c))) << c;
    }
    EXPECT_EQ(left.channels, right.channels);
    FileInParams centre = fileIn(path);
    centre.view = "centre";
    EXPECT_NE(readError(centre).find("no view 'centre' (views: left, right)"), std::string::npos);
}

// Stereo in parts: each part carries its view; the view picks the part.
TEST_F(ExrFiles, ViewsInPartsOfTheirOwn) {
    const std::string path = file("stereo_parts.exr");
    const std::vector<Plane> planes = {{"R"}, {"G"}, {"B"}, {"A"}};
    std::vector<Imf::Header> headers;
    for (const char* view : {"left", "right"}) {
        Imf::Header h = headerFor(planes, Imf::ZIP_COMPRESSION);
        h.setName(std::string("rgba.") + view);
        h.setType(Imf::SCANLINEIMAGE);
        h.setView(view);
        headers.push_back(h);
    }
    {
        Imf::MultiPartOutputFile out(path.c_str(), headers.data(), int(headers.size()));
        for (int part = 0; part < 2; ++part) {
            Planes storage;
            // The right view's values differ: its channels start further on.
            std::vector<Plane> shifted = planes;
            if (part == 1) shifted.insert(shifted.begin(), Plane{"unused"});
            Imf::FrameBuffer fb = frameBuffer(shifted, storage);
            Imf::OutputPart writer(out, part);
            writer.setFrameBuffer(fb);
            writer.writePixels(kData.max.y - kData.min.y + 1);
        }
    }
    FileInParams right = fileIn(path);
    right.view = "right";
    const RenderedImage image = readAll(right);
    const auto oiio = oiioRead(path, 1);
    for (const char* c : {"R", "G", "B", "A"})
        EXPECT_TRUE(sameBits(channelOf(image, c), oiio.at(c))) << c;
    EXPECT_FALSE(sameBits(channelOf(image, "R"), oiioRead(path, 0).at("R")));
}

// Written files keep every channel's name: a comp's AOVs go out as they
// came in, and formats that cannot hold them say so.
TEST_F(ExrFiles, OutputsWriteChannelsByName) {
    const std::string in = file("aovs.exr");
    writeExr(in, kAovs, Imf::ZIP_COMPRESSION, false);
    const std::string out = file("out.exr");
    const std::string graph =
        "{\"nodes\": [{\"id\": \"plate\", \"op\": \"filein\", \"params\": "
        "{\"path\": \"" +
        in +
        "\"}}], \"outputs\": [{\"node\": \"plate\", \"rect\": [-5, 3, 53, 41], \"channels\": "
        "\"RGBA,diffuse.*,forward.u\", \"dataType\": \"float\", \"file\": "
        "\"" +
        out + "\"}]}";
    writeGraphOutputs(loadGraph(graph, dir.string()));
    const auto source = oiioRead(in);
    const auto written = oiioRead(out);
    EXPECT_EQ(written.size(), 8u);
    for (const char* name :
         {"R", "G", "B", "A", "diffuse.R", "diffuse.G", "diffuse.B", "forward.u"})
        EXPECT_TRUE(sameBits(written.at(name), source.at(name))) << name;
    // The rectangle rendered is the data window; the format, the display
    // window.
    const FileWindows windows = readFileWindows(out);
    EXPECT_EQ(windows.dataWindow, kDataRect);
    EXPECT_EQ(windows.displayWindow, UTIL::Rect(0, 0, 64, 48));

    auto loadError = [&](const std::string& channels, const std::string& to) {
        try {
            loadGraph(
                "{\"nodes\": [{\"id\": \"plate\", \"op\": \"filein\", \"params\": "
                "{\"path\": \"" +
                    in + "\"}}], \"outputs\": [{\"node\": \"plate\", \"channels\": \"" + channels +
                    "\", \"file\": \"" + file(to) + "\"}]}",
                dir.string());
            return std::string("no error");
        } catch (const std::exception& e) {
            return std::string(e.what());
        }
    };
    const std::string lacking = loadError("RGBA,specular.*", "x.exr");
    EXPECT_NE(lacking.find("plate"), std::string::npos) << lacking;
    EXPECT_NE(lacking.find("specular"), std::string::npos) << lacking;
    EXPECT_NE(lacking.find("forward.u"), std::string::npos) << lacking;  // what it has

    // JPEG has no alpha, PNG no named channels: refused, naming the format.
    for (const auto& [channels, to] : std::vector<std::pair<std::string, std::string>>{
             {"RGBA", "x.jpg"}, {"RGB,mask", "x.png"}}) {
        try {
            writeGraphOutputs(loadGraph(
                "{\"nodes\": [{\"id\": \"plate\", \"op\": \"filein\", \"params\": {\"path\": \"" +
                    in + "\"}}], \"outputs\": [{\"node\": \"plate\", \"channels\": \"" + channels +
                    "\", \"file\": \"" + file(to) + "\"}]}",
                dir.string()));
            ADD_FAILURE() << to << " was written";
        } catch (const std::exception& e) {
            EXPECT_NE(std::string(e.what()).find("format cannot hold channel"), std::string::npos)
                << e.what();
        }
        EXPECT_FALSE(fs::exists(file(to)));
    }
}

// Shuffles name the channels they move; a name the input lacks is an error
// listing what it has, never another channel in its place.
TEST_F(ExrFiles, ShufflesMoveChannelsByName) {
    const std::string in = file("aovs.exr");
    writeExr(in, kAovs, Imf::ZIP_COMPRESSION, true);
    const auto oiio = oiioRead(in);
    auto shuffled = [&](const std::string& params) {
        return loadGraph(
            "{\"nodes\": [{\"id\": \"plate\", \"op\": \"filein\", \"params\": "
            "{\"path\": \"" +
                in + "\"}}, {\"id\": \"vectors\", \"op\": \"shuffle\", \"params\": " + params +
                ", \"inputs\": {\"a\": \"plate\"}}], \"outputs\": [{\"node\": "
                "\"vectors\"}]}",
            dir.string());
    };
    const Graph graph = shuffled("{\"r\": \"forward.u\", \"g\": \"a.forward.v\", \"b\": \"0\"}");
    const RenderedImage image =
        renderImage(graph.outputs[0].description.task, kDataRect, IMGLIB::CHANNELS_RGB);
    EXPECT_TRUE(sameBits(channelOf(image, "R"), oiio.at("forward.u")));
    EXPECT_TRUE(sameBits(channelOf(image, "G"), oiio.at("forward.v")));
    EXPECT_EQ(channelOf(image, "B"), std::vector<float>(size_t(kDataRect.area()), 0.0f));
    IMGLIB::GetChannelForName("elsewhere.u");  // a name another image has
    try {
        shuffled("{\"r\": \"elsewhere.u\"}");
        ADD_FAILURE() << "a channel the input lacks was shuffled";
    } catch (const std::exception& e) {
        EXPECT_NE(std::string(e.what()).find("lacks"), std::string::npos) << e.what();
        EXPECT_NE(std::string(e.what()).find("forward.v"), std::string::npos) << e.what();
    }
}

// The format comes from the file's display window and follows the geometry
// as a compositor's does; outputs write it as the display window and, with
// no rectangle given, render it.
TEST_F(ExrFiles, TheFormatFollowsTheGeometryToTheOutput) {
    const std::string in = file("plate.exr");
    writeExr(in, {{"R"}, {"G"}, {"B"}, {"A"}}, Imf::ZIP_COMPRESSION, false);
    const TaskPtr plate = createFileInTask("plate", 0, fileIn(in));
    EXPECT_EQ(plate->getFormat(), UTIL::Rect(0, 0, 64, 48));
    auto op = [&](const std::string& name, const std::string& params) {
        return createOperationTask(name, name, params, {{"input", plate}});
    };
    EXPECT_EQ(op("reposition", "{\"offset\": [7, -5]}")->getFormat(), UTIL::Rect(7, -5, 71, 43));
    EXPECT_EQ(op("border", "{\"left\": 6, \"bottom\": 3}")->getFormat(), UTIL::Rect(-6, 0, 64, 51));
    EXPECT_EQ(op("crop", "{\"rect\": [4, 2, 60, 40]}")->getFormat(), UTIL::Rect(4, 2, 60, 40));
    EXPECT_EQ(op("proxy", "{\"level\": 2}")->getFormat(), UTIL::Rect(0, 0, 16, 12));
    EXPECT_EQ(op("blur", "{\"size\": [9, 9]}")->getFormat(), UTIL::Rect(0, 0, 64, 48));
    // A resize to a size makes a format that was its box exactly that size.
    const TaskPtr box = op("crop", "{\"rect\": [-5, 3, 53, 41], \"blackOutside\": true}");
    EXPECT_EQ(createOperationTask("resize", "resize", "{\"size\": [29, 61]}", {{"input", box}})
                  ->getFormat(),
              UTIL::Rect(-5, 3, 24, 64));

    const std::string out = file("half.exr");
    writeGraphOutputs(
        loadGraph("{\"nodes\": [{\"id\": \"plate\", \"op\": \"filein\", "
                  "\"params\": {\"path\": \"" +
                      in +
                      "\"}}, {\"id\": \"half\", \"op\": \"proxy\", \"inputs\": "
                      "{\"input\": \"plate\"}}], \"outputs\": [{\"node\": "
                      "\"half\", \"file\": \"" +
                      out + "\"}]}",
                  dir.string()));
    const FileWindows windows = readFileWindows(out);
    EXPECT_EQ(windows.displayWindow, UTIL::Rect(0, 0, 32, 24));
    EXPECT_EQ(windows.dataWindow, UTIL::Rect(0, 0, 32, 24));
}

// Checksum pipelines need the same bytes for the same render: tiles go into
// the file in its order whatever order the threads finish them in.
TEST_F(ExrFiles, OutputBytesAreTheSameForAnyThreadCountAndRun) {
    const std::string in = file("aovs.exr");
    writeExr(in, kAovs, Imf::PIZ_COMPRESSION, true);
    auto bytesOf = [](const std::string& path) {
        std::ifstream f(path, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(f), {});
    };
    auto render = [&](int threads, const std::string& layout, const std::string& name) {
        RenderManager::setRenderThreads(uint64_t(threads));
        RenderManager::setGlobalTileSize(16, 16);
        RenderManager::ClearRenderTaskCache();
        const std::string out = file(name);
        writeGraphOutputs(loadGraph(
            "{\"nodes\": [{\"id\": \"plate\", \"op\": \"filein\", \"params\": {\"path\": \"" + in +
                "\"}}, {\"id\": \"soft\", \"op\": \"blur\", \"params\": {\"size\": [5, 5]}, "
                "\"inputs\": {\"input\": \"plate\"}}], \"outputs\": [{\"node\": \"soft\", "
                "\"channels\": \"all\", \"compression\": \"zip\", \"layout\": \"" +
                layout + "\", \"tileSize\": 16, \"file\": \"" + out + "\"}]}",
            dir.string()));
        return bytesOf(out);
    };
    for (const char* layout : {"tiled", "scanline"}) {
        const std::string reference = render(1, layout, std::string(layout) + "1.exr");
        for (int threads : {2, 4, 4})
            EXPECT_EQ(
                render(threads, layout, std::string(layout) + std::to_string(threads) + ".exr"),
                reference)
                << layout << ", " << threads << " threads";
        auto file = OIIO::ImageInput::open(this->file(std::string(layout) + "1.exr"));
        ASSERT_TRUE(file);
        EXPECT_EQ(file->spec().tile_width, std::string(layout) == "tiled" ? 16 : 0);
    }
    // A tile size beyond the image is cut to it: the file stays readable.
    RenderManager::setGlobalTileSize(16384, 16384);
    const std::string big = file("big.exr");
    writeGraphOutputs(loadGraph(
        "{\"nodes\": [{\"id\": \"plate\", \"op\": \"filein\", \"params\": {\"path\": \"" + in +
            "\"}}], \"outputs\": [{\"node\": \"plate\", \"file\": \"" + big + "\"}]}",
        dir.string()));
    auto file = OIIO::ImageInput::open(big);
    ASSERT_TRUE(file) << OIIO::geterror();
    EXPECT_EQ(file->spec().tile_width, 64);
    EXPECT_EQ(file->spec().tile_height, 48);
    RenderManager::setGlobalTileSize(256, 256);
    RenderManager::setRenderThreads(2);
}

// What the plate's header says about its pictures goes out with the comp,
// tiled or in scanlines; the output's own attributes win.
TEST_F(ExrFiles, HeaderAttributesOfThePlateAreCarriedOver) {
    const std::string in = file("plate.exr");
    {
        Planes storage;
        const std::vector<Plane> planes = {{"R"}, {"G"}, {"B"}, {"A"}};
        Imf::Header header = headerFor(planes, Imf::ZIP_COMPRESSION);
        Imf::addChromaticities(header, Imf::Chromaticities({0.713f, 0.293f}, {0.165f, 0.830f},
                                                           {0.128f, 0.044f}, {0.32168f, 0.33767f}));
        Imf::addFramesPerSecond(header, Imf::Rational(24000, 1001));
        Imf::addOwner(header, "studio");
        header.insert("shot", Imf::StringAttribute("sq010_sh020"));
        header.insert("take", Imf::IntAttribute(7));
        Imf::OutputFile out(in.c_str(), header);
        out.setFrameBuffer(frameBuffer(planes, storage));
        out.writePixels(kData.max.y - kData.min.y + 1);
    }
    for (const char* layout : {"tiled", "scanline"}) {
        const std::string out = file(std::string("comp_") + layout + ".exr");
        writeGraphOutputs(loadGraph(
            "{\"nodes\": [{\"id\": \"plate\", \"op\": \"filein\", \"params\": {\"path\": \"" + in +
                "\"}}, {\"id\": \"grade\", \"op\": \"gain\", \"params\": {\"gain\": [2, 2, 2, "
                "1]}, \"inputs\": {\"input\": \"plate\"}}], \"outputs\": [{\"node\": \"grade\", "
                "\"layout\": \"" +
                layout +
                "\", \"attributes\": {\"owner\": \"comp\", \"revision\": 3}, \"file\": \"" + out +
                "\"}]}",
            dir.string()));
        Imf::InputFile written(out.c_str());
        const Imf::Header& h = written.header();
        ASSERT_TRUE(Imf::hasChromaticities(h)) << layout;
        EXPECT_EQ(Imf::chromaticities(h).red, Imath::V2f(0.713f, 0.293f)) << layout;
        ASSERT_TRUE(Imf::hasFramesPerSecond(h)) << layout;
        EXPECT_EQ(Imf::framesPerSecond(h).n, 24000) << layout;
        EXPECT_EQ(Imf::framesPerSecond(h).d, 1001u) << layout;
        EXPECT_EQ(Imf::owner(h), "comp") << layout;
        const auto* shot = h.findTypedAttribute<Imf::StringAttribute>("shot");
        ASSERT_TRUE(shot) << layout;
        EXPECT_EQ(shot->value(), "sq010_sh020");
        const auto* take = h.findTypedAttribute<Imf::IntAttribute>("take");
        ASSERT_TRUE(take) << layout;
        EXPECT_EQ(take->value(), 7);
        const auto* version = h.findTypedAttribute<Imf::IntAttribute>("revision");
        ASSERT_TRUE(version) << layout;
        EXPECT_EQ(version->value(), 3);
        EXPECT_EQ(h.displayWindow(), kDisplay) << layout;
    }
    // The layout is the output's own: an attribute that would change it is
    // refused, naming it, and no file is left.
    const std::string refused = file("refused.exr");
    try {
        writeGraphOutputs(loadGraph(
            "{\"nodes\": [{\"id\": \"plate\", \"op\": \"filein\", \"params\": {\"path\": \"" + in +
                "\"}}], \"outputs\": [{\"node\": \"plate\", \"attributes\": {\"compression\": "
                "\"none\"}, \"file\": \"" +
                refused + "\"}]}",
            dir.string()));
        ADD_FAILURE() << "the layout was overridden";
    } catch (const std::exception& e) {
        EXPECT_NE(std::string(e.what()).find("'compression'"), std::string::npos) << e.what();
    }
    EXPECT_FALSE(fs::exists(refused));
}

// A channel copy brings a layer of one stream into another under its names;
// a layer the source lacks is an error listing what it has.
TEST_F(ExrFiles, AChannelCopyBringsALayerAcrossByName) {
    const std::string aovs = file("aovs.exr");
    writeExr(aovs, kAovs, Imf::ZIP_COMPRESSION, false);
    const auto oiio = oiioRead(aovs);
    const TaskPtr plate = createFileInTask("aovs", 0, fileIn(aovs));
    const TaskPtr grey = createOperationTask(
        "constant", "grey", "{\"color\": [0.5, 0.5, 0.5, 1], \"area\": [-5, 3, 53, 41]}", {});
    const TaskPtr copied = createOperationTask(
        "channelcopy", "copy", "{\"channels\": \"diffuse.*,mask\"}", {{"a", grey}, {"b", plate}});
    uint64_t channels = 0;
    copied->getOutputDescription(&channels, nullptr);
    EXPECT_EQ(channels, IMGLIB::CHANNELS_RGBA | IMGLIB::FindChannel("diffuse.R") |
                            IMGLIB::FindChannel("diffuse.G") | IMGLIB::FindChannel("diffuse.B") |
                            IMGLIB::FindChannel("mask"));
    const RenderedImage image = renderImage(copied, kDataRect, channels);
    for (const char* name : {"diffuse.R", "diffuse.G", "diffuse.B", "mask"})
        EXPECT_TRUE(sameBits(channelOf(image, name), oiio.at(name))) << name;
    EXPECT_EQ(channelOf(image, "R"), std::vector<float>(size_t(kDataRect.area()), 0.5f));
    try {
        createOperationTask("channelcopy", "copy", "{\"channels\": \"specular.*\"}",
                            {{"a", grey}, {"b", plate}});
        ADD_FAILURE() << "a missing layer was copied";
    } catch (const std::exception& e) {
        EXPECT_NE(std::string(e.what()).find("specular"), std::string::npos) << e.what();
        EXPECT_NE(std::string(e.what()).find("diffuse.R"), std::string::npos) << e.what();
    }
}

// Luminance-chroma files (Y and subsampled RY, BY) come in as RGBA, as
// OpenEXR's own RgbaInputFile rebuilds them.
TEST_F(ExrFiles, LuminanceChromaFilesAreReadAsRGBA) {
    const std::string path = file("yc.exr");
    // Subsampled channels need even corners.
    const Imath::Box2i data({-6, 4}, {53, 41});
    const int w = data.max.x - data.min.x + 1, h = data.max.y - data.min.y + 1;
    {
        Imf::Array2D<Imf::Rgba> pixels(h, w);
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x)
                pixels[y][x] =
                    Imf::Rgba(valueAt(0, x, y, Imf::HALF) + 3, valueAt(1, x, y, Imf::HALF) + 3,
                              valueAt(2, x, y, Imf::HALF) + 3, 0.25f * float(x % 5));
        Imf::Header header(kDisplay, data);
        header.compression() = Imf::PIZ_COMPRESSION;
        Imf::RgbaOutputFile out(path.c_str(), header, Imf::WRITE_YCA);
        out.setFrameBuffer(&pixels[0][0] - data.min.x - data.min.y * w, 1, size_t(w));
        out.writePixels(h);
    }
    Imf::Array2D<Imf::Rgba> expected(h, w);
    {
        Imf::RgbaInputFile in(path.c_str());
        in.setFrameBuffer(&expected[0][0] - data.min.x - data.min.y * w, 1, size_t(w));
        in.readPixels(data.min.y, data.max.y);
    }
    const RenderedImage image = renderImage(
        createFileInTask("yc", 0, fileIn(path)),
        UTIL::Rect(data.min.x, data.min.y, data.max.x + 1, data.max.y + 1), IMGLIB::CHANNELS_RGBA);
    ASSERT_EQ(image.channels, IMGLIB::CHANNELS_RGBA);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const float* p = &image.pixels[(size_t(y) * w + x) * 4];
            const Imf::Rgba& e = expected[y][x];
            ASSERT_EQ(p[0], float(e.r)) << x << ", " << y;
            ASSERT_EQ(p[1], float(e.g)) << x << ", " << y;
            ASSERT_EQ(p[2], float(e.b)) << x << ", " << y;
            ASSERT_EQ(p[3], float(e.a)) << x << ", " << y;
        }
}

// Mip-mapped files: each level reads as OpenImageIO reads that level, from
// the same corner; a level the file lacks is an error saying how many it has.
TEST_F(ExrFiles, MipLevelsAreReadByNumber) {
    const std::string path = file("mip.exr");
    const std::vector<Plane> planes = {{"R"}, {"G"}, {"B"}, {"A"}};
    {
        Imf::Header header = headerFor(planes, Imf::ZIP_COMPRESSION);
        header.setTileDescription(Imf::TileDescription(16, 16, Imf::MIPMAP_LEVELS));
        Imf::TiledOutputFile out(path.c_str(), header);
        for (int level = 0; level < out.numLevels(); ++level) {
            Planes storage;  // every level from the full-size planes, shifted per level
            std::vector<Plane> shifted(size_t(level), Plane{"unused"});
            shifted.insert(shifted.end(), planes.begin(), planes.end());
            out.setFrameBuffer(frameBuffer(shifted, storage));
            out.writeTiles(0, out.numXTiles(level) - 1, 0, out.numYTiles(level) - 1, level);
        }
    }
    for (int level : {0, 1, 3}) {
        FileInParams params = fileIn(path);
        params.level = level;
        const TaskPtr in = createFileInTask("mip", 0, params);
        UTIL::Region region;
        in->getOutputDescription(nullptr, &region);
        auto oiio = OIIO::ImageInput::open(path);
        ASSERT_TRUE(oiio && oiio->seek_subimage(0, level));
        const OIIO::ImageSpec spec = oiio->spec();
        EXPECT_EQ(region.boundingBox(),
                  UTIL::Rect(spec.x, spec.y, spec.x + spec.width, spec.y + spec.height));
        std::vector<float> expected(size_t(spec.image_pixels()) * 4);
        ASSERT_TRUE(oiio->read_image(0, level, 0, 4, OIIO::TypeDesc::FLOAT, expected.data()));
        const RenderedImage image = renderImage(in, region.boundingBox(), IMGLIB::CHANNELS_RGBA);
        EXPECT_TRUE(sameBits(image.pixels, expected)) << "level " << level;
    }
    FileInParams beyond = fileIn(path);
    beyond.level = 9;
    const std::string error = readError(beyond);
    EXPECT_NE(error.find("no mip level 9 (it has 6 levels)"), std::string::npos) << error;
}

// A stereo comp goes out as one multi-view file: the default view's
// channels plain, the other's named for it; it reads back view by view.
TEST_F(ExrFiles, ViewsAreWrittenIntoOneMultiViewFile) {
    const std::string in = file("aovs.exr");
    writeExr(in, kAovs, Imf::ZIP_COMPRESSION, false);
    auto write = [&](const std::string& out, const std::string& layout) {
        writeGraphOutputs(loadGraph(
            "{\"nodes\": [{\"id\": \"plate\", \"op\": \"filein\", \"params\": {\"path\": \"" + in +
                "\"}}, {\"id\": \"shifted\", \"op\": \"reposition\", \"params\": {\"offset\": [3, "
                "0]}, "
                "\"inputs\": {\"input\": \"plate\"}}], \"outputs\": [{\"views\": {\"right\": "
                "\"shifted\", \"left\": \"plate\"}, \"channels\": \"RGBA,diffuse.R\", "
                "\"dataType\": "
                "\"float\", \"rect\": [-5, 3, 53, 41], \"layout\": \"" +
                layout + "\", \"file\": \"" + out + "\"}]}",
            dir.string()));
    };
    const std::string out = file("stereo_out.exr"), scanline = file("stereo_scanline.exr");
    write(out, "tiled");
    write(scanline, "scanline");
    {
        Imf::InputFile written(out.c_str());
        ASSERT_TRUE(Imf::hasMultiView(written.header()));
        EXPECT_EQ(Imf::multiView(written.header()), (Imf::StringVector{"left", "right"}));
    }
    const auto channels = oiioRead(out);
    for (const char* name : {"R", "A", "diffuse.R", "right.R", "right.A", "diffuse.right.R"})
        EXPECT_TRUE(channels.count(name)) << name;
    EXPECT_EQ(channels.size(), 10u);
    // Through OpenEXR's C++ library, the same views, names and pixels.
    EXPECT_EQ(Imf::multiView(Imf::InputFile(scanline.c_str()).header()),
              (Imf::StringVector{"left", "right"}));
    const auto scanlineChannels = oiioRead(scanline);
    EXPECT_EQ(scanlineChannels.size(), channels.size());
    for (const auto& [name, plane] : channels)
        EXPECT_TRUE(sameBits(scanlineChannels.at(name), plane)) << name;
    // Each view reads back under the plain names: left is the plate, right
    // the plate moved three pixels.
    FileInParams rightParams = fileIn(out);
    rightParams.view = "right";
    const RenderedImage left = readAll(fileIn(out)), right = readAll(rightParams);
    const auto source = oiioRead(in);
    EXPECT_TRUE(sameBits(channelOf(left, "diffuse.R"), source.at("diffuse.R")));
    const std::vector<float> moved = channelOf(right, "R"), plain = source.at("R");
    const int64_t w = kDataRect.width();
    for (int64_t y = 0; y < kDataRect.height(); ++y)
        for (int64_t x = 3; x < w; ++x)
            ASSERT_EQ(moved[size_t(y * w + x)], plain[size_t(y * w + x - 3)]) << x << ", " << y;
}

// Float channels pass B44 uncompressed, so B44 outputs of floats must hold
// exactly the pixels rendered, as every lossless compression does.
TEST_F(ExrFiles, FloatOutputsKeepEveryBitUnderB44AndLosslessCompressions) {
    const std::string in = file("aovs.exr");
    writeExr(in, kAovs, Imf::ZIP_COMPRESSION, false);
    const auto source = oiioRead(in);
    for (const char* compression : {"none", "rle", "zips", "zip", "piz", "b44", "b44a"})
        for (const char* layout : {"tiled", "scanline"}) {
            const std::string out = file(std::string(compression) + "_" + layout + ".exr");
            writeGraphOutputs(loadGraph(
                "{\"nodes\": [{\"id\": \"plate\", \"op\": \"filein\", \"params\": {\"path\": \"" +
                    in +
                    "\"}}], \"outputs\": [{\"node\": \"plate\", \"rect\": [-5, 3, 53, 41], "
                    "\"channels\": \"RGBA,forward.u\", \"dataType\": \"float\", \"compression\": "
                    "\"" +
                    compression + "\", \"layout\": \"" + layout + "\", \"file\": \"" + out +
                    "\"}]}",
                dir.string()));
            const auto written = oiioRead(out);
            for (const char* name : {"R", "G", "B", "A", "forward.u"})
                EXPECT_TRUE(sameBits(written.at(name), source.at(name)))
                    << compression << " " << layout << " " << name;
        }
}

// Piz on what renders give: float channels whose low words are noise (tens
// of thousands of distinct 16-bit values a chunk, the Huffman coder's hard
// case) and half alpha, in tiles and scanlines written by OpenEXR's C++
// library; read as OpenImageIO reads them, and written back as piz that
// OpenImageIO reads bit for bit, smaller than the pixels.
TEST_F(ExrFiles, PizKeepsEveryBitOfNoisyFloats) {
    constexpr int W = 300, H = 170;
    const Imath::Box2i area({-7, 4}, {W - 8, H + 3});
    std::vector<std::vector<float>> floats(3, std::vector<float>(size_t(W) * H));
    std::vector<half> alpha(size_t(W) * H);
    uint32_t state = 12345;
    for (size_t i = 0; i < alpha.size(); ++i) {
        for (auto& plane : floats) {
            state = state * 1664525u + 1013904223u;
            const uint32_t bits = 0x3f800000u | (state >> 16) | ((i % 97) << 16);
            std::memcpy(&plane[i], &bits, 4);
        }
        alpha[i] = half(float(i % 251) / 250.0f);
    }
    for (const bool tiled : {true, false}) {
        const std::string in = file(tiled ? "noise_tiled.exr" : "noise_scanline.exr");
        Imf::Header header(area, area);
        header.compression() = Imf::PIZ_COMPRESSION;
        for (const char* name : {"R", "G", "B"}) header.channels().insert(name, Imf::FLOAT);
        header.channels().insert("A", Imf::HALF);
        Imf::FrameBuffer fb;
        const ptrdiff_t origin = ptrdiff_t(area.min.y) * W + area.min.x;
        for (int c = 0; c < 3; ++c)
            fb.insert(
                std::string(1, "RGB"[c]),
                Imf::Slice(Imf::FLOAT, reinterpret_cast<char*>(floats[size_t(c)].data() - origin),
                           sizeof(float), sizeof(float) * W));
        fb.insert("A", Imf::Slice(Imf::HALF, reinterpret_cast<char*>(alpha.data() - origin),
                                  sizeof(half), sizeof(half) * W));
        if (tiled) {
            header.setTileDescription(Imf::TileDescription(64, 64, Imf::ONE_LEVEL));
            Imf::TiledOutputFile out(in.c_str(), header);
            out.setFrameBuffer(fb);
            out.writeTiles(0, out.numXTiles() - 1, 0, out.numYTiles() - 1);
        } else {
            Imf::OutputFile out(in.c_str(), header);
            out.setFrameBuffer(fb);
            out.writePixels(H);
        }
        const auto source = oiioRead(in);
        const UTIL::Rect rect(area.min.x, area.min.y, area.max.x + 1, area.max.y + 1);
        TaskPtr read = createFileInTask("in", 0, fileIn(in));
        const RenderedImage image = renderImage(read, rect, IMGLIB::CHANNELS_RGBA);
        for (const char* name : {"R", "G", "B", "A"})
            EXPECT_TRUE(sameBits(channelOf(image, name), source.at(name))) << name << " " << tiled;

        const std::string out = file("noise_out.exr");
        writeGraphOutputs(loadGraph(
            "{\"nodes\": [{\"id\": \"plate\", \"op\": \"filein\", \"params\": {\"path\": \"" + in +
                "\"}}], \"outputs\": [{\"node\": \"plate\", \"dataType\": \"float\", "
                "\"compression\": \"piz\", \"tileSize\": 64, \"file\": \"" +
                out + "\"}]}",
            dir.string()));
        const auto written = oiioRead(out);
        for (const char* name : {"R", "G", "B", "A"})
            EXPECT_TRUE(sameBits(written.at(name), source.at(name))) << name << " " << tiled;
        if (!tiled) continue;
        // As small as OpenEXR's own piz of the same tiles.
        std::vector<float> alphaFloats(alpha.begin(), alpha.end());
        Imf::Header same(area, area);
        same.compression() = Imf::PIZ_COMPRESSION;
        same.setTileDescription(Imf::TileDescription(64, 64, Imf::ONE_LEVEL));
        Imf::FrameBuffer all;
        for (int c = 0; c < 4; ++c) {
            const std::string name(1, "RGBA"[c]);
            same.channels().insert(name, Imf::FLOAT);
            float* plane = c < 3 ? floats[size_t(c)].data() : alphaFloats.data();
            all.insert(name, Imf::Slice(Imf::FLOAT, reinterpret_cast<char*>(plane - origin),
                                        sizeof(float), sizeof(float) * W));
        }
        const std::string theirs = file("noise_openexr.exr");
        {
            Imf::TiledOutputFile reference(theirs.c_str(), same);
            reference.setFrameBuffer(all);
            reference.writeTiles(0, reference.numXTiles() - 1, 0, reference.numYTiles() - 1);
        }
        EXPECT_LE(fs::file_size(out), fs::file_size(theirs) + 1024);
        EXPECT_LT(fs::file_size(out), uint64_t(W) * H * 16);
    }
}

// One part per layer, as compositors hand AOVs to each other: each part
// holds its layer's channels under their full names, with the pixels
// rendered, and the bytes do not depend on the order tiles finish in.
TEST_F(ExrFiles, LayersAreWrittenOnePartEach) {
    const std::string in = file("aovs.exr");
    writeExr(in, kAovs, Imf::ZIP_COMPRESSION, false);
    const auto source = oiioRead(in);
    auto graph = [&](const std::string& out, const std::string& extra) {
        return loadGraph(
            "{\"nodes\": [{\"id\": \"plate\", \"op\": \"filein\", \"params\": {\"path\": \"" + in +
                "\"}}, {\"id\": \"shifted\", \"op\": \"reposition\", \"params\": {\"offset\": "
                "[3, 0]}, \"inputs\": {\"input\": \"plate\"}}], \"outputs\": [{" +
                extra +
                "\"channels\": \"RGBA,diffuse.*,forward.u,mask\", \"dataType\": \"float\", "
                "\"rect\": [-5, 3, 53, 41], \"tileSize\": 16, \"parts\": true, \"file\": \"" +
                out + "\"}]}",
            dir.string());
    };
    const std::string out = file("parts.exr");
    writeGraphOutputs(graph(out, "\"node\": \"plate\", "));
    {
        Imf::MultiPartInputFile written(out.c_str());
        ASSERT_EQ(written.parts(), 3);
        const std::vector<std::pair<std::string, std::vector<std::string>>> expected = {
            {"rgba", {"A", "B", "G", "R", "mask"}},
            {"diffuse", {"diffuse.B", "diffuse.G", "diffuse.R"}},
            {"forward", {"forward.u"}}};
        for (int p = 0; p < 3; ++p) {
            const Imf::Header& h = written.header(p);
            EXPECT_EQ(h.name(), expected[size_t(p)].first);
            EXPECT_EQ(h.displayWindow(), kDisplay);
            std::vector<std::string> names;
            for (auto c = h.channels().begin(); c != h.channels().end(); ++c)
                names.push_back(c.name());
            EXPECT_EQ(names, expected[size_t(p)].second);
            for (const auto& [name, plane] : oiioRead(out, p))
                EXPECT_TRUE(sameBits(plane, source.at(name))) << name;
        }
    }
    // Read back part by part through the engine, by name.
    FileInParams second = fileIn(out);
    second.subimage = 1;
    EXPECT_TRUE(sameBits(channelOf(readAll(second), "diffuse.G"), source.at("diffuse.G")));

    // The same bytes on one thread and on four.
    auto bytes = [](const std::string& path) {
        std::ifstream f(path, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(f), {});
    };
    RenderManager::setGlobalTileSize(16, 16);
    const std::string one = file("parts1.exr"), four = file("parts4.exr");
    RenderManager::setRenderThreads(1);
    RenderManager::ClearRenderTaskCache();
    writeGraphOutputs(graph(one, "\"node\": \"plate\", "));
    RenderManager::setRenderThreads(4);
    RenderManager::ClearRenderTaskCache();
    writeGraphOutputs(graph(four, "\"node\": \"plate\", "));
    RenderManager::setGlobalTileSize(256, 256);
    RenderManager::setRenderThreads(2);
    EXPECT_EQ(bytes(one), bytes(out));
    EXPECT_EQ(bytes(four), bytes(out));

    // With views: a part per view and layer, each naming its view.
    const std::string stereo = file("parts_stereo.exr");
    writeGraphOutputs(graph(stereo, "\"views\": {\"left\": \"plate\", \"right\": \"shifted\"}, "));
    Imf::MultiPartInputFile written(stereo.c_str());
    std::map<std::string, int> parts;
    for (int p = 0; p < written.parts(); ++p) parts[written.header(p).name()] = p;
    EXPECT_EQ(parts.size(), 6u);
    const Imf::Header& diffuseRight = written.header(parts.at("diffuse.right"));
    EXPECT_EQ(diffuseRight.typedAttribute<Imf::StringAttribute>("view").value(), "right");
    EXPECT_TRUE(diffuseRight.channels().findChannel("diffuse.R"));
    EXPECT_EQ(
        written.header(parts.at("rgba.left")).typedAttribute<Imf::StringAttribute>("view").value(),
        "left");
    FileInParams right = fileIn(stereo);
    right.view = "right";
    // The right view's diffuse part, counted among the right view's parts.
    right.subimage = 0;
    for (const auto& [name, p] : parts)
        if (name.size() > 6 && name.substr(name.size() - 6) == ".right" &&
            p < parts.at("diffuse.right"))
            ++right.subimage;
    const std::vector<float> moved = channelOf(readAll(right), "diffuse.R");
    const std::vector<float>& plain = source.at("diffuse.R");
    const int64_t w = kDataRect.width();
    for (int64_t y = 0; y < kDataRect.height(); ++y)
        for (int64_t x = 3; x < w; ++x)
            ASSERT_EQ(moved[size_t(y * w + x)], plain[size_t(y * w + x - 3)]) << x << ", " << y;
}

// Deep files arrive flattened front to back, as OpenImageIO flattens them.
TEST_F(ExrFiles, DeepFilesAreFlattenedAsOpenImageIOFlattensThem) {
    const std::string in = file("deep.exr");
    const int w = kData.max.x - kData.min.x + 1, h = kData.max.y - kData.min.y + 1;
    const std::vector<std::string> names = {"R", "G", "B", "A", "Z"};
    {
        Imf::Header header(kDisplay, kData);
        header.compression() = Imf::ZIPS_COMPRESSION;
        header.setType(Imf::DEEPSCANLINE);
        for (const std::string& n : names) header.channels().insert(n, Imf::Channel(Imf::FLOAT));
        Imf::DeepScanLineOutputFile out(in.c_str(), header);
        // 0 to 3 samples a pixel, front to back (OpenImageIO's flatten
        // takes them in the order stored; ours sorts them first).
        std::vector<unsigned> counts(size_t(w) * h);
        std::vector<std::vector<float>> samples(names.size() * counts.size());
        std::vector<float*> pointers[5];
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                const size_t p = size_t(y) * w + x;
                counts[p] = unsigned((x + y) % 4);
                for (size_t c = 0; c < names.size(); ++c) {
                    std::vector<float>& s = samples[c * counts.size() + p];
                    for (unsigned i = 0; i < counts[p]; ++i)
                        s.push_back(c == 4   ? float(i * 2 + unsigned(x) % 3)
                                    : c == 3 ? 0.25f + 0.2f * float(i)
                                             : valueAt(c, x, y, Imf::FLOAT) * 0.1f);
                }
            }
        for (size_t c = 0; c < names.size(); ++c)
            for (size_t p = 0; p < counts.size(); ++p)
                pointers[c].push_back(samples[c * counts.size() + p].data());
        Imf::DeepFrameBuffer fb;
        const ptrdiff_t origin = ptrdiff_t(kData.min.y) * w + kData.min.x;
        fb.insertSampleCountSlice(Imf::Slice(Imf::UINT,
                                             reinterpret_cast<char*>(counts.data() - origin),
                                             sizeof(unsigned), sizeof(unsigned) * size_t(w)));
        for (size_t c = 0; c < names.size(); ++c)
            fb.insert(
                names[c],
                Imf::DeepSlice(Imf::FLOAT, reinterpret_cast<char*>(pointers[c].data() - origin),
                               sizeof(float*), sizeof(float*) * size_t(w), sizeof(float)));
        out.setFrameBuffer(fb);
        out.writePixels(h);
    }
    OIIO::ImageBuf flat = OIIO::ImageBufAlgo::flatten(OIIO::ImageBuf(in));
    ASSERT_FALSE(flat.has_error()) << flat.geterror();
    const RenderedImage ours = readAll(fileIn(in));
    for (const char* name : {"R", "G", "B", "A"}) {
        const std::vector<float> plane = channelOf(ours, name);
        const int c = flat.spec().channelindex(name);
        ASSERT_GE(c, 0);
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x)
                ASSERT_NEAR(plane[size_t(y) * w + x],
                            flat.getchannel(x + kData.min.x, y + kData.min.y, 0, c), 1e-6f)
                    << name << " at " << x << ", " << y;
    }
}

// What hostile files and paths get: a one-line refusal naming the file, in
// moments, instead of a read that never ends, a crash in a library that
// trusts the header, or a writer that deadlocks on its own error.
TEST_F(ExrFiles, HostileFilesAreRefusedAtOnce) {
    withinSeconds(60, "hostile files", [&] {
        EXPECT_NE(readError(fileIn("/dev/zero")).find("not a regular file"), std::string::npos)
            << readError(fileIn("/dev/zero"));
        EXPECT_NE(readError(fileIn(dir.string())).find("folder"), std::string::npos);

        // Headers that declare far more than the file holds: a
        // 100000 x 100000 scanline image, and a deep one of 8166272 x 23.
        const std::string huge = file("huge.exr"), deep = file("deep_huge.exr");
        {
            Imf::Header header(100000, 100000);
            header.compression() = Imf::ZIP_COMPRESSION;
            header.channels().insert("R", Imf::Channel(Imf::HALF));
            Imf::OutputFile out(huge.c_str(), header);
        }
        {
            Imf::Header header(8166272, 23);
            header.compression() = Imf::ZIPS_COMPRESSION;
            header.setType(Imf::DEEPSCANLINE);
            header.channels().insert("A", Imf::Channel(Imf::HALF));
            Imf::DeepScanLineOutputFile out(deep.c_str(), header);
        }
        for (const std::string& path : {huge, deep}) {
            const std::string error = readError(fileIn(path));
            EXPECT_NE(error.find(path), std::string::npos) << error;
            EXPECT_NE(error.find("could hold"), std::string::npos) << error;
            EXPECT_EQ(error.find('\n'), std::string::npos) << error;
        }

        // A data window the file format cannot hold: the writer's error
        // comes back, naming the file.
        FileWriter writer;
        RenderDescription output;
        writeExr(file("aovs.exr"), kAovs, Imf::ZIP_COMPRESSION, false);
        output.task = createFileInTask("plate", 0, fileIn(file("aovs.exr")));
        output.rect = UTIL::Rect(0, 0, int64_t(3) << 30, 1);
        output.channels = IMGLIB::CHANNELS_RGBA;
        try {
            writer.addOutput(0, output, {FileOutParams(file("wide.exr"))});
            ADD_FAILURE() << "a data window beyond 32 bits was written";
        } catch (const std::exception& e) {
            EXPECT_NE(std::string(e.what()).find("wide.exr"), std::string::npos) << e.what();
        }
        EXPECT_FALSE(fs::exists(file("wide.exr")));
    });
}
