// The render contract as a host relies on it: renders of different types
// over one graph, calls from any thread (observer callbacks included), every
// output tile or a loud failure, channels a task does not define, and
// tiles of a cancelled render never served later.
#include <gtest/gtest.h>

#include <fstream>

#include <atomic>
#include <chrono>
#include <iostream>
#include <random>
#include <thread>

#include "colortasks.h"
#include "compositetasks.h"
#include "filtertasks.h"
#include "frames.h"
#include "private/tile.h"
#include "renderimage.h"
#include "rendersystem/images/imageallocator.h"
#include "support/serial_render.h"
#include "support/watchdog.h"
#include "util/exceptions.h"

using namespace TESSERA;
using namespace TESSERA::testing;
using Color = Imath::Color4<float>;
using UTIL::Rect;

namespace {

constexpr double kHang = 60.0;  // far beyond any of these renders

class ContractTest : public ::testing::Test {
protected:
    void SetUp() override {
        RenderManager::ClearRenderTaskCache();
        RenderManager::clearSpeculativeCache();
        RenderManager::setSpeculativeCachingEnable(true);
        RenderManager::setGlobalTileSize(32, 32);
        RenderManager::setRenderThreads(2);
    }
    void TearDown() override {
        for (int type = 0; type < RENDERTYPE_COUNT; ++type)
            RenderManager::cancel(RenderType(type), true);
        RenderManager::setGlobalTileSize(256, 256);
        RenderManager::ClearRenderTaskCache();
        RenderManager::clearSpeculativeCache();
        EXPECT_EQ(Private::Tile::liveCount(), 0u);
    }
};

// The pixels of an output, row by row.
std::vector<Color> pixelsOf(CollectingObserver& observer, size_t output, const Rect& rect) {
    std::vector<Color> pixels;
    for (int64_t y = rect.ymin; y < rect.ymax; ++y)
        for (int64_t x = rect.xmin; x < rect.xmax; ++x)
            pixels.push_back(observer.pixel(output, x, y));
    return pixels;
}

// A comp as hosts build it: a pattern, a grade chain (collapsed at set-up),
// a separable blur (whose vertical pass takes over the horizontal one) and
// a sum of the two; the blur and the grade are outputs of their own too.
struct Comp {
    TaskPtr pattern, grade, blur, sum;
    explicit Comp(int work, const Rect& area = Rect(-5, -3, 150, 110)) {
        pattern = make<PatternTask>("pattern", area, work);
        TaskPtr lift = createGainTask("lift", 0, Color(1.5f, 0.5f, 2, 1), pattern);
        grade =
            createClampTask("grade", 0, Color(0, 0, 0, 0), Color(60, 60, 60, 1), true, true, lift);
        PerChannelBlurParameters blurParams;
        blurParams.blur.sizeX = 7;
        blurParams.blur.sizeY = 5;
        blur = createBlurTask("blur", 0, blurParams, grade);
        sum = createCompositeTask("sum", 0, COMPOSITE_ADD, false, false, false, 1.0f, grade, blur);
    }
};

std::vector<Color> renderAlone(const TaskPtr& task, const Rect& rect) {
    auto observer = make<RecordingObserver>();
    RenderManager::Render({RenderDescription(task, rect, IMGLIB::CHANNELS_RGBA)}, observer, nullptr,
                          true, RENDERTYPE_BATCH);
    EXPECT_EQ(observer->status, RenderStatus::Success);
    return pixelsOf(*observer, 0, rect);
}

}  // namespace

