// IMGLIB reconstruction filters: the standard family, with the definitions
// OpenImageIO uses (a filter's width is its full support in pixels), so a
// blur or a warp can be checked against OpenImageIO on the same image.
#pragma once

#include <cstdint>

#include "../tessera_export.h"

namespace IMGLIB {

enum KernelType : int32_t {
    KERNEL_NEAREST = 0,          // the nearest pixel (width 1, a box when minifying)
    KERNEL_BOX = 1,              // width 1
    KERNEL_TRIANGLE = 2,         // bilinear; width 2
    KERNEL_GAUSSIAN = 3,         // exp(-2 (2x / width)^2): sigma = width / 4; width 3
    KERNEL_CATMULL_ROM = 4,      // bicubic, B = 0, C = 1/2; width 4
    KERNEL_MITCHELL = 5,         // bicubic, B = C = 1/3; width 4
    KERNEL_LANCZOS3 = 6,         // width 6
    KERNEL_BLACKMAN_HARRIS = 7,  // width 3
    KERNEL_BSPLINE = 8,          // cubic B-spline; width 4
};
using FilterType = KernelType;
constexpr int KERNEL_COUNT = 9;

// The kernel's natural full width in pixels.
TESSERA_API float GetKernelWidth(KernelType kernel);
// The kernel's value at offset x from its centre, for a full width `width`
// (0 beyond width / 2). Unnormalised: callers divide by the sum of weights.
TESSERA_API float EvalKernel(KernelType kernel, float x, float width);
// A readable name ("catmull-rom"), or "unknown".
TESSERA_API const char* GetKernelName(KernelType kernel);

}  // namespace IMGLIB
