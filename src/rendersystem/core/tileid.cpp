#include "tileid.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <set>

#include "util/exceptions.h"

UTIL_ASSERT_SOURCE("rendersystem/core/tileid")

namespace TESSERA {
namespace {

// The index range of a grid axis: tile sizes and coordinates are divided in
// single precision, the settled rule for which tiles an area produces.
// Indices are 16-bit; values beyond that range are pinned to it.
int toIndex(float v) {
    return static_cast<int16_t>(std::clamp(v, -32768.0f, 32767.0f));
}

void indexRange(int64_t lo, int64_t hi, int size, int& first, int& end) {
    first = toIndex(std::floor(static_cast<float>(lo) / static_cast<float>(size)));
    end = toIndex(std::ceil(static_cast<float>(hi) / static_cast<float>(size)));
}

// Appends the tiles of one non-empty rectangle; at most one size is infinite.
template <class Sink>
void forEachTile(const UTIL::Rect& rect, int tileWidth, int tileHeight, Sink&& sink) {
    UTIL_ASSERT(!(tileWidth == TileID::INFINITE_SIZE && tileHeight == TileID::INFINITE_SIZE));
    int x0 = 0, x1 = 1, y0 = 0, y1 = 1;
    if (tileWidth != TileID::INFINITE_SIZE) indexRange(rect.xmin, rect.xmax, tileWidth, x0, x1);
    if (tileHeight != TileID::INFINITE_SIZE) indexRange(rect.ymin, rect.ymax, tileHeight, y0, y1);
    for (int y = y0; y < y1; ++y)
        for (int x = x0; x < x1; ++x)
            sink(TileID(static_cast<int16_t>(x), static_cast<int16_t>(y), tileWidth, tileHeight));
}

bool isFullFrame(int tileWidth, int tileHeight) {
    return tileWidth == TileID::INFINITE_SIZE && tileHeight == TileID::INFINITE_SIZE;
}

// The exact index range of a grid axis, in 64 bits.
void exactRange(int64_t lo, int64_t hi, int size, int64_t& first, int64_t& end) {
    const auto floorDiv = [](int64_t a, int64_t b) { return a / b - (a % b != 0 && a < 0); };
    first = floorDiv(lo, size);
    end = -floorDiv(-hi, size);
}

bool axisFits(int64_t lo, int64_t hi, int size) {
    if (size == TileID::INFINITE_SIZE) return true;
    if (size <= 0) return false;
    int64_t first = 0, end = 0;
    exactRange(lo, hi, size, first, end);
    return first >= -32768 && end <= 32767 && first * size >= INT32_MIN &&
           end * int64_t(size) <= INT32_MAX;
}

}  // namespace

bool TileID::fitsGrid(const UTIL::Rect& rect, int tileWidth, int tileHeight) {
    return rect.isNull() || (axisFits(rect.xmin, rect.xmax, tileWidth) &&
                             axisFits(rect.ymin, rect.ymax, tileHeight));
}

uint64_t TileID::countTiles(const UTIL::Rect& rect, int tileWidth, int tileHeight) {
    if (rect.isNull()) return 0;
    const auto along = [](int64_t lo, int64_t hi, int size) -> uint64_t {
        if (size == INFINITE_SIZE) return 1;
        if (size <= 0) return 0;
        int64_t first = 0, end = 0;
        exactRange(lo, hi, size, first, end);
        return uint64_t(end - first);
    };
    if (isFullFrame(tileWidth, tileHeight)) return 1;
    const uint64_t columns = along(rect.xmin, rect.xmax, tileWidth);
    const uint64_t rows = along(rect.ymin, rect.ymax, tileHeight);
    return rows != 0 && columns > UINT64_MAX / rows ? UINT64_MAX : columns * rows;
}

UTIL::Rect TileID::rect() const {
    const int64_t inf = UTIL::Rect::INFINITE_EXTENT;
    if (m_tileHeight == INFINITE_SIZE) return UTIL::Rect(-inf, -inf, inf, inf);
    // Products wrap as 32-bit values, then widen.
    const int64_t ymin = static_cast<int32_t>(int64_t(m_yIndex) * m_tileHeight);
    const int64_t ymax = static_cast<int32_t>(int64_t(m_yIndex + 1) * m_tileHeight);
    if (m_tileWidth == INFINITE_SIZE) return UTIL::Rect(-inf, ymin, inf, ymax);
    const int64_t xmin = static_cast<int32_t>(int64_t(m_xIndex) * m_tileWidth);
    const int64_t xmax = static_cast<int32_t>(int64_t(m_xIndex + 1) * m_tileWidth);
    return UTIL::Rect(xmin, ymin, xmax, ymax);
}

size_t TileID::convertToTileIDs(const UTIL::Rect& rect, std::vector<TileID>& out, int tileWidth,
                                int tileHeight) {
    out.clear();
    if (rect.isNull()) return 0;
    if (isFullFrame(tileWidth, tileHeight)) {
        out.emplace_back(0, 0, INFINITE_SIZE, INFINITE_SIZE);
        return 1;
    }
    forEachTile(rect, tileWidth, tileHeight, [&](const TileID& t) { out.push_back(t); });
    return out.size();
}

size_t TileID::convertToTileIDs(const UTIL::Region& region, std::vector<TileID>& out, int tileWidth,
                                int tileHeight) {
    if (region.isEmpty()) return 0;
    if (isFullFrame(tileWidth, tileHeight)) {
        out.emplace_back(0, 0, INFINITE_SIZE, INFINITE_SIZE);
        return 1;
    }
    std::set<TileID> tiles;
    for (const UTIL::Rect& r : region.rects())
        if (!r.isNull())
            forEachTile(r, tileWidth, tileHeight, [&](const TileID& t) { tiles.insert(t); });
    out.assign(tiles.begin(), tiles.end());
    return out.size();
}

}  // namespace TESSERA
