// TileJob: renders one tile on a worker thread and releases its dependents.
#pragma once

#include <mutex>
#include <vector>

#include "private/tile.h"
#include "renderobserver.h"
#include "util/job.h"

namespace TESSERA {
namespace Private {

// The tiles a job made ready, for the controller to schedule. Guarded by
// its own mutex: every job of a render appends to the same list.
class ReadyTiles {
public:
    void add(const TilePtr& tile);
    std::vector<TilePtr> take();

private:
    std::mutex m_mutex;
    std::vector<TilePtr> m_tiles;
};

class TileJob : public Util::Job {
public:
    TileJob(TilePtr tile, RenderObserverPtr observer, ReadyTiles* ready, uint64_t priority)
        : m_tile(std::move(tile)),
          m_observer(std::move(observer)),
          m_ready(ready),
          m_priority(priority) {}

    // Renders the tile (or takes it from the tile cache), reports it, and
    // queues the dependents whose last input it was. Failures propagate.
    void run() override;
    uint64_t getPriority() const override { return m_priority; }
    const TilePtr& getTile() const { return m_tile; }

private:
    TilePtr m_tile;
    RenderObserverPtr m_observer;
    ReadyTiles* m_ready;
    uint64_t m_priority;
};

}  // namespace Private
}  // namespace TESSERA