TEST_F(ContractTest, RendersOfDifferentTypesShareOneGraphAndEachGetsItsOwnPixels) {
    const Rect viewerRect(-8, -8, 140, 100), backgroundRect(0, 0, 160, 120);
    std::vector<Color> viewerAlone, backgroundAlone;
    {
        Comp reference(0);
        viewerAlone = renderAlone(reference.sum, viewerRect);
        RenderManager::clearSpeculativeCache();
        backgroundAlone = renderAlone(reference.blur, backgroundRect);
    }
    withinSeconds(kHang, "concurrent renders of one graph", [&] {
        for (int round = 0; round < 12; ++round) {
            RenderManager::ClearRenderTaskCache();
            RenderManager::clearSpeculativeCache();
            // Half the rounds share tiles through the cache, half render twice.
            RenderManager::setSpeculativeCachingEnable(round % 2 == 0);
            Comp comp(round % 3 == 0 ? 200 : 0);
            auto background = make<RecordingObserver>();
            auto viewer = make<RecordingObserver>();
            RenderManager::Render(
                {RenderDescription(comp.blur, backgroundRect, IMGLIB::CHANNELS_RGBA)}, background,
                nullptr, false, RENDERTYPE_BACKGROUND);
            RenderManager::Render({RenderDescription(comp.sum, viewerRect, IMGLIB::CHANNELS_RGBA)},
                                  viewer, nullptr, true, RENDERTYPE_VIEWER);
            RenderManager::finishRender(RENDERTYPE_BACKGROUND);
            ASSERT_EQ(viewer->status, RenderStatus::Success) << viewer->message;
            ASSERT_EQ(background->status, RenderStatus::Success) << background->message;
            ASSERT_EQ(pixelsOf(*viewer, 0, viewerRect), viewerAlone) << "round " << round;
            ASSERT_EQ(pixelsOf(*background, 0, backgroundRect), backgroundAlone)
                << "round " << round;
        }
    });
    RenderManager::setSpeculativeCachingEnable(true);
}

// An observer that, at its first tile, makes a call a host might make from
// there.
class CallingObserver : public RecordingObserver {
public:
    explicit CallingObserver(std::function<void()> call) : m_call(std::move(call)) {}
    void tileDone(const ImageBuffer& image, const OutputTileID& id) override {
        RecordingObserver::tileDone(image, id);
        if (!m_called.exchange(true)) {
            m_call();
            returned = true;
        }
    }
    void renderFinished(RenderStatus s, const std::string& m) override {
        RecordingObserver::renderFinished(s, m);
        // Waiting calls from the end of the render return too.
        RenderManager::finishRender(RENDERTYPE_VIEWER);
        RenderManager::cancel(RENDERTYPE_VIEWER, true);
    }
    std::atomic<bool> returned{false};

private:
    std::function<void()> m_call;
    std::atomic<bool> m_called{false};
};

TEST_F(ContractTest, SettingsCancelAndFinishFromCallbacksAndOtherThreadsNeverDeadlock) {
    RenderManager::setGlobalTileSize(16, 16);
    const Rect rect(0, 0, 128, 128);
    const std::vector<std::function<void()>> calls = {
        [] { RenderManager::setRenderThreads(3); },
        [] { RenderManager::setRenderThreads(1); },
        [] { RenderManager::setGlobalTileSize(32, 32); },
        [] { RenderManager::finishRender(RENDERTYPE_VIEWER); },
        [] { RenderManager::cancel(RENDERTYPE_VIEWER, true); },
        [] { RenderManager::cancel(RENDERTYPE_BATCH, true); },
        [] {  // a blocking render of its own, with progress, in another queue
            RenderOptions options;
            RenderProgress last;
            options.progress = [&](const RenderProgress& p) { last = p; };
            const Rect area(0, 0, 40, 40);
            const RenderedImage image =
                renderImage(make<PatternTask>("inner", area), area, IMGLIB::CHANNELS_RGBA, options);
            EXPECT_EQ(last.tilesDone, last.tilesTotal);
            EXPECT_EQ(image.pixels[(5 * 40 + 7) * 4], PatternTask::at(7, 5).r);
        },
        [] {  // a sequence of its own, written frame by frame
            const std::string dir = ::testing::TempDir(), graph = dir + "/callback_frames.json";
            std::ofstream(graph) << R"({"frames": "1-2", "nodes": [{"id": "c", "op": "constant",
                "params": {"area": [0, 0, 8, 8], "color": [{"frame": 1, "value": [0, 0, 0, 1]},
                {"frame": 2, "value": [1, 1, 1, 1]}]}}], "outputs": [{"node": "c", "file": ")" +
                                        dir + R"(/callback.####.exr"}]})";
            EXPECT_TRUE(writeGraphFrames(graph, graphFileFrames(graph)).empty());
        },
    };
    for (size_t i = 0; i < calls.size(); ++i) {
        RenderManager::ClearRenderTaskCache();
        RenderManager::clearSpeculativeCache();
        RenderManager::setGlobalTileSize(16, 16);
        auto pattern = make<PatternTask>("p" + std::to_string(i), Rect(0, 0, 128, 128), 50);
        auto observer = make<CallingObserver>(calls[i]);
        withinSeconds(kHang, "call " + std::to_string(i) + " from a callback", [&] {
            try {
                RenderManager::Render({RenderDescription(pattern, rect, IMGLIB::CHANNELS_RGBA)},
                                      observer, nullptr, true, RENDERTYPE_VIEWER);
            } catch (const RenderCancelledException&) {
            }
        });
        EXPECT_TRUE(observer->returned) << "call " << i;
        EXPECT_EQ(observer->finishCalls, 1);
        // Cancelled from its own callback, or complete.
        const RenderStatus expected = i == 4 ? RenderStatus::Cancelled : RenderStatus::Success;
        EXPECT_EQ(observer->status, expected) << observer->message;
    }

    // The same calls from another thread while renders run.
    RenderManager::ClearRenderTaskCache();
    auto slow = make<PatternTask>("slow", Rect(0, 0, 256, 256), 300);
    withinSeconds(kHang, "calls from another thread", [&] {
        for (int round = 0; round < 4; ++round) {
            RenderManager::clearSpeculativeCache();
            auto observer = make<RecordingObserver>();
            RenderManager::Render({RenderDescription(slow, Rect(0, 0, 256, 256), 15)}, observer,
                                  nullptr, false, RENDERTYPE_BATCH);
            std::thread host([&] {
                RenderManager::setRenderThreads(1 + round % 3);
                RenderManager::setGlobalTileSize(16 + round, 16);
                if (round % 2) RenderManager::cancel(RENDERTYPE_BATCH, true);
            });
            host.join();
            RenderManager::finishRender(RENDERTYPE_BATCH);
            EXPECT_EQ(observer->finishCalls, 1);
            if (round % 2 == 0) {
                EXPECT_EQ(observer->status, RenderStatus::Success);
            }
        }
    });
    EXPECT_EQ(RenderManager::getRenderThreads(), 1u);
}

