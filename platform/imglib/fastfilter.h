// IMGLIB FastFilter: separable convolution by a reconstruction filter.
#pragma once

#include <cstdint>
#include <vector>

#include "imglib/image.h"
#include "imglib/kernels.h"
#include "tessera_export.h"

namespace IMGLIB {

// How far a filter of `size` (its full width in pixels) reaches: taps at
// whole offsets -pad..pad, pad = ceil((max(size, 1) - 1) / 2).
TESSERA_API int64_t GetFilterPadding(float size);

// The normalised weights of the taps -pad..pad. Fractional sizes are
// honoured: a box weighs each pixel by how much of it the box covers; the
// other kernels are sampled at the pixel centres. A size of 1 or less is the
// identity.
TESSERA_API std::vector<float> GetFilterWeights(FilterType filter, float size);

// out = in convolved along x by filterX of sizeX, then along y by filterY of
// sizeY. in must cover out grown by the paddings and have its channels.
// An exact FIR: one pass per axis, every channel, vectorized. Every output
// is its own weighted sum of the window (a box too: a running sum would
// carry rounding from wherever it started, so tiles would differ at their
// edges, and a bright pixel would linger after leaving the window).
TESSERA_API int FastFilter(const Image* out, const Image* in, FilterType filterX, float sizeX,
                           FilterType filterY, float sizeY);

}  // namespace IMGLIB
