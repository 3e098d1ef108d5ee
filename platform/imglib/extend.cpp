#include "imglib/extend.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "imglib/channels.h"
#include "imglib/error.h"
#include "imglib/pixels.h"

namespace IMGLIB {
namespace {

using Map = int64_t (*)(int64_t, int64_t, int64_t);

void split(const UTIL::Rect& rect, const UTIL::Rect& source, ExtendMethod method,
           std::vector<ExtendAction>& actions) {
    if (rect.isNull() || source.isNull() || source.contains(rect)) return;
    // A 3 x 3 grid around the source; every cell but the middle one that
    // meets rect is an area to fill.
    const int64_t xs[4] = {rect.xmin, std::clamp(source.xmin, rect.xmin, rect.xmax),
                           std::clamp(source.xmax, rect.xmin, rect.xmax), rect.xmax};
    const int64_t ys[4] = {rect.ymin, std::clamp(source.ymin, rect.ymin, rect.ymax),
                           std::clamp(source.ymax, rect.ymin, rect.ymax), rect.ymax};
    for (int j = 0; j < 3; ++j)
        for (int i = 0; i < 3; ++i) {
            if (i == 1 && j == 1) continue;
            const UTIL::Rect area(xs[i], ys[j], xs[i + 1], ys[j + 1]);
            if (!area.isNull()) actions.push_back(ExtendAction{area, source, method});
        }
}

// Smallest and largest source coordinate that [a, b) maps to.
void mappedRange(int64_t a, int64_t b, int64_t lo, int64_t hi, Map map, int64_t& outLo,
                 int64_t& outHi) {
    const int64_t width = hi - lo;
    if (map == MirrorCoordinate && b - a >= 2 * width) {
        outLo = lo;
        outHi = hi;
        return;
    }
    // The map is monotonic between multiples of the width: its extremes over
    // [a, b) lie at the ends of the pieces, and there are at most a few.
    outLo = hi;
    outHi = lo;
    auto visit = [&](int64_t c) {
        const int64_t m = map(c, lo, hi);
        outLo = std::min(outLo, m);
        outHi = std::max(outHi, m + 1);
    };
    visit(a);
    visit(b - 1);
    if (map == MirrorCoordinate) {
        const int64_t first = lo + ((a - lo) / width - 1) * width;
        for (int64_t k = first; k < b; k += width)
            for (int64_t c : {k - 1, k})
                if (c >= a && c < b) visit(c);
    }
}

UTIL::Rect requiredRect(const UTIL::Rect& rect, const UTIL::Rect& source, Map map) {
    if (rect.isNull() || source.isNull()) return UTIL::Rect();
    UTIL::Rect out;
    mappedRange(rect.xmin, rect.xmax, source.xmin, source.xmax, map, out.xmin, out.xmax);
    mappedRange(rect.ymin, rect.ymax, source.ymin, source.ymax, map, out.ymin, out.ymax);
    return out;
}

bool inside(const Image* image, const UTIL::Rect& r) {
    return r.xmin >= image->x1 && r.ymin >= image->y1 && r.xmax <= image->x2 && r.ymax <= image->y2;
}

}  // namespace

int64_t ClampCoordinate(int64_t c, int64_t lo, int64_t hi) {
    return std::clamp(c, lo, hi - 1);
}

int64_t MirrorCoordinate(int64_t c, int64_t lo, int64_t hi) {
    const int64_t width = hi - lo;
    int64_t m = (c - lo) % (2 * width);
    if (m < 0) m += 2 * width;
    return lo + (m < width ? m : 2 * width - 1 - m);
}

void SplitRectToClampExtendActions(const UTIL::Rect& rect, const UTIL::Rect& source,
                                   std::vector<ExtendAction>& actions) {
    split(rect, source, EXTEND_CLAMP, actions);
}

void SplitRectToMirrorExtendActions(const UTIL::Rect& rect, const UTIL::Rect& source,
                                    std::vector<ExtendAction>& actions) {
    split(rect, source, EXTEND_MIRROR, actions);
}

UTIL::Rect GetRequiredClampInputRect(const UTIL::Rect& rect, const UTIL::Rect& source) {
    return requiredRect(rect, source, ClampCoordinate);
}

UTIL::Rect GetRequiredMirroredInputRect(const UTIL::Rect& rect, const UTIL::Rect& source) {
    return requiredRect(rect, source, MirrorCoordinate);
}

int DoExtendActions(const Image* dst, const std::vector<ExtendAction>& actions, const Image* src) {
    if (!dst || !src || !dst->pixelPtr || !src->pixelPtr)
        return SetError(ERROR_NULL_IMAGE, "DoExtendActions: null image");
    const int64_t dstPixelBytes = GetPixelBytes(dst->channels);
    const int64_t srcPixelBytes = GetPixelBytes(src->channels);
    // Destination channel -> source slot, or -1 for a channel src lacks.
    int slot[MAX_CHANNELS];
    int n = 0;
    for (int bit = 0; bit < MAX_CHANNELS; ++bit)
        if (dst->channels & (uint64_t(1) << bit))
            slot[n++] = GetChannelIndex(src->channels, uint64_t(1) << bit);
    const bool sameLayout = dst->channels == src->channels;

    std::vector<int64_t> columns;
    for (const ExtendAction& action : actions) {
        const Map map = action.method == EXTEND_MIRROR ? MirrorCoordinate : ClampCoordinate;
        const UTIL::Rect& s = action.source;
        if (!inside(dst, action.area) || s.isNull() ||
            !inside(src, requiredRect(action.area, s, map)))
            return SetError(ERROR_OUT_OF_BOUNDS,
                            "DoExtendActions: an area or its source lies outside the images");
        columns.resize(static_cast<size_t>(action.area.width()));
        for (int64_t x = action.area.xmin; x < action.area.xmax; ++x)
            columns[static_cast<size_t>(x - action.area.xmin)] = map(x, s.xmin, s.xmax);
        for (int64_t y = action.area.ymin; y < action.area.ymax; ++y) {
            const int64_t sy = map(y, s.ymin, s.ymax);
            float* d = GetPixelAddress(dst, action.area.xmin, y, dstPixelBytes);
            for (int64_t sx : columns) {
                const float* p = GetPixelAddress(src, sx, sy, srcPixelBytes);
                if (sameLayout)
                    std::memcpy(d, p, static_cast<size_t>(dstPixelBytes));
                else
                    for (int c = 0; c < n; ++c) d[c] = slot[c] >= 0 ? p[slot[c]] : 0.0f;
                d += n;
            }
        }
    }
    return ERROR_NONE;
}

}  // namespace IMGLIB
