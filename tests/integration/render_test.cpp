// End-to-end renders through RenderManager on the worker threads.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <random>
#include <thread>

#include "imglib/pixels.h"
#include "private/tile.h"
#include "renderimage.h"
#include "rendersystem/core/rendercontroller.h"
#include "rendersystem/images/imageallocator.h"
#include "support/serial_render.h"
#include "support/watchdog.h"
#include "util/exceptions.h"

using namespace TESSERA;
using namespace TESSERA::testing;
using Color = Imath::Color4<float>;
using UTIL::Rect;

namespace {

class Throwing : public PatternTask {
public:
    using PatternTask::PatternTask;
    void renderRect(const IMGLIB::Image* out,
                    const std::vector<const IMGLIB::Image*>& in) override {
        if (out->x1 >= 32) throw std::runtime_error("bad pixels at " + std::to_string(out->x1));
        PatternTask::renderRect(out, in);
    }
};

class RenderTest : public ::testing::Test {
protected:
    void SetUp() override {
        RenderManager::ClearRenderTaskCache();
        RenderManager::clearSpeculativeCache();
        RenderManager::setSpeculativeCachingEnable(true);
    }
    void TearDown() override {
        RenderManager::setGlobalTileSize(256, 256);
        RenderManager::ClearRenderTaskCache();
        RenderManager::clearSpeculativeCache();
        EXPECT_EQ(Private::Tile::liveCount(), 0u);
    }

    // pattern -> x3 -> x0.5 (collapsed) ; box blur of it ; sum of the two.
    TaskPtr buildGraph(const std::string& tag) {
        auto pattern = make<PatternTask>("pattern" + tag, Rect(-5, -3, 91, 70));
        auto a = make<InPlaceTask>(InPlaceOpPtr(new ScaleOp(3)), "a" + tag, 0.0f, pattern);
        auto b = make<InPlaceTask>(InPlaceOpPtr(new ScaleOp(0.5f)), "b" + tag, 0.0f, a);
        auto box = make<BoxXTask>("box" + tag, b, 3);
        return make<GainTask>("sum" + tag, std::vector<TaskPtr>{b, box}, 1.0f);
    }

    static std::vector<Color> renderAll(const TaskPtr& task, const Rect& rect, int tileSize,
                                        int threads) {
        RenderManager::setGlobalTileSize(tileSize, tileSize);
        RenderManager::setRenderThreads(threads);
        RenderManager::clearSpeculativeCache();
        auto observer = make<RecordingObserver>();
        RenderManager::Render({RenderDescription(task, rect, IMGLIB::CHANNELS_RGBA)}, observer,
                              nullptr, true, RENDERTYPE_BATCH);
        EXPECT_EQ(observer->status, RenderStatus::Success);
        EXPECT_EQ(observer->finishedOutputs, std::vector<size_t>{0});
        std::vector<Color> pixels;
        for (int64_t y = rect.ymin; y < rect.ymax; ++y)
            for (int64_t x = rect.xmin; x < rect.xmax; ++x)
                pixels.push_back(observer->pixel(0, x, y));
        return pixels;
    }
};

}  // namespace

TEST_F(RenderTest, TiledThreadedRendersEqualTheOneTileOneThreadRender) {
    const Rect rect(-8, -8, 100, 75);
    const std::vector<Color> reference = renderAll(buildGraph("ref"), rect, 1024, 1);
    // Spot-check the reference against the closed form.
    const auto expected = [](int64_t x, int64_t y) {
        if (!Rect(-5, -3, 91, 70).contains(x, y)) return Color(0, 0, 0, 0);
        // The scales leave alpha alone.
        const auto graded = [](int64_t px, int64_t py) {
            const Color p = PatternTask::at(px, py);
            return Color(p.r * 1.5f, p.g * 1.5f, p.b * 1.5f, p.a);
        };
        Color box(0, 0, 0, 0);
        for (int64_t dx = -3; dx <= 3; ++dx) box += graded(std::clamp<int64_t>(x + dx, -5, 90), y);
        return graded(x, y) + box / 7.0f;
    };
    EXPECT_EQ(reference[(10 + 8) * 108 + (20 + 8)], expected(20, 10));
    for (int tileSize : {16, 37, 64})
        for (int threads : {1, 2, 4}) {
            RenderManager::ClearRenderTaskCache();
            EXPECT_EQ(renderAll(buildGraph("t"), rect, tileSize, threads), reference)
                << "tile " << tileSize << " threads " << threads;
        }
}

