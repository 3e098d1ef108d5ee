// Tile: one tile of one task in one render, and its place in the render's
// dependency graph.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "imagebuffer.h"
#include "private/dynamicbitset.h"
#include "rendertask.h"
#include "tileid.h"
#include "util/rect.h"
#include "util/ref_ptr.h"

namespace TESSERA {
namespace Private {

class RenderNode;

enum TileStage : int32_t {
    Created = 0,            // collecting dependents and inputs
    InputRequestsDone = 1,  // waiting for at least one input tile
    InputsReady = 2,        // every input is done, or the image came from the cache
    InRenderQueue = 3,      // handed to the controller
    Rendering = 4,
    FinishedRendering = 5,  // image available
};

class Tile;
using TilePtr = RCX_ptr_v4::ref_ptr<Tile>;

// A tile knows the tiles that consume it (its dependents), how many input
// tiles it waits for, which final tiles of the render need it (a bit each)
// and the pixel area its consumers asked for. Every operation takes the
// tile's recursive mutex.
//
// References: a tile holds its dependents until it has told them it is done,
// and its input tiles until it has rendered; Release() cuts both for a render
// that ends early, so no cycle outlives a render.
class Tile : public ThreadSafeRefBase {
public:
    Tile(const TileID& id, RenderNode* task);
    ~Tile() override;

    const TileID& getTileID() const { return m_tileID; }
    RenderNode* getTask() const { return m_task; }
    UTIL::Rect getRect() const;
    // "Tile x,y of NAME".
    std::string describe() const;

    // Makes this a final tile: bit index set, the area given.
    void markFinal(const UTIL::Rect& rect, unsigned index, size_t outputIndex);
    bool isFinal() const;
    size_t getOutputIndex() const { return m_outputIndex; }
    // Sizes the bit set to the render's final-tile count (bits beyond cleared).
    void resizeFinalTiles(size_t count);

    // outputTile needs `requested` of this tile.
    void addDependent(const UTIL::Rect& requested, const TilePtr& outputTile);
    void addPendingInput();
    // The consumer side of addDependent: input tile `tile` feeds input slot `input`.
    void addInputTile(size_t input, const TilePtr& tile);
    // The rectangle asked of each input for this tile (null when none).
    void setInputRects(std::vector<UTIL::Rect> rects);
    void finishInputRequests();
    // An input tile finished; true when it was the last one.
    bool inputTileDone();
    // The smallest ordering value over the final tiles that need this tile.
    uint32_t getPriority(const std::vector<uint32_t>& finalTileOrdering) const;
    bool tryGetFromSpeculativeCache();
    // A tile of a task whose pixels already lie in memory takes a view of
    // them instead of being rendered; false when the task cannot give one.
    bool tryViewPixels();
    // The input's pixels as this tile's when the task forwards its input
    // over the tile (no copy when one input tile covers it); false when it
    // does not.
    bool tryForwardInput();
    ImageBuffer getImage() const;
    TileStage getStage() const;
    void setStage(TileStage stage);

    // Rendering (driven by a tile job).
    // The image a new render of this tile writes: output channels, the
    // tile's rect; for a final tile inside its output's destination, a
    // view of the destination.
    ImageBuffer createImage();
    // The tile's image is a view of its output's destination, which the
    // host owns: it is never kept past the render.
    bool inDestination() const;
    void setImage(const ImageBuffer& image);
    bool hasImage() const;
    // The consumer's input images, built by each input's request from the
    // input tiles' images.
    std::vector<ImageBuffer> buildInputImages() const;
    // Drops the input tiles (after rendering) and returns the dependents to
    // notify; the tile keeps no links afterwards.
    std::vector<TilePtr> takeDependents();
    void releaseInputTiles();
    // A dependent finished rendering; true when it was the last to read
    // this tile, which then leaves its task's tile map.
    bool readerDone();
    // Cuts every link (a render that ended early).
    void release();

    static uint64_t liveCount();

private:
    const TileID m_tileID;
    RenderNode* const m_task;
    UTIL::Rect m_rect;
    ImageBuffer m_image;
    uint64_t m_pendingInputs = 0;
    uint64_t m_finishedInputs = 0;
    std::vector<std::vector<TilePtr>> m_inputTiles;  // per input slot
    std::vector<UTIL::Rect> m_inputRects;
    std::vector<TilePtr> m_dependents;
    uint32_t m_readersLeft = 0;  // dependents that have not rendered yet
    mutable std::recursive_mutex m_mutex;
    TileStage m_stage = Created;
    DynamicBitSet m_finalTilesBitSet;
    size_t m_outputIndex = 0;
    bool m_final = false;
    bool m_inDestination = false;

    static std::atomic<uint64_t> s_liveTiles;
};

}  // namespace Private
}  // namespace TESSERA
