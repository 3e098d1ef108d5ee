// The task contract: registration, output description, cache identity,
// input requests and the full-frame render path.
#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <regex>

#include "rendersystem/core/inputrequest.h"
#include "rendersystem/core/renderplan.h"
#include "rendersystem/images/imageallocator.h"
#include "support/serial_render.h"
#include "support/test_tasks.h"
#include "util/exceptions.h"

using namespace TESSERA;
using namespace TESSERA::testing;
using Color = Imath::Color4<float>;

namespace {

RCX_ptr_v4::ref_ptr<ConstantTask> constant(const std::string& name, float value,
                                           UTIL::Rect area = UTIL::Rect(0, 0, 100, 100)) {
    return RCX_ptr_v4::ref_ptr<ConstantTask>(
        new ConstantTask(name, Color(value, value, value, 1), area));
}

RCX_ptr_v4::ref_ptr<GainTask> gain(const std::string& name, std::vector<TaskPtr> inputs, float g) {
    return RCX_ptr_v4::ref_ptr<GainTask>(new GainTask(name, std::move(inputs), g));
}

class RenderTaskTest : public ::testing::Test {
protected:
    void SetUp() override { RenderManager::ClearRenderTaskCache(); }
    void TearDown() override { RenderManager::ClearRenderTaskCache(); }
};

}  // namespace

TEST_F(RenderTaskTest, DescriptionIsComputedOnceInHookOrderInputsFirst) {
    auto source = constant("src", 0.5f, UTIL::Rect(-5, 0, 10, 20));
    auto g = gain("g", {source}, 2.0f);
    // Registering computed the input's description.
    EXPECT_EQ(source->hookCalls,
              (std::vector<std::string>{"type", "cacheID", "channels", "background", "region"}));

    uint64_t channels = 0;
    UTIL::Region region;
    g->getOutputDescription(&channels, &region);
    EXPECT_EQ(channels, IMGLIB::CHANNELS_RGBA);
    EXPECT_EQ(region, UTIL::Region(UTIL::Rect(-5, 0, 10, 20)));
    EXPECT_EQ(g->getBackgroundColor(), Color(0, 0, 0, 0));
    EXPECT_EQ(g->getInputTaskCount(), 1u);
    EXPECT_EQ(g->getInputCacheID(0), source->getCacheID());
    EXPECT_EQ(g->getDefinedOutputDataRegion(), region);
    g->getCacheID();
    EXPECT_EQ(source->hookCalls.size(), 5u);  // never twice

    // Inputs may not be added once the description exists.
    EXPECT_EQ(assertionText([&] { g->registerInputTask(constant("late", 1)); }),
              "m_renderStage == RENDERSTAGE_Init @ rendersystem/core/rendertask_imp");
    EXPECT_EQ(assertionText([&] { g->registerInputTask(TaskPtr()); }),
              "inputTask @ rendersystem/core/rendertask_imp");
    EXPECT_EQ(assertionText([&] { g->getDefinedInputChannels(1); }),
              "inputID >= 0 && inputID < m_inputTasks.size() @ rendersystem/core/rendertask_imp");
}

TEST_F(RenderTaskTest, ReadingInputDescriptionsBeforeTheyExistAsserts) {
    struct EarlyReader : ProbeTask {
        explicit EarlyReader(TaskPtr input) : ProbeTask("early") {
            registerInputTask(input);
            getDefinedInputChannels(0);  // still in the constructor
        }
        std::string getTypeString() override { return "Early"; }
        void computeCacheID(CacheIDStream&) override {}
        uint64_t computeOutputChannels() override { return 0; }
        UTIL::Region computeOutputDataRegion() override { return UTIL::Region(); }
        void makeInputFormatRequests() override {}
        void computeRequiredInputRectangles(const UTIL::Rect&, std::vector<UTIL::Rect>&) override {}
    };
    EXPECT_EQ(assertionText([] { TaskPtr t(new EarlyReader(constant("c", 1))); }),
              "m_renderStage >= RENDERSTAGE_ComputeOutputDescription @ "
              "rendersystem/core/rendertask_imp");
}