// An output given the host's memory has its tiles rendered there: the
// observer is handed views of it, the pixels are the observer render's,
// and no tile of it is kept once the render is over (the host may free
// the memory). Tiles the cache already holds are copied in.
TEST_F(RenderTest, AnOutputWithADestinationIsRenderedInItAndNotKept) {
    const Rect rect(-8, -8, 100, 75);
    const std::vector<Color> reference = renderAll(buildGraph("ref"), rect, 1024, 1);
    RenderManager::setGlobalTileSize(32, 32);
    RenderManager::setRenderThreads(2);
    const TaskPtr graph = buildGraph("dest");
    const std::vector<RenderDescription> outputs{
        RenderDescription(graph, rect, IMGLIB::CHANNELS_RGBA)};
    // Rows padded by one pixel; the pixels the host reads back, and how
    // many of the observer's tiles were views of its memory.
    const auto render = [&](bool cacheFirst) {
        const HostFrame frame(rect, 4, 0, -1.0f);
        const std::vector<float>& host = frame.buffer;
        if (cacheFirst) renderAll(graph, rect, 32, 2);
        auto observer = make<RecordingObserver>();
        Private::RenderController::get(RENDERTYPE_BATCH)
            .render(outputs, observer, nullptr, true, false, {}, false, {frame.image});
        EXPECT_EQ(observer->status, RenderStatus::Success) << observer->message;
        size_t inPlace = 0;
        for (ImageBuffer& tile : observer->tiles[0]) {
            ImageBuffer_LockScoper lock(tile);
            const auto* p = static_cast<const float*>(tile.getImage()->pixelPtr);
            if (p >= host.data() && p < host.data() + host.size()) ++inPlace;
        }
        std::vector<Color> pixels;
        for (int64_t y = rect.ymin; y < rect.ymax; ++y)
            for (int64_t x = 0; x < rect.width(); ++x) {
                const float* p = frame.row(y) + x * 4;
                pixels.emplace_back(p[0], p[1], p[2], p[3]);
            }
        EXPECT_EQ(host[size_t(frame.stride - 1)], -1.0f);  // the padding
        return std::make_pair(pixels, std::make_pair(inPlace, observer->tiles[0].size()));
    };
    // 32-pixel tiles over [-8, 100) x [-8, 75): 5 columns, 4 rows.
    const auto first = render(false);
    EXPECT_EQ(first.first, reference);
    EXPECT_EQ(first.second, std::make_pair(size_t(20), size_t(20)));
    // The first buffer is gone: a tile of it kept would be read after free.
    const auto second = render(false);
    EXPECT_EQ(second.first, reference);
    EXPECT_EQ(second.second, std::make_pair(size_t(20), size_t(20)));
    // Tiles the cache holds are its own (renderInto copies them in).
    EXPECT_EQ(render(true).second, std::make_pair(size_t(0), size_t(20)));
    const RenderedImage copied = renderImage(graph, rect, IMGLIB::CHANNELS_RGBA);
    EXPECT_EQ(std::memcmp(copied.pixels.data(), reference.data(), copied.pixels.size() * 4), 0);
    EXPECT_EQ(renderAll(graph, rect, 32, 2), reference);
}

TEST_F(RenderTest, ATileWantedByTwoConsumersRendersOnceOverTheUnion) {
    RenderManager::setGlobalTileSize(64, 64);
    auto pattern = make<PatternTask>("p", Rect(0, 0, 64, 64));
    auto plain = make<GainTask>("plain", std::vector<TaskPtr>{pattern}, 1.0f);
    auto box = make<BoxXTask>("box", pattern, 2);
    auto sum = make<GainTask>("sum", std::vector<TaskPtr>{plain, box}, 1.0f);
    auto observer = make<RecordingObserver>();
    // The output is the left half: plain needs [0,32), box needs [0,34).
    RenderManager::Render({RenderDescription(sum, Rect(0, 0, 32, 64), IMGLIB::CHANNELS_RGBA)},
                          observer, nullptr, true, RENDERTYPE_BATCH);
    ASSERT_EQ(pattern->rendered.size(), 1u);
    EXPECT_EQ(pattern->rendered[0], Rect(0, 0, 34, 64));
}

