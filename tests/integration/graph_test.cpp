// Whole graphs set up and rendered tile by tile: regions, channels, consumer
// order, extension through tiles, collapsed chains and the preRender rule.
#include <gtest/gtest.h>

#include <fstream>
#include <regex>

#include "imglib/extend.h"
#include "imglib/pixels.h"
#include "support/serial_render.h"
#include "util/exceptions.h"

using namespace TESSERA;
using namespace TESSERA::testing;
using Color = Imath::Color4<float>;
using UTIL::Rect;

namespace {

// A source whose pixel (x, y) is (x, y, x + y, 1) inside its area.
class RampTask : public ConstantTask {
public:
    RampTask(const std::string& name, const Rect& area)
        : ConstantTask(name, Color(0, 0, 0, 0), area) {}
    std::string getTypeString() override { return "Ramp"; }
    void renderRect(const IMGLIB::Image* out, const std::vector<const IMGLIB::Image*>&) override {
        ++renderCalls;
        for (int64_t y = out->y1; y < out->y2; ++y)
            for (int64_t x = out->x1; x < out->x2; ++x) {
                const float v[4] = {float(x), float(y), float(x + y), 1};
                IMGLIB::SetPixel(out, x, y, v);
            }
    }
    static Color at(int64_t x, int64_t y) { return Color(float(x), float(y), float(x + y), 1); }
};

// Records the order in which tasks set up their requests.
std::vector<std::string> g_setUpOrder;

class OrderedGain : public GainTask {
public:
    using GainTask::GainTask;
    void makeInputFormatRequests() override {
        g_setUpOrder.push_back(getName());
        GainTask::makeInputFormatRequests();
    }
};

class GraphTest : public ::testing::Test {
protected:
    void SetUp() override {
        RenderManager::ClearRenderTaskCache();
        RenderManager::setGlobalTileSize(16, 16);
        RenderManager::clearSpeculativeCache();
        g_setUpOrder.clear();
    }
    void TearDown() override {
        RenderManager::setGlobalTileSize(256, 256);
        RenderManager::ClearRenderTaskCache();
        RenderManager::setRenderDebug(false);
    }
    RCX_ptr_v4::ref_ptr<CollectingObserver> observer = make<CollectingObserver>();
};

}  // namespace

TEST_F(GraphTest, RegionsChannelsAndBackgroundFlowThroughTheGraph) {
    auto rgb =
        make<ConstantTask>("c", Color(0.5f, 0.25f, 1, 0), Rect(4, 4, 20, 12), IMGLIB::CHANNELS_RGB);
    rgb->background = Color(0.1f, 0.1f, 0.1f, 0);
    auto g = make<GainTask>("g", std::vector<TaskPtr>{rgb}, 2.0f);
    const Rect wanted(0, 0, 24, 16);
    renderSerially({RenderOutput{g, wanted, IMGLIB::CHANNELS_RGB, 0}}, observer);
    for (int64_t y = 0; y < 16; ++y)
        for (int64_t x = 0; x < 24; ++x) {
            const Color expected = Rect(4, 4, 20, 12).contains(x, y) ? Color(1, 0.5f, 2, 0)
                                                                     : Color(0.2f, 0.2f, 0.2f, 0);
            ASSERT_EQ(observer->pixel(0, x, y), expected) << x << "," << y;
        }
    // 2 x 1 tiles of 16: the output's tiles, and the source's tiles that hold data.
    EXPECT_EQ(observer->tiles[0].size(), 2u);
    EXPECT_EQ(observer->finishedOutputs, std::vector<size_t>{0});
    EXPECT_EQ(rgb->renderCalls.load(), 2);
    EXPECT_EQ(observer->tilesDoneByTask["c"], 2);
    // Nothing is left behind once the render ends.
    EXPECT_EQ(Private::Tile::liveCount(), 0u);
}

