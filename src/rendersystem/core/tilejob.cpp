#include "rendersystem/core/tilejob.h"

#include <chrono>

#include "rendersystem/core/rendertask_imp.h"
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
    RenderTask::Imp& task = *tile.getTask();
    double seconds = 0.0;
    if (!tile.hasImage() && !tile.tryViewPixels() && !tile.tryGetFromSpeculativeCache()) {
        const auto start = std::chrono::steady_clock::now();
        UTIL_ASSERT(tile.getStage() == InRenderQueue);
        tile.setStage(Rendering);
        ImageBuffer image = tile.createImage();
        {
            ImageBuffer_LockScoper lock(image);
            task.renderTile(tile, image.getImage());
            tile.releaseInputTiles();
            seconds =
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            if (task.m_caching) {
                CacheDataPtr data(new CacheData);
                data->cacheID = task.m_compressedCacheID;
                data->tileID = tile.getTileID();
                data->taskName = task.m_name;
                data->taskDescription = task.m_typeString;
                data->taskValue1 = task.m_diskCacheEnabled ? 1 : 0;
                data->taskValue2 = static_cast<int32_t>(task.m_outputTaskCount);
                data->priority = task.getCachePriority(seconds);
                ImageAllocator::instance().markCacheable(image, data);
            }
        }
    } else {
        task.lastTileCheck();
        tile.releaseInputTiles();
    }
    tile.setStage(FinishedRendering);
    m_observer->internalTileDone(task.m_name, task.m_typeString, seconds);

    if (tile.isFinal()) {
        m_observer->tileDone(tile.getImage(),
                             OutputTileID{tile.getOutputIndex(), tile.getTileID()});
        // Counted after delivery: another worker may still be handing over
        // a tile that finished rendering before this one.
        if (task.m_deliveriesLeft.fetch_sub(1) == 1)
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
