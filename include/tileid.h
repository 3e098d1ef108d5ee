/// @file
/// TileID: one tile of a tile grid, and the conversion of areas into tiles.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "tessera_export.h"
#include "util/rect.h"
#include "util/region.h"

namespace TESSERA {

/// A tile of a grid of tileWidth x tileHeight pixels, the tile at column
/// xIndex and row yIndex covering x from xIndex * tileWidth and y from
/// yIndex * tileHeight. A size of INFINITE_SIZE makes the tile span every
/// column (a whole row of the image) or every row; both infinite is the one
/// full-frame tile. Tiles compare by their indices only: all tiles of one task
/// share one grid.
class TESSERA_API TileID {
public:
    static constexpr int INFINITE_SIZE = -1;  ///< a tile size with no end

    TileID() = default;
    /// The tile in column xIndex and row yIndex of a grid of tiles this size.
    TileID(int16_t xIndex, int16_t yIndex, int32_t tileWidth, int32_t tileHeight)
        : m_xIndex(xIndex), m_yIndex(yIndex), m_tileWidth(tileWidth), m_tileHeight(tileHeight) {}

    int16_t xIndex() const { return m_xIndex; }             ///< its column
    int16_t yIndex() const { return m_yIndex; }             ///< its row
    int32_t getTileWidth() const { return m_tileWidth; }    ///< the grid's tile width
    int32_t getTileHeight() const { return m_tileHeight; }  ///< the grid's tile height

    /// The pixels the tile covers. A row tile (infinite width) is a strip
    /// across the "infinite" extent; a tile with infinite height is the whole
    /// infinite square.
    UTIL::Rect rect() const;

    /// The same place in the grid.
    ///@{
    bool operator==(const TileID& o) const {
        return m_xIndex == o.m_xIndex && m_yIndex == o.m_yIndex;
    }
    bool operator!=(const TileID& o) const { return !(*this == o); }
    ///@}
    /// Row-major: top row first, left to right within a row.
    bool operator<(const TileID& o) const {
        return m_yIndex != o.m_yIndex ? m_yIndex < o.m_yIndex : m_xIndex < o.m_xIndex;
    }

    /// The tiles of the grid that intersect rect, in row-major order; out is
    /// cleared first. Returns their count.
    static size_t convertToTileIDs(const UTIL::Rect& rect, std::vector<TileID>& out, int tileWidth,
                                   int tileHeight);
    /// The tiles that intersect any rectangle of region, each once, in
    /// row-major order, appended to out. Returns their count.
    static size_t convertToTileIDs(const UTIL::Region& region, std::vector<TileID>& out,
                                   int tileWidth, int tileHeight);
    /// Whether every tile over rect has its index and its pixel bounds in
    /// range (16-bit indices, 32-bit coordinates); tiles beyond cannot be
    /// told apart.
    static bool fitsGrid(const UTIL::Rect& rect, int tileWidth, int tileHeight);
    /// How many tiles cover rect, without listing them.
    static uint64_t countTiles(const UTIL::Rect& rect, int tileWidth, int tileHeight);

private:
    int16_t m_xIndex = 0;
    int16_t m_yIndex = 0;
    int32_t m_tileWidth = 0;
    int32_t m_tileHeight = 0;
};

}  // namespace TESSERA