TEST_F(GraphTest, SharedInputsAreSetUpAfterAllConsumersAndRenderedOnce) {
    auto source = make<RampTask>("source", Rect(0, 0, 32, 32));
    auto left = make<OrderedGain>("left", std::vector<TaskPtr>{source}, 1.0f);
    auto right = make<OrderedGain>("right", std::vector<TaskPtr>{source}, 2.0f);
    auto top = make<OrderedGain>("top", std::vector<TaskPtr>{left, right}, 1.0f);
    renderSerially({RenderOutput{top, Rect(0, 0, 32, 32), IMGLIB::CHANNELS_RGBA, 0}}, observer);
    EXPECT_EQ(g_setUpOrder, (std::vector<std::string>{"top", "left", "right"}));
    EXPECT_EQ(source->renderCalls.load(), 4);  // once per tile, for both consumers
    EXPECT_EQ(observer->pixel(0, 17, 3), RampTask::at(17, 3) * 3.0f);
}

TEST_F(GraphTest, UnrequestedInputsSetUpNoTilesAndNeverStart) {
    struct FirstOnly : GainTask {
        using GainTask::GainTask;
        void makeInputFormatRequests() override {
            addInputRequest(0, getRequiredOutputChannels());
            addInputRequest(1, 0);
        }
    };
    struct Watched : ConstantTask {
        using ConstantTask::ConstantTask;
        void preRender() override { hookCalls.push_back("preRender"); }
        void postRender() override { hookCalls.push_back("postRender"); }
    };
    auto used = make<Watched>("used", Color(1, 1, 1, 1), Rect(0, 0, 16, 16));
    auto unused = make<Watched>("unused", Color(2, 2, 2, 2), Rect(0, 0, 16, 16));
    auto top = make<FirstOnly>("top", std::vector<TaskPtr>{used, unused}, 1.0f);
    renderSerially({RenderOutput{top, Rect(0, 0, 16, 16), IMGLIB::CHANNELS_RGBA, 0}}, observer);
    EXPECT_EQ(unused->renderCalls.load(), 0);
    EXPECT_EQ(std::count(unused->hookCalls.begin(), unused->hookCalls.end(), "preRender"), 0);
    EXPECT_EQ(std::count(used->hookCalls.begin(), used->hookCalls.end(), "preRender"), 1);
    EXPECT_EQ(std::count(used->hookCalls.begin(), used->hookCalls.end(), "postRender"), 1);
    EXPECT_EQ(observer->pixel(0, 5, 5), Color(1, 1, 1, 1));
}

TEST_F(GraphTest, ExtensionAcrossTileBordersMatchesTheClosedForm) {
    for (IMGLIB::ExtendMethod method : {IMGLIB::EXTEND_CLAMP, IMGLIB::EXTEND_MIRROR}) {
        RenderManager::ClearRenderTaskCache();
        auto ramp = make<RampTask>("ramp", Rect(0, 0, 40, 20));
        auto box = make<BoxXTask>("box", ramp, 5, method);
        auto obs = make<CollectingObserver>();
        renderSerially({RenderOutput{box, Rect(0, 0, 40, 20), IMGLIB::CHANNELS_RGBA, 0}}, obs);
        for (int64_t y = 0; y < 20; ++y)
            for (int64_t x = 0; x < 40; ++x) {
                Color sum(0, 0, 0, 0);
                for (int64_t dx = -5; dx <= 5; ++dx) {
                    const int64_t sx = method == IMGLIB::EXTEND_CLAMP
                                           ? IMGLIB::ClampCoordinate(x + dx, 0, 40)
                                           : IMGLIB::MirrorCoordinate(x + dx, 0, 40);
                    sum += RampTask::at(sx, y);
                }
                const Color expected = sum / 11.0f;
                const Color got = obs->pixel(0, x, y);
                ASSERT_NEAR(got.r, expected.r, 1e-4) << "method " << method << " at " << x;
                ASSERT_NEAR(got.b, expected.b, 1e-4);
            }
    }
}

