// The everyday compositing operators, built from graph files as a user
// writes them, against OpenImageIO where it defines the same operation and
// closed forms elsewhere.
#include <gtest/gtest.h>

#include <OpenImageIO/deepdata.h>
#include <OpenImageIO/imagebuf.h>
#include <OpenImageIO/imagebufalgo.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <sstream>

#include "generatortasks.h"
#include "geometrytasks.h"
#include "graphfile.h"
#include "memoryimage.h"
#include "support/serial_render.h"

using namespace TESSERA;
using namespace TESSERA::testing;
using Color = Imath::Color4<float>;
using UTIL::Rect;
namespace fs = std::filesystem;

namespace {

constexpr int kWidth = 37, kHeight = 23;

// A plate of kWidth x kHeight at the origin: colour that varies per pixel
// (some of it above 1), alpha from 0 to 1 in steps, premultiplied.
class EverydayOpsTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        fs::create_directories(dir());
        OIIO::ImageSpec spec(kWidth, kHeight, 4, OIIO::TypeDesc::FLOAT);
        OIIO::ImageBuf plate(spec);
        for (int y = 0; y < kHeight; ++y)
            for (int x = 0; x < kWidth; ++x) {
                const float a = float((x * 3 + y) % 5) / 4.0f;
                const float v[4] = {a * float((x * 7 + y * 3) % 11) / 7.0f,
                                    a * float((x * 5 + y * 11) % 13) / 12.0f,
                                    a * float((x + y * 2) % 9) / 8.0f, a};
                plate.setpixel(x, y, v);
            }
        ASSERT_TRUE(plate.write(platePath()));
    }
    static void TearDownTestSuite() { fs::remove_all(dir()); }
    void SetUp() override { RenderManager::ClearRenderTaskCache(); }
    void TearDown() override {
        RenderManager::setGlobalTileSize(256, 256);
        RenderManager::ClearRenderTaskCache();
    }

    static fs::path dir() {
        return fs::temp_directory_path() / ("tessera_everyday_" + std::to_string(::getpid()));
    }
    static std::string platePath() { return (dir() / "plate.exr").string(); }

    // Loads a graph of the plate (node "plate") and `nodes`, whose output is
    // node "out".
    static Graph graph(const std::string& nodes) {
        return loadGraph(R"({"nodes": [{"id": "plate", "op": "filein", "params": {"path": ")" +
                         platePath() + "\"}}, " + nodes + R"(], "outputs": [{"node": "out"}]})");
    }
    // The error loading such a graph gives.
    static std::string error(const std::string& nodes) {
        try {
            graph(nodes);
        } catch (const std::exception& e) {
            return e.what();
        }
        return "no error";
    }
    static std::vector<Color> render(const std::string& nodes, const Rect& rect, int tile = 16) {
        return renderPixels(graph(nodes).outputs[0].description.task, rect, tile);
    }
    static Rect region(const std::string& nodes) {
        UTIL::Region r;
        graph(nodes).outputs[0].description.task->getOutputDescription(nullptr, &r);
        return r.boundingBox();
    }
    static Color plate(int x, int y) {
        static const OIIO::ImageBuf buf(platePath());
        float v[4];
        buf.getpixel(x, y, v, 4);
        return Color(v[0], v[1], v[2], v[3]);
    }
    // Every pixel of the ROI of `expected` equals ours, exactly or to `tol`
    // relative to the value's size.
    static void expectEqual(const OIIO::ImageBuf& expected, const std::string& nodes,
                            float tol = 0.0f) {
        const OIIO::ROI roi = expected.roi();
        const Rect rect(roi.xbegin, roi.ybegin, roi.xend, roi.yend);
        const std::vector<Color> got = render(nodes, rect);
        size_t i = 0;
        for (int y = roi.ybegin; y < roi.yend; ++y)
            for (int x = roi.xbegin; x < roi.xend; ++x, ++i) {
                float want[4];
                expected.getpixel(x, y, want, 4);
                for (int c = 0; c < 4; ++c)
                    ASSERT_NEAR(got[i][c], want[c], tol * std::max(1.0f, std::fabs(want[c])))
                        << nodes << " at " << x << ", " << y << " channel " << c;
            }
    }
};

TEST_F(EverydayOpsTest, OrientationsMatchOpenImageIOExactly) {
    const OIIO::ImageBuf src(platePath());
    const std::vector<std::pair<std::string, OIIO::ImageBuf>> cases = {
        {"flip", OIIO::ImageBufAlgo::flip(src)},
        {"flop", OIIO::ImageBufAlgo::flop(src)},
        {"transpose", OIIO::ImageBufAlgo::transpose(src)},
        {"rotate90", OIIO::ImageBufAlgo::rotate90(src)},
        {"rotate180", OIIO::ImageBufAlgo::rotate180(src)},
        {"rotate270", OIIO::ImageBufAlgo::rotate270(src)}};
    for (const auto& [name, expected] : cases) {
        const std::string nodes = R"({"id": "out", "op": "orient", "params": {"orientation": ")" +
                                  name + R"("}, "inputs": {"input": "plate"}})";
        const OIIO::ROI roi = expected.roi();
        EXPECT_EQ(region(nodes), Rect(roi.xbegin, roi.ybegin, roi.xend, roi.yend)) << name;
        expectEqual(expected, nodes);
    }
}

