// Entry point of the vectorized bilateral filter for RGBA rows (dispatched
// to the best instruction set of the machine). Arguments are checked by
// BilateralFilter.
#pragma once

#include <cstddef>
#include <cstdint>

namespace IMGLIB {

struct BilateralTap {
    int64_t dx, dy;
    float weight;  // the spatial weight
};

// `pixels` RGBA pixels of a row from `centre` on; neighbours are
// `rowFloats` floats per row apart.
void DispatchBilateralRowRGBA(float* out, const float* centre, size_t pixels, ptrdiff_t rowFloats,
                              const BilateralTap* taps, size_t tapCount, float rangeScale);

}  // namespace IMGLIB
