// The tessera command's chains (`tessera a.exr --resize ... -o b.exr`),
// graphs on standard input and output overrides, against OpenImageIO
// doing the same jobs.
#include <OpenImageIO/imagebufalgo.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include "support/command_test.h"

namespace fs = std::filesystem;

namespace {

constexpr int kWidth = 64, kHeight = 48;

class CommandChainTest : public TESSERA::testing::CommandTest {
protected:
    void SetUp() override {
        CommandTest::SetUp();
        OIIO::attribute("threads", 1);
        plate = writePlate("plate.exr", 0.3f);
        backdrop = writePlate("backdrop.exr", 0.8f);
    }

    // A float RGBA plate with texture in every channel and alpha from 0.25 to 1.
    std::string writePlate(const std::string& name, float phase) {
        OIIO::ImageBuf buf(OIIO::ImageSpec(kWidth, kHeight, 4, OIIO::TypeDesc::FLOAT));
        for (int y = 0; y < kHeight; ++y)
            for (int x = 0; x < kWidth; ++x) {
                const float a = 0.25f + 0.75f * float((x * 7 + y * 3) % 11) / 10.0f;
                const float v[4] = {a * float(x) / kWidth, a * (phase + float(y % 5) / 8),
                                    a * float((x + y) % 9) / 9, a};
                buf.setpixel(x, y, v);
            }
        EXPECT_TRUE(buf.write(path(name))) << buf.geterror();
        return path(name);
    }
    OIIO::ImageBuf read(const std::string& name) {
        OIIO::ImageBuf image(path(name));
        EXPECT_TRUE(image.read(0, 0, true, OIIO::TypeDesc::FLOAT)) << image.geterror();
        return image;
    }