TEST_F(EverydayOpsTest, CropAndDataWindowKeepTheirRectangle) {
    const OIIO::ImageBuf src(platePath());
    const std::string crop =
        R"({"id": "out", "op": "crop", "params": {"rect": [5, 3, 30, 40]}, "inputs": {"input": "plate"}})";
    const OIIO::ImageBuf expected = OIIO::ImageBufAlgo::crop(src, OIIO::ROI(5, 30, 3, 40));
    EXPECT_EQ(region(crop), Rect(5, 3, 30, kHeight));
    expectEqual(expected, crop);
    // Outside the rectangle: transparent black, even over a coloured background.
    const std::string onColour =
        R"({"id": "bg", "op": "constant", "params": {"color": [0.2, 0.4, 0.6, 1], "area": [-50, -50, 90, 90]}},
           {"id": "out", "op": "crop", "params": {"rect": [5, 3, 30, 40]}, "inputs": {"input": "bg"}})";
    const std::vector<Color> px = render(onColour, Rect(0, 0, 40, 45));
    EXPECT_EQ(px[size_t(4)], Color(0, 0, 0, 0));
    EXPECT_EQ(px[size_t(10 * 40 + 10)], Color(0.2f, 0.4f, 0.6f, 1));
    EXPECT_EQ(px[size_t(42 * 40 + 10)], Color(0, 0, 0, 0));

    // A data window set larger than the data, or shrunk.
    EXPECT_EQ(region(R"({"id": "out", "op": "datawindow", "params": {"rect": [-10, -10, 60, 50]},
                          "inputs": {"input": "plate"}})"),
              Rect(-10, -10, 60, 50));
    const std::string shrunk =
        R"({"id": "out", "op": "datawindow", "params": {"rect": [-10, 4, 12, 50], "shrink": true},
            "inputs": {"input": "plate"}})";
    EXPECT_EQ(region(shrunk), Rect(0, 4, 12, kHeight));
    const std::vector<Color> s = render(shrunk, Rect(0, 0, kWidth, kHeight));
    EXPECT_EQ(s[size_t(3 * kWidth + 5)], Color(0, 0, 0, 0));
    EXPECT_EQ(s[size_t(6 * kWidth + 11)], plate(11, 6));
    EXPECT_EQ(s[size_t(6 * kWidth + 12)], Color(0, 0, 0, 0));
}

TEST_F(EverydayOpsTest, RepositionAndBordersMoveWholePixels) {
    const std::string moved =
        R"({"id": "out", "op": "reposition", "params": {"offset": [-7, 40]}, "inputs": {"input": "plate"}})";
    EXPECT_EQ(region(moved), Rect(-7, 40, kWidth - 7, kHeight + 40));
    const Rect rect(-10, 35, kWidth, kHeight + 45);
    const std::vector<Color> got = render(moved, rect);
    for (int64_t y = rect.ymin; y < rect.ymax; ++y)
        for (int64_t x = rect.xmin; x < rect.xmax; ++x) {
            const bool inside = x + 7 >= 0 && x + 7 < kWidth && y >= 40 && y < kHeight + 40;
            ASSERT_EQ(got[size_t((y - rect.ymin) * rect.width() + (x - rect.xmin))],
                      inside ? plate(int(x + 7), int(y - 40)) : Color(0, 0, 0, 0))
                << x << ", " << y;
        }

    // Borders of 3 left, 2 top, 4 right, 5 bottom: the edge clamped, mirrored
    // (the edge pixel repeated) or a colour.
    const auto border = [](const std::string& extend) {
        return R"({"id": "out", "op": "border", "params": {"left": 3, "top": 2, "right": 4,
                   "bottom": 5, "extend": ")" +
               extend + R"(", "color": [1, 0, 0, 1]}, "inputs": {"input": "plate"}})";
    };
    const auto mirror = [](int c, int n) { return c < 0 ? -c - 1 : c >= n ? 2 * n - c - 1 : c; };
    const auto clamp = [](int c, int n) { return std::min(std::max(c, 0), n - 1); };
    const Rect frame(-3, -2, kWidth + 4, kHeight + 5), around = frame.grown(2, 2);
    for (const std::string extend : {"clamp", "mirror", "background"}) {
        EXPECT_EQ(region(border(extend)), frame);
        const std::vector<Color> full = render(border(extend), around, 1024);
        EXPECT_EQ(render(border(extend), around, 16), full) << extend;
        for (int y = int(around.ymin); y < around.ymax; ++y)
            for (int x = int(around.xmin); x < around.xmax; ++x) {
                Color want(0, 0, 0, 0);
                if (frame.contains(x, y)) {
                    if (extend == "clamp")
                        want = plate(clamp(x, kWidth), clamp(y, kHeight));
                    else if (extend == "mirror")
                        want = plate(mirror(x, kWidth), mirror(y, kHeight));
                    else
                        want = x >= 0 && x < kWidth && y >= 0 && y < kHeight ? plate(x, y)
                                                                             : Color(1, 0, 0, 1);
                }
                ASSERT_EQ(full[size_t((y - around.ymin) * around.width() + (x - around.xmin))],
                          want)
                    << extend << " at " << x << ", " << y;
            }
    }
}