TEST_F(RenderTest, TilesArriveInThePrioritizersOrder) {
    RenderManager::setGlobalTileSize(16, 16);
    RenderManager::setRenderThreads(1);
    auto pattern = make<PatternTask>("p", Rect(0, 0, 80, 48));
    auto g = make<GainTask>("g", std::vector<TaskPtr>{pattern}, 2.0f);
    auto rowMajor = make<RecordingObserver>();
    RenderManager::Render({RenderDescription(g, Rect(0, 0, 80, 48), IMGLIB::CHANNELS_RGBA)},
                          rowMajor, nullptr, true, RENDERTYPE_VIEWER);
    ASSERT_EQ(rowMajor->order.size(), 15u);
    for (size_t i = 1; i < rowMajor->order.size(); ++i)
        EXPECT_TRUE(rowMajor->order[i - 1] < rowMajor->order[i]);

    RenderManager::clearSpeculativeCache();
    auto centre = make<RecordingObserver>();
    RenderManager::Render({RenderDescription(g, Rect(0, 0, 80, 48), IMGLIB::CHANNELS_RGBA)}, centre,
                          OutputTilePrioritizerPtr(new CenterOutTilePrioritizer), true,
                          RENDERTYPE_VIEWER);
    ASSERT_EQ(centre->order.size(), 15u);
    EXPECT_EQ(centre->order[0], TileID(2, 1, 16, 16));  // the middle tile first
    auto distance = [](const TileID& t) {
        const double dx = t.xIndex() * 16 + 8 - 40.0, dy = t.yIndex() * 16 + 8 - 24.0;
        return dx * dx + dy * dy;
    };
    for (size_t i = 1; i < centre->order.size(); ++i)
        EXPECT_LE(distance(centre->order[i - 1]), distance(centre->order[i]));
}

TEST_F(RenderTest, AnOutputFinishesOnlyAfterEveryTileWasDelivered) {
    // The first tile delivered is held up while the other worker renders and
    // delivers the rest: the output may not be declared finished meanwhile.
    class SlowFirstDelivery : public RecordingObserver {
    public:
        void tileDone(const ImageBuffer& image, const OutputTileID& id) override {
            if (deliveries++ == 0) std::this_thread::sleep_for(std::chrono::milliseconds(50));
            RecordingObserver::tileDone(image, id);
        }
        void outputFinished(size_t index) override {
            RecordingObserver::outputFinished(index);
            std::lock_guard<std::mutex> lock(mutex);
            deliveredAtFinish.push_back(order.size());
        }
        std::atomic<int> deliveries{0};
        std::vector<size_t> deliveredAtFinish;
    };
    RenderManager::setGlobalTileSize(16, 16);
    RenderManager::setRenderThreads(2);
    auto pattern = make<PatternTask>("p", Rect(0, 0, 64, 64));
    auto observer = make<SlowFirstDelivery>();
    RenderManager::Render({RenderDescription(pattern, Rect(0, 0, 64, 64), IMGLIB::CHANNELS_RGBA)},
                          observer, nullptr, true, RENDERTYPE_BATCH);
    EXPECT_EQ(observer->order.size(), 16u);
    EXPECT_EQ(observer->deliveredAtFinish, std::vector<size_t>{16});
}

TEST_F(RenderTest, ASecondRenderIsServedFromTheTileCache) {
    RenderManager::setGlobalTileSize(32, 32);
    auto pattern = make<PatternTask>("p", Rect(0, 0, 64, 64));
    auto g = make<GainTask>("g", std::vector<TaskPtr>{pattern}, 2.0f);
    const std::vector<RenderDescription> outputs{
        RenderDescription(g, Rect(0, 0, 64, 64), IMGLIB::CHANNELS_RGBA)};
    auto first = make<RecordingObserver>();
    RenderManager::Render(outputs, first, nullptr, true, RENDERTYPE_VIEWER);
    EXPECT_EQ(pattern->renderCalls.load(), 4);
    auto second = make<RecordingObserver>();
    RenderManager::Render(outputs, second, nullptr, true, RENDERTYPE_VIEWER);
    EXPECT_EQ(pattern->renderCalls.load(), 4);  // nothing rendered again
    EXPECT_EQ(second->cachedTiles, 4);          // the output tiles, 0 s each
    EXPECT_EQ(second->pixel(0, 40, 20), PatternTask::at(40, 20) * 2.0f);

    // With caching off, everything renders again.
    RenderManager::setSpeculativeCachingEnable(false);
    auto third = make<RecordingObserver>();
    RenderManager::Render(outputs, third, nullptr, true, RENDERTYPE_VIEWER);
    EXPECT_EQ(pattern->renderCalls.load(), 8);
    RenderManager::setSpeculativeCachingEnable(true);
}