TEST_F(GraphTest, CollapsedChainsMatchTheStepByStepResult) {
    auto ramp = make<RampTask>("ramp", Rect(0, 0, 32, 16));
    auto a = make<InPlaceTask>(InPlaceOpPtr(new ScaleOp(2)), "a", 0.0f, ramp);
    auto b = make<InPlaceTask>(InPlaceOpPtr(new ScaleOp(3)), "b", 0.0f, a);
    auto c = make<InPlaceTask>(InPlaceOpPtr(new ScaleOp(0.5f)), "c", 0.0f, b);
    EXPECT_EQ(c->getCacheID().size(), 33u);
    const std::string idBefore = c->getCacheID();
    renderSerially({RenderOutput{c, Rect(0, 0, 32, 16), IMGLIB::CHANNELS_RGBA, 0}}, observer);
    // c now runs all three operators on one buffer, reading the ramp.
    EXPECT_EQ(c->getOps().size(), 3u);
    EXPECT_EQ(c->imp().getInputTask(0).get(), ramp.get());
    EXPECT_EQ(observer->tilesDoneByTask.count("a"), 0u);
    EXPECT_EQ(c->getCacheID(), idBefore);  // the same pixels, the same identity
    for (int64_t x = 0; x < 32; x += 7) {
        const Color r = RampTask::at(x, 9);
        EXPECT_EQ(observer->pixel(0, x, 9), Color(r.r * 3, r.g * 3, r.b * 3, 1));
    }

    // Through an intermediate buffer: the output lacks the alpha channel the
    // chain passes along.
    RenderManager::ClearRenderTaskCache();
    auto ramp2 = make<RampTask>("ramp2", Rect(0, 0, 32, 16));
    auto s1 = make<InPlaceTask>(InPlaceOpPtr(new ScaleOp(2)), "s1", 0.0f, ramp2);
    auto s2 = make<InPlaceTask>(InPlaceOpPtr(new ScaleOp(3)), "s2", 0.0f, s1);
    auto gray = make<InPlaceTask>(InPlaceOpPtr(new AlphaToGrayOp), "gray", 0.0f, s2);
    auto obs = make<CollectingObserver>();
    renderSerially({RenderOutput{gray, Rect(0, 0, 32, 16), IMGLIB::CHANNELS_RGB, 0}}, obs);
    EXPECT_EQ(gray->getOps().size(), 3u);
    EXPECT_EQ(obs->pixel(0, 3, 3), Color(1, 1, 1, 0));
}

TEST_F(GraphTest, InPlaceTaskRules) {
    auto ramp = make<RampTask>("ramp", Rect(0, 0, 8, 8));
    ramp->background = Color(1, 1, 1, 0.5f);
    try {
        InPlaceTask task(InPlaceOpPtr(new ScaleOp(2)), "orphan", 0.0f, TaskPtr());
        FAIL();
    } catch (const RenderTaskRenderingException& e) {
        EXPECT_EQ(e.getMessage(), "InPlace tasks require an input");
        EXPECT_EQ(e.getCode(), -1);
    }
    auto one = make<InPlaceTask>(InPlaceOpPtr(new ScaleOp(2)), "one", 0.0f, ramp);
    one->getCacheID();
    EXPECT_EQ(one->imp().m_typeString, "Scale");
    auto two = make<InPlaceTask>(InPlaceOpPtr(new ScaleOp(3)), "two", 0.0f, one);
    InPlaceTask::collapseChain({two, one});
    // Background: the input's, through the upstream operator first.
    EXPECT_EQ(two->getBackgroundColor(), Color(6, 6, 6, 0.5f));
    EXPECT_THROW(two->getOp(), UTIL::AssertException);
    EXPECT_EQ(one->getOp()->getTypeString(), "Scale");

    auto gray = make<InPlaceTask>(InPlaceOpPtr(new AlphaToGrayOp), "gray", 0.0f, ramp);
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(gray->getBackgroundColor(), ramp->background);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "AlphaToGray::computeBackgroundColor is not implemented, using incorrect default "
              "implementation.\n");
}

