// SpeculativeCache: finished tile images kept alive for later renders.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "imagebuffer.h"
#include "rendersystem/images/cachedata.h"
#include "xml/element.h"

namespace TESSERA {
namespace Private {

class ImageAllocator;

// Holds images whose last handle went away, betting that a later render
// asks for the same tile of the same task again. Entries are ranked by
// priority x weight (then priority); the lowest go first when the allocator
// needs memory, and only they may be displaced by a newcomer.
//
// m_mutex guards everything. The allocator calls release() while holding its
// memory mutex, so this mutex nests inside that one; release() and clear()
// therefore destroy images (which un-accounts them under the memory mutex)
// only after letting go of m_mutex.
class SpeculativeCache {
public:
    explicit SpeculativeCache(ImageAllocator& allocator) : m_allocator(allocator) {}
    ~SpeculativeCache();
    SpeculativeCache(const SpeculativeCache&) = delete;
    SpeculativeCache& operator=(const SpeculativeCache&) = delete;

    void setEnabled(bool enabled);
    bool isEnabled() const;

    // Whether the cache takes an image whose last handle is going away, given
    // the allocator's usage and budget. Accepting evicts nothing yet.
    bool offer(ImageBuffer::Impl* image, int64_t memUsage, int64_t maxMemory) const;
    // Takes an accepted image (in memory, with cache data) by pointer.
    void insert(ImageBuffer::Impl* image);
    // Hands the image of this tile out of the cache, or a null buffer.
    ImageBuffer lookup(const std::string& cacheID, const TileID& tile);
    // Destroys the lowest entries until `bytes` are freed; returns the bytes freed.
    int64_t release(int64_t bytes);
    // Destroys every entry.
    void clear();
    // Drops the entries of the tasks with these cache IDs.
    void forget(const std::set<std::string>& cacheIDs);

    int64_t getMemoryUsage() const;
    uint64_t getHits() const;
    size_t getEntryCount() const;
    void resetStatistics();

    // "Speculative Cache" statistics block, appended to parent.
    void addStatistics(Orrery3::XmlIO::v1::Element& parent) const;
    // "ramCache" with one "cacheRecord" per entry, lowest score first.
    Orrery3::XmlIO::v1::ElementPtr getContents() const;

private:
    // (priority x weight, priority, insertion number): the number keeps two
    // entries that score the same apart.
    using Score = std::tuple<float, float, uint64_t>;
    static Score scoreOf(const CacheData& data, uint64_t sequence);
    void removeEntry(ImageBuffer::Impl* image);

    ImageAllocator& m_allocator;
    mutable std::mutex m_mutex;
    std::set<ImageBuffer::Impl*> _cache;
    std::map<std::string, ImageBuffer::Impl*> _cacheSortedByCacheKey;
    std::map<Score, ImageBuffer::Impl*> _cacheSortedByPriority;
    std::map<ImageBuffer::Impl*, Score> m_scoreOf;
    uint64_t m_sequence = 0;
    bool m_enabled = true;
    uint64_t m_hits = 0;
    int64_t m_memoryUsage = 0;
};

}  // namespace Private
}  // namespace TESSERA
