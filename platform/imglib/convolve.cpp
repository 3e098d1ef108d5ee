#include "imglib/convolve.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "imglib/neighbourhood.h"

namespace IMGLIB {

UTIL::Rect GetImageConvolveInputRect(const UTIL::Rect& outRect, const UTIL::Rect& kernelRect,
                                     int64_t centreX, int64_t centreY) {
    if (outRect.isNull() || kernelRect.isNull()) return outRect;
    return UTIL::Rect(outRect.xmin - (kernelRect.xmax - 1 - centreX),
                      outRect.ymin - (kernelRect.ymax - 1 - centreY),
                      outRect.xmax + (centreX - kernelRect.xmin),
                      outRect.ymax + (centreY - kernelRect.ymin));
}

UTIL::Rect GetImageConvolveOutputRect(const UTIL::Rect& inRect, const UTIL::Rect& kernelRect,
                                      int64_t centreX, int64_t centreY) {
    if (inRect.isNull() || kernelRect.isNull()) return inRect;
    return UTIL::Rect(
        inRect.xmin + kernelRect.xmin - centreX, inRect.ymin + kernelRect.ymin - centreY,
        inRect.xmax + kernelRect.xmax - 1 - centreX, inRect.ymax + kernelRect.ymax - 1 - centreY);
}

int ImageConvolve(const Image* out, const Image* in, const Image* kernel, int64_t centreX,
                  int64_t centreY) {
    if (int status = CheckNeighbourhood("ImageConvolve", out, in, 0, 0)) return status;
    if (!kernel || !GetChannelCount(kernel->channels))
        return SetError(ERROR_NULL_IMAGE, "ImageConvolve: no kernel image");
    const UTIL::Rect kernelRect(kernel->x1, kernel->y1, kernel->x2, kernel->y2);
    const UTIL::Rect need = GetImageConvolveInputRect(
        UTIL::Rect(out->x1, out->y1, out->x2, out->y2), kernelRect, centreX, centreY);
    if (!UTIL::Rect(in->x1, in->y1, in->x2, in->y2).contains(need))
        return SetError(ERROR_OUT_OF_BOUNDS,
                        "ImageConvolve: the input does not cover the output grown by the kernel");
    const PixelGrid src(in), dst(out), taps(kernel);
    // Which kernel channel each output channel uses.
    std::vector<int> kernelSlot;
    for (uint64_t m = out->channels; m; m &= m - 1) {
        const int slot = GetChannelIndex(kernel->channels, m & ~(m - 1));
        kernelSlot.push_back(slot >= 0 ? slot : 0);
    }
    const size_t rowFloats = static_cast<size_t>(out->width() * dst.n);
    if (rowFloats == 0) return ERROR_NONE;
    for (int64_t y = out->y1; y < out->y2; ++y) std::fill_n(dst.at(out->x1, y), rowFloats, 0.0f);
    // Tap by tap over the whole tile (each pixel still sums its taps in the
    // kernel's order): a tap's weights are laid along a row once, so the
    // inner loop is one multiply-add per float.
    std::vector<float> weights(rowFloats);
    for (int64_t ky = kernel->y1; ky < kernel->y2; ++ky)
        for (int64_t kx = kernel->x1; kx < kernel->x2; ++kx) {
            const float* k = taps.at(kx, ky);
            bool any = false;
            for (int c = 0; c < dst.n; ++c) {
                weights[static_cast<size_t>(c)] = k[kernelSlot[static_cast<size_t>(c)]];
                any |= weights[static_cast<size_t>(c)] != 0.0f;
            }
            if (!any) continue;
            for (size_t i = static_cast<size_t>(dst.n); i < rowFloats; ++i)
                weights[i] = weights[i - static_cast<size_t>(dst.n)];
            for (int64_t y = out->y1; y < out->y2; ++y) {
                float* o = dst.at(out->x1, y);
                const float* s = src.at(out->x1 - (kx - centreX), y - (ky - centreY));
                for (size_t i = 0; i < rowFloats; ++i) o[i] += weights[i] * s[i];
            }
        }
    return ERROR_NONE;
}

int QueryStats(const Image* in, Stats* stats) {
    if (!in || !stats) return SetError(ERROR_NULL_IMAGE, "QueryStats: null image");
    *stats = Stats();
    const PixelGrid src(in);
    int slot[4];
    for (int c = 0; c < 4; ++c) {
        slot[c] = GetChannelIndex(in->channels, uint64_t(1) << c);
        stats->min[c] = std::numeric_limits<float>::infinity();
        stats->max[c] = -std::numeric_limits<float>::infinity();
    }
    uint64_t counted[4] = {0, 0, 0, 0};
    for (int64_t y = in->y1; y < in->y2; ++y)
        for (int64_t x = in->x1; x < in->x2; ++x) {
            const float* p = src.at(x, y);
            for (int c = 0; c < 4; ++c) {
                const float v = slot[c] >= 0 ? p[slot[c]] : 0.0f;
                if (std::isnan(v)) continue;
                stats->sum[c] += v;
                stats->min[c] = std::min(stats->min[c], v);
                stats->max[c] = std::max(stats->max[c], v);
                ++counted[c];
            }
        }
    stats->count = static_cast<uint64_t>(in->width() * in->height());
    for (int c = 0; c < 4; ++c) {
        if (!counted[c]) stats->min[c] = stats->max[c] = 0.0f;
        stats->mean[c] = counted[c] ? stats->sum[c] / double(counted[c]) : 0.0;
    }
    return ERROR_NONE;
}

}  // namespace IMGLIB
