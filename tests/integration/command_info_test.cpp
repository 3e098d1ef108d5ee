// `tessera info`: production-shaped EXRs written with OpenEXR, described
// as OpenImageIO reads their headers, with statistics against closed forms.
#include <Imath/half.h>
#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfFrameBuffer.h>
#include <OpenEXR/ImfHeader.h>
#include <OpenEXR/ImfMultiPartOutputFile.h>
#include <OpenEXR/ImfMultiView.h>
#include <OpenEXR/ImfOutputFile.h>
#include <OpenEXR/ImfOutputPart.h>
#include <OpenEXR/ImfPartType.h>
#include <OpenEXR/ImfStandardAttributes.h>
#include <OpenEXR/ImfStringAttribute.h>
#include <OpenEXR/ImfTiledOutputPart.h>
#include <OpenImageIO/imageio.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>
#include <sstream>

#include "support/command_test.h"

namespace {

// The data window lies inside a larger display window, off the origin.
const Imath::Box2i kDisplay({0, 0}, {47, 35});
const Imath::Box2i kData({2, 3}, {41, 30});
constexpr int kWidth = 40, kHeight = 28, kPixels = kWidth * kHeight;
const float kNaN = std::numeric_limits<float>::quiet_NaN();
const float kInf = std::numeric_limits<float>::infinity();

// One channel's values: `special` first (NaN, inf, extremes), then `fill`.
std::vector<float> channelValues(std::vector<float> special, float fill) {
    special.resize(kPixels, fill);
    return special;
}

// A frame buffer of channels over the data window, from `values` (T: float or half).
template <typename T>
Imf::FrameBuffer frameBuffer(const std::vector<std::pair<std::string, std::vector<T>*>>& planes) {
    Imf::FrameBuffer fb;
    for (const auto& [name, values] : planes) {
        char* origin = reinterpret_cast<char*>(values->data()) -
                       (kData.min.x + kData.min.y * kWidth) * sizeof(T);
        fb.insert(name, Imf::Slice(sizeof(T) == 2 ? Imf::HALF : Imf::FLOAT, origin, sizeof(T),
                                   kWidth * sizeof(T)));
    }
    return fb;
}

std::vector<half> halves(const std::vector<float>& values) {
    return std::vector<half>(values.begin(), values.end());
}

using CommandInfoTest = TESSERA::testing::CommandTest;

// The lines info prints for a part, as OpenImageIO reads its header.
std::string expectedPart(OIIO::ImageInput& in, int part) {
    EXPECT_TRUE(in.seek_subimage(part, 0));
    const OIIO::ImageSpec& spec = in.spec();
    std::ostringstream out;
    out << "  part " << part << " \"" << spec.get_string_attribute("oiio:subimagename") << "\": "
        << (spec.tile_width ? "tiled " + std::to_string(spec.tile_width) + "x" +
                                  std::to_string(spec.tile_height)
                            : "scanline")
        << ", " << spec.get_string_attribute("compression") << "\n"
        << "    data window    [" << spec.x << ", " << spec.y << ", " << spec.x + spec.width << ", "
        << spec.y + spec.height << "] (" << spec.width << "x" << spec.height << ")\n"
        << "    display window [" << spec.full_x << ", " << spec.full_y << ", "
        << spec.full_x + spec.full_width << ", " << spec.full_y + spec.full_height << "] ("
        << spec.full_width << "x" << spec.full_height << ")\n"
        << "    channels      ";
    for (int c = 0; c < spec.nchannels; ++c) {
        out << (c ? ", " : " ") << spec.channel_name(c);
        if (c + 1 == spec.nchannels || spec.channelformat(c + 1) != spec.channelformat(c))
            out << " (" << spec.channelformat(c) << ")";
    }
    out << "\n";
    return out.str();
}

// The statistics line of a channel holding `values`, NaN and inf apart.
std::string expectedStatistics(const std::string& name, const std::vector<float>& values) {
    double min = kInf, max = -kInf, sum = 0;
    int finite = 0, nan = 0, inf = 0;
    for (float v : values) {
        if (std::isnan(v)) {
            ++nan;
        } else if (std::isinf(v)) {
            ++inf;
        } else {
            min = std::min(min, double(v)), max = std::max(max, double(v)), sum += v, ++finite;
        }
    }
    std::ostringstream out;
    out << "      " << name << std::string(name.size() < 14 ? 14 - name.size() : 0, ' ') << " min "
        << min << "  max " << max << "  mean " << sum / finite << "  NaN " << nan << "  inf " << inf
        << "\n";
    return out.str();
}

// Two parts, as renderers write layers: a tiled half beauty with NaN and
// inf in it, and scanline float AOVs (diffuse.*, forward.u/v), each with
// its own compression; a custom attribute.
TEST_F(CommandInfoTest, PartsLayersWindowsAndStatisticsOfAMultiPartFile) {
    std::vector<float> r = channelValues({kNaN, kInf, -0.5f, 2.0f}, 0.25f),
                       g = channelValues({}, 0.5f), b = channelValues({-kInf}, 0.125f),
                       a = channelValues({}, 1.0f);
    std::vector<float> dr = channelValues({3.0f}, 0.75f), dg = channelValues({}, 0.0f),
                       db = channelValues({}, 1.5f), u = channelValues({-7.25f, 4.0f}, 0.0f),
                       v = channelValues({}, -1.0f);
    {
        Imf::Header beauty(kDisplay, kData);
        for (const char* c : {"R", "G", "B", "A"}) beauty.channels().insert(c, Imf::HALF);
        beauty.setName("rgba");
        beauty.setType(Imf::TILEDIMAGE);
        beauty.setTileDescription(Imf::TileDescription(16, 16, Imf::ONE_LEVEL));
        beauty.compression() = Imf::ZIP_COMPRESSION;
        beauty.insert("owner", Imf::StringAttribute("lighting"));
        Imf::addFramesPerSecond(beauty, Imf::Rational(24000, 1001));
        Imf::addTimeCode(beauty, Imf::TimeCode(1, 2, 3, 4));
        Imf::Header aovs(kDisplay, kData);
        for (const char* c : {"diffuse.R", "diffuse.G", "diffuse.B", "forward.u", "forward.v"})
            aovs.channels().insert(c, Imf::FLOAT);
        aovs.setName("aovs");
        aovs.setType(Imf::SCANLINEIMAGE);
        aovs.compression() = Imf::PIZ_COMPRESSION;
        const Imf::Header headers[] = {beauty, aovs};
        Imf::MultiPartOutputFile out(path("layers.exr").c_str(), headers, 2);
        Imf::TiledOutputPart tiles(out, 0);
        std::vector<half> hr = halves(r), hg = halves(g), hb = halves(b), ha = halves(a);
        tiles.setFrameBuffer(frameBuffer<half>({{"R", &hr}, {"G", &hg}, {"B", &hb}, {"A", &ha}}));
        tiles.writeTiles(0, tiles.numXTiles() - 1, 0, tiles.numYTiles() - 1);
        Imf::OutputPart lines(out, 1);
        lines.setFrameBuffer(frameBuffer<float>({{"diffuse.R", &dr},
                                                 {"diffuse.G", &dg},
                                                 {"diffuse.B", &db},
                                                 {"forward.u", &u},
                                                 {"forward.v", &v}}));
        lines.writePixels(kHeight);
    }
    ASSERT_EQ(tessera("info layers.exr --stats"), 0) << text("err.txt");
    const std::string info = text("out.txt");
    auto in = OIIO::ImageInput::open(path("layers.exr"));
    ASSERT_TRUE(in);
    EXPECT_EQ(info.rfind("layers.exr: openexr, 2 parts\n", 0), 0u) << info;
    for (int part = 0; part < 2; ++part)
        EXPECT_NE(info.find(expectedPart(*in, part)), std::string::npos)
            << expectedPart(*in, part) << "\nin\n"
            << info;
    // Attributes under the file's own names, OpenImageIO's guesses left out.
    EXPECT_NE(info.find("    owner: \"lighting\"\n"), std::string::npos) << info;
    EXPECT_NE(info.find("    framesPerSecond: 24000/1001\n"), std::string::npos) << info;
    EXPECT_NE(info.find("    timeCode: 01:02:03:04\n"), std::string::npos) << info;
    EXPECT_EQ(info.find("oiio:"), std::string::npos) << info;
    // Half values are the floats written: each was chosen representable.
    for (const auto& [name, values] :
         std::vector<std::pair<std::string, std::vector<float>*>>{{"R", &r},
                                                                  {"B", &b},
                                                                  {"A", &a},
                                                                  {"diffuse.R", &dr},
                                                                  {"forward.u", &u},
                                                                  {"forward.v", &v}})
        EXPECT_NE(info.find(expectedStatistics(name, *values)), std::string::npos)
            << expectedStatistics(name, *values) << "\nin\n"
            << info;
}

// Stereo in one part: the views are named, and each view's channels are
// measured under the names a render reads them by.
TEST_F(CommandInfoTest, EachViewOfAStereoFileIsMeasured) {
    std::vector<float> left = channelValues({0.0f}, 0.5f), right = channelValues({4.0f}, 1.0f);
    {
        Imf::Header header(kDisplay, kData);
        for (const char* c : {"R", "right.R"}) header.channels().insert(c, Imf::FLOAT);
        header.compression() = Imf::ZIPS_COMPRESSION;
        Imf::addMultiView(header, {"left", "right"});
        Imf::OutputFile out(path("stereo.exr").c_str(), header);
        out.setFrameBuffer(frameBuffer<float>({{"R", &left}, {"right.R", &right}}));
        out.writePixels(kHeight);
    }
    ASSERT_EQ(tessera("info stereo.exr --stats"), 0) << text("err.txt");
    const std::string info = text("out.txt");
    EXPECT_EQ(info.rfind("stereo.exr: openexr, 1 part, views left right\n", 0), 0u) << info;
    const size_t leftAt = info.find("statistics of view left"),
                 rightAt = info.find("statistics of view right");
    ASSERT_NE(leftAt, std::string::npos) << info;
    ASSERT_NE(rightAt, std::string::npos) << info;
    EXPECT_EQ(info.find(expectedStatistics("R", left)), info.find('\n', leftAt) + 1) << info;
    EXPECT_EQ(info.find(expectedStatistics("R", right)), info.find('\n', rightAt) + 1) << info;
}

// What cannot be described fails that file alone, in one line naming it.
TEST_F(CommandInfoTest, FilesThatCannotBeReadAreNamed) {
    std::ofstream(path("garbage.exr")) << "not an image";
    EXPECT_EQ(tessera("info garbage.exr /dev/zero nothere.exr"), 1);
    const std::string err = text("err.txt");
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 3) << err;
    EXPECT_NE(err.find("cannot read 'garbage.exr'"), std::string::npos) << err;
    EXPECT_NE(err.find("cannot read '/dev/zero': it is not a regular file"), std::string::npos)
        << err;
    EXPECT_NE(err.find("'nothere.exr'"), std::string::npos) << err;
}

