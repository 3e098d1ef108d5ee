// Graphs over time: frame lists, numbered paths, animated values, and
// sequences written frame by frame with the still parts rendered once.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

#include "frames.h"
#include "rendermanager.h"
#include "support/watchdog.h"

using namespace TESSERA;
namespace fs = std::filesystem;

namespace {

class FramesTest : public ::testing::Test {
protected:
    void SetUp() override {
        dir = fs::temp_directory_path() / ("tessera_frames_" + std::to_string(::getpid()));
        fs::create_directories(dir);
        RenderManager::setGlobalTileSize(64, 64);
    }
    void TearDown() override {
        fs::remove_all(dir);
        RenderManager::setGlobalTileSize(256, 256);
        RenderManager::clearSpeculativeCache();
        RenderManager::ClearRenderTaskCache();
    }
    std::string write(const std::string& name, const std::string& text) {
        const fs::path path = dir / name;
        std::ofstream(path) << text;
        return path.string();
    }
    fs::path dir;
};

// The first pixel of a graph's first output at a frame.
std::vector<float> firstPixel(const std::string& graph, int frame) {
    const Graph g = loadGraph(graph, ".", {}, frame);
    const RenderDescription& out = g.outputs.at(0).description;
    const UTIL::Rect one(out.rect.xmin, out.rect.ymin, out.rect.xmin + 1, out.rect.ymin + 1);
    return renderImage(out.task, one, IMGLIB::CHANNELS_RGBA).pixels;
}

std::string constantWithColour(const std::string& colour) {
    return R"({"nodes": [{"id": "c", "op": "constant", "params": {"area": [0, 0, 4, 4], "color": )" +
           colour + R"(}}], "outputs": [{"node": "c"}]})";
}

TEST(FrameLists, ReadAsArtistsTypeThem) {
    EXPECT_EQ(parseFrames("1-5"), (std::vector<int>{1, 2, 3, 4, 5}));
    EXPECT_EQ(parseFrames("1-10x3"), (std::vector<int>{1, 4, 7, 10}));
    EXPECT_EQ(parseFrames("1-11x5"), (std::vector<int>{1, 6, 11}));
    EXPECT_EQ(parseFrames("5"), (std::vector<int>{5}));
    EXPECT_EQ(parseFrames("1,4,9"), (std::vector<int>{1, 4, 9}));
    // In the order given, each frame once.
    EXPECT_EQ(parseFrames("9,1-3,2"), (std::vector<int>{9, 1, 2, 3}));
    EXPECT_EQ(parseFrames("-2-1"), (std::vector<int>{-2, -1, 0, 1}));
    for (const char* bad : {"", "1-", "5-1", "1-5x0", "a", "1,,2", "1-3y", "1-3x", "0-2000000"})
        EXPECT_THROW(parseFrames(bad), std::invalid_argument) << bad;
    // Too many frames, or numbers beyond 32 bits, say so.
    try {
        parseFrames("1-2000000000");
        ADD_FAILURE() << "a list of two billion frames was taken";
    } catch (const std::invalid_argument& e) {
        EXPECT_NE(std::string(e.what()).find("more than a million frames"), std::string::npos)
            << e.what();
    }
    EXPECT_THROW(parseFrames("1-99999999999"), std::invalid_argument);
}

TEST(FrameLists, NumberedPathsArePaddedAsWritten) {
    EXPECT_EQ(framePath("shot/a.####.exr", 12), "shot/a.0012.exr");
    EXPECT_EQ(framePath("a.#.exr", 123), "a.123.exr");
    EXPECT_EQ(framePath("a.%04d.exr", 7), "a.0007.exr");
    EXPECT_EQ(framePath("a.%d.exr", 7), "a.7.exr");
    EXPECT_EQ(framePath("a.####.exr", -3), "a.-003.exr");
    EXPECT_EQ(framePath("100%.exr", 1), "100%.exr");
    EXPECT_EQ(framePath("a.%5d.exr", 1), "a.%5d.exr");  // not a form we write
    EXPECT_TRUE(hasFrameNumber("a.##.exr"));
    EXPECT_TRUE(hasFrameNumber("a.%03d.exr"));
    EXPECT_FALSE(hasFrameNumber("a.100%.exr"));
    // Any width, beyond any buffer.
    const std::string wide = framePath("a." + std::string(300, '#') + ".exr", 42);
    EXPECT_EQ(wide, "a." + std::string(298, '0') + "42.exr");
    EXPECT_EQ(framePath("a.%0200d.exr", -7).size(), 206u);
}

// Every frame of a sequence written to one file would leave only the last:
// refused before any is written, for any path without a frame number.
TEST_F(FramesTest, ASequenceRefusesAnOutputWithoutAFrameNumber) {
    for (const char* name : {"o.exr", "o.%s.exr", "o.%x.exr", "o.%-4d.exr"}) {
        const std::string graph =
            write("plain.json",
                  R"({"nodes": [{"id": "c", "op": "constant", "params": {"area": [0, 0, 8, 8]}}],
                "outputs": [{"node": "c", "file": ")" +
                      (dir / name).string() + R"("}]})");
        try {
            writeGraphFrames(graph, {1, 2, 3});
            ADD_FAILURE() << name << " was written three times";
        } catch (const GraphFileError& e) {
            EXPECT_NE(std::string(e.what()).find("has no frame number"), std::string::npos)
                << e.what();
        }
        EXPECT_FALSE(fs::exists(dir / name)) << name;
        // One frame is a still: written.
        EXPECT_TRUE(writeGraphFrames(graph, {4}).empty());
        EXPECT_TRUE(fs::exists(dir / name)) << name;
    }
}