// A whole-tile move and a crop hand on the source's pixels: every delivered
// tile of a memory image moved by whole tiles, or cropped, lies in the host's
// own buffer. A move by part of a tile copies where a tile straddles the
// source's tiles, and still gives the pixels.
TEST_F(EverydayOpsTest, WholeTileMovesAndCropsCopyNoPixel) {
    constexpr int64_t kTile = 32, kW = 128, kH = 96;
    std::vector<float> host(size_t(kW * kH * 4));
    for (size_t i = 0; i < host.size(); ++i) host[i] = float(i % 1013) / 7.0f;
    IMGLIB::Image pixels;
    pixels.channels = IMGLIB::CHANNELS_RGBA;
    pixels.x2 = kW, pixels.y2 = kH, pixels.rowBytes = kW * 16, pixels.pixelPtr = host.data();
    const auto hostPixel = [&](int64_t x, int64_t y) {
        const float* p = &host[size_t((y * kW + x) * 4)];
        return Color(p[0], p[1], p[2], p[3]);
    };
    const auto inHost = [&](const float* p) {
        return p >= host.data() && p < host.data() + host.size();
    };
    RenderManager::setGlobalTileSize(kTile, kTile);
    struct Case {
        int64_t dx, dy;
        Rect crop;  // null: no crop
        bool shared;
    };
    for (const Case& c :
         {Case{2 * kTile, -kTile, Rect(), true},
          Case{0, 0, Rect(kTile, 0, 3 * kTile + 5, kH - 7), true}, Case{5, 3, Rect(), false}}) {
        RenderManager::ClearRenderTaskCache();
        TaskPtr task = createMemoryImageTask("host", 0, pixels, nullptr);
        if (c.dx || c.dy) task = createRepositionTask("moved", 0, c.dx, c.dy, task);
        if (!c.crop.isNull()) task = createCropTask("cropped", 0, c.crop, true, task);
        const Rect area = c.crop.isNull() ? Rect(c.dx, c.dy, kW + c.dx, kH + c.dy) : c.crop;
        auto observer = make<RecordingObserver>();
        RenderManager::Render({RenderDescription(task, area, IMGLIB::CHANNELS_RGBA)}, observer,
                              nullptr, true, RENDERTYPE_BATCH);
        ASSERT_EQ(observer->status, RenderStatus::Success) << observer->message;
        size_t shared = 0;
        for (ImageBuffer& tile : observer->tiles[0]) {
            ImageBuffer_LockScoper lock(tile);
            const IMGLIB::Image* image = tile.getImage();
            shared += inHost(image->row(image->y1)) ? 1 : 0;
        }
        const size_t tiles = observer->tiles[0].size();
        if (c.shared)
            EXPECT_EQ(shared, tiles);
        else
            EXPECT_LT(shared, tiles);
        for (int64_t y = area.ymin; y < area.ymax; ++y)
            for (int64_t x = area.xmin; x < area.xmax; ++x)
                ASSERT_EQ(observer->pixel(0, x, y), hostPixel(x - c.dx, y - c.dy))
                    << x << ", " << y;
    }
}

TEST_F(EverydayOpsTest, PremultiplicationMatchesOpenImageIO) {
    const OIIO::ImageBuf src(platePath());
    expectEqual(OIIO::ImageBufAlgo::premult(src),
                R"({"id": "out", "op": "premultiply", "inputs": {"input": "plate"}})", 1e-6f);
    expectEqual(OIIO::ImageBufAlgo::unpremult(src),
                R"({"id": "out", "op": "unpremultiply", "inputs": {"input": "plate"}})", 1e-6f);
    // Unpremultiplied then premultiplied again: the plate, alpha-0 pixels
    // exactly as they were.
    const std::vector<Color> round = render(
        R"({"id": "u", "op": "unpremultiply", "inputs": {"input": "plate"}},
           {"id": "out", "op": "premultiply", "inputs": {"input": "u"}})",
        Rect(0, 0, kWidth, kHeight));
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x)
            for (int c = 0; c < 4; ++c)
                ASSERT_NEAR(round[size_t(y * kWidth + x)][c], plate(x, y)[c], 1e-6f);
}

TEST_F(EverydayOpsTest, LuminanceAndKeysFollowTheirFormulas) {
    const Rect all(0, 0, kWidth, kHeight);
    const std::vector<Color> luma = render(
        R"({"id": "out", "op": "luminance", "params": {"weights": [0.3, 0.5, 0.2]}, "inputs": {"input": "plate"}})",
        all);
    const std::vector<Color> key = render(
        R"({"id": "out", "op": "lumakey", "params": {"low": 0.2, "high": 0.6}, "inputs": {"input": "plate"}})",
        all);
    const std::vector<Color> inverted = render(
        R"({"id": "out", "op": "lumakey", "params": {"low": 0.2, "high": 0.2, "invert": true}, "inputs": {"input": "plate"}})",
        all);
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x) {
            const Color p = plate(x, y);
            const size_t i = size_t(y * kWidth + x);
            const float l = 0.3f * p.r + 0.5f * p.g + 0.2f * p.b;
            EXPECT_NEAR(luma[i].r, l, 1e-6f);
            EXPECT_EQ(luma[i].r, luma[i].b);
            EXPECT_EQ(luma[i].a, p.a);
            const float y709 = 0.2126f * p.r + 0.7152f * p.g + 0.0722f * p.b;
            EXPECT_NEAR(key[i].a, std::min(1.0f, std::max(0.0f, (y709 - 0.2f) / 0.4f)), 1e-5f);
            EXPECT_EQ(key[i].g, p.g);
            EXPECT_EQ(inverted[i].a, y709 >= 0.2f ? 0.0f : 1.0f);
        }

    // A green screen: the screen colour keys out, a grey and a red stay, a
    // greenish edge is half keyed and loses its green cast.
    const auto chroma = [&](const std::string& color) {
        return render(R"({"id": "c", "op": "constant", "params": {"color": )" + color +
                          R"(, "area": [0, 0, 4, 4]}},
                         {"id": "out", "op": "chromakey", "params": {"key": [0.1, 0.8, 0.2],
                          "tolerance": 0.1, "softness": 0.5, "spill": 1}, "inputs": {"input": "c"}})",
                      Rect(1, 1, 2, 2))[0];
    };
    EXPECT_EQ(chroma("[0.1, 0.8, 0.2, 1]").a, 0.0f);
    EXPECT_EQ(chroma("[0.5, 0.5, 0.5, 1]").a, 1.0f);
    EXPECT_EQ(chroma("[0.9, 0.1, 0.1, 1]").a, 1.0f);
    // (0.3, 0.6, 0.3): chroma (-0.2146, -0.2146) against the key's (-0.4079,
    // -0.5079): distance 0.3513 / 0.6514 = 0.5393, alpha (0.5393 - 0.1) / 0.5.
    const Color edge = chroma("[0.3, 0.6, 0.3, 1]");
    EXPECT_NEAR(edge.a, 0.8786f, 1e-3f);
    EXPECT_FLOAT_EQ(edge.g, 0.3f);
    EXPECT_FLOAT_EQ(edge.r, 0.3f);
}

