// IMGLIB edge extension: making up pixels outside a source area from the
// pixels inside it, by clamping (repeating the edge pixel) or mirroring.
#pragma once

#include <cstdint>
#include <vector>

#include "imglib/image.h"
#include "tessera_export.h"
#include "util/rect.h"

namespace IMGLIB {

// Fill `area` (which lies outside `source`) with pixels of `source` mapped by
// `method`, coordinate by coordinate: clamp maps x to the nearest column of
// the source; mirror reflects it about the source's edges, the edge pixel
// repeated (for a source [0, 4): -1 -> 0, -2 -> 1, 4 -> 3, 5 -> 2), periodic
// with twice the source's width.
struct ExtendAction {
    UTIL::Rect area;
    UTIL::Rect source;
    ExtendMethod method = EXTEND_CLAMP;
};

// The coordinate of the source pixel that stands for c on an axis [lo, hi).
TESSERA_API int64_t ClampCoordinate(int64_t c, int64_t lo, int64_t hi);
TESSERA_API int64_t MirrorCoordinate(int64_t c, int64_t lo, int64_t hi);

// The parts of rect outside source, as actions that fill them from source:
// up to eight (the bands beside, above and below source, and the corners).
// Nothing when source contains rect; nothing can be made from an empty source.
TESSERA_API void SplitRectToClampExtendActions(const UTIL::Rect& rect, const UTIL::Rect& source,
                                               std::vector<ExtendAction>& actions);
TESSERA_API void SplitRectToMirrorExtendActions(const UTIL::Rect& rect, const UTIL::Rect& source,
                                                std::vector<ExtendAction>& actions);

// The part of source whose pixels the extension of rect reads, together with
// the part of rect inside source.
TESSERA_API UTIL::Rect GetRequiredClampInputRect(const UTIL::Rect& rect, const UTIL::Rect& source);
TESSERA_API UTIL::Rect GetRequiredMirroredInputRect(const UTIL::Rect& rect,
                                                    const UTIL::Rect& source);

// Applies the actions to dst, reading source pixels from src (which may be
// dst itself: the areas never overlap the source). Every action's area must
// lie inside dst and the pixels it reads inside src; channels are matched by
// bit, channels src lacks become 0.
TESSERA_API int DoExtendActions(const Image* dst, const std::vector<ExtendAction>& actions,
                                const Image* src);

}  // namespace IMGLIB
