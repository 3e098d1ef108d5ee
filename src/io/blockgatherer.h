// Gathers pieces of an image into the blocks a file is written in.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <vector>

#include "io/outputfile.h"

namespace TESSERA {
namespace Private {

// The blocks form a grid of blockWidth x blockHeight cells whose corner is
// at `origin`, cut to `area`. A block is handed on (`whole`) once pieces
// have covered it: a piece that is exactly one block is handed on as it is,
// without a copy (when `borrow` allows: the piece's memory lives only as
// long as the call), others are copied into the block's own buffer, which
// goes as soon as the block is whole.
class BlockGatherer {
public:
    // A whole block: its column and row in the grid and its pixels. When
    // they were gathered, `storage` holds them and may be taken; when the
    // piece was handed on as it is, `storage` is empty.
    using Whole = std::function<void(int64_t column, int64_t row, const PixelPiece& pixels,
                                     std::vector<float>& storage)>;

    // a / b rounded towards minus infinity (b > 0).
    static int64_t floorDiv(int64_t a, int64_t b) { return a >= 0 ? a / b : -((-a + b - 1) / b); }

    BlockGatherer(const UTIL::Rect& area, size_t channels, int64_t originX, int64_t originY,
                  int64_t blockWidth, int64_t blockHeight, bool borrow);

    void add(const PixelPiece& piece, const Whole& whole);

    UTIL::Rect blockRect(int64_t column, int64_t row) const;
    // Block (column, row)'s place when the blocks are counted row by row
    // from the first block of the area.
    int64_t blockIndex(int64_t column, int64_t row) const {
        const int64_t firstColumn = floorDiv(m_area.xmin - m_originX, m_blockWidth);
        const int64_t columns =
            floorDiv(m_area.xmax - 1 - m_originX, m_blockWidth) + 1 - firstColumn;
        return (row - firstRow()) * columns + (column - firstColumn);
    }
    // The grid cells that hold the area, [first, last) in each direction.
    int64_t firstRow() const { return floorDiv(m_area.ymin - m_originY, m_blockHeight); }
    int64_t endRow() const { return floorDiv(m_area.ymax - 1 - m_originY, m_blockHeight) + 1; }
    // Blocks started and not yet whole.
    size_t pending() const;

private:
    struct Block {
        std::vector<float> pixels;  // interleaved, in the file's channel order
        int64_t missing = 0;        // pixels not yet delivered
    };

    const UTIL::Rect m_area;
    const size_t m_channels;
    const int64_t m_originX, m_originY, m_blockWidth, m_blockHeight;
    const bool m_borrow;
    mutable std::mutex m_mutex;  // guards m_blocks (not the pixels, which pieces share
                                 // only in disjoint parts)
    std::map<std::pair<int64_t, int64_t>, Block> m_blocks;  // by (row, column)
};

}  // namespace Private
}  // namespace TESSERA