TEST_F(RenderTaskTest, CompressedCacheIDsAreDigestsInTheStatedAlphabet) {
    // MD5("") = d41d8cd98f00b204e9800998ecf8427e: byte 0xd4 gives "en"
    // (low nibble first), 0x1d gives "nb", 0x00 gives "aa".
    EXPECT_EQ(RenderTask::Imp::compressCacheID(""), "$ennbmijnpiaacleajoaijaijmoipceoh");
    const std::string id = constant("c", 0.25f)->getCacheID();
    EXPECT_TRUE(std::regex_match(id, std::regex("\\$[a-p]{32}"))) << id;
    EXPECT_EQ(constant("other name, same pixels", 0.25f)->getCacheID(), id);
    EXPECT_NE(constant("c", 0.5f)->getCacheID(), id);

    // The full ID: type, parameters, then each input's compressed ID and ",".
    auto a = constant("a", 1), b = constant("b", 2);
    auto g = gain("g", {a, b}, 3.0f);
    g->getCacheID();
    EXPECT_EQ(g->imp().m_cacheID, "Gain3" + a->getCacheID() + "," + b->getCacheID() + ",");
    EXPECT_EQ(g->imp().m_parameterCacheID, RenderTask::Imp::compressCacheID("Gain3"));
}

TEST_F(RenderTaskTest, IgnoredInputsAndDollarIDs) {
    struct IgnoringGain : GainTask {
        IgnoringGain(std::vector<TaskPtr> inputs) : GainTask("ig", std::move(inputs), 1.0f) {
            ignoreInputCacheID(1);
        }
    };
    auto a = constant("a", 1), b = constant("b", 2);
    TaskPtr ig(new IgnoringGain({a, b}));
    ig->getCacheID();
    EXPECT_EQ(ig->imp().m_cacheID, "Gain1" + a->getCacheID() + ",");

    // A full ID that is already compressed stands for itself.
    auto dollar = gain("d", {a}, 1.0f);
    dollar->typeString = "$precomputed";
    RenderManager::setRenderDebug(true);
    const std::string log = ::testing::TempDir() + "/dollar.log";
    RenderManager::setRenderLogFile(log);
    dollar->getCacheID();
    RenderManager::setRenderDebug(false);
    EXPECT_EQ(dollar->getCacheID(), dollar->imp().m_cacheID);
    std::ifstream in(log);
    std::string line;
    std::getline(in, line);
    const std::string full = dollar->imp().m_cacheID;
    EXPECT_EQ(line, "d@0 Defined channels: RGBA Defined area: {[0, 0, 100, 100)} Cache ID: '" +
                        full + "' Compressed CacheID: '" + full + "'");
}

TEST_F(RenderTaskTest, EqualSubGraphsBecomeOneTask) {
    auto first = gain("g1", {constant("c1", 0.5f)}, 2.0f);
    auto second = gain("g2", {constant("c2", 0.5f)}, 2.0f);
    auto top = gain("top", {first, second}, 1.0f);
    EXPECT_EQ(top->imp().getInputTask(0), top->imp().getInputTask(1));
    EXPECT_EQ(top->imp().getInputTask(0).get(), first.get());
    // The inner constants were merged too.
    EXPECT_EQ(second->imp().getInputTask(0), first->imp().getInputTask(0));

    RenderManager::ClearRenderTaskCache();
    auto third = gain("g3", {constant("c3", 0.5f)}, 2.0f);
    auto afterClear = gain("top2", {third}, 1.0f);
    EXPECT_EQ(afterClear->imp().getInputTask(0).get(), third.get());
}