TEST_F(EverydayOpsTest, MattesCombineAndDifferenceKeysFindTheChange) {
    // a: the plate; b: a ramp of alpha 0.25 to 1 across x, blue colour.
    const std::string b =
        R"({"id": "b", "op": "linearramp", "params": {"start": [0, 0], "end": [36, 0],
            "startColor": [0, 0, 0.25, 0.25], "endColor": [0, 0, 1, 1], "area": [0, 0, 37, 23]}},)";
    const Rect all(0, 0, kWidth, kHeight);
    const std::vector<Color> ramp =
        render(b + R"({"id": "out", "op": "copy", "inputs": {"input": "b"}})", all);
    const std::vector<std::pair<std::string, std::function<float(float, float)>>> ops = {
        {"max", [](float a, float b) { return std::max(a, b); }},
        {"min", [](float a, float b) { return std::min(a, b); }},
        {"multiply", [](float a, float b) { return a * b; }},
        {"plus", [](float a, float b) { return std::min(1.0f, a + b); }},
        {"minus", [](float a, float b) { return std::max(0.0f, a - b); }}};
    for (const auto& [name, f] : ops) {
        const std::vector<Color> got =
            render(b + R"({"id": "out", "op": "mattecombine", "params": {"operation": ")" + name +
                       R"("}, "inputs": {"a": "plate", "b": "b"}})",
                   all);
        for (int y = 0; y < kHeight; ++y)
            for (int x = 0; x < kWidth; ++x) {
                const size_t i = size_t(y * kWidth + x);
                ASSERT_FLOAT_EQ(got[i].a, f(plate(x, y).a, ramp[i].a)) << name;
                ASSERT_EQ(got[i].b, ramp[i].b) << name;
            }
    }

    // A clean plate and the plate with a square painted on it.
    const std::string painted =
        R"({"id": "sq", "op": "constant", "params": {"color": [0.5, 0.5, 0.5, 1], "area": [10, 5, 20, 15]}},
           {"id": "a", "op": "composite", "inputs": {"a": "sq", "b": "plate"}},
           {"id": "out", "op": "differencekey", "params": {"low": 0.0, "high": 0.5},
            "inputs": {"a": "a", "b": "plate"}})";
    const std::vector<Color> diff = render(painted, all);
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x) {
            const Color p = plate(x, y);
            const bool inSquare = x >= 10 && x < 20 && y >= 5 && y < 15;
            const Color a = inSquare ? Color(0.5f, 0.5f, 0.5f, 1) : p;
            const float d =
                std::max({std::fabs(a.r - p.r), std::fabs(a.g - p.g), std::fabs(a.b - p.b)});
            const size_t i = size_t(y * kWidth + x);
            ASSERT_NEAR(diff[i].a, std::min(1.0f, d / 0.5f), 1e-6f) << x << ", " << y;
            ASSERT_EQ(diff[i].r, a.r);
        }
}

