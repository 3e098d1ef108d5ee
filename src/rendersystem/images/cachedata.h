// CacheData: what the speculative cache knows of one cacheable tile image.
#pragma once

#include <cstdint>
#include <string>

#include "tileid.h"
#include "util/ref_ptr.h"

namespace TESSERA {
namespace Private {

class CacheData : public ThreadSafeRefBase {
public:
    std::string cacheID;  // the task's cache ID
    TileID tileID;
    std::string taskName;
    std::string taskDescription;
    int32_t taskValue1 = 0;  // the task's caching settings, carried for reports
    int32_t taskValue2 = 0;
    float weight = 1.0f;    // the task's cache weight
    float priority = 0.0f;  // from the tile's render time

    // The key a lookup of this tile finds the image by.
    std::string cacheKey() const { return makeCacheKey(cacheID, tileID); }
    static std::string makeCacheKey(const std::string& cacheID, const TileID& tile);
};

using CacheDataPtr = RCX_ptr_v4::ref_ptr<CacheData>;

}  // namespace Private
}  // namespace TESSERA