// A file is read only by the reader its name asks for: other readers,
// handed bytes that are not theirs, may trust them and abort the process.
TEST_F(CommandInfoTest, AFileIsReadOnlyAsTheFormatItsNameSays) {
    const float pixels[4 * 4 * 3] = {};
    for (const char* name : {"picture.PNG", "picture.dpx"}) {
        auto out = OIIO::ImageOutput::create("png");
        ASSERT_TRUE(out->open(path(name), OIIO::ImageSpec(4, 4, 3, OIIO::TypeDesc::UINT8)));
        ASSERT_TRUE(out->write_image(OIIO::TypeDesc::FLOAT, pixels));
        out->close();
    }
    EXPECT_EQ(tessera("info picture.PNG"), 0) << text("err.txt");
    EXPECT_NE(text("out.txt").find("picture.PNG: png, 1 part"), std::string::npos);
    EXPECT_EQ(tessera("info picture.dpx"), 1);
    const std::string err = text("err.txt");
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
    EXPECT_NE(err.find("cannot read 'picture.dpx': it is not a readable dpx file"),
              std::string::npos)
        << err;
    EXPECT_NE(tessera("picture.dpx -o copy.exr"), 0);
    EXPECT_NE(text("err.txt").find("it is not a readable dpx file"), std::string::npos);
}

}  // namespace
