#include "io/blockgatherer.h"

#include <algorithm>

namespace TESSERA {
namespace Private {

BlockGatherer::BlockGatherer(const UTIL::Rect& area, size_t channels, int64_t originX,
                             int64_t originY, int64_t blockWidth, int64_t blockHeight, bool borrow)
    : m_area(area),
      m_channels(channels),
      m_originX(originX),
      m_originY(originY),
      m_blockWidth(blockWidth),
      m_blockHeight(blockHeight),
      m_borrow(borrow) {}

UTIL::Rect BlockGatherer::blockRect(int64_t column, int64_t row) const {
    const int64_t x = m_originX + column * m_blockWidth, y = m_originY + row * m_blockHeight;
    return UTIL::Rect(x, y, x + m_blockWidth, y + m_blockHeight).intersection(m_area);
}

size_t BlockGatherer::pending() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_blocks.size();
}

void BlockGatherer::add(const PixelPiece& piece, const Whole& whole) {
    const UTIL::Rect area = piece.rect.intersection(m_area);
    if (area.isNull()) return;
    const bool complete = std::all_of(piece.channels.begin(), piece.channels.end(),
                                      [](const float* c) { return c != nullptr; });
    for (int64_t row = floorDiv(area.ymin - m_originY, m_blockHeight);
         m_originY + row * m_blockHeight < area.ymax; ++row)
        for (int64_t column = floorDiv(area.xmin - m_originX, m_blockWidth);
             m_originX + column * m_blockWidth < area.xmax; ++column) {
            const UTIL::Rect rect = blockRect(column, row);
            const UTIL::Rect part = rect.intersection(area);
            if (m_borrow && complete && part == rect) {
                PixelPiece view = piece;  // the same memory, from the block's corner
                view.rect = rect;
                for (size_t c = 0; c < m_channels; ++c)
                    view.channels[c] = piece.at(c, rect.xmin, rect.ymin);
                std::vector<float> none;
                whole(column, row, view, none);
                continue;
            }
            Block* block;
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                block = &m_blocks[{row, column}];
                if (block->pixels.empty()) {
                    block->pixels.assign(size_t(rect.area()) * m_channels, 0.0f);
                    block->missing = rect.area();
                }
            }
            // Pieces fill disjoint parts of the block: copied outside the lock.
            const int64_t stride = rect.width() * int64_t(m_channels);
            for (int64_t y = part.ymin; y < part.ymax; ++y) {
                float* d = block->pixels.data() + (y - rect.ymin) * stride +
                           (part.xmin - rect.xmin) * int64_t(m_channels);
                for (int64_t x = part.xmin; x < part.xmax; ++x)
                    for (size_t c = 0; c < m_channels; ++c)
                        *d++ = piece.channels[c] ? *piece.at(c, x, y) : 0.0f;
            }
            std::vector<float> pixels;
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                block->missing -= part.area();
                if (block->missing > 0) continue;
                pixels.swap(block->pixels);
                m_blocks.erase({row, column});
            }
            PixelPiece gathered{
                rect, {}, int64_t(m_channels * sizeof(float)), stride * int64_t(sizeof(float))};
            for (size_t c = 0; c < m_channels; ++c) gathered.channels.push_back(pixels.data() + c);
            whole(column, row, gathered, pixels);
        }
}

}  // namespace Private
}  // namespace TESSERA
