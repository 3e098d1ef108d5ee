// RenderNode: one task in one render.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "imagebuffer.h"
#include "imglib/extend.h"
#include "imglib/image.h"
#include "private/tile.h"
#include "rendersystem/core/rendertask_imp.h"
#include "tileid.h"
#include "util/rect.h"

namespace TESSERA {
namespace Private {

class InputRequest;
class RenderPlan;

// What a render asks of one task: the requests the task makes of its
// inputs, the channels its consumers want, its tiles and how many are left.
// A task in two renders at once has a node in each; the task itself keeps
// only what does not depend on the render (Imp).
//
// The task's hooks reach their node through the thread's current node
// (Scope), set while the render calls them: set-up on the set-up thread,
// rendering on a worker. Set-up fills the requests and channels before any
// tile renders; afterwards they are read-only. m_tileMapMutex guards the
// tile map; tiles left and the session flags are guarded by the task's
// render lock (Imp::m_renderLock), the full-frame state by m_fullFrameLock.
class RenderNode {
public:
    // Holds the task for as long as the node lives.
    RenderNode(const TaskPtr& task, RenderPlan& plan);
    ~RenderNode();

    RenderTask::Imp& imp() const { return m_imp; }
    RenderTask& task() const { return m_imp.task(); }
    RenderPlan& plan() const { return m_plan; }
    const std::string& name() const { return m_imp.m_name; }

    // The node whose task's hooks the calling thread is running for `imp`,
    // or null.
    static RenderNode* current(const RenderTask::Imp& imp);
    // Makes a node current on this thread for its lifetime.
    class Scope {
    public:
        explicit Scope(RenderNode& node);
        ~Scope();
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

    private:
        RenderNode* m_previous;
    };

    // ---- Set-up ----
    void addInputRequest(size_t inputID, uint64_t channels, IMGLIB::ExtendMethod method,
                         bool extendWithOverscan, const UTIL::Rect& inputDisplayRect);
    uint64_t getRequiredInputChannels(int64_t whichInput) const;
    const InputRequest* getInputRequest(size_t inputID) const;
    // The channels consumers want that the task defines.
    void requireOutputChannels(uint64_t channels);
    uint64_t requiredOutputChannels() const { return m_requiredOutputChannels; }
    // The task's tiles over an area, on this render's grid. An area whose
    // tiles the grid cannot name, or too many of them, throws
    // UTIL::ErrorException naming `what`, the task and the area.
    static constexpr uint64_t kMaxTilesPerArea = uint64_t(1) << 20;
    void checkTileGrid(const UTIL::Rect& area, const std::string& what) const;
    void tileIDs(const UTIL::Region& area, std::vector<TileID>& out) const;
    int tileWidth() const;
    int tileHeight() const;
    // Makes the task's requests and sets up every tile asked of it (tiles
    // ready at once are appended to readyTiles). Returns the tile count.
    uint64_t setUp(std::vector<TilePtr>& readyTiles);

    TilePtr getOrCreateTile(const TileID& id);
    void removeTile(const TileID& id);
    std::map<TileID, TilePtr> takeTiles();
    bool hasTiles();

    // ---- Rendering ----
    // Renders one tile into output (the tile's locked image): preRender once,
    // input images, the task's render over the defined part of the tile.
    // True when this was the task's last tile in this render.
    bool renderTile(Tile& tile, const IMGLIB::Image* output);
    // The task's pixels over rect, for a consumer reading a direct source:
    // preRender once, then the task's render, on the calling thread.
    ImageBuffer renderDirect(const UTIL::Rect& rect);
    // Counts a tile that needed no rendering; true when it was the last.
    bool lastTileCheck();
    // The render is done with the task (also when it ended early).
    void leaveSession();
    bool cancelled() const;

    // The one image of a task rendered full frame, and what it was asked.
    struct FullFrame {
        std::mutex lock;
        UTIL::Rect requiredOutputRect;
        std::vector<UTIL::Rect> requiredInputRects;
        ImageBuffer outputBuffer;
    };
    FullFrame& fullFrame() { return m_fullFrame; }

    std::vector<RenderNode*> m_inputs;  // the nodes of the task's inputs, slot by slot
    // The node's place in a depth-first walk from the outputs (inputs
    // before their consumer, one input's sub-graph after another).
    uint32_t m_depthFirstOrder = 0;
    RenderStage m_stage = RENDERSTAGE_ComputeOutputDescription;
    uint64_t m_outputTaskCount = 0;  // consumers in this render, per input slot
    uint64_t m_consumersDoneCount = 0;
    // Whether consumers read the task directly (DirectSource) instead of
    // through tiles. The plan says whether they may; the first consumer set
    // up decides (decideDirectReads), before any tile renders.
    enum class DirectRead { Never, Undecided, Always };
    DirectRead m_directRead = DirectRead::Never;
    bool readsDirectly() const { return m_directRead == DirectRead::Always; }

private:
    void setUpTile(const TilePtr& tile);
    // Decides m_directRead of the inputs still undecided from what the
    // largest of `tiles` fetches of them.
    void decideDirectReads(const std::vector<TilePtr>& tiles);
    void runPreRender();
    // Renders the task into output (preRender already run): the
    // background colour outside its data.
    void renderInto(const IMGLIB::Image* output, std::vector<ImageBuffer>& inputs,
                    bool mayMissData);
    void leaveSessionLocked();

    TaskPtr m_task;
    RenderTask::Imp& m_imp;
    RenderPlan& m_plan;
    std::vector<std::unique_ptr<InputRequest>> m_inputRequests;
    uint64_t m_requiredOutputChannels = 0;

    std::mutex m_tileMapMutex;
    std::map<TileID, TilePtr> m_tileMap;
    uint64_t m_tilesLeft = 0;  // guarded by the task's render lock
    bool m_joined = false;     // ran preRender or joined the task's session
    bool m_left = false;
    FullFrame m_fullFrame;
};

}  // namespace Private
}  // namespace TESSERA