TEST_F(ContractTest, EveryOutputGetsEveryTileEvenWhenOutputsShareTasks) {
    auto pattern = make<PatternTask>("p", Rect(0, 0, 100, 70));
    auto g = make<GainTask>("g", std::vector<TaskPtr>{pattern}, 2.0f);
    auto box = make<BoxXTask>("box", g, 2);
    const Rect left(0, 0, 50, 70), whole(0, 0, 100, 70);
    auto observer = make<RecordingObserver>();
    withinSeconds(kHang, "outputs sharing tasks", [&] {
        // g twice, g as the input of another output, and that output.
        RenderManager::Render({RenderDescription(g, left, IMGLIB::CHANNELS_RGBA),
                               RenderDescription(g, whole, IMGLIB::CHANNELS_RGBA),
                               RenderDescription(box, whole, IMGLIB::CHANNELS_RGBA),
                               RenderDescription(pattern, whole, IMGLIB::CHANNELS_RGB)},
                              observer, nullptr, true, RENDERTYPE_BATCH);
    });
    ASSERT_EQ(observer->status, RenderStatus::Success) << observer->message;
    std::vector<size_t> finished = observer->finishedOutputs;
    std::sort(finished.begin(), finished.end());
    EXPECT_EQ(finished, (std::vector<size_t>{0, 1, 2, 3}));
    EXPECT_EQ(observer->tiles[0].size(), 2u * 3u);
    EXPECT_EQ(observer->tiles[1].size(), 4u * 3u);
    EXPECT_EQ(observer->pixel(0, 10, 20), PatternTask::at(10, 20) * 2.0f);
    EXPECT_EQ(observer->pixel(1, 99, 69), PatternTask::at(99, 69) * 2.0f);
    const Color boxed = (PatternTask::at(38, 5) + PatternTask::at(39, 5) + PatternTask::at(40, 5) +
                         PatternTask::at(41, 5) + PatternTask::at(42, 5)) *
                        (2.0f / 5.0f);
    EXPECT_NEAR(observer->pixel(2, 40, 5).r, boxed.r, 1e-4f);
    EXPECT_EQ(observer->pixel(3, 7, 9), Color(7, 9, (7 * 9) % 7, 0));  // RGB only

    // One task asked for twice and by nothing else (one file written twice).
    auto twice = make<RecordingObserver>();
    withinSeconds(kHang, "one task as two outputs", [&] {
        RenderManager::Render({RenderDescription(box, whole, IMGLIB::CHANNELS_RGBA),
                               RenderDescription(box, left, IMGLIB::CHANNELS_RGB)},
                              twice, nullptr, true, RENDERTYPE_BATCH);
    });
    ASSERT_EQ(twice->status, RenderStatus::Success) << twice->message;
    EXPECT_EQ(twice->pixel(0, 40, 5), observer->pixel(2, 40, 5));
    EXPECT_EQ(twice->pixel(1, 40, 5).r, observer->pixel(2, 40, 5).r);
}

