#include "rendersystem/images/speculativecache.h"

#include <sstream>

#include "private/statistics.h"
#include "rendersystem/images/imageallocator.h"
#include "rendersystem/images/imagebuffer_imp.h"
#include "util/exceptions.h"

UTIL_ASSERT_SOURCE("rendersystem/images/speculativecache")

namespace TESSERA {
namespace Private {

using Impl = ImageBuffer::Impl;

std::string CacheData::makeCacheKey(const std::string& cacheID, const TileID& tile) {
    std::ostringstream key;
    key << cacheID << '/' << tile.xIndex() << ',' << tile.yIndex() << '/' << tile.getTileWidth()
        << 'x' << tile.getTileHeight();
    return key.str();
}

SpeculativeCache::~SpeculativeCache() {
    clear();
}

SpeculativeCache::Score SpeculativeCache::scoreOf(const CacheData& data, uint64_t sequence) {
    return Score(data.priority * data.weight, data.priority, sequence);
}

void SpeculativeCache::setEnabled(bool enabled) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_enabled = enabled;
}

bool SpeculativeCache::isEnabled() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_enabled;
}

bool SpeculativeCache::offer(Impl* image, int64_t memUsage, int64_t maxMemory) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_enabled || !image->isInRam() || !image->m_cacheData) return false;
    const CacheData& data = *image->m_cacheData;
    // The cache already holds these pixels (the tile was rendered again while
    // the first image was still in use).
    if (_cacheSortedByCacheKey.count(data.cacheKey())) return false;
    const int64_t size = image->size();
    if (size + memUsage < maxMemory) return true;
    const float product = data.priority * data.weight;
    int64_t displaced = 0;
    for (const auto& [score, held] : _cacheSortedByPriority) {
        const bool lower = std::get<0>(score) < product ||
                           (std::get<0>(score) == product && std::get<1>(score) < data.priority);
        if (!lower) return false;
        displaced += held->size();
        if (displaced >= size) return true;
    }
    return false;
}

void SpeculativeCache::insert(Impl* image) {
    std::lock_guard<std::mutex> lock(m_mutex);
    UTIL_ASSERT(image->isInRam());
    UTIL_ASSERT(image->getCacheData());
    UTIL_ASSERT(_cache.find(image) == _cache.end());
    const std::string ck = image->m_cacheData->cacheKey();
    const Score p = scoreOf(*image->m_cacheData, m_sequence++);
    UTIL_ASSERT(_cacheSortedByCacheKey.count(ck) == 0);
    UTIL_ASSERT(_cacheSortedByPriority.count(p) == 0);
    _cache.insert(image);
    _cacheSortedByCacheKey.emplace(ck, image);
    _cacheSortedByPriority.emplace(p, image);
    m_scoreOf.emplace(image, p);
    m_memoryUsage += image->size();
}

void SpeculativeCache::removeEntry(Impl* image) {
    _cache.erase(image);
    _cacheSortedByCacheKey.erase(image->m_cacheData->cacheKey());
    auto score = m_scoreOf.find(image);
    _cacheSortedByPriority.erase(score->second);
    m_scoreOf.erase(score);
    m_memoryUsage -= image->size();
    UTIL_ASSERT(m_memoryUsage >= 0);
}

ImageBuffer SpeculativeCache::lookup(const std::string& cacheID, const TileID& tile) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_enabled) return ImageBuffer();
    auto it = _cacheSortedByCacheKey.find(CacheData::makeCacheKey(cacheID, tile));
    if (it == _cacheSortedByCacheKey.end()) return ImageBuffer();
    Impl* cachedImage = it->second;
    // The handle is made before anything can throw: dropping it here would
    // offer the image back to this cache under its own mutex.
    ImageBuffer result = ImageBufferAccess::wrap(cachedImage);
    UTIL_ASSERT_TEXT(!result.isNull(), "!ImageBuffer(cachedImage).isNull()");
    removeEntry(cachedImage);
    ++m_hits;
    return result;
}

int64_t SpeculativeCache::release(int64_t bytes) {
    std::vector<Impl*> victims;
    int64_t freed = 0;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        while (!_cacheSortedByPriority.empty() && freed < bytes) {
            Impl* lowest = _cacheSortedByPriority.begin()->second;
            removeEntry(lowest);
            if (lowest->isInRam()) freed += lowest->size();
            victims.push_back(lowest);
        }
    }
    // Destroyed outside m_mutex, like clear() (the images are no longer
    // reachable through the cache, and nobody else holds them).
    for (Impl* image : victims) m_allocator.destroy(image);
    return freed;
}

void SpeculativeCache::clear() {
    std::set<Impl*> images;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        images.swap(_cache);
        _cacheSortedByCacheKey.clear();
        _cacheSortedByPriority.clear();
        m_scoreOf.clear();
        m_memoryUsage = 0;
    }
    // Destroying un-accounts memory under the allocator's memory mutex, which
    // must not be taken inside this cache's mutex.
    for (Impl* image : images) m_allocator.destroy(image);
}

void SpeculativeCache::forget(const std::set<std::string>& cacheIDs) {
    std::vector<Impl*> images;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (Impl* image : _cache)
            if (cacheIDs.count(image->m_cacheData->cacheID)) images.push_back(image);
        for (Impl* image : images) removeEntry(image);
    }
    // Destroyed outside this cache's mutex, as clear() does.
    for (Impl* image : images) m_allocator.destroy(image);
}

int64_t SpeculativeCache::getMemoryUsage() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_memoryUsage;
}

uint64_t SpeculativeCache::getHits() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_hits;
}

size_t SpeculativeCache::getEntryCount() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return _cache.size();
}

void SpeculativeCache::resetStatistics() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_hits = 0;
}

void SpeculativeCache::addStatistics(Orrery3::XmlIO::v1::Element& parent) const {
    Orrery3::XmlIO::v1::ElementPtr block = addStatisticsBlock(parent, "Speculative Cache");
    addStatisticsEntry(*block, "Memory Usage", getMemoryUsage());
    addStatisticsEntry(*block, "Hits", getHits());
}

Orrery3::XmlIO::v1::ElementPtr SpeculativeCache::getContents() const {
    using Orrery3::XmlIO::v1::Element;
    Orrery3::XmlIO::v1::ElementPtr root = Element::create("ramCache");
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const auto& [score, image] : _cacheSortedByPriority) {
        const CacheData& d = *image->m_cacheData;
        Orrery3::XmlIO::v1::ElementPtr record = root->addChild("cacheRecord");
        record->setAttr("cacheID", d.cacheID);
        record->setAttr("tileX", static_cast<int>(d.tileID.xIndex()));
        record->setAttr("tileY", static_cast<int>(d.tileID.yIndex()));
        record->setAttr("tileWidth", static_cast<int>(d.tileID.getTileWidth()));
        record->setAttr("tileHeight", static_cast<int>(d.tileID.getTileHeight()));
        record->setAttr("taskName", d.taskName);
        record->setAttr("taskDescription", d.taskDescription);
        record->setAttr("taskValue1", static_cast<int>(d.taskValue1));
        record->setAttr("taskValue2", static_cast<int>(d.taskValue2));
        record->setAttr("weight", static_cast<double>(d.weight));
        record->setAttr("priority", static_cast<double>(d.priority));
        record->setAttr("size", image->size());
    }
    return root;
}

}  // namespace Private
}  // namespace TESSERA