    std::string plate, backdrop;
};

// Each everyday job is one line, and gives what OpenImageIO gives for it.
TEST_F(CommandChainTest, EverydayJobsMatchOpenImageIO) {
    const OIIO::ImageBuf src(plate), bg(backdrop);
    struct Job {
        std::string chain;
        OIIO::ImageBuf expected;
        float tolerance;
    };
    const Job jobs[] = {
        {"plate.exr -o job.exr dataType=float", src, 0},
        {"plate.exr -o job.exr dataType=float zipLevel=9", src, 0},
        {"plate.exr --resize size=20,13 filter=lanczos3 -o job.exr dataType=float",
         OIIO::ImageBufAlgo::resize(src, "lanczos3", 0.0f, OIIO::ROI(0, 20, 0, 13)), 2e-5f},
        {"plate.exr --crop rect=5,3,30,40 -o job.exr dataType=float",
         OIIO::ImageBufAlgo::crop(src, OIIO::ROI(5, 30, 3, 40)), 0},
        {"plate.exr backdrop.exr --over -o job.exr dataType=float",
         OIIO::ImageBufAlgo::over(src, bg), 1e-6f},
        {"plate.exr --colorspace from=lin_rec709 to=srgb -o job.exr dataType=float",
         OIIO::ImageBufAlgo::colorconvert(src, "linear", "sRGB"), 1e-5f},
        {"plate.exr --orient orientation=flip -o job.exr dataType=float",
         OIIO::ImageBufAlgo::flip(src), 0},
        {"plate.exr backdrop.exr --multiply -o job.exr dataType=float",
         OIIO::ImageBufAlgo::mul(src, bg), 1e-6f},
    };
    int n = 0;
    for (const Job& job : jobs) {
        // A file name of its own: OpenImageIO's cache keeps what it read.
        const std::string name = "job" + std::to_string(++n) + ".exr";
        const std::string chain = std::regex_replace(job.chain, std::regex("job\\.exr"), name);
        ASSERT_EQ(tessera(chain), 0) << chain << ": " << text("err.txt");
        const OIIO::ImageBuf result = read(name);
        ASSERT_EQ(result.roi(), job.expected.roi()) << job.chain;
        const auto comparison =
            OIIO::ImageBufAlgo::compare(result, job.expected, job.tolerance, job.tolerance);
        EXPECT_EQ(comparison.nfail, 0u) << job.chain << ": max error " << comparison.maxerror;
    }
    // Another format: the extension chooses it, 16-bit TIFF by default.
    ASSERT_EQ(tessera("plate.exr -o job.tif"), 0) << text("err.txt");
    const OIIO::ImageBuf tiff = read("job.tif");
    EXPECT_EQ(tiff.nativespec().format, OIIO::TypeDesc::UINT16);
    EXPECT_EQ(OIIO::ImageBufAlgo::compare(tiff, src, 0.5f / 65535, 0).nfail, 0u);
}

// A generator starts a chain, and a verb's parameters reach its node: the
// swatch has the colour asked for, at the size asked for.
TEST_F(CommandChainTest, GeneratorsStartChainsAndSeveralOutputsWriteOnce) {
    ASSERT_EQ(tessera("--constant color=0.25,0.5,1,1 area=0,0,16,8 -o a.exr dataType=float "
                      "--gain gain=2,2,2,1 -o b.exr dataType=float"),
              0)
        << text("err.txt");
    float first[4], second[4];
    const OIIO::ImageBuf a = read("a.exr"), b = read("b.exr");
    EXPECT_EQ(a.spec().width, 16);
    EXPECT_EQ(a.spec().height, 8);
    a.getpixel(3, 3, first);
    b.getpixel(3, 3, second);
    EXPECT_EQ(first[2], 1.0f);
    EXPECT_EQ(second[0], 0.5f);
    EXPECT_EQ(second[3], 1.0f);
}

// --dump-graph prints the graph the chain builds; rendering that file, or
// piping it in, writes the same bytes.
TEST_F(CommandChainTest, TheDumpedGraphRendersIdentically) {
    const std::string chain = "plate.exr --blur size=5,3 backdrop.exr --over -o chain.exr";
    ASSERT_EQ(tessera(chain), 0) << text("err.txt");
    ASSERT_EQ(tessera(chain + " --dump-graph"), 0) << text("err.txt");
    const std::string graph = text("out.txt");
    EXPECT_NE(graph.find(R"("op":"blur","params":{"size":[5,3]})"), std::string::npos) << graph;
    fs::rename(dir / "chain.exr", dir / "first.exr");
    std::ofstream(dir / "chain.json") << graph;
    ASSERT_EQ(tessera("render chain.json"), 0) << text("err.txt");
    EXPECT_EQ(text("chain.exr"), text("first.exr"));
    // Standard input, with the output sent to another file.
    ASSERT_EQ(tessera("render - --set output.file=piped.exr < chain.json"), 0) << text("err.txt");
    EXPECT_EQ(text("piped.exr"), text("first.exr"));
}

// A sequence read from a pipe (it cannot be read twice), its frames written
// where an override sends them.
TEST_F(CommandChainTest, ASequenceOnStandardInputGoesWhereTheOverrideSays) {
    std::ofstream(dir / "seq.json") << R"({
      "frames": "1-3",
      "nodes": [{"id": "c", "op": "constant", "params": {"area": [0, 0, 8, 8],
                 "color": [{"frame": 1, "value": [0, 0, 0, 1]}, {"frame": 3, "value": [1, 1, 1, 1]}]}}],
      "outputs": [{"id": "plate", "node": "c", "file": "unused.####.exr", "dataType": "float"}]})";
    ASSERT_EQ(tessera("render - --set 'plate.file=shot/sh010.####.exr' < seq.json"), 0)
        << text("err.txt");
    float pixel[4];
    read("shot/sh010.0002.exr").getpixel(1, 1, pixel);
    EXPECT_EQ(pixel[0], 0.5f);
    EXPECT_TRUE(fs::exists(dir / "shot/sh010.0003.exr"));
    EXPECT_FALSE(fs::exists(dir / "unused.0001.exr"));
    // An output's field that is not one is refused as the file's would be.
    EXPECT_NE(tessera("render - --set plate.colour=1 < seq.json"), 0);
    EXPECT_NE(text("err.txt").find("field 'colour': unknown field of an output"), std::string::npos)
        << text("err.txt");
}