// Reads alpha of its input into every channel: a consumer of alpha.
class AlphaReader : public GainTask {
public:
    explicit AlphaReader(TaskPtr input) : GainTask("alpha", {std::move(input)}, 1.0f) {}
    uint64_t computeOutputChannels() override { return IMGLIB::CHANNELS_RGBA; }
    void makeInputFormatRequests() override { addInputRequest(0, IMGLIB::CHANNEL_A); }
    void renderRect(const IMGLIB::Image* out,
                    const std::vector<const IMGLIB::Image*>& inputs) override {
        ASSERT_TRUE(inputs[0]);  // the input exists even without the channel
        EXPECT_EQ(inputs[0]->channels, IMGLIB::CHANNEL_A);
        for (int64_t y = out->y1; y < out->y2; ++y)
            for (int64_t x = out->x1; x < out->x2; ++x) {
                const float a = pixelAt(inputs[0], x, y).a;
                const float v[4] = {a, a, a, a};
                IMGLIB::SetPixel(out, x, y, v);
            }
    }
};

TEST_F(ContractTest, ChannelsATaskDoesNotDefineComeOutAsItsBackground) {
    auto rgb = make<ConstantTask>("rgb", Color(0.5f, 0.25f, 1, 0), Rect(0, 0, 40, 40),
                                  IMGLIB::CHANNELS_RGB);
    rgb->background = Color(0.1f, 0.2f, 0.3f, 0.75f);
    const Rect rect(-10, 0, 50, 40);
    auto observer = make<RecordingObserver>();
    auto consumer = make<AlphaReader>(rgb);
    withinSeconds(kHang, "undefined channels", [&] {
        RenderManager::Render({RenderDescription(rgb, rect, IMGLIB::CHANNELS_RGBA),
                               RenderDescription(rgb, rect, IMGLIB::CHANNEL_A),
                               RenderDescription(consumer, rect, IMGLIB::CHANNELS_RGBA)},
                              observer, nullptr, true, RENDERTYPE_BATCH);
    });
    ASSERT_EQ(observer->status, RenderStatus::Success) << observer->message;
    EXPECT_EQ(observer->finishedOutputs.size(), 3u);
    EXPECT_EQ(observer->pixel(0, 5, 5), Color(0.5f, 0.25f, 1, 0.75f));
    EXPECT_EQ(observer->pixel(0, -5, 5), rgb->background);
    EXPECT_EQ(observer->pixel(1, 5, 5).a, 0.75f);
    EXPECT_EQ(observer->pixel(2, 5, 5), Color(0.75f, 0.75f, 0.75f, 0.75f));

    // A blur steered by a control image without the control channel: the
    // channel is the control's background everywhere (zero here, no blur).
    auto image = make<PatternTask>("image", Rect(0, 0, 40, 40));
    auto control =
        make<ConstantTask>("control", Color(5, 5, 5, 0), Rect(0, 0, 40, 40), IMGLIB::CHANNELS_RGB);
    ImageBlurParams params;
    params.controlChannel = IMGLIB::CHANNEL_A;
    TaskPtr blurred = createImageBlur("ib", 0, params, noBloom(), image, control);
    auto blurObserver = make<RecordingObserver>();
    withinSeconds(kHang, "image blur without its control channel", [&] {
        RenderManager::Render({RenderDescription(blurred, Rect(0, 0, 40, 40), 15)}, blurObserver,
                              nullptr, true, RENDERTYPE_BATCH);
    });
    ASSERT_EQ(blurObserver->status, RenderStatus::Success) << blurObserver->message;
    EXPECT_EQ(blurObserver->finishedOutputs, std::vector<size_t>{0});
    EXPECT_EQ(blurObserver->pixel(0, 17, 9), PatternTask::at(17, 9));
}

TEST_F(ContractTest, AFullFrameConsumerMayWaitForMoreThan65535Tiles) {
    RenderManager::setGlobalTileSize(1, 1);
    auto pattern = make<PatternTask>("p", Rect(0, 0, 257, 256));
    auto whole = make<GainTask>("whole", std::vector<TaskPtr>{pattern}, 0.5f);
    whole->setRenderFullFrame(true, false);
    auto observer = make<RecordingObserver>();
    withinSeconds(10 * kHang, "fan-in of 65,792 tiles", [&] {
        renderSerially({RenderOutput{whole, Rect(0, 0, 257, 256), IMGLIB::CHANNEL_R, 0}}, observer);
    });
    EXPECT_EQ(observer->tilesDoneByTask["p"], 257 * 256);
    EXPECT_EQ(observer->pixel(0, 256, 255).r, 128.0f);
}

