// Tasks whose tiles can share pixels that already lie in memory instead of
// being rendered copies.
#pragma once

#include <cstdint>

#include "imagebuffer.h"
#include "util/rect.h"

namespace TESSERA {
namespace Private {

class PixelView {
public:
    virtual ~PixelView() = default;
    // An image of rect with exactly `channels` whose pixels are the task's
    // own, or a null buffer when the pixels do not cover rect that way.
    virtual ImageBuffer viewRect(const UTIL::Rect& rect, uint64_t channels) const = 0;
};

// Tasks whose output over some rectangles is their first input moved by
// whole pixels: such a tile shares the input's pixels.
class ForwardsInput {
public:
    virtual ~ForwardsInput() = default;
    // True when every pixel (x, y) of rect is the first input's pixel
    // (x - dx, y - dy), the input's background colour where it has no data.
    virtual bool forwardsInput(const UTIL::Rect& rect, int64_t& dx, int64_t& dy) const = 0;
};

// Tasks that make any rectangle of their pixels cheaply, from any thread
// (a file read through a cache of decoded blocks). When no tile cache keeps
// their tiles, a consumer's input image is rendered straight from the task
// instead of being copied out of tiles kept for every consumer: memory then
// holds the blocks, not rows of tiles.
class DirectSource {
public:
    virtual ~DirectSource() = default;
    // Told when a render will read the task so (until its postRender): the
    // reads then follow the consumers' tiles, in whatever order they go.
    virtual void readDirectly() = 0;
};

}  // namespace Private
}  // namespace TESSERA