TEST_F(EverydayOpsTest, ColorSpacesConvertAsTheirStandardsSay) {
    // One colour per pixel over a 4x1 strip, opaque.
    const auto convert = [&](const std::string& from, const std::string& to, const Color& c) {
        std::ostringstream nodes;
        nodes << R"({"id": "c", "op": "constant", "params": {"color": [)" << c.r << ", " << c.g
              << ", " << c.b << ", " << c.a << R"(], "area": [0, 0, 4, 1]}},
                  {"id": "out", "op": "colorspace", "params": {"from": ")"
              << from << R"(", "to": ")" << to << R"("}, "inputs": {"input": "c"}})";
        return render(nodes.str(), Rect(1, 0, 2, 1))[0];
    };
    // The sRGB transfer function (IEC 61966-2-1).
    const auto srgbToLinear = [](float v) {
        return v <= 0.04045f ? v / 12.92f : std::pow((v + 0.055f) / 1.055f, 2.4f);
    };
    const Color lin = convert("srgb", "lin_rec709", Color(0.5f, 0.02f, 0.9f, 1));
    EXPECT_NEAR(lin.r, srgbToLinear(0.5f), 2e-4f);
    EXPECT_NEAR(lin.g, srgbToLinear(0.02f), 2e-4f);
    EXPECT_NEAR(lin.b, srgbToLinear(0.9f), 2e-4f);
    EXPECT_EQ(lin.a, 1.0f);
    // Rec.709 primaries to AP1 (Bradford D65 to D60): the columns of the
    // published matrix.
    const Color red = convert("lin_rec709", "acescg", Color(1, 0, 0, 1));
    EXPECT_NEAR(red.r, 0.6131f, 1e-3f);
    EXPECT_NEAR(red.g, 0.0701f, 1e-3f);
    EXPECT_NEAR(red.b, 0.0206f, 1e-3f);
    // There and back through a log encoding.
    const Color grey(0.18f, 0.4f, 2.5f, 1);
    const Color logc = convert("acescg", "logc", grey);
    EXPECT_GT(logc.r, 0.3f);  // mid grey sits near 0.39 in LogC
    EXPECT_LT(logc.r, 0.45f);
    const std::string back =
        R"({"id": "c", "op": "constant", "params": {"color": [0.18, 0.4, 2.5, 1], "area": [0, 0, 4, 1]}},
           {"id": "l", "op": "colorspace", "params": {"from": "acescg", "to": "logc"}, "inputs": {"input": "c"}},
           {"id": "out", "op": "colorspace", "params": {"from": "logc", "to": "acescg"}, "inputs": {"input": "l"}})";
    const Color round = render(back, Rect(0, 0, 1, 1))[0];
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(round[c], grey[c], 1e-4f * std::max(1.0f, grey[c]));
    // Premultiplied colour is converted straight: half-covered sRGB grey
    // becomes half-covered linear grey.
    const Color half = convert("srgb", "lin_rec709", Color(0.25f, 0.25f, 0.25f, 0.5f));
    EXPECT_NEAR(half.r, 0.5f * srgbToLinear(0.5f), 2e-4f);
    EXPECT_EQ(half.a, 0.5f);
    EXPECT_NE(
        error(
            R"({"id": "out", "op": "colorspace", "params": {"to": "p3"}, "inputs": {"input": "plate"}})")
            .find("unknown value 'p3'"),
        std::string::npos);
}

TEST_F(EverydayOpsTest, ResizeMatchesOpenImageIO) {
    const OIIO::ImageBuf src(platePath());
    for (const auto& [filter, w, h] :
         std::vector<std::tuple<std::string, int, int>>{{"lanczos3", 20, 13},
                                                        {"catmull-rom", 20, 13},
                                                        {"box", 12, 7},
                                                        {"lanczos3", 61, 40},
                                                        {"mitchell", 50, 9},
                                                        {"triangle", 74, 46}}) {
        const OIIO::ImageBuf expected =
            OIIO::ImageBufAlgo::resize(src, filter, 0.0f, OIIO::ROI(0, w, 0, h));
        ASSERT_FALSE(expected.has_error()) << expected.geterror();
        std::ostringstream nodes;
        nodes << R"({"id": "out", "op": "resize", "params": {"size": [)" << w << ", " << h
              << R"(], "filter": ")" << filter << R"("}, "inputs": {"input": "plate"}})";
        EXPECT_EQ(region(nodes.str()), Rect(0, 0, w, h));
        expectEqual(expected, nodes.str(), 2e-5f);
    }
}

// Pixels without alpha take the resize's path for any channel count.
TEST_F(EverydayOpsTest, ResizeOfThreeChannelsMatchesOpenImageIO) {
    const int rgb[3] = {0, 1, 2};
    const OIIO::ImageBuf src = OIIO::ImageBufAlgo::channels(OIIO::ImageBuf(platePath()), 3, rgb);
    const std::string path = (dir() / "rgb.exr").string();
    ASSERT_TRUE(src.write(path)) << src.geterror();
    for (const auto& [w, h] : std::vector<std::pair<int, int>>{{20, 13}, {74, 46}, {50, 9}}) {
        const OIIO::ImageBuf expected =
            OIIO::ImageBufAlgo::resize(src, "lanczos3", 0.0f, OIIO::ROI(0, w, 0, h));
        ASSERT_FALSE(expected.has_error()) << expected.geterror();
        std::ostringstream nodes;
        nodes << R"({"id": "rgb", "op": "filein", "params": {"path": ")" << path
              << R"("}}, {"id": "out", "op": "resize", "params": {"size": [)" << w << ", " << h
              << R"(]}, "inputs": {"input": "rgb"}})";
        const std::vector<Color> got = render(nodes.str(), Rect(0, 0, w, h));
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                float want[3];
                expected.getpixel(x, y, want, 3);
                for (int c = 0; c < 3; ++c)
                    ASSERT_NEAR(got[size_t(y * w + x)][c], want[c],
                                2e-5f * std::max(1.0f, std::fabs(want[c])))
                        << w << "x" << h << " at " << x << ", " << y << " channel " << c;
            }
    }
}

