// The render walks of the task implementation: set-up from the outputs
// down, and the per-tile protocol (preRender once, the tile, postRender
// after the last).
#include <deque>
#include <iostream>
#include <set>
#include <sstream>

#include "exceptions.h"
#include "imglib/channels.h"
#include "imglib/pixels.h"
#include "inplacetask.h"
#include "private/imglibcall.h"
#include "private/inputabsorber.h"
#include "private/tile.h"
#include "rendermanager.h"
#include "rendersystem/core/inputrequest.h"
#include "rendersystem/core/rendertask_imp.h"
#include "util/exceptions.h"

UTIL_ASSERT_SOURCE("rendersystem/core/rendertask_imp")

namespace TESSERA {
namespace {

using Private::Tile;
using Private::TilePtr;

std::atomic<int64_t> s_renderCount{0};

// Every task reachable from the outputs, each once, consumers before their
// inputs (breadth first).
std::vector<TaskPtr> collectGraph(const std::vector<RenderOutput>& outputs) {
    std::vector<TaskPtr> tasks;
    std::set<RenderTask::Imp*> seen;
    for (const RenderOutput& output : outputs)
        if (seen.insert(&output.task->imp()).second) tasks.push_back(output.task);
    for (size_t i = 0; i < tasks.size(); ++i)
        for (const TaskPtr& input : tasks[i]->imp().m_inputTasks)
            if (seen.insert(&input->imp()).second) tasks.push_back(input);
    return tasks;
}

bool isCollapsible(RenderTask::Imp& imp) {
    return dynamic_cast<InPlaceTask*>(&imp.task()) && imp.m_outputTaskCount <= 1;
}

// Merges runs of in-place tasks with one consumer at most, from the top of
// each run down its single-input chain.
void collapseInPlaceChains(const std::vector<TaskPtr>& tasks) {
    std::set<RenderTask::Imp*> absorbed;
    for (const TaskPtr& task : tasks) {
        RenderTask::Imp& imp = task->imp();
        if (absorbed.count(&imp) || !isCollapsible(imp)) continue;
        std::vector<TaskPtr> chain{task};
        for (TaskPtr next = imp.m_inputTasks[0];
             next->imp().m_outputTaskCount == 1 && isCollapsible(next->imp());
             next = next->imp().m_inputTasks[0]) {
            chain.push_back(next);
            absorbed.insert(&next->imp());
        }
        if (chain.size() >= 2) InPlaceTask::collapseChain(chain);
    }
}

// Lets each task that can take over its first input's work do so, as long
// as nothing else consumes that input.
void absorbInputs(const std::vector<TaskPtr>& tasks) {
    std::set<RenderTask::Imp*> absorbed;
    for (const TaskPtr& task : tasks) {
        auto* absorber = dynamic_cast<Private::InputAbsorber*>(task.get());
        if (!absorber || absorbed.count(&task->imp()) || task->imp().m_inputTasks.empty()) continue;
        const TaskPtr input = task->imp().m_inputTasks[0];
        if (input->imp().m_outputTaskCount == 1 && !input->imp().m_inputTasks.empty() &&
            absorber->absorbInput(*input)) {
            task->imp().replaceInput(0, input->imp().m_inputTasks[0]);
            absorbed.insert(&input->imp());
        }
    }
}

}  // namespace

void RenderTask::Imp::resetForRender(int64_t renderID) {
    m_outputTaskCount = 0;
    m_consumersDoneCount = 0;
    m_requiredOutputChannels = 0;
    for (auto& request : m_inputRequests) request.reset();
    {
        std::lock_guard<std::mutex> lock(m_tileMapMutex);
        m_tileMap.clear();
    }
    m_tileCount = 0;
    m_deliveriesLeft = 0;
    {
        std::lock_guard<std::mutex> lock(m_renderLock);
        m_tilesLeft = 0;
        m_preRenderState = 0;
    }
    m_cancelled = false;
    // The description outlives a render: the graph below a task is fixed.
    if (m_renderStage > RENDERSTAGE_ComputeOutputDescription)
        m_renderStage = RENDERSTAGE_ComputeOutputDescription;
    m_finalRenderTaskID = renderID;
    task().resetFullFrameState();
}

RenderPlan RenderTask::Imp::setUpRender(const std::vector<RenderOutput>& outputs) {
    RenderPlan plan;
    plan.tasks = collectGraph(outputs);
    // A task carries the state of one render at a time.
    for (size_t i = 0; i < plan.tasks.size(); ++i) {
        if (plan.tasks[i]->imp().m_inRender.exchange(true)) {
            const std::string name = plan.tasks[i]->imp().m_nameAtTime;
            for (size_t j = 0; j < i; ++j) plan.tasks[j]->imp().m_inRender = false;
            plan.tasks.clear();
            throw UTIL::ErrorException("Task " + name + " is already part of a render in progress");
        }
    }
    try {
        setUpPlan(outputs, plan);
    } catch (...) {
        endRender(plan);
        throw;
    }
    return plan;
}

void RenderTask::Imp::setUpPlan(const std::vector<RenderOutput>& outputs, RenderPlan& plan) {
    const int64_t renderID = ++s_renderCount;

    // Consumers are counted per input slot.
    for (const TaskPtr& task : plan.tasks) task->imp().resetForRender(renderID);
    for (const TaskPtr& task : plan.tasks)
        for (const TaskPtr& input : task->imp().m_inputTasks) ++input->imp().m_outputTaskCount;

    // Tasks merged into a chain stay in plan.tasks: they are released with it.
    RenderManager::debugLine(">>>>>> Collapsing in place ops...");
    collapseInPlaceChains(plan.tasks);
    absorbInputs(plan.tasks);

    RenderManager::debugLine(">>>>>> Setting up to render outputs...");
    for (const RenderOutput& output : outputs) {
        Imp& imp = output.task->imp();
        imp.ensureOutputDescription();
        if (RenderManager::getRenderDebug()) {
            std::ostringstream line;
            line << imp.m_nameAtTime << " Channels: " << IMGLIB::GetChannelMaskName(output.channels)
                 << " Area: " << imp.m_definedOutputDataRegion << " RequestedArea: " << output.rect;
            RenderManager::debugLine(line.str());
        }
    }

    // The output tiles: final tile i of the render sets bit i.
    for (const RenderOutput& output : outputs) {
        Imp& imp = output.task->imp();
        UTIL_ASSERT_TEXT(imp.m_outputTaskCount == 0, "m_outputTaskCount == 0");
        imp.m_requiredOutputChannels = IMGLIB::ValidateChannelMask(
            (imp.m_requiredOutputChannels | output.channels) & imp.m_definedOutputChannels);
        std::vector<TileID> ids;
        output.task->convertToTileIDs(output.rect, ids);
        for (const TileID& id : ids) {
            TilePtr tile = imp.getOrCreateTile(id);
            tile->markFinal(output.rect.intersection(id.rect()),
                            static_cast<unsigned>(plan.finalTiles.size()), output.outputIndex);
            plan.finalTiles.push_back(tile);
        }
    }
    for (const TilePtr& tile : plan.finalTiles) tile->resizeFinalTiles(plan.finalTiles.size());

    // Top-down, breadth first: a task sets up its requests once every
    // consumer has asked all its tiles of it.
    RenderManager::debugLine(">>>>>> Setting up Task requests...");
    std::deque<Imp*> queue;
    std::set<Imp*> queued;
    for (const RenderOutput& output : outputs) {
        Imp* imp = &output.task->imp();
        if (!queued.insert(imp).second) continue;
        imp->m_renderStage = RENDERSTAGE_ReadyToSetUpInputRequests;
        queue.push_back(imp);
    }
    while (!queue.empty()) {
        Imp* task = queue.front();
        queue.pop_front();
        plan.tileCount += task->setUpTask(plan.readyTiles);
        for (const TaskPtr& inputTask : task->m_inputTasks) {
            Imp& input = inputTask->imp();
            UTIL_ASSERT_TEXT(input.m_renderStage != RENDERSTAGE_ReadyToSetUpInputRequests,
                             "m_renderStage != RENDERSTAGE_ReadyToSetUpInputRequests");
            if (++input.m_consumersDoneCount == input.m_outputTaskCount) {
                input.m_renderStage = RENDERSTAGE_ReadyToSetUpInputRequests;
                queue.push_back(&input);
            }
        }
    }
}

uint64_t RenderTask::Imp::setUpTask(std::vector<TilePtr>& readyTiles) {
    UTIL_ASSERT(m_renderStage == RENDERSTAGE_ReadyToSetUpInputRequests);
    if (m_requiredOutputChannels == 0) {
        // No consumer needs any channel of it: nothing to render or ask.
        m_renderStage = RENDERSTAGE_InputRequestsSetUp;
        return 0;
    }
    task().makeInputFormatRequests();
    std::vector<TilePtr> tiles;
    {
        std::lock_guard<std::mutex> lock(m_tileMapMutex);
        for (const auto& entry : m_tileMap) tiles.push_back(entry.second);
    }
    m_tileCount = tiles.size();
    m_deliveriesLeft = m_tileCount;
    {
        std::lock_guard<std::mutex> lock(m_renderLock);
        m_tilesLeft = m_tileCount;
    }
    for (const TilePtr& tile : tiles) {
        if (tile->tryGetFromSpeculativeCache())
            tile->setStage(Private::InputsReady);
        else
            setUpTile(tile);
        if (tile->getStage() == Private::InputsReady) {
            tile->setStage(Private::InRenderQueue);
            readyTiles.push_back(tile);
        }
    }
    m_renderStage = RENDERSTAGE_InputRequestsSetUp;
    return m_tileCount;
}

void RenderTask::Imp::setUpTile(const TilePtr& tile) {
    std::vector<UTIL::Rect> inputRects(m_inputTasks.size());
    task().computeRequiredInputRects(tile->getRect(), inputRects);
    inputRects.resize(m_inputTasks.size());
    if (tile->getStage() >= Private::InputRequestsDone)
        UTIL::assertFailed("getStage() < InputRequestsDone", "include/private/tile", __LINE__);
    for (size_t i = 0; i < m_inputTasks.size(); ++i) {
        const Private::InputRequest* request = m_inputRequests[i].get();
        if (!request || request->getChannels() == 0 || inputRects[i].isNull()) {
            inputRects[i] = UTIL::Rect();
            continue;
        }
        // Only tiles that hold data are rendered; the request makes up the
        // rest of the image (background colour or extension).
        const UTIL::Rect fetch = request->requiredInputRect(inputRects[i]);
        Imp& input = *request->getInput();
        std::vector<TileID> ids;
        input.task().convertToTileIDs(input.m_definedOutputDataRegion.intersection(fetch), ids);
        for (const TileID& id : ids) {
            TilePtr inputTile = input.getOrCreateTile(id);
            inputTile->addDependent(fetch.intersection(id.rect()), tile);
            tile->addInputTile(i, inputTile);
        }
    }
    tile->setInputRects(std::move(inputRects));
    tile->finishInputRequests();
}

void RenderTask::Imp::endRender(RenderPlan& plan) {
    for (const TaskPtr& task : plan.tasks) {
        task->imp().m_inRender = false;
        std::map<TileID, TilePtr> tiles;
        {
            std::lock_guard<std::mutex> lock(task->imp().m_tileMapMutex);
            tiles.swap(task->imp().m_tileMap);
        }
        for (auto& entry : tiles) entry.second->release();
    }
    for (const TilePtr& tile : plan.finalTiles) tile->release();
    for (const TilePtr& tile : plan.readyTiles) tile->release();
    plan.finalTiles.clear();
    plan.readyTiles.clear();
}

TilePtr RenderTask::Imp::getOrCreateTile(const TileID& id) {
    std::lock_guard<std::mutex> lock(m_tileMapMutex);
    TilePtr& tile = m_tileMap[id];
    if (!tile) tile = TilePtr(new Tile(id, this));
    return tile;
}

void RenderTask::Imp::removeTile(const TileID& id) {
    TilePtr removed;  // released outside the mutex
    std::lock_guard<std::mutex> lock(m_tileMapMutex);
    auto it = m_tileMap.find(id);
    if (it == m_tileMap.end()) return;
    removed = it->second;
    m_tileMap.erase(it);
}

size_t RenderTask::Imp::getTileMapSize() {
    std::lock_guard<std::mutex> lock(m_tileMapMutex);
    return m_tileMap.size();
}

void RenderTask::Imp::runPreRender() {
    std::lock_guard<std::mutex> lock(m_renderLock);
    if (m_cancelled) throw RenderCancelledException("preRender cancelled.");
    if (m_preRenderState == 0) {
        RenderManager::debugLine(m_nameAtTime + " beginning to render");
        try {
            task().preRender();
        } catch (...) {
            m_preRenderState = 2;
            throw;
        }
        m_preRenderState = 1;
    } else if (m_preRenderState == 2) {
        throw RenderTaskRenderingException(m_nameAtTime, "An error occurred in preRender.", -1);
    }
}

bool RenderTask::Imp::lastTileCheck() {
    std::lock_guard<std::mutex> lock(m_renderLock);
    if (m_tilesLeft == 0 || --m_tilesLeft != 0) return false;
    // postRender pairs with preRender: a task whose tiles all came from the
    // cache never started rendering.
    if (m_preRenderState == 1) task().postRender();
    RenderManager::debugLine(m_nameAtTime + " finished rendering");
    return true;
}

bool RenderTask::Imp::renderTile(Tile& tile, const IMGLIB::Image* output) {
    const auto start = std::chrono::steady_clock::now();
    runPreRender();
    std::vector<ImageBuffer> inputs;
    {
        UTIL::TaskProfiler::Scope scope(RenderManager::s_renderSystemProfiler,
                                        "[Threaded Render Internal]: Input Image Preparation");
        inputs = tile.buildInputImages();
    }
    {
        UTIL::TaskProfiler::Scope scope(RenderManager::s_renderSystemProfiler,
                                        "[Threaded Render Internal]: Actual Rendering");
        const UTIL::Rect rect(output->x1, output->y1, output->x2, output->y2);
        const UTIL::Region area = m_definedOutputDataRegion.intersection(rect);
        if (area.isEmpty() && !tile.isFinal()) {
            std::cerr << "Defined Output Data Region " << m_definedOutputDataRegion << std::endl;
            std::cerr << "Tile Rect " << rect << std::endl;
            throw RenderTaskRenderingException(
                m_nameAtTime,
                "Tile was asked to render an image that doesn't intersect it's defined output area",
                -1);
        }
        // An output tile beyond the data still reaches the host: the part
        // outside the data is the background colour.
        Private::fillOutside(output, area, m_backgroundColor, m_nameAtTime);
        for (const UTIL::Rect& r : area.rects()) {
            IMGLIB::Image sub;
            Private::checkImglib(IMGLIB::GetSubImage(output, r.xmin, r.ymin, r.xmax, r.ymax, &sub),
                                 m_nameAtTime);
            task().render(&sub, inputs);
        }
    }
    RenderManager::s_renderSystemProfiler.addTime("[Task] " + m_typeString,
                                                  UTIL::millisecondsSince(start));
    inputs.clear();
    return lastTileCheck();
}

}  // namespace TESSERA