TEST_F(RenderTaskTest, InputRequestsAndTheirMisuse) {
    auto rgb = RCX_ptr_v4::ref_ptr<ConstantTask>(
        new ConstantTask("rgb", Color(1, 1, 1, 1), UTIL::Rect(0, 0, 8, 8), IMGLIB::CHANNELS_RGB));
    auto g = gain("g", {rgb, constant("c", 1)}, 1.0f);
    g->getCacheID();
    // Requests belong to a render: outside one they are refused.
    EXPECT_EQ(assertionText([&] { g->addInputRequest(0, IMGLIB::CHANNEL_R); }),
              "a render of g@0 runs its hooks on this thread @ rendersystem/core/rendertask");
    RenderPlan plan;
    Private::RenderNode& node = plan.nodeFor(g);
    Private::RenderNode::Scope setUp(node);
    EXPECT_EQ(assertionText([&] { g->getRequiredInputChannels(0); }),
              "!m_inputRequests.is_null(static_cast<std::size_t>(whichInput)) @ "
              "rendersystem/core/rendertask_imp");
    EXPECT_EQ(assertionText([&] { g->getRequiredInputChannels(2); }),
              "whichInput >=0 && whichInput < static_cast<int64_t>(m_inputRequests.size()) @ "
              "rendersystem/core/rendertask_imp");

    // Requested channels are validated; the input's required channels are
    // the union of the requests, limited to what it defines.
    g->addInputRequest(0, IMGLIB::CHANNELS_RGBA | (uint64_t(1) << 40));
    EXPECT_EQ(g->getRequiredInputChannels(0), IMGLIB::CHANNELS_RGBA);
    EXPECT_EQ(plan.findNode(rgb->imp())->requiredOutputChannels(), IMGLIB::CHANNELS_RGB);

    ::testing::internal::CaptureStderr();
    const std::string twice = assertionText([&] { g->addInputRequest(0, IMGLIB::CHANNEL_R); });
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "Render task already registered at inputID 0 of renderTask g@0\n");
    EXPECT_EQ(twice, "m_inputRequests.is_null(inputID) @ rendersystem/core/rendertask_imp");

    EXPECT_EQ(assertionText([&] {
                  g->addInputRequest(1, IMGLIB::CHANNELS_RGBA, IMGLIB::EXTEND_CLAMP, false,
                                     UTIL::Rect());
              }),
              "!inputDisplayRect.isNull() @ rendersystem/core/rendertask_imp");
    EXPECT_EQ(assertionText([&] { g->addInputRequest(5, IMGLIB::CHANNELS_RGBA); }),
              "inputID >= 0 && inputID < m_inputRequests.size() @ "
              "rendersystem/core/rendertask_imp");
    // An unknown method needs a rectangle too, and makes a plain colour request.
    g->addInputRequest(1, IMGLIB::CHANNEL_A, static_cast<IMGLIB::ExtendMethod>(7), true,
                       UTIL::Rect(0, 0, 4, 4));
    EXPECT_EQ(node.getInputRequest(1)->getMethod(), IMGLIB::EXTEND_BACKGROUND);
}

TEST_F(RenderTaskTest, SettingsTilesAndSettledEntryPoints) {
    auto c = constant("c", 1);
    auto g = gain("g", {c}, 1.0f);
    EXPECT_TRUE(g->getCaching());
    g->setCaching(false);
    EXPECT_FALSE(g->getCaching());

    EXPECT_EQ(assertionText([&] { g->imp().getSampleRateX(); }),
              "m_sampleRateIsSet @ rendersystem/core/rendertask_imp_caching");
    g->setSampleRate(2, 2);
    g->setSampleRate(1, 1);  // the first setting wins
    EXPECT_EQ(g->imp().getSampleRateX(), 2.0f);
    EXPECT_EQ(c->imp().getSampleRateY(), 2.0f);  // passed to the inputs

    g->imp().setNeededByOutputs({true, false, true});
    g->imp().computeProbabilityIsNeeded({0.5f, 0.9f, 0.5f});
    EXPECT_FLOAT_EQ(g->getProbabilityIsNeeded(), 0.75f);

    std::vector<TaskPtr> tasks{c};
    g->getAllInputRenderTasks(tasks);
    ASSERT_EQ(tasks.size(), 1u);
    EXPECT_EQ(tasks[0].get(), c.get());
    std::ostringstream info;
    g->outputCachingInfo(info);
    EXPECT_EQ(info.str(), "Not Implemented Yet \n");

    EXPECT_EQ(g->getNameAtTime(), "g@0");
    EXPECT_EQ(g->getTileWidth(), RenderManager::getGlobalTileWidth());
    EXPECT_TRUE(g->isRenderTiled());
    g->setRenderFullFrame(true, false);
    EXPECT_EQ(g->getTileWidth(), -1);
    EXPECT_EQ(g->getTileHeight(), -1);
    EXPECT_FALSE(g->isRenderTiled());
    std::vector<TileID> tiles;
    EXPECT_EQ(g->convertToTileIDs(UTIL::Rect(0, 0, 5000, 5000), tiles), 1u);
    g->setRenderFullFrame(false, false);
    EXPECT_EQ(g->convertToTileIDs(UTIL::Rect(0, 0, 257, 10), tiles), 2u);
}

TEST_F(RenderTaskTest, DefaultRenderHooksRefuse) {
    TaskPtr task(new NoRenderTask("n", Color(1, 1, 1, 1), UTIL::Rect(0, 0, 4, 4)));
    TempImageBuffer out(IMGLIB::CHANNELS_RGBA, UTIL::Rect(0, 0, 4, 4), "out");
    std::vector<ImageBuffer> inputs;
    EXPECT_EQ(assertionText([&] { task->render(out.getImage(), inputs); }),
              "!\"This RenderTask does not support immediate locking.\" @ "
              "rendersystem/core/rendertask");
    static_cast<ProbeTask*>(task.get())->setRenderLocalLocking(true);
    EXPECT_EQ(assertionText([&] { task->render(out.getImage(), inputs); }),
              "!\"This RenderTask does not support delayed locking.\" @ "
              "rendersystem/core/rendertask");
}