TEST_F(GraphTest, PreRenderFailureFailsEveryLaterTileWithoutCallingItAgain) {
    struct Failing : RampTask {
        using RampTask::RampTask;
        void preRender() override {
            ++preRenders;
            throw std::runtime_error("no licence");
        }
        int preRenders = 0;
    };
    auto failing = make<Failing>("failing", Rect(0, 0, 32, 16));
    std::unique_ptr<RenderPlan> plan =
        RenderPlan::setUp({RenderOutput{failing, Rect(0, 0, 32, 16), IMGLIB::CHANNELS_RGBA, 0}});
    ASSERT_EQ(plan->readyTiles.size(), 2u);
    Private::ReadyTiles ready;
    try {
        Private::TileJob(plan->readyTiles[0], observer, &ready, 0).run();
        FAIL();
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "no licence");
    }
    try {
        Private::TileJob(plan->readyTiles[1], observer, &ready, 0).run();
        FAIL();
    } catch (const RenderTaskRenderingException& e) {
        EXPECT_EQ(e.getMessage(), "An error occurred in preRender.");
    }
    EXPECT_EQ(failing->preRenders, 1);
    plan.reset();
    EXPECT_EQ(Private::Tile::liveCount(), 0u);

    // A cancelled render stops at preRender.
    auto fresh = make<RampTask>("fresh", Rect(0, 0, 16, 16));
    std::unique_ptr<RenderPlan> second =
        RenderPlan::setUp({RenderOutput{fresh, Rect(0, 0, 16, 16), IMGLIB::CHANNELS_RGBA, 0}});
    second->cancel();
    try {
        Private::TileJob(second->readyTiles[0], observer, &ready, 0).run();
        FAIL();
    } catch (const RenderCancelledException& e) {
        EXPECT_STREQ(e.what(), "preRender cancelled.");
    }
    second.reset();
}

TEST_F(GraphTest, DebugLogTellsTheSetUp) {
    const std::string path = ::testing::TempDir() + "/graph.log";
    RenderManager::setRenderLogFile(path);
    RenderManager::setRenderDebug(true);
    auto ramp = make<RampTask>("ramp", Rect(0, 0, 16, 16));
    auto g = make<GainTask>("g", std::vector<TaskPtr>{ramp}, 1.0f);
    renderSerially({RenderOutput{g, Rect(0, 0, 16, 16), IMGLIB::CHANNELS_RGB, 0}}, observer);
    RenderManager::setRenderDebug(false);
    std::ifstream in(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    // The source is described when g registers it; g itself at set-up.
    const std::vector<std::string> expected = {
        "ramp@0 Defined channels: RGBA Defined area: {[0, 0, 16, 16)} Cache ID: '" +
            ramp->imp().m_cacheID + "' Compressed CacheID: '" + ramp->getCacheID() + "'",
        ">>>>>> Collapsing in place ops...",
        ">>>>>> Setting up to render outputs...",
        "g@0 Defined channels: RGBA Defined area: {[0, 0, 16, 16)} Cache ID: '" +
            g->imp().m_cacheID + "' Compressed CacheID: '" + g->getCacheID() + "'",
        "g@0 Channels: RGB Area: {[0, 0, 16, 16)} RequestedArea: [0, 0, 16, 16)",
        ">>>>>> Setting up Task requests...",
        "g@0 Request: 0 Channels: RGB ExtendMethod: 0 ExtendWithOverscan: 0 Rect: [null]",
        "ramp@0 beginning to render",
        "ramp@0 finished rendering",
        "g@0 beginning to render",
        "g@0 finished rendering",
    };
    EXPECT_EQ(lines, expected);
}

TEST_F(GraphTest, CacheIDsAreStableAcrossProcesses) {
    // Fixed strings: a change here invalidates every cache a host keeps.
    auto ramp = make<RampTask>("ramp", Rect(0, 0, 16, 16));
    EXPECT_EQ(ramp->getCacheID(), "$daghicaafjhbbkpgolholjfcdcmlcnfa");
    EXPECT_EQ(ramp->imp().m_cacheID, "Ramp0 0 0 0 [0, 0, 16, 16)");
    auto g = make<GainTask>("g", std::vector<TaskPtr>{ramp}, 1.0f);
    EXPECT_EQ(g->getCacheID(), "$lcjokfaofglodabjamjndhhjgpmpocdg");
}