TEST_F(EverydayOpsTest, DepthMergeMatchesOpenImageIOAndBlendsAcrossItsSoftness) {
    // Two RGBAZ images, every pixel covered, depths crossing each other.
    const auto write = [&](const std::string& name, float phase) {
        OIIO::ImageSpec spec(kWidth, kHeight, 5, OIIO::TypeDesc::FLOAT);
        spec.channelnames = {"R", "G", "B", "A", "Z"};
        spec.z_channel = 4;
        OIIO::ImageBuf buf(spec);
        for (int y = 0; y < kHeight; ++y)
            for (int x = 0; x < kWidth; ++x) {
                const float a = 0.25f + 0.75f * float((x + y) % 4) / 3.0f;
                const float v[5] = {a * phase, a * 0.5f, a * (1 - phase), a,
                                    1.0f + float((x * 3 + int(phase * 7) * y) % 10) + phase / 3};
                buf.setpixel(x, y, v);
            }
        const std::string path = (dir() / name).string();
        EXPECT_TRUE(buf.write(path));
        return path;
    };
    const std::string a = write("za.exr", 0.2f), b = write("zb.exr", 0.9f);
    const OIIO::ImageBuf expected =
        OIIO::ImageBufAlgo::zover(OIIO::ImageBuf(a), OIIO::ImageBuf(b), false);
    const std::string nodes =
        R"({"id": "a", "op": "filein", "params": {"path": ")" + a +
        R"("}}, {"id": "b", "op": "filein", "params": {"path": ")" + b +
        R"("}}, {"id": "out", "op": "zmerge", "inputs": {"a": "a", "b": "b"}})";
    expectEqual(expected, nodes, 1e-6f);

    // Equal depths: a wins outright without softness, and blends half and
    // half with it (w = 1/2 + 0 / softness).
    const auto pixel = [&](float softness) {
        std::ostringstream n;
        n << R"({"id": "ca", "op": "constant", "params": {"color": [0.8, 0, 0, 0.8], "area": [0, 0, 2, 2]}},
               {"id": "a", "op": "shuffle", "params": {"z": "1"}, "inputs": {"a": "ca"}},
               {"id": "cb", "op": "constant", "params": {"color": [0, 0, 0.5, 0.5], "area": [0, 0, 2, 2]}},
               {"id": "b", "op": "shuffle", "params": {"z": "1"}, "inputs": {"a": "cb"}},
               {"id": "out", "op": "zmerge", "params": {"softness": )"
          << softness << R"(}, "inputs": {"a": "a", "b": "b"}})";
        return render(n.str(), Rect(0, 0, 1, 1))[0];
    };
    const Color hard = pixel(0), soft = pixel(4);
    EXPECT_NEAR(hard.r, 0.8f, 1e-6f);
    EXPECT_NEAR(hard.b, 0.5f * 0.2f, 1e-6f);
    EXPECT_NEAR(soft.r, 0.5f * 0.8f + 0.5f * 0.8f * 0.5f, 1e-6f);
    EXPECT_NEAR(soft.b, 0.5f * 0.1f + 0.5f * 0.5f, 1e-6f);
    EXPECT_NE(error(R"({"id": "out", "op": "zmerge", "inputs": {"a": "plate", "b": "plate"}})")
                  .find("input a (plate) has no Z channel (it has RGBA)"),
              std::string::npos);
}

TEST_F(EverydayOpsTest, FourCornerGradientHitsItsCorners) {
    const std::vector<Color> g = render(
        R"({"id": "out", "op": "fourcorner", "params": {"topLeft": [1, 0, 0, 1], "topRight": [0, 1, 0, 1],
            "bottomLeft": [0, 0, 1, 1], "bottomRight": [1, 1, 1, 0], "area": [10, 20, 15, 23]}})",
        Rect(10, 20, 15, 23));
    EXPECT_EQ(g[0], Color(1, 0, 0, 1));
    EXPECT_EQ(g[4], Color(0, 1, 0, 1));
    EXPECT_EQ(g[10], Color(0, 0, 1, 1));
    EXPECT_EQ(g[14], Color(1, 1, 1, 0));
    // The centre pixel: the mean of the four.
    EXPECT_EQ(g[7], Color(0.5f, 0.5f, 0.5f, 0.75f));
}

