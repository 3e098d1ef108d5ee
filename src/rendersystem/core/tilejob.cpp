#include "rendersystem/core/tilejob.h"

#include <chrono>

#include "exceptions.h"
#include "rendersystem/core/renderplan.h"
#include "rendersystem/images/imageallocator.h"
#include "util/exceptions.h"

UTIL_ASSERT_SOURCE("rendersystem/core/tile")

namespace TESSERA {
namespace Private {

void ReadyTiles::add(const TilePtr& tile) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_tiles.push_back(tile);
}

std::vector<TilePtr> ReadyTiles::take() {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<TilePtr> tiles;
    tiles.swap(m_tiles);
    return tiles;
}

void TileJob::run() {
    Tile& tile = *m_tile;
    RenderNode& task = *tile.getTask();
    const RenderTask::Imp& imp = task.imp();
    double seconds = 0.0;
    if (!tile.hasImage() && !tile.tryViewPixels() && !tile.tryForwardInput() &&
        !tile.tryGetFromSpeculativeCache()) {
        const auto start = std::chrono::steady_clock::now();
        UTIL_ASSERT(tile.getStage() == InRenderQueue);
        tile.setStage(Rendering);
        ImageBuffer image = tile.createImage();
        {
            ImageBuffer_LockScoper lock(image);
            task.renderTile(tile, image.getImage());
            tile.releaseInputTiles();
            // A task that stopped early when asked (CheckAbort) left a
            // partial tile: it is neither kept nor delivered.
            if (task.cancelled()) {
                tile.setImage(ImageBuffer());
                throw RenderCancelledException("Render cancelled.");
            }
            seconds =
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            if (imp.m_caching && !tile.inDestination()) {
                CacheDataPtr data(new CacheData);
                data->cacheID = imp.m_compressedCacheID;
                data->tileID = tile.getTileID();
                data->taskName = imp.m_name;
                data->taskDescription = imp.m_typeString;
                data->taskValue1 = imp.m_diskCacheEnabled ? 1 : 0;
                data->taskValue2 = static_cast<int32_t>(task.m_outputTaskCount);
                data->priority = imp.getCachePriority(seconds);
                ImageAllocator::instance().markCacheable(image, data);
            }
        }
    } else {
        task.lastTileCheck();
        tile.releaseInputTiles();
    }
    tile.setStage(FinishedRendering);
    m_observer->internalTileDone(imp.m_name, imp.m_typeString, seconds);

    if (tile.isFinal()) {
        m_observer->tileDone(tile.getImage(),
                             OutputTileID{tile.getOutputIndex(), tile.getTileID()});
        // Counted after delivery: another worker may still be handing over
        // a tile that finished rendering before this one.
        if (task.plan().outputTileDelivered(tile.getOutputIndex()))
            m_observer->outputFinished(tile.getOutputIndex());
        task.removeTile(tile.getTileID());
        // The render keeps its final tiles until it ends, their images only
        // as long as the observer does: a render larger than memory streams.
        tile.release();
        return;
    }
    for (const TilePtr& dependent : tile.takeDependents())
        if (dependent->inputTileDone()) {
            dependent->setStage(InRenderQueue);
            m_ready->add(dependent);
        }
}

}  // namespace Private
}  // namespace TESSERA