// Stops at its first tile's second row once its render is cancelled: the
// pattern the render API recommends.
class StopsWhenAsked : public PatternTask {
public:
    using PatternTask::PatternTask;
    void renderRect(const IMGLIB::Image* out, const std::vector<const IMGLIB::Image*>&) override {
        if (!cancelled.exchange(true)) RenderManager::cancel(RENDERTYPE_BATCH, false);
        for (int64_t y = out->y1; y < out->y2; ++y) {
            if (RenderManager::CheckAbort()) return;  // the rest stays unwritten
            for (int64_t x = out->x1; x < out->x2; ++x) {
                const Color c = at(x, y);
                const float v[4] = {c.r, c.g, c.b, c.a};
                IMGLIB::SetPixel(out, x, y, v);
            }
        }
    }
    std::atomic<bool> cancelled{false};
};

TEST_F(ContractTest, TilesOfACancelledRenderAreNeverServedLater) {
    RenderManager::setRenderThreads(1);
    auto task = make<StopsWhenAsked>("stops", Rect(0, 0, 64, 64));
    const Rect rect(0, 0, 64, 64);
    auto first = make<RecordingObserver>();
    withinSeconds(kHang, "a render that cancels itself", [&] {
        EXPECT_THROW(RenderManager::Render({RenderDescription(task, rect, 15)}, first, nullptr,
                                           true, RENDERTYPE_BATCH),
                     RenderCancelledException);
    });
    EXPECT_EQ(first->status, RenderStatus::Cancelled);
    EXPECT_TRUE(first->tiles[0].empty());
    auto second = make<RecordingObserver>();
    RenderManager::Render({RenderDescription(task, rect, 15)}, second, nullptr, true,
                          RENDERTYPE_BATCH);
    ASSERT_EQ(second->status, RenderStatus::Success);
    EXPECT_EQ(second->cachedTiles, 0);
    for (int64_t y = 0; y < 64; y += 7)
        for (int64_t x = 0; x < 64; x += 5)
            ASSERT_EQ(second->pixel(0, x, y), PatternTask::at(x, y));
}

TEST_F(ContractTest, ACollapsedChainNamesItselfAsOne) {
    auto pattern = make<PatternTask>("p", Rect(0, 0, 32, 32));
    TaskPtr chain = createGainTask("g2", 0, Color(2, 2, 2, 1),
                                   createGainTask("g1", 0, Color(3, 3, 3, 1), pattern));
    auto observer = make<RecordingObserver>();
    RenderManager::Render({RenderDescription(chain, Rect(0, 0, 32, 32), 15)}, observer, nullptr,
                          true, RENDERTYPE_BATCH);
    EXPECT_EQ(observer->descriptionOf["g2"], "ConcatenatedInPlaceOp");
    EXPECT_EQ(observer->pixel(0, 3, 4), Color(18, 24, float((3 * 4) % 7) * 6, 1));
}

TEST_F(ContractTest, AreasTheTileGridCannotNameAreRefusedBeforeRendering) {
    RenderManager::setGlobalTileSize(256, 256);
    auto pattern = make<PatternTask>("far", Rect(0, 0, 2000000000, 64));
    auto expectRefused = [&](const Rect& rect, const std::string& words) {
        auto observer = make<RecordingObserver>();
        withinSeconds(kHang, "a render beyond the grid", [&] {
            try {
                RenderManager::Render({RenderDescription(pattern, rect, 15)}, observer, nullptr,
                                      true, RENDERTYPE_BATCH);
                ADD_FAILURE() << "rendered " << rect;
            } catch (const UTIL::ErrorException& e) {
                const std::string message = e.what();
                EXPECT_NE(message.find("output 0 (task far)"), std::string::npos) << message;
                EXPECT_NE(message.find(words), std::string::npos) << message;
            }
        });
        EXPECT_TRUE(observer->tiles[0].empty());
        EXPECT_FALSE(RenderManager::isRenderInProgress(RENDERTYPE_BATCH));
    };
    // x = 10,000,000 is tile 39,062: beyond 16-bit tile indices.
    expectRefused(Rect(10000000, 0, 10000256, 64), "beyond the tile grid");
    // A billion pixels square is refused at once, not listed tile by tile.
    expectRefused(Rect(0, 0, 1000000000, 1000000000), "beyond the tile grid");
    RenderManager::setGlobalTileSize(16, 16);
    expectRefused(Rect(0, 0, 520000, 32000), "tiles, more than");
    // The grid's edge still renders.
    RenderManager::setGlobalTileSize(256, 256);
    auto observer = make<RecordingObserver>();
    RenderManager::Render({RenderDescription(pattern, Rect(8388000, 0, 8388352, 8), 15)}, observer,
                          nullptr, true, RENDERTYPE_BATCH);
    EXPECT_EQ(observer->status, RenderStatus::Success);
    EXPECT_EQ(observer->pixel(0, 8388351, 3), PatternTask::at(8388351, 3));
    EXPECT_THROW(RenderManager::setGlobalTileSize(int64_t(1) << 31, 256), UTIL::ErrorException);
}