TEST_F(RenderTaskTest, ImmediateLockingLocksInputsOnlyDuringTheHook) {
    auto c = constant("c", 0.25f, UTIL::Rect(0, 0, 4, 4));
    auto g = gain("g", {c}, 4.0f);
    ImageBuffer input(IMGLIB::CHANNELS_RGBA, UTIL::Rect(0, 0, 4, 4), "input");
    {
        ImageBuffer_LockScoper lock(input);
        const float v[4] = {0.25f, 0.5f, 0.75f, 1.0f};
        IMGLIB::Fill(input.getImage(), v);
    }
    std::vector<ImageBuffer> inputs{input};
    TempImageBuffer out(IMGLIB::CHANNELS_RGBA, UTIL::Rect(1, 1, 3, 3), "out");
    const size_t lockedBefore = Private::ImageAllocator::instance().getLockedImageCount();
    g->render(out.getImage(), inputs);
    EXPECT_EQ(pixelAt(out.getImage(), 2, 2), Color(1, 2, 3, 4));
    EXPECT_EQ(Private::ImageAllocator::instance().getLockedImageCount(), lockedBefore);
}

TEST_F(RenderTaskTest, FullFrameRendersOnceAndCopiesTiles) {
    auto c = constant("c", 0.5f, UTIL::Rect(0, 0, 8, 8));
    c->background = Color(0.1f, 0.2f, 0.3f, 0.4f);
    auto g = gain("g", {c}, 2.0f);
    g->setRenderFullFrame(true, true);
    g->getCacheID();
    RenderPlan plan;
    auto inRender = std::make_unique<Private::RenderNode::Scope>(plan.nodeFor(g));
    std::vector<UTIL::Rect> inputRects;
    g->computeRequiredInputRects(UTIL::Rect(0, 0, 8, 8), inputRects);
    EXPECT_EQ(
        assertionText([&] { g->computeRequiredInputRects(UTIL::Rect(0, 0, 8, 8), inputRects); }),
        "m_requiredOutputRect.isNull() @ rendersystem/core/rendertask");

    // The input is missing: it is replaced by an image of its background colour.
    for (int tile = 0; tile < 2; ++tile) {
        TempImageBuffer out(IMGLIB::CHANNELS_RGBA, UTIL::Rect(tile * 4, 0, tile * 4 + 4, 4), "t");
        std::vector<ImageBuffer> inputs(1);
        g->render(out.getImage(), inputs);
        EXPECT_EQ(pixelAt(out.getImage(), tile * 4 + 1, 1), Color(0.2f, 0.4f, 0.6f, 0.8f));
    }
    EXPECT_EQ(g->renderCalls.load(), 1);

    // With real input pixels, a request for exactly the required rectangle
    // renders straight into the output and keeps nothing.
    auto h = gain("h", {c}, 3.0f);
    h->setRenderFullFrame(true, false);
    h->getCacheID();
    inRender.reset();
    inRender = std::make_unique<Private::RenderNode::Scope>(plan.nodeFor(h));
    h->computeRequiredInputRects(UTIL::Rect(0, 0, 8, 8), inputRects);
    ImageBuffer input(IMGLIB::CHANNELS_RGBA, UTIL::Rect(0, 0, 8, 8), "in");
    {
        ImageBuffer_LockScoper lock(input);
        const float v[4] = {1, 1, 1, 1};
        IMGLIB::Fill(input.getImage(), v);
    }
    const int64_t before = Private::ImageAllocator::instance().getMemUsage();
    TempImageBuffer whole(IMGLIB::CHANNELS_RGBA, UTIL::Rect(0, 0, 8, 8), "whole");
    std::vector<ImageBuffer> inputs{input};
    h->render(whole.getImage(), inputs);
    EXPECT_EQ(pixelAt(whole.getImage(), 7, 7), Color(3, 3, 3, 3));
    // Only the output's own memory: no "BufferTaskImage" was made.
    EXPECT_EQ(Private::ImageAllocator::instance().getMemUsage(),
              before + whole.imageBuffer().getSize());
}
