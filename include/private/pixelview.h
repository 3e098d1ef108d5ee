// Tasks whose pixels already lie in memory, so that a tile of them can be a
// view instead of a rendered copy.
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

}  // namespace Private
}  // namespace TESSERA