// hold from 1 to 5, linear from 5 to 9, smooth from 9 to 13.
TEST_F(FramesTest, KeysInterpolateAtBetweenAndBeyondTheirFrames) {
    const std::string keys = R"([
        {"frame": 1, "value": [0.1, 0, 0, 1], "interp": "hold"},
        {"frame": 5, "value": [0.5, 0, 0, 1]},
        {"frame": 9, "value": [1.3, 0, 0, 1], "interp": "smooth"},
        {"frame": 13, "value": [2.1, 0, 0, 1]}])";
    const auto smooth = [](double t) { return t * t * (3 - 2 * t); };
    const std::vector<std::pair<int, double>> expected = {
        {-4, 0.1}, {1, 0.1},  {4, 0.1},  // held
        {5, 0.5},  {7, 0.9},  {9, 1.3}, {10, 1.3 + 0.8 * smooth(0.25)},
        {11, 1.7}, {13, 2.1}, {40, 2.1}};
    const std::string graph = constantWithColour(keys);
    for (const auto& [frame, value] : expected)
        EXPECT_NEAR(firstPixel(graph, frame)[0], value, 1e-6) << "frame " << frame;

    // Integers round to the nearest: the area at frame 2 is half way.
    const Graph g = loadGraph(R"({"nodes": [{"id": "c", "op": "constant", "params": {"area": [
        {"frame": 1, "value": [0, 0, 10, 10]}, {"frame": 3, "value": [0, 0, 20, 15]}]}}],
        "outputs": [{"node": "c"}]})",
                              ".", {}, 2);
    EXPECT_EQ(g.outputs[0].description.rect, UTIL::Rect(0, 0, 15, 13));
    EXPECT_TRUE(g.animated);
}

TEST_F(FramesTest, BadKeysNameTheNodeAndTheParameter) {
    const auto fieldOf = [](const std::string& graph) {
        try {
            loadGraph(graph);
        } catch (const GraphFileError& e) {
            return e.getNode() + "." + e.getField();
        }
        return std::string("(loaded)");
    };
    const std::string key1 = R"({"frame": 1, "value": [0, 0, 0, 1]})";
    // Frames must increase; interpolations are known; values match in size.
    EXPECT_EQ(fieldOf(constantWithColour("[" + key1 + ", " + key1 + "]")), "c.color");
    EXPECT_EQ(
        fieldOf(constantWithColour(R"([{"frame": 1, "value": [0, 0, 0, 1], "interp": "ease"}])")),
        "c.color");
    EXPECT_EQ(fieldOf(constantWithColour(R"([{"frame": 1, "value": [0, 0, 0]}])")), "c.color");
    EXPECT_EQ(fieldOf(constantWithColour(R"([{"value": [0, 0, 0, 1]}])")), "c.color");
    // A key's value is checked as a still value is: octaves run from 1 to 32.
    EXPECT_EQ(fieldOf(R"({"nodes": [{"id": "n", "op": "perlinnoise", "params": {"octaves": [
        {"frame": 1, "value": 4}, {"frame": 9, "value": 0}]}}], "outputs": [{"node": "n"}]})"),
              "n.octaves");
    // Names and switches do not animate.
    EXPECT_EQ(fieldOf(R"({"nodes": [{"id": "c", "op": "constant"},
        {"id": "b", "op": "blur", "params": {"size": [2, 2], "filter": [{"frame": 1, "value": "box"}]},
         "inputs": {"input": "c"}}], "outputs": [{"node": "b"}]})"),
              "b.filter");
    EXPECT_EQ(fieldOf(R"({"frames": "1-x", "nodes": [], "outputs": []})"), "(file).frames");
}