// EXR in scanlines, DWA and B44 of floats included, is written without the
// format module (and the hundreds of libraries OpenImageIO brings), and
// reads back in OpenImageIO as the plate (within DWA's loss).
TEST_F(CommandChainTest, ScanlineExrsAreWrittenWithoutTheFormatModule) {
    const std::pair<std::string, float> outputs[] = {
        {"dwa.exr compression=dwaa:45", 0.02f},
        {"lines.exr layout=scanline dataType=float", 0},
        {"b44.exr compression=b44 dataType=float", 0}};
    for (const auto& [output, tolerance] : outputs) {
        const std::string command = "cd " + dir.string() + " && LD_DEBUG=files " +
                                    TESSERA_CLI_PATH + " plate.exr -o " + output +
                                    " > out.txt 2> err.txt";
        ASSERT_EQ(std::system(command.c_str()), 0) << output;
        EXPECT_EQ(text("err.txt").find("libtessera_oiio"), std::string::npos) << output;
        const std::string file = output.substr(0, output.find(' '));
        OIIO::ImageBuf written = read(file);
        EXPECT_EQ(written.spec().tile_width, 0) << file;
        const auto result =
            OIIO::ImageBufAlgo::compare(written, OIIO::ImageBuf(plate), tolerance, tolerance);
        EXPECT_EQ(result.nfail, 0u) << file << ": largest difference " << result.maxerror;
    }
}

// Mistakes in a chain: status 2 and one line naming the argument.
TEST_F(CommandChainTest, MistakesAreOneLineNamingTheArgument) {
    const std::pair<std::string, std::string> cases[] = {
        {"plate.exr --frobnicate -o x.exr", "unknown verb '--frobnicate'"},
        {"plate.exr --over -o x.exr", "--over takes 2 images (a, b); the chain has 1"},
        {"plate.exr --blur sigma=3 -o x.exr", "blur has no parameter 'sigma'"},
        {"plate.exr --blur size=-9,5 -o x.exr", "node 'blur', field 'size': value [-9,5]"},
        {"plate.exr --blur size=3,3", "nothing to write: end the chain with -o FILE"},
        {"frobnicate", "'frobnicate' is neither a command"},
        {"plate.exr nothere.exr --over -o x.exr", "no file 'nothere.exr'"},
        {"plate.exr -o x.exr bogus=1", "an output has no field 'bogus'"},
        {"-o x.exr", "-o: no image to write yet"},
        {"plate.exr -o x.exr --threads 0", "--threads"},
        {"plate.exr -o x.exr zipLevel=12", "field 'zipLevel': value 12"},
        {"plate.exr -o x.exr compression=piz zipLevel=3",
         "a zip level goes with compression zip or zips, not 'piz'"},
    };
    for (const auto& [args, named] : cases) {
        EXPECT_EQ(tessera(args), 2) << args;
        const std::string err = text("err.txt");
        EXPECT_NE(err.find(named), std::string::npos) << args << ": " << err;
        EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << args << ": " << err;
        EXPECT_FALSE(fs::exists(dir / "x.exr")) << args;
    }
    // A verb's help is its operation's declaration; the command's lists every verb.
    ASSERT_EQ(tessera("plate.exr --blur --help"), 0);
    EXPECT_NE(text("out.txt").find("size ([x, y]), required, 0 to 2048"), std::string::npos)
        << text("out.txt");
    ASSERT_EQ(tessera("--help"), 0);
    EXPECT_NE(text("out.txt").find("--over"), std::string::npos);
    EXPECT_NE(text("out.txt").find("--colorspace"), std::string::npos);
}

}  // namespace