TEST_F(RenderTest, ATightMemoryBudgetSwapsButKeepsEveryPixel) {
    RenderManager::setGlobalTileSize(64, 64);
    RenderManager::setRenderThreads(2);
    RenderManager::SetMaxImageMemory(1);  // 1 MiB: 16 tiles of 64 KiB
    auto pattern = make<PatternTask>("p", Rect(0, 0, 512, 256));
    auto box = make<BoxXTask>("box", pattern, 1);
    auto observer = make<RecordingObserver>();
    RenderManager::Render({RenderDescription(box, Rect(0, 0, 512, 256), IMGLIB::CHANNELS_RGBA)},
                          observer, nullptr, true, RENDERTYPE_BATCH);
    RenderManager::SetMaxImageMemory(256);
    EXPECT_GT(Private::ImageAllocator::instance().getPeakDiskUsage(), 0);
    for (int64_t y = 0; y < 256; y += 37)
        for (int64_t x = 0; x < 512; x += 29) {
            Color sum(0, 0, 0, 0);
            for (int64_t dx = -1; dx <= 1; ++dx)
                sum += PatternTask::at(std::clamp<int64_t>(x + dx, 0, 511), y);
            ASSERT_EQ(observer->pixel(0, x, y), sum / 3.0f) << x << "," << y;
        }
}

// Images a render made leave memory as soon as nothing needs them: a
// source tile once its readers have rendered, an output tile once the
// observer has it. So a render far larger than memory streams through it.
TEST_F(RenderTest, ARenderStreamsItsTilesThroughMemory) {
    class PeakObserver : public RenderObserver {
    public:
        void tileDone(const ImageBuffer&, const OutputTileID&) override {
            peak = std::max(peak.load(), Private::ImageAllocator::instance().getMemUsage());
            ++tiles;
        }
        std::atomic<int64_t> peak{0}, tiles{0};
    };
    RenderManager::setGlobalTileSize(64, 64);
    RenderManager::setRenderThreads(1);
    RenderManager::setSpeculativeCachingEnable(false);  // it would keep them for re-use
    const Rect area(0, 0, 1024, 1024);                  // 256 tiles of 64 KiB per task
    auto box = make<BoxXTask>("box", make<PatternTask>("p", area), 1);
    auto observer = make<PeakObserver>();
    RenderManager::Render({RenderDescription(box, area, IMGLIB::CHANNELS_RGBA)}, observer, nullptr,
                          true, RENDERTYPE_BATCH);
    RenderManager::setSpeculativeCachingEnable(true);
    EXPECT_EQ(observer->tiles, 256);
    // Less than a row of tiles (1 MiB) is alive at once, not the 32 MiB of
    // every tile of both tasks.
    EXPECT_LT(observer->peak, int64_t(1) << 20);
}