TEST_F(EverydayOpsTest, TextCoversWhatOpenImageIODrawsAndKeepsItsLines) {
    const Rect area(0, 0, 240, 140);
    // Alpha of our text, and of OpenImageIO's in the same font and size.
    const auto alpha = [&](const std::string& params) {
        std::vector<float> a;
        for (const Color& c :
             render(R"({"id": "out", "op": "text", "params": {)" + params + "}}", area))
            a.push_back(c.a);
        return a;
    };
    const auto box = [&](const std::vector<float>& a) {
        Rect b;
        for (int64_t y = 0; y < area.ymax; ++y)
            for (int64_t x = 0; x < area.xmax; ++x)
                if (a[size_t(y * area.xmax + x)] > 0) b = b.boundingBox(Rect(x, y, x + 1, y + 1));
        return b;
    };
    const std::vector<float> ours =
        alpha(R"("text": "Quartz 42", "size": 30, "position": [20, 60])");
    OIIO::ImageBuf theirs(
        OIIO::ImageSpec(int(area.xmax), int(area.ymax), 4, OIIO::TypeDesc::FLOAT));
    OIIO::ImageBufAlgo::zero(theirs);
    ASSERT_TRUE(OIIO::ImageBufAlgo::render_text(theirs, 20, 60, "Quartz 42", 30, defaultFont()))
        << theirs.geterror();
    double sumOurs = 0, sumTheirs = 0;
    Rect theirBox;
    for (int y = 0; y < area.ymax; ++y)
        for (int x = 0; x < area.xmax; ++x) {
            sumOurs += ours[size_t(y * area.xmax + x)];
            const float a = theirs.getchannel(x, y, 0, 3);
            sumTheirs += a;
            if (a > 0) theirBox = theirBox.boundingBox(Rect(x, y, x + 1, y + 1));
        }
    EXPECT_NEAR(sumOurs / sumTheirs, 1.0, 0.03);
    const Rect ourBox = box(ours);
    EXPECT_NEAR(double(ourBox.xmin), double(theirBox.xmin), 1);
    EXPECT_NEAR(double(ourBox.xmax), double(theirBox.xmax), 2);
    EXPECT_NEAR(double(ourBox.ymin), double(theirBox.ymin), 1);
    EXPECT_NEAR(double(ourBox.ymax), double(theirBox.ymax), 1);

    // Right-aligned text ends at x; a second line repeats the first one a
    // line height (DejaVu's is 1.164 em) lower.
    const Rect right =
        box(alpha(R"("text": "Quartz 42", "size": 30, "position": [200, 60], "align": "right")"));
    EXPECT_NEAR(double(right.xmax), 200.0, 2.0);
    const std::vector<float> two = alpha(R"("text": "Hm\nHm", "size": 30, "position": [20, 40])");
    const int64_t shift = int64_t(std::lround(40 + 30 * 1.164)) - 40;
    const Rect first = box(alpha(R"("text": "Hm", "size": 30, "position": [20, 40])"));
    for (int64_t y = first.ymin; y < first.ymax; ++y)
        for (int64_t x = first.xmin; x < first.xmax; ++x)
            ASSERT_EQ(two[size_t((y + shift) * area.xmax + x)], two[size_t(y * area.xmax + x)])
                << x << ", " << y;

    EXPECT_NE(error(R"({"id": "out", "op": "text", "params": {"text": ""}})").find("text is empty"),
              std::string::npos);
    EXPECT_NE(
        error(R"({"id": "out", "op": "text", "params": {"text": "a", "font": "/no/such.ttf"}})")
            .find("font '/no/such.ttf' cannot be opened"),
        std::string::npos);
}

TEST_F(EverydayOpsTest, LensDistortionFollowsItsModelAndUndoesItself) {
    // A ramp linear in x and y: bilinear reads reproduce it exactly, so the
    // warp shows as the model moves points.
    const std::string ramp =
        R"({"id": "ramp", "op": "linearramp", "params": {"start": [0, 0], "end": [200, 100],
            "startColor": [0, 0, 0, 1], "endColor": [1, 1, 1, 1], "area": [0, 0, 200, 100]}},)";
    const auto lens = [](double k1, double p1, double x, double y, double& dx, double& dy) {
        // Centre (100, 50), unit 100.
        const double nx = (x - 100) / 100, ny = (y - 50) / 100, r2 = nx * nx + ny * ny;
        dx = 100 + 100 * (nx * (1 + k1 * r2) + 2 * p1 * nx * ny);
        dy = 50 + 100 * (ny * (1 + k1 * r2) + p1 * (r2 + 2 * ny * ny));
    };
    // The ramp's value at a point: its projection on (200, 100), over 50000.
    const auto rampAt = [](double x, double y) { return (200 * x + 100 * y) / 50000; };
    const Rect inner(30, 20, 170, 80);
    const std::vector<Color> removed =
        render(ramp + R"({"id": "out", "op": "lensdistort", "params": {"k1": 0.1, "p1": 0.02,
                  "undistort": true}, "inputs": {"input": "ramp"}})",
               inner);
    for (int64_t y = inner.ymin; y < inner.ymax; ++y)
        for (int64_t x = inner.xmin; x < inner.xmax; ++x) {
            double sx, sy;
            lens(0.1, 0.02, double(x) + 0.5, double(y) + 0.5, sx, sy);
            ASSERT_NEAR(removed[size_t((y - inner.ymin) * inner.width() + x - inner.xmin)].r,
                        rampAt(sx, sy), 2e-5)
                << x << ", " << y;
        }
    // Applying it needs the inverse; applying and removing gives the ramp back.
    const std::string both =
        ramp + R"({"id": "d", "op": "lensdistort", "params": {"k1": 0.1, "p1": 0.02},
                   "inputs": {"input": "ramp"}},
                  {"id": "out", "op": "lensdistort", "params": {"k1": 0.1, "p1": 0.02,
                   "undistort": true, "format": [0, 0, 200, 100]}, "inputs": {"input": "d"}})";
    const std::vector<Color> back = render(both, inner);
    for (int64_t y = inner.ymin; y < inner.ymax; ++y)
        for (int64_t x = inner.xmin; x < inner.xmax; ++x)
            ASSERT_NEAR(back[size_t((y - inner.ymin) * inner.width() + x - inner.xmin)].r,
                        rampAt(double(x) + 0.5, double(y) + 0.5), 1e-4)
                << x << ", " << y;
    // Pincushion grows the box to the corners' new places (overscan).
    double cx, cy;
    lens(0.1, 0, 0, 0, cx, cy);
    const Rect grown = region(ramp + R"({"id": "out", "op": "lensdistort", "params": {"k1": 0.1},
                                        "inputs": {"input": "ramp"}})");
    EXPECT_NEAR(double(grown.xmin), std::floor(cx) - 1, 1.0);
    EXPECT_NEAR(double(grown.ymin), std::floor(cy) - 1, 1.0);
    EXPECT_NEAR(double(grown.xmax), 200 - std::floor(cx) + 1, 1.0);
}

