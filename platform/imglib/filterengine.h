// Entry points of the vectorized convolution (dispatched to the best
// instruction set of the machine). Arguments are checked by FastFilter.
#pragma once

#include <cstddef>
#include <cstdint>

#include "imglib/image.h"

namespace IMGLIB {

// dst[i] = sum_d w[d + pad] src[i + d * stride] over a row of `count`
// floats (pixels of `stride` channels); src is read pad pixels either side.
void DispatchFilterRow(float* dst, const float* src, size_t count, int stride, const float* w,
                       int64_t pad);
// Every row of out from the rows of src around it (`srcStride` floats from
// one row to the next; src points at the row of out->y1).
void DispatchFilterColumns(const Image* out, const float* src, size_t srcStride, size_t rowFloats,
                           const float* w, int64_t pad);

}  // namespace IMGLIB