// A wide graph (a balanced tree of 255 sums over 256 sources) renders one
// sub-tree after another, each consumer as soon as its inputs are done:
// the tiles alive at once follow the tree's depth (8), not its width.
TEST_F(RenderTest, AWideGraphRendersInTheMemoryOfItsDepth) {
    RenderManager::setGlobalTileSize(64, 64);
    RenderManager::setRenderThreads(1);
    RenderManager::setSpeculativeCachingEnable(false);  // it would keep them for re-use
    const Rect area(0, 0, 256, 256);                    // 16 tiles of 64 KiB per task
    std::vector<TaskPtr> level;
    for (int i = 0; i < 256; ++i)  // each source its own (no two merge)
        level.push_back(make<PatternTask>("p" + std::to_string(i), Rect(-i, 0, 256, 256)));
    for (int n = 0; level.size() > 1; ++n) {
        std::vector<TaskPtr> next;
        for (size_t i = 0; i < level.size(); i += 2)
            next.push_back(make<GainTask>("sum" + std::to_string(n) + "_" + std::to_string(i),
                                          std::vector<TaskPtr>{level[i], level[i + 1]}, 0.5f));
        level = next;
    }
    Private::ImageAllocator::instance().resetStatistics();
    auto observer = make<RecordingObserver>();
    RenderManager::Render({RenderDescription(level[0], area, IMGLIB::CHANNELS_RGBA)}, observer,
                          nullptr, true, RENDERTYPE_BATCH);
    RenderManager::setSpeculativeCachingEnable(true);
    EXPECT_EQ(observer->status, RenderStatus::Success);
    // A few tiles per level of the tree (25 tiles, 1.6 MiB, seen); the sources'
    // tiles of one output tile alone would be 16 MiB.
    EXPECT_LT(Private::ImageAllocator::instance().getPeakMemUsage(), int64_t(2) << 20);
}

TEST_F(RenderTest, FailuresEndTheRenderCleanlyAndReachTheCaller) {
    RenderManager::setGlobalTileSize(16, 16);
    auto bad = make<Throwing>("bad", Rect(0, 0, 64, 64));
    auto observer = make<RecordingObserver>();
    try {
        RenderManager::Render({RenderDescription(bad, Rect(0, 0, 64, 64), IMGLIB::CHANNELS_RGBA)},
                              observer, nullptr, true, RENDERTYPE_BATCH);
        FAIL();
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(std::string(e.what()).rfind("bad pixels at", 0), 0u);
    }
    EXPECT_EQ(observer->status, RenderStatus::Error);
    EXPECT_EQ(observer->message.rfind("bad pixels at", 0), 0u);
    EXPECT_EQ(observer->finishCalls, 1);
    EXPECT_FALSE(RenderManager::isRenderInProgress(RENDERTYPE_BATCH));

    // The controller is free again, and the graph renders where it can.
    auto good = make<RecordingObserver>();
    RenderManager::Render({RenderDescription(bad, Rect(0, 0, 32, 16), IMGLIB::CHANNELS_RGBA)}, good,
                          nullptr, true, RENDERTYPE_BATCH);
    EXPECT_EQ(good->status, RenderStatus::Success);
}

TEST_F(RenderTest, OneRenderPerTypeAtATimeAndTheViewerFirst) {
    RenderManager::setGlobalTileSize(16, 16);
    RenderManager::setRenderThreads(1);
    auto slow = make<PatternTask>("slow", Rect(0, 0, 256, 256), 2000);
    auto other = make<PatternTask>("other", Rect(0, 0, 16, 16));
    auto observer = make<RecordingObserver>();
    RenderManager::Render({RenderDescription(slow, Rect(0, 0, 256, 256), IMGLIB::CHANNELS_RGBA)},
                          observer, nullptr, false, RENDERTYPE_BACKGROUND);
    EXPECT_TRUE(RenderManager::isRenderInProgress(RENDERTYPE_BACKGROUND));
    try {
        RenderManager::Render({RenderDescription(other, Rect(0, 0, 16, 16), 15)}, observer, nullptr,
                              true, RENDERTYPE_BACKGROUND);
        FAIL();
    } catch (const UTIL::ErrorException& e) {
        EXPECT_STREQ(e.what(), "There is already a render in progress, cancel it first!");
    }
    // A viewer render runs beside it, sharing the threads, ahead of the
    // background tiles still queued.
    auto beside = make<RecordingObserver>();
    RenderManager::Render({RenderDescription(other, Rect(0, 0, 16, 16), 15)}, beside, nullptr, true,
                          RENDERTYPE_VIEWER);
    EXPECT_EQ(beside->status, RenderStatus::Success);
    EXPECT_TRUE(RenderManager::isRenderInProgress(RENDERTYPE_BACKGROUND));
    RenderManager::cancel(RENDERTYPE_BACKGROUND, true);
    EXPECT_FALSE(RenderManager::isRenderInProgress(RENDERTYPE_BACKGROUND));
    EXPECT_EQ(observer->status, RenderStatus::Cancelled);
}