// A blurred checkerboard (the same at every frame) under a square whose
// colour is animated.
std::string sequenceGraph(const std::string& output) {
    return R"({"frames": "1-4", "nodes": [
        {"id": "bg", "op": "checkerboard", "params": {"area": [0, 0, 128, 128]}},
        {"id": "soft", "op": "blur", "params": {"size": [9, 9]}, "inputs": {"input": "bg"}},
        {"id": "square", "op": "constant", "params": {"area": [20, 30, 90, 100], "color": [
            {"frame": 1, "value": [0, 0, 0, 0.5]},
            {"frame": 4, "value": [1, 0.5, 0.25, 0.5], "interp": "smooth"}]}},
        {"id": "comp", "op": "composite", "inputs": {"a": "square", "b": "soft"}}],
        "outputs": [{"node": "comp", "dataType": "float", "file": ")" +
           output + R"("}]})";
}

TEST_F(FramesTest, SequencesWriteEachFrameAndRenderTheStillPartsOnce) {
    const std::string graph = write("seq.json", sequenceGraph((dir / "out.####.exr").string()));
    EXPECT_EQ(graphFileFrames(graph), (std::vector<int>{1, 2, 3, 4}));
    RenderManager::setSpeculativeCachingEnable(true);
    RenderManager::clearSpeculativeCache();
    const std::string log = (dir / "render.log").string();
    RenderManager::setRenderLogFile(log);
    RenderManager::setRenderDebug(true);
    std::vector<int> done;
    const auto failures = writeGraphFrames(graph, graphFileFrames(graph), {}, [&] {
        SequenceOptions o;
        o.frameDone = [&](int frame, const std::string& error) {
            EXPECT_EQ(error, "");
            done.push_back(frame);
        };
        return o;
    }());
    EXPECT_TRUE(failures.empty());
    EXPECT_EQ(done, (std::vector<int>{1, 2, 3, 4}));
    RenderManager::setRenderDebug(false);
    // The blur renders at frame 1 only: later frames take its tiles from
    // the cache. The animated square renders at every frame.
    std::ifstream in(log);
    std::set<std::string> rendered;
    for (std::string line; std::getline(in, line);)
        if (line.size() > 20 && line.compare(line.size() - 20, 20, " beginning to render") == 0)
            rendered.insert(line.substr(0, line.size() - 20));
    for (const char* task : {"bg@1", "square@1", "square@2", "square@3", "square@4"})
        EXPECT_TRUE(rendered.count(task)) << task;
    for (const std::string still : {"bg@", "soft@", "soft.vertBlur@"})
        for (const char* frame : {"2", "3", "4"})
            EXPECT_FALSE(rendered.count(still + frame)) << still + frame;

    // Each file holds its frame, and the frames differ.
    std::vector<float> previous;
    for (int frame = 1; frame <= 4; ++frame) {
        const Graph fileIn =
            loadGraph(R"({"nodes": [{"id": "f", "op": "filein", "params": {"path": ")" +
                      framePath((dir / "out.####.exr").string(), frame) +
                      R"("}}], "outputs": [{"node": "f"}]})");
        const Graph inMemory = loadGraph(sequenceGraph("unused"), ".", {}, frame);
        const UTIL::Rect area(0, 0, 128, 128);
        const auto written =
            renderImage(fileIn.outputs[0].description.task, area, IMGLIB::CHANNELS_RGBA).pixels;
        EXPECT_EQ(
            written,
            renderImage(inMemory.outputs[0].description.task, area, IMGLIB::CHANNELS_RGBA).pixels)
            << "frame " << frame;
        EXPECT_NE(written, previous);
        previous = written;
    }
}