// Viewer and background renders of one comp, again and again, cancelled at
// random moments, swapping under a tight budget: every render ends once and
// cleanly, and nothing is left behind. Prints the figures of the run.
TEST_F(ContractTest, AStressOfSharedRendersAndRandomCancelsLeavesNothingBehind) {
    RenderManager::setGlobalTileSize(32, 32);
    RenderManager::SetMaxImageMemory(2);  // forces swapping
    const uint64_t tasksBefore = RenderTask::s_count.load();
    std::mt19937 random(4321);
    int renders = 0, cancels = 0, succeeded = 0, cancelled = 0;
    const auto start = std::chrono::steady_clock::now();
    withinSeconds(10 * kHang, "the stress run", [&] {
        for (int round = 0; round < 30; ++round) {
            RenderManager::ClearRenderTaskCache();
            Comp comp(round % 2 ? 20 : 0, Rect(0, 0, 480, 320));
            auto background = make<RecordingObserver>();
            auto viewer = make<RecordingObserver>();
            RenderManager::Render(
                {RenderDescription(comp.blur, Rect(0, 0, 480, 320), IMGLIB::CHANNELS_RGBA)},
                background, nullptr, false, RENDERTYPE_BACKGROUND);
            RenderManager::Render(
                {RenderDescription(comp.sum, Rect(-8, -8, 400, 300), IMGLIB::CHANNELS_RGBA),
                 RenderDescription(comp.grade, Rect(0, 0, 64, 64), IMGLIB::CHANNELS_RGB)},
                viewer, nullptr, false, RENDERTYPE_VIEWER);
            renders += 2;
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 20000));
            for (RenderType type : {RENDERTYPE_VIEWER, RENDERTYPE_BACKGROUND})
                if (random() % 2) {
                    RenderManager::cancel(type, false);
                    ++cancels;
                }
            RenderManager::finishRender(RENDERTYPE_VIEWER);
            RenderManager::finishRender(RENDERTYPE_BACKGROUND);
            for (const auto& observer : {viewer, background}) {
                ASSERT_EQ(observer->finishCalls, 1);
                ASSERT_NE(observer->status, RenderStatus::Error) << observer->message;
                (observer->status == RenderStatus::Success ? succeeded : cancelled) += 1;
            }
        }
    });
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    RenderManager::ClearRenderTaskCache();
    RenderManager::clearSpeculativeCache();
    auto& allocator = Private::ImageAllocator::instance();
    std::cout << "stress: " << renders << " renders (" << succeeded << " complete, " << cancelled
              << " cancelled) with " << cancels << " cancel calls in " << seconds
              << " s; afterwards " << Private::Tile::liveCount() << " tiles, "
              << RenderTask::s_count.load() - tasksBefore << " tasks, " << allocator.getMemUsage()
              << " bytes of image memory, " << allocator.getDiskUsage()
              << " bytes of swap files; peak swap " << allocator.getPeakDiskUsage() << " bytes\n";
    EXPECT_EQ(succeeded + cancelled, renders);
    EXPECT_EQ(Private::Tile::liveCount(), 0u);
    EXPECT_EQ(RenderTask::s_count.load(), tasksBefore);
    EXPECT_EQ(allocator.getMemUsage(), 0);
    EXPECT_EQ(allocator.getDiskUsage(), 0);
    EXPECT_EQ(allocator.getLockedImageCount(), 0u);
    RenderManager::SetMaxImageMemory(256);
}
