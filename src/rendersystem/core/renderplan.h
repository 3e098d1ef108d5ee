// RenderPlan: the nodes and tiles of one render, made by render set-up.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "imglib/image.h"
#include "private/tile.h"
#include "rendersystem/core/rendernode.h"
#include "rendertask.h"
#include "util/rect.h"

namespace TESSERA {
namespace Private {

// One output of a render: the task, the area and channels wanted of it.
struct RenderOutput {
    TaskPtr task;
    UTIL::Rect rect;
    uint64_t channels = 0;
    size_t outputIndex = 0;
};

// Set-up runs in two steps. Under one process-wide lock, shared by every
// render, it describes the outputs and changes the graph where a render
// allows it (chains of pixel-wise tasks collapse, a pass takes over its
// input's work): only tasks no running render uses are changed, so a
// running render never sees its graph change. Then, on its own nodes, it
// counts consumers, creates the output tiles and sets up every task's
// requests, outputs first.
//
// An output whose task is also an input of the render, or the task of an
// earlier output, or that is asked for channels its task does not define,
// is served by a copy of the task made for this render: every output has
// tiles of its own, and channels a task does not define come out as its
// background colour.
class RenderPlan {
public:
    // A plan without tiles, in which nodes are made on demand.
    RenderPlan();
    // Ends the render if end() was not called.
    ~RenderPlan();
    RenderPlan(const RenderPlan&) = delete;
    RenderPlan& operator=(const RenderPlan&) = delete;

    // destinations[i], when given with pixels, is the host's memory output
    // i's pixels go to: its tiles inside it are rendered there, not copied.
    static std::unique_ptr<RenderPlan> setUp(const std::vector<RenderOutput>& outputs,
                                             const std::vector<IMGLIB::Image>& destinations = {});
    // Cuts the links of every tile, ends every task's session and lets the
    // tasks go. Idempotent.
    void end();

    // The node of a task (made with the nodes of its inputs if needed).
    RenderNode& nodeFor(const TaskPtr& task);
    RenderNode* findNode(const RenderTask::Imp& imp) const;

    int64_t id() const { return m_id; }
    int tileWidth() const { return m_tileWidth; }
    int tileHeight() const { return m_tileHeight; }

    // Queued tiles stop; running ones notice (CheckAbort) and are dropped.
    void cancel() { m_cancelled = true; }
    bool cancelled() const { return m_cancelled; }

    // A final tile of an output was handed to the observer; true when it
    // was the output's last.
    bool outputTileDelivered(size_t outputIndex);
    // Empty when every output got every tile; otherwise names each output
    // and task that did not.
    std::string undeliveredOutputs() const;
    uint64_t outputTileCount(size_t outputIndex) const;
    // The memory an output's tiles are rendered in (no pixels when the host
    // gave none). Set before any tile renders, constant afterwards.
    const IMGLIB::Image& destination(size_t outputIndex) const;

    std::vector<TilePtr> readyTiles;  // can render now
    std::vector<TilePtr> finalTiles;  // index = the tile's final-tile bit
    uint64_t tileCount = 0;

private:
    struct OutputState {
        std::string taskName;
        uint64_t tiles = 0;
        std::atomic<uint64_t> delivered{0};
        IMGLIB::Image destination;
    };
    void describeAndReshape(std::vector<RenderOutput>& outputs);
    void build(const std::vector<RenderOutput>& outputs,
               const std::vector<IMGLIB::Image>& destinations);

    int64_t m_id = 0;
    int m_tileWidth;
    int m_tileHeight;
    std::atomic<bool> m_cancelled{false};
    bool m_ended = false;
    std::vector<TaskPtr> m_tasks;  // every task of the render, counted as active
    std::vector<std::unique_ptr<RenderNode>> m_nodes;
    std::map<const RenderTask::Imp*, RenderNode*> m_nodeOf;
    std::vector<std::unique_ptr<OutputState>> m_outputs;
};

}  // namespace Private
}  // namespace TESSERA