TEST_F(FramesTest, AMissingInputFrameFailsThatFrameAlone) {
    // Input frames 1 and 3 exist; 2 does not.
    const std::string source =
        write("source.json",
              R"({"nodes": [{"id": "c", "op": "constant", "params": {"area": [0, 0, 8, 8]}}],
            "outputs": [{"node": "c", "file": ")" +
                  (dir / "in.####.exr").string() + R"("}]})");
    EXPECT_TRUE(writeGraphFrames(source, {1, 3}).empty());
    const std::string graph =
        write("read.json",
              R"({"nodes": [{"id": "plate", "op": "filein", "params": {"path": "in.####.exr"}},
            {"id": "g", "op": "gain", "params": {"gain": [2, 2, 2, 1]}, "inputs": {"input": "plate"}}],
            "outputs": [{"node": "g", "file": ")" +
                  (dir / "out.%04d.exr").string() + R"("}]})");
    const auto failures = writeGraphFrames(graph, {1, 2, 3});
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_EQ(failures[0].frame, 2);
    EXPECT_NE(failures[0].message.find("frame 2"), std::string::npos) << failures[0].message;
    EXPECT_NE(failures[0].message.find("in.0002.exr"), std::string::npos) << failures[0].message;
    EXPECT_TRUE(fs::exists(dir / "out.0001.exr"));
    EXPECT_FALSE(fs::exists(dir / "out.0002.exr"));
    EXPECT_TRUE(fs::exists(dir / "out.0003.exr"));
}

TEST_F(FramesTest, CallersStopASequenceAndAbandonedFilesGoWhenAsked) {
    const std::string graph = write("seq.json", sequenceGraph((dir / "out.####.exr").string()));
    // A temporary a dead writer left beside frame 1, and files that are not one.
    const fs::path abandoned = dir / ".out.0001.tessera-99999-1.exr";
    const fs::path others[] = {dir / ".out.0003.tessera-99999-1.exr",
                               dir / ".other.tessera-1-1.exr", dir / "out.0001.tessera-1-1.exr"};
    for (const fs::path& p : {abandoned, others[0], others[1], others[2]}) std::ofstream(p) << "x";
    SequenceOptions options;
    options.removeAbandonedFiles = true;
    options.progress = [](const SequenceProgress& p) {
        if (p.frame == 2) throw std::runtime_error("stopped by the host");
    };
    std::vector<int> done;
    options.frameDone = [&](int frame, const std::string&) { done.push_back(frame); };
    try {
        writeGraphFrames(graph, {1, 2, 3}, {}, options);
        ADD_FAILURE() << "the callback's exception should end the sequence";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "stopped by the host");
    }
    EXPECT_EQ(done, std::vector<int>{1});
    EXPECT_FALSE(fs::exists(abandoned));
    for (const fs::path& p : others) EXPECT_TRUE(fs::exists(p)) << p;
    EXPECT_FALSE(fs::exists(dir / "out.0003.exr"));

    // Cancelled from another thread (after frame 3, which waits for it).
    std::atomic<bool> cancel{false}, frameWritten{false};
    options = SequenceOptions();
    options.cancel = &cancel;
    options.frameDone = [&](int, const std::string&) {
        frameWritten = true;
        while (!cancel) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    };
    TESSERA::testing::withinSeconds(60, "a sequence cancelled from another thread", [&] {
        std::thread host([&] {
            while (!frameWritten) std::this_thread::sleep_for(std::chrono::milliseconds(1));
            cancel = true;
        });
        EXPECT_THROW(writeGraphFrames(graph, {3, 4, 1}, {}, options), RenderCancelledException);
        host.join();
    });
    EXPECT_TRUE(fs::exists(dir / "out.0003.exr"));
    EXPECT_FALSE(fs::exists(dir / "out.0004.exr"));
}

}  // namespace