TEST_F(EverydayOpsTest, AnIdentitySTMapGivesTheInputBack) {
    // s = (x + 1/2) / W across, t = 1 - (y + 1/2) / H down.
    std::ostringstream nodes;
    nodes << R"({"id": "s", "op": "linearramp", "params": {"start": [0, 0], "end": [)" << kWidth
          << R"(, 0], "startColor": [0, 0, 0, 1], "endColor": [1, 0, 0, 1], "area": [0, 0, )"
          << kWidth << ", " << kHeight << R"(]}},
             {"id": "t", "op": "linearramp", "params": {"start": [0, 0], "end": [0, )"
          << kHeight
          << R"(], "startColor": [0, 1, 0, 1], "endColor": [0, 0, 0, 1], "area": [0, 0, )" << kWidth
          << ", " << kHeight << R"(]}},
             {"id": "map", "op": "shuffle", "params": {"g": "b.g"}, "inputs": {"a": "s", "b": "t"}},
             {"id": "out", "op": "stmap", "inputs": {"input": "plate", "map": "map"}})";
    const std::vector<Color> got = render(nodes.str(), Rect(0, 0, kWidth, kHeight));
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x)
            for (int c = 0; c < 4; ++c)
                ASSERT_NEAR(got[size_t(y * kWidth + x)][c], plate(x, y)[c], 1e-4f)
                    << x << ", " << y;
    EXPECT_NE(error(R"({"id": "out", "op": "stmap", "params": {"s": "u"},
                        "inputs": {"input": "plate", "map": "plate"}})")
                  .find("has no U channel for s"),
              std::string::npos);
}

TEST_F(EverydayOpsTest, DeepFilesReadFlattenedAsOpenImageIOFlattensThem) {
    // A deep RGBAZ image: up to three samples a pixel, front to back.
    OIIO::ImageSpec spec(kWidth, kHeight, 5, OIIO::TypeDesc::FLOAT);
    spec.channelnames = {"R", "G", "B", "A", "Z"};
    spec.z_channel = 4;
    spec.deep = true;
    OIIO::ImageBuf deep(spec);
    OIIO::DeepData& data = *deep.deepdata();
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x) {
            const int64_t p = deep.pixelindex(x, y, 0);
            const int n = (x + 2 * y) % 4;
            data.set_samples(p, n);
            for (int i = 0; i < n; ++i) {
                const float a = 0.2f + 0.25f * float(i);
                const float v[5] = {a * 0.9f, a * float(x % 3) / 2, a * float(i) / 2, a,
                                    1.0f + float(i) + float(x) / 64};
                for (int c = 0; c < 5; ++c) data.set_deep_value(p, c, i, v[c]);
            }
        }
    const std::string path = (dir() / "deep.exr").string();
    ASSERT_TRUE(deep.write(path)) << deep.geterror();
    const OIIO::ImageBuf flat = OIIO::ImageBufAlgo::flatten(OIIO::ImageBuf(path));
    ASSERT_FALSE(flat.has_error()) << flat.geterror();
    const std::string nodes =
        R"({"id": "out", "op": "filein", "params": {"path": ")" + path + R"("}})";
    expectEqual(flat, nodes, 1e-6f);
    // Depth is the nearest sample's.
    const Graph g = graph(nodes);
    uint64_t channels = 0;
    g.outputs[0].description.task->getOutputDescription(&channels, nullptr);
    ASSERT_EQ(channels, IMGLIB::CHANNELS_RGBA | IMGLIB::CHANNEL_Z);
    const std::vector<Color> z =
        render(R"({"id": "deep", "op": "filein", "params": {"path": ")" + path + R"("}},
           {"id": "out", "op": "shuffle", "params": {"r": "a.z"}, "inputs": {"a": "deep"}})",
               Rect(0, 0, kWidth, kHeight));
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x)
            ASSERT_EQ(z[size_t(y * kWidth + x)].r, (x + 2 * y) % 4 ? 1.0f + float(x) / 64 : 0.0f)
                << x << ", " << y;
}

TEST_F(EverydayOpsTest, BadParametersNameTheNodeTheParameterAndTheValue) {
    EXPECT_EQ(
        error(
            R"({"id": "out", "op": "border", "params": {"left": -2}, "inputs": {"input": "plate"}})"),
        "node 'out', field 'left': value -2 is out of range (0 to 1e+06)");
    EXPECT_EQ(error(R"({"id": "out", "op": "orient", "params": {"orientation": "sideways"},
                        "inputs": {"input": "plate"}})"),
              "node 'out', field 'orientation': unknown value 'sideways' (one of: flip, flop, "
              "transpose, rotate90, rotate180, rotate270)");
    EXPECT_EQ(error(R"({"id": "out", "op": "reposition", "params": {"offset": [1.5, 0]},
                        "inputs": {"input": "plate"}})"),
              "node 'out', field 'offset': needs whole pixels, got [1.5,0]");
    EXPECT_EQ(error(R"({"id": "out", "op": "crop", "params": {"rect": [10, 10, 5, 20]},
                        "inputs": {"input": "plate"}})"),
              "node 'out', field 'rect': value [10,10,5,20] is empty");
    EXPECT_EQ(
        error(
            R"({"id": "out", "op": "chromakey", "params": {"spill": 2}, "inputs": {"input": "plate"}})"),
        "node 'out', field 'spill': value 2 is out of range (0 to 1)");
    EXPECT_EQ(error(R"({"id": "out", "op": "differencekey", "params": {"low": 0.5, "high": 0.1},
                        "inputs": {"a": "plate", "b": "plate"}})"),
              "node 'out', field 'high': value 0.1 is below low (0.5)");
}

}  // namespace