// Notes when its render ran: at its first tile, as renders of one queue
// run one at a time.
class FirstTileOrder : public CollectingObserver {
public:
    FirstTileOrder(std::mutex& mutex, std::vector<int>& order, int index)
        : m_orderMutex(mutex), m_order(order), m_index(index) {}
    void tileDone(const ImageBuffer& image, const OutputTileID& id) override {
        CollectingObserver::tileDone(image, id);
        std::lock_guard<std::mutex> lock(m_orderMutex);
        if (!m_seen) m_order.push_back(m_index);
        m_seen = true;
    }

private:
    std::mutex& m_orderMutex;
    std::vector<int>& m_order;
    const int m_index;
    bool m_seen = false;
};

// The blocking conveniences wait their turn for a busy queue instead of
// refusing (a Dask worker renders frames from several threads at once), in
// the order they came, and a render cancelled while it waits leaves at once.
TEST_F(RenderTest, BlockingRendersWaitTheirTurnInOrder) {
    RenderManager::setGlobalTileSize(16, 16);
    RenderManager::setRenderThreads(2);
    // Holds the queue until the gate opens.
    std::atomic<bool> gate{false};
    auto held = make<FunctionTask>("held", Rect(0, 0, 16, 16), [&](int64_t, int64_t, int) {
        while (!gate) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return 1.0f;
    });
    auto quick = make<PatternTask>("quick", Rect(0, 0, 32, 32));
    const RenderedImage expected = renderImage(quick, Rect(0, 0, 32, 32), IMGLIB::CHANNELS_RGBA);
    withinSeconds(120, "renders waiting their turn", [&] {
        auto first = make<RecordingObserver>();
        RenderManager::Render({RenderDescription(held, Rect(0, 0, 16, 16), IMGLIB::CHANNELS_RGBA)},
                              first, nullptr, false, RENDERTYPE_BATCH);
        std::mutex mutex;
        std::vector<int> started;  // the order the renders ran in
        std::vector<std::thread> threads;
        std::atomic<int> failures{0};
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([&, i] {
                // Each starts after the one before it is waiting.
                std::this_thread::sleep_for(std::chrono::milliseconds(100 * i));
                try {
                    auto observer = make<FirstTileOrder>(mutex, started, i);
                    renderOutputs(
                        {RenderDescription(quick, Rect(0, 0, 32, 32), IMGLIB::CHANNELS_RGBA)},
                        observer);
                    const Imath::Color4<float> c = observer->pixel(0, 5, 7);
                    if (c.r != expected.pixels[(7 * 32 + 5) * 4]) ++failures;
                } catch (const std::exception&) {
                    ++failures;
                }
            });
        }
        // One more, cancelled while it waits.
        std::atomic<bool> cancel{false};
        std::thread cancelled([&] {
            RenderOptions options;
            options.cancel = &cancel;
            EXPECT_THROW(renderImage(quick, Rect(0, 0, 32, 32), IMGLIB::CHANNELS_RGBA, options),
                         RenderCancelledException);
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(450));
        cancel = true;
        cancelled.join();
        // The render they all wait for ends; they run in turn.
        gate = true;
        for (std::thread& t : threads) t.join();
        EXPECT_EQ(failures.load(), 0);
        EXPECT_EQ(started, (std::vector<int>{0, 1, 2, 3}));
        EXPECT_EQ(first->status, RenderStatus::Success);
    });
}

// From inside a render's own callback a blocking render would wait for its
// caller: it is refused at once instead of deadlocking.
class RendersFromItsCallback : public CollectingObserver {
public:
    explicit RendersFromItsCallback(TaskPtr task) : m_task(std::move(task)) {}
    void tileDone(const ImageBuffer& image, const OutputTileID& id) override {
        CollectingObserver::tileDone(image, id);
        try {
            renderImage(m_task, Rect(0, 0, 8, 8), IMGLIB::CHANNELS_RGBA);
        } catch (const UTIL::ErrorException& e) {
            std::lock_guard<std::mutex> lock(mutex);
            refusal = e.what();
        }
    }
    std::string refusal;

private:
    TaskPtr m_task;
};

TEST_F(RenderTest, ABlockingRenderFromARenderCallbackIsRefusedNotDeadlocked) {
    auto quick = make<PatternTask>("quick", Rect(0, 0, 16, 16));
    withinSeconds(60, "a blocking render from a callback", [&] {
        auto observer = make<RendersFromItsCallback>(TaskPtr(quick));
        renderOutputs({RenderDescription(quick, Rect(0, 0, 16, 16), IMGLIB::CHANNELS_RGBA)},
                      observer);
        EXPECT_EQ(observer->refusal, "There is already a render in progress, cancel it first!");
    });
}

