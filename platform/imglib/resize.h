// IMGLIB separable resizing: output coordinate X = scale x + translate on
// each axis, pixel centres at +0.5, filtered by one kernel at its natural
// width where enlarging and widened by 1 / scale where reducing. The
// weights of a pixel depend only on its position, so any tiling of the
// output gives the same values.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "imglib/image.h"
#include "imglib/kernels.h"
#include "tessera_export.h"
#include "util/rect.h"

namespace IMGLIB {

struct TESSERA_API ResizeAxis {
    float scale = 1, translate = 0;
    KernelType filter = KERNEL_LANCZOS3;

    // Nearest point-samples, whatever the scale: the one pixel under the
    // output pixel's centre.
    bool pointSamples() const { return filter == KERNEL_NEAREST; }
    // Pixels either side of the centre pixel the filter reaches.
    int64_t radius() const;
    // Input pixels an output pixel reads (some may weigh 0).
    int64_t taps() const { return 2 * radius() + 1; }
    // The input centre of output pixel c, as a pixel and a fraction.
    int64_t centre(int64_t c, float* fraction) const;
    // The input pixels outputs [lo, hi) read.
    std::pair<int64_t, int64_t> reach(int64_t lo, int64_t hi) const;
    // The output pixels input pixels [lo, hi) reach.
    std::pair<int64_t, int64_t> image(int64_t lo, int64_t hi) const;
    // Normalised weights of outputs [lo, hi), taps() each, for the input
    // pixels from first[c - lo].
    void weights(int64_t lo, int64_t hi, std::vector<int64_t>& first, std::vector<float>& w) const;
};

// Renders the pixels of `out` inside `rect` from `in`, which holds the same
// channels and every input pixel they read (x.reach and y.reach of rect).
// The pass along the axis that reduces more goes first, so the second pass
// has fewer pixels to filter.
TESSERA_API int ResizeImage(const Image* out, const Image* in, const UTIL::Rect& rect,
                            const ResizeAxis& x, const ResizeAxis& y);

}  // namespace IMGLIB
