// Render set-up: the graph of a render is described, reshaped where no
// other render depends on it, turned into nodes and tiles from the outputs
// down; and the end of a render.
#include "rendersystem/core/renderplan.h"

#include <deque>
#include <iostream>
#include <map>
#include <set>
#include <sstream>

#include "imglib/channels.h"
#include "inplacetask.h"
#include "private/imglibcall.h"
#include "private/inputabsorber.h"
#include "private/pixelview.h"
#include "rendermanager.h"
#include "util/exceptions.h"

UTIL_ASSERT_SOURCE("rendersystem/core/rendertask_imp")

namespace TESSERA {
namespace Private {
namespace {

using Imp = RenderTask::Imp;

// Guards the graph changes of render set-up and the active-render counts
// they read (see RenderPlan).
std::mutex s_setUpMutex;
std::atomic<int64_t> s_renderCount{0};

// The output of a render when its task cannot serve it directly: the
// task's pixels in the channels asked, the background colour in those it
// does not define.
class OutputCopyTask : public RenderTask {
public:
    OutputCopyTask(const TaskPtr& task, uint64_t channels)
        : RenderTask(task->getName() + ".output", task->getTime()), m_channels(channels) {
        registerInputTask(task);
        setCaching(false);  // the task's own tiles are cached
    }

protected:
    std::string getTypeString() override { return "OutputCopy"; }
    void computeCacheID(CacheIDStream& stream) override { stream << m_channels; }
    uint64_t computeOutputChannels() override { return getDefinedInputChannels(0) | m_channels; }
    UTIL::Region computeOutputDataRegion() override { return getDefinedInputDataRegion(0); }
    void makeInputFormatRequests() override {
        addInputRequest(0, getRequiredOutputChannels() & getDefinedInputChannels(0));
    }
    void computeRequiredInputRectangles(const UTIL::Rect& outputRect,
                                        std::vector<UTIL::Rect>& inputRects) override {
        inputRects.assign(1, outputRect);
    }
    void renderRect(const IMGLIB::Image* out,
                    const std::vector<const IMGLIB::Image*>& inputs) override {
        const IMGLIB::Image* in = inputs.empty() ? nullptr : inputs[0];
        if (!in || in->channels != out->channels) {
            const Imath::Color4<float>& bg = getBackgroundColor();
            const float rgba[4] = {bg.r, bg.g, bg.b, bg.a};
            checkImglib(IMGLIB::Fill(out, rgba), getNameAtTime());
        }
        if (in) checkImglib(IMGLIB::CopyChannelsInto(out, in), getNameAtTime());
    }

private:
    uint64_t m_channels;
};

// Every task reachable from the outputs, each once, consumers before their
// inputs (breadth first).
std::vector<TaskPtr> collectGraph(const std::vector<RenderOutput>& outputs) {
    std::vector<TaskPtr> tasks;
    std::set<const Imp*> seen;
    for (const RenderOutput& output : outputs)
        if (seen.insert(&output.task->imp()).second) tasks.push_back(output.task);
    for (size_t i = 0; i < tasks.size(); ++i)
        for (const TaskPtr& input : tasks[i]->imp().m_inputTasks)
            if (seen.insert(&input->imp()).second) tasks.push_back(input);
    return tasks;
}

// Consumers of each task in the graph, counted per input slot.
using ConsumerCounts = std::map<const Imp*, uint64_t>;
ConsumerCounts countConsumers(const std::vector<TaskPtr>& tasks) {
    ConsumerCounts counts;
    for (const TaskPtr& task : tasks)
        for (const TaskPtr& input : task->imp().m_inputTasks) ++counts[&input->imp()];
    return counts;
}

uint64_t consumersOf(const ConsumerCounts& counts, const Imp& imp) {
    const auto it = counts.find(&imp);
    return it == counts.end() ? 0 : it->second;
}

bool isCollapsible(const ConsumerCounts& counts, Imp& imp) {
    return dynamic_cast<InPlaceTask*>(&imp.task()) && consumersOf(counts, imp) <= 1;
}

// Merges runs of in-place tasks with one consumer at most, from the top of
// each run down its single-input chain. A task a running render uses keeps
// its operators.
void collapseInPlaceChains(const std::vector<TaskPtr>& tasks, const ConsumerCounts& counts) {
    std::set<const Imp*> absorbed;
    for (const TaskPtr& task : tasks) {
        Imp& imp = task->imp();
        if (absorbed.count(&imp) || !isCollapsible(counts, imp) || imp.m_activeRenders > 0)
            continue;
        std::vector<TaskPtr> chain{task};
        for (TaskPtr next = imp.m_inputTasks[0];
             consumersOf(counts, next->imp()) == 1 && isCollapsible(counts, next->imp());
             next = next->imp().m_inputTasks[0]) {
            chain.push_back(next);
            absorbed.insert(&next->imp());
        }
        if (chain.size() >= 2) InPlaceTask::collapseChain(chain);
    }
}

// Lets each task that can take over its first input's work do so, as long
// as nothing else consumes that input and no running render uses the task.
void absorbInputs(const std::vector<TaskPtr>& tasks, const ConsumerCounts& counts) {
    std::set<const Imp*> absorbed;
    for (const TaskPtr& task : tasks) {
        auto* absorber = dynamic_cast<InputAbsorber*>(task.get());
        Imp& imp = task->imp();
        if (!absorber || absorbed.count(&imp) || imp.m_inputTasks.empty() ||
            imp.m_activeRenders > 0)
            continue;
        const TaskPtr input = imp.m_inputTasks[0];
        if (consumersOf(counts, input->imp()) == 1 && !input->imp().m_inputTasks.empty() &&
            absorber->absorbInput(*input)) {
            imp.replaceInput(0, input->imp().m_inputTasks[0]);
            absorbed.insert(&input->imp());
        }
    }
}

}  // namespace

RenderPlan::RenderPlan()
    : m_tileWidth(static_cast<int>(RenderManager::getGlobalTileWidth())),
      m_tileHeight(static_cast<int>(RenderManager::getGlobalTileHeight())) {}

RenderPlan::~RenderPlan() {
    end();
}

RenderNode* RenderPlan::findNode(const Imp& imp) const {
    const auto it = m_nodeOf.find(&imp);
    return it == m_nodeOf.end() ? nullptr : it->second;
}

RenderNode& RenderPlan::nodeFor(const TaskPtr& task) {
    if (RenderNode* node = findNode(task->imp())) return *node;
    // Iterative: a graph may be a chain deeper than the stack.
    std::vector<TaskPtr> pending{task};
    while (!pending.empty()) {
        const TaskPtr current = pending.back();
        Imp& imp = current->imp();
        if (findNode(imp)) {
            pending.pop_back();
            continue;
        }
        bool inputsReady = true;
        for (const TaskPtr& input : imp.m_inputTasks)
            if (!findNode(input->imp())) {
                pending.push_back(input);
                inputsReady = false;
            }
        if (!inputsReady) continue;
        pending.pop_back();
        m_nodes.push_back(std::make_unique<RenderNode>(current, *this));
        RenderNode* node = m_nodes.back().get();
        node->m_depthFirstOrder = uint32_t(m_nodes.size() - 1);
        for (const TaskPtr& input : imp.m_inputTasks)
            node->m_inputs.push_back(findNode(input->imp()));
        m_nodeOf[&imp] = node;
    }
    return *findNode(task->imp());
}

std::unique_ptr<RenderPlan> RenderPlan::setUp(const std::vector<RenderOutput>& requested,
                                              const std::vector<IMGLIB::Image>& destinations) {
    auto plan = std::make_unique<RenderPlan>();
    std::vector<RenderOutput> outputs = requested;
    {
        std::lock_guard<std::mutex> lock(s_setUpMutex);
        plan->describeAndReshape(outputs);
    }
    plan->build(outputs, destinations);
    return plan;
}

void RenderPlan::describeAndReshape(std::vector<RenderOutput>& outputs) {
    m_id = ++s_renderCount;

    RenderManager::debugLine(">>>>>> Collapsing in place ops...");
    {
        const std::vector<TaskPtr> tasks = collectGraph(outputs);
        const ConsumerCounts counts = countConsumers(tasks);
        collapseInPlaceChains(tasks, counts);
        absorbInputs(tasks, counts);
    }

    RenderManager::debugLine(">>>>>> Setting up to render outputs...");
    for (const RenderOutput& output : outputs) output.task->imp().ensureOutputDescription();
    // Outputs that cannot use their task's own tiles get a copy of it.
    // A task asked for twice serves neither output itself: its copies consume it.
    const ConsumerCounts asked = countConsumers(collectGraph(outputs));
    std::map<const Imp*, int> timesAsked;
    for (const RenderOutput& output : outputs) ++timesAsked[&output.task->imp()];
    for (RenderOutput& output : outputs) {
        Imp& imp = output.task->imp();
        const uint64_t channels = IMGLIB::ValidateChannelMask(output.channels);
        if (consumersOf(asked, imp) > 0 || timesAsked[&imp] > 1 ||
            (channels & ~imp.m_definedOutputChannels) != 0) {
            output.task = TaskPtr(new OutputCopyTask(output.task, channels));
            output.task->imp().ensureOutputDescription();
        }
    }

    // Tasks merged into others have left the graph.
    m_tasks = collectGraph(outputs);
    for (const TaskPtr& task : m_tasks) {
        ++task->imp().m_activeRenders;
        task->imp().m_finalRenderTaskID = m_id;
    }
}

void RenderPlan::build(const std::vector<RenderOutput>& outputs,
                       const std::vector<IMGLIB::Image>& destinations) {
    // Nodes are made inputs first, from the outputs: their order is a
    // depth-first one.
    for (const RenderOutput& output : outputs) nodeFor(output.task);
    for (const TaskPtr& task : m_tasks) nodeFor(task);
    for (const auto& node : m_nodes)
        for (RenderNode* input : node->m_inputs) ++input->m_outputTaskCount;

    for (const RenderOutput& output : outputs) {
        if (!RenderManager::getRenderDebug()) break;
        const Imp& imp = output.task->imp();
        std::ostringstream line;
        line << imp.m_nameAtTime << " Channels: " << IMGLIB::GetChannelMaskName(output.channels)
             << " Area: " << imp.m_definedOutputDataRegion << " RequestedArea: " << output.rect;
        RenderManager::debugLine(line.str());
    }

    // The output tiles: final tile i of the render sets bit i.
    for (const RenderOutput& output : outputs) {
        if (m_outputs.size() <= output.outputIndex) m_outputs.resize(output.outputIndex + 1);
        if (!m_outputs[output.outputIndex])
            m_outputs[output.outputIndex] = std::make_unique<OutputState>();
        OutputState& state = *m_outputs[output.outputIndex];
        RenderNode& node = nodeFor(output.task);
        state.taskName = node.name();
        if (output.outputIndex < destinations.size())
            state.destination = destinations[output.outputIndex];
        UTIL_ASSERT_TEXT(node.m_outputTaskCount == 0, "m_outputTaskCount == 0");
        node.requireOutputChannels(output.channels);
        node.checkTileGrid(output.rect, "Render: output " + std::to_string(output.outputIndex));
        std::vector<TileID> ids;
        TileID::convertToTileIDs(output.rect, ids, node.tileWidth(), node.tileHeight());
        for (const TileID& id : ids) {
            TilePtr tile = node.getOrCreateTile(id);
            tile->markFinal(output.rect.intersection(id.rect()),
                            static_cast<unsigned>(finalTiles.size()), output.outputIndex);
            finalTiles.push_back(tile);
        }
        state.tiles += ids.size();
    }
    for (const TilePtr& tile : finalTiles) tile->resizeFinalTiles(finalTiles.size());

    // Sources that read any rectangle cheaply and no tile cache keeps may be
    // read by their consumers directly (their outputs keep their tiles).
    const bool cacheKeepsTiles = RenderManager::getSpeculativeCachingEnable();
    for (const auto& node : m_nodes) {
        const bool may = dynamic_cast<DirectSource*>(&node->task()) && node->m_inputs.empty() &&
                         !(cacheKeepsTiles && node->imp().m_caching) && !node->hasTiles();
        node->m_directRead =
            may ? RenderNode::DirectRead::Undecided : RenderNode::DirectRead::Never;
    }

    // Top-down, breadth first: a task sets up its requests once every
    // consumer has asked all its tiles of it.
    RenderManager::debugLine(">>>>>> Setting up Task requests...");
    std::deque<RenderNode*> queue;
    for (const RenderOutput& output : outputs) {
        RenderNode* node = &nodeFor(output.task);
        node->m_stage = RENDERSTAGE_ReadyToSetUpInputRequests;
        queue.push_back(node);
    }
    while (!queue.empty()) {
        RenderNode* node = queue.front();
        queue.pop_front();
        tileCount += node->setUp(readyTiles);
        for (RenderNode* input : node->m_inputs) {
            UTIL_ASSERT_TEXT(input->m_stage != RENDERSTAGE_ReadyToSetUpInputRequests,
                             "m_renderStage != RENDERSTAGE_ReadyToSetUpInputRequests");
            if (++input->m_consumersDoneCount == input->m_outputTaskCount) {
                input->m_stage = RENDERSTAGE_ReadyToSetUpInputRequests;
                queue.push_back(input);
            }
        }
    }
}

void RenderPlan::end() {
    if (m_ended) return;
    m_ended = true;
    for (const auto& node : m_nodes)
        for (auto& entry : node->takeTiles()) entry.second->release();
    for (const TilePtr& tile : finalTiles) tile->release();
    for (const TilePtr& tile : readyTiles) tile->release();
    finalTiles.clear();
    readyTiles.clear();
    // A render that ended early is done with the tasks it started.
    for (const auto& node : m_nodes) {
        try {
            node->leaveSession();
        } catch (const std::exception& e) {
            std::cerr << node->imp().m_nameAtTime << ": postRender failed: " << e.what()
                      << std::endl;
        }
    }
    for (const TaskPtr& task : m_tasks) --task->imp().m_activeRenders;
}

bool RenderPlan::outputTileDelivered(size_t outputIndex) {
    OutputState& state = *m_outputs.at(outputIndex);
    return ++state.delivered == state.tiles;
}

uint64_t RenderPlan::outputTileCount(size_t outputIndex) const {
    return outputIndex < m_outputs.size() && m_outputs[outputIndex] ? m_outputs[outputIndex]->tiles
                                                                    : 0;
}

const IMGLIB::Image& RenderPlan::destination(size_t outputIndex) const {
    static const IMGLIB::Image none;
    return outputIndex < m_outputs.size() && m_outputs[outputIndex]
               ? m_outputs[outputIndex]->destination
               : none;
}

std::string RenderPlan::undeliveredOutputs() const {
    std::ostringstream os;
    for (size_t i = 0; i < m_outputs.size(); ++i) {
        if (!m_outputs[i] || m_outputs[i]->delivered == m_outputs[i]->tiles) continue;
        if (os.tellp() > 0) os << "; ";
        os << "output " << i << " (task " << m_outputs[i]->taskName
           << "): " << m_outputs[i]->delivered << " of " << m_outputs[i]->tiles
           << " tiles delivered";
    }
    return os.str();
}

}  // namespace Private
}  // namespace TESSERA