TEST_F(RenderTest, CancellingAtRandomMomentsNeverHangsOrLeaks) {
    RenderManager::setGlobalTileSize(32, 32);
    RenderManager::setRenderThreads(2);
    std::mt19937 random(1234);
    for (int round = 0; round < 40; ++round) {
        RenderManager::ClearRenderTaskCache();
        auto slow = make<PatternTask>("slow", Rect(0, 0, 192, 192), 200);
        auto g = make<GainTask>("g", std::vector<TaskPtr>{slow}, 1.0f);
        auto observer = make<RecordingObserver>();
        RenderManager::Render({RenderDescription(g, Rect(0, 0, 192, 192), IMGLIB::CHANNELS_RGBA)},
                              observer, nullptr, false, RENDERTYPE_VIEWER);
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
        RenderManager::cancel(RENDERTYPE_VIEWER, true);
        EXPECT_EQ(observer->finishCalls, 1);
        EXPECT_NE(observer->status, RenderStatus::Error) << observer->message;
        EXPECT_EQ(Private::Tile::liveCount(), 0u);
    }
    RenderManager::clearSpeculativeCache();
    EXPECT_EQ(Private::ImageAllocator::instance().getMemUsage(), 0);
    EXPECT_EQ(Private::ImageAllocator::instance().getLockedImageCount(), 0u);
}

TEST_F(RenderTest, AWaitingCallerOfACancelledRenderGetsRenderCancelledException) {
    RenderManager::setGlobalTileSize(16, 16);
    auto slow = make<PatternTask>("slow", Rect(0, 0, 256, 256), 2000);
    auto observer = make<RecordingObserver>();
    std::thread canceller([] {
        while (!RenderManager::isRenderInProgress(RENDERTYPE_BATCH)) std::this_thread::yield();
        RenderManager::cancel(RENDERTYPE_BATCH, false);
    });
    EXPECT_THROW(RenderManager::Render({RenderDescription(slow, Rect(0, 0, 256, 256), 15)},
                                       observer, nullptr, true, RENDERTYPE_BATCH),
                 RenderCancelledException);
    canceller.join();
}

TEST_F(RenderTest, AnalysisJobsRunBetweenStartAndEnd) {
    struct Counter : Util::Job {
        explicit Counter(std::atomic<int>* n) : n(n) {}
        void run() override { ++*n; }
        std::atomic<int>* n;
    };
    std::atomic<int> runs{0};
    EXPECT_FALSE(
        RenderManager::submitAnalysisJob(RENDERTYPE_BACKGROUND, Util::JobPtr(new Counter(&runs))));
    RenderManager::startAnalysis(RENDERTYPE_BACKGROUND);
    EXPECT_TRUE(RenderManager::isAnalysisInProgress(RENDERTYPE_BACKGROUND));
    for (int i = 0; i < 20; ++i)
        EXPECT_TRUE(RenderManager::submitAnalysisJob(RENDERTYPE_BACKGROUND,
                                                     Util::JobPtr(new Counter(&runs))));
    RenderManager::endAnalysis(RENDERTYPE_BACKGROUND);
    EXPECT_EQ(runs.load(), 20);
    EXPECT_FALSE(RenderManager::isAnalysisInProgress(RENDERTYPE_BACKGROUND));
}

TEST(RenderControllerDeathTest, SleepIntervalIsValidatedAndReported) {
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(
        {
            setenv("MARLIN_RENDER_CONTROLLER_SLEEP_USECS", "5000", 1);
            ::testing::internal::CaptureStdout();
            const uint64_t usecs = Private::RenderController::sleepMicroseconds();
            const std::string out = ::testing::internal::GetCapturedStdout();
            std::exit(usecs == 5000 && out == "Render Controller sleep usecs: 5000\n" ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
    EXPECT_EXIT(
        {
            setenv("MARLIN_RENDER_CONTROLLER_SLEEP_USECS", "1000000", 1);
            std::exit(Private::RenderController::sleepMicroseconds() == 25000 ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "must be above 0 and below 1000000");
}
