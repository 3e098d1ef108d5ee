// A channel's value never depends on which other channels were asked for:
// every operation a graph file may use, rendered for RGBA, for colour alone
// and for alpha alone, gives each channel the same bits.
#include <gtest/gtest.h>

#include <OpenImageIO/imageio.h>

#include <cstring>
#include <string>

#include "graphfile.h"
#include "imglib/channels.h"
#include "renderimage.h"
#include "support/serial_render.h"
#include "support/sweep_graph.h"
#include "support/watchdog.h"

using namespace TESSERA;
using namespace TESSERA::testing;

namespace {

// The asked-for channels of every pixel of the sweep's area, in pixel order.
std::vector<float> render(const Graph& graph, uint64_t channels) {
    RenderDescription description = graph.outputs[0].description;
    description.channels = channels;
    RenderManager::ClearRenderTaskCache();
    RenderManager::clearSpeculativeCache();
    auto observer = make<RecordingObserver>();
    RenderManager::Render({description}, observer, nullptr, true, RENDERTYPE_BATCH);
    EXPECT_EQ(observer->status, RenderStatus::Success) << observer->message;
    std::vector<float> pixels;
    for (int64_t y = kSweepRender.ymin; y < kSweepRender.ymax; ++y)
        for (int64_t x = kSweepRender.xmin; x < kSweepRender.xmax; ++x) {
            const Imath::Color4<float> c = observer->pixel(0, x, y);
            for (int k = 0; k < 4; ++k)
                if (channels & (uint64_t(1) << k)) pixels.push_back(c[k]);
        }
    return pixels;
}

// The channels `mask` picks out of RGBA pixels.
std::vector<float> pick(const std::vector<float>& rgba, uint64_t mask) {
    std::vector<float> out;
    for (size_t i = 0; i < rgba.size(); ++i)
        if (mask & (uint64_t(1) << (i % 4))) out.push_back(rgba[i]);
    return out;
}

// One channel of every pixel of a render of rect: the channel's values in
// pixel order.
std::vector<float> channelOf(const RenderedImage& image, uint64_t channel) {
    const int slot = IMGLIB::GetChannelIndex(image.channels, channel);
    const int n = IMGLIB::GetChannelCount(image.channels);
    std::vector<float> values;
    for (size_t i = size_t(slot); i < image.pixels.size(); i += size_t(n))
        values.push_back(image.pixels[i]);
    return values;
}

}  // namespace

TEST(ChannelSweep, EachChannelIsTheSameWhateverElseIsAskedFor) {
    OIIO::attribute("threads", 1);
    const SweepFiles files;
    RenderManager::setGlobalTileSize(64, 64);
    RenderManager::setRenderThreads(2);
    withinSeconds(600, "the channel sweep", [&] {
        for (const OperationDescription& op : listOperations()) {
            const Graph graph = loadGraph(sweepGraph(op, files), files.dir.string());
            const std::vector<float> all = render(graph, IMGLIB::CHANNELS_RGBA);
            std::string differs;
            for (uint64_t part : {IMGLIB::CHANNELS_RGB, uint64_t(IMGLIB::CHANNEL_A)}) {
                const std::vector<float> want = pick(all, part), got = render(graph, part);
                ASSERT_EQ(got.size(), want.size()) << op.name;
                if (std::memcmp(got.data(), want.data(), got.size() * sizeof(float)) != 0)
                    differs += part == IMGLIB::CHANNEL_A ? " alpha alone" : " colour alone";
            }
            EXPECT_TRUE(differs.empty()) << op.name << ":" << differs << " differs";
        }
    });
    RenderManager::setGlobalTileSize(256, 256);
    RenderManager::ClearRenderTaskCache();
}

// Operators that read colour or alpha whatever is asked of them, on an
// image with depth beside RGBA: each of R, G, B, A and Z is the same
// asked alone, with RGBA, or with everything.
TEST(ChannelSweep, ChannelsBesideRGBAChangeNothingOfTheOthers) {
    const std::string graphText = R"({
        "nodes": [
            {"id": "board", "op": "checkerboard",
             "params": {"size": 5, "area": [0, 0, 64, 48], "first": [0.9, 0.2, 0.1, 1],
                        "second": [0.1, 0.3, 0.8, 0.25]}},
            {"id": "deep", "op": "shuffle", "params": {"z": "a.r", "a": "a.g"},
             "inputs": {"a": "board"}},
            {"id": "bilateral", "op": "bilateral", "params": {"radius": [3, 2], "sigmaRange": 0.3},
             "inputs": {"input": "deep"}},
            {"id": "perimeterextend", "op": "perimeterextend", "params": {"distance": 4},
             "inputs": {"input": "deep"}},
            {"id": "glintcontrol", "op": "glintcontrol", "params": {"threshold": 0.2},
             "inputs": {"input": "deep"}}],
        "outputs": [{"node": "bilateral"}, {"node": "perimeterextend"}, {"node": "glintcontrol"}]})";
    const Graph graph = loadGraph(graphText, ".");
    const UTIL::Rect rect(-4, -4, 68, 52);
    const uint64_t everything = IMGLIB::CHANNELS_RGBA | IMGLIB::CHANNEL_Z;
    withinSeconds(120, "renders beside depth", [&] {
        for (const GraphOutput& output : graph.outputs) {
            const TaskPtr& task = output.description.task;
            const RenderedImage all = renderImage(task, rect, everything);
            const RenderedImage rgba = renderImage(task, rect, IMGLIB::CHANNELS_RGBA);
            for (int c = 0; c < 5; ++c) {
                const uint64_t channel = uint64_t(1) << c;
                const std::vector<float> want = channelOf(all, channel);
                EXPECT_EQ(channelOf(renderImage(task, rect, channel), channel), want)
                    << task->getName() << ": " << IMGLIB::GetChannelName(channel) << " alone";
                if (channel & IMGLIB::CHANNELS_RGBA) {
                    EXPECT_EQ(channelOf(rgba, channel), want)
                        << task->getName() << ": " << IMGLIB::GetChannelName(channel) << " in RGBA";
                }
            }
        }
    });
    RenderManager::ClearRenderTaskCache();
}
