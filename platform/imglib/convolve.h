// IMGLIB convolution by an image, and image statistics.
#pragma once

#include <cstdint>

#include "imglib/image.h"
#include "tessera_export.h"
#include "util/rect.h"

namespace IMGLIB {

// out(p) = sum over the kernel's pixels k of kernel(k) in(p - (k - centre)):
// a true convolution, the kernel's pixel at (centreX, centreY) over the
// output pixel. Channel c of the output uses the kernel's channel c, or the
// kernel's first channel when it lacks c (a grey kernel serves every
// channel). in must cover GetImageConvolveInputRect(out).
TESSERA_API int ImageConvolve(const Image* out, const Image* in, const Image* kernel,
                              int64_t centreX, int64_t centreY);
// The input an output rectangle reads, and the output an input rectangle
// reaches, for a kernel over kernelRect.
TESSERA_API UTIL::Rect GetImageConvolveInputRect(const UTIL::Rect& outRect,
                                                 const UTIL::Rect& kernelRect, int64_t centreX,
                                                 int64_t centreY);
TESSERA_API UTIL::Rect GetImageConvolveOutputRect(const UTIL::Rect& inRect,
                                                  const UTIL::Rect& kernelRect, int64_t centreX,
                                                  int64_t centreY);

// Sums, extremes and means of R, G, B and A over an image's pixels (0 for a
// channel it lacks). NaNs are skipped.
struct Stats {
    double sum[4] = {0, 0, 0, 0};
    float min[4] = {0, 0, 0, 0};
    float max[4] = {0, 0, 0, 0};
    double mean[4] = {0, 0, 0, 0};
    uint64_t count = 0;  // pixels
};
TESSERA_API int QueryStats(const Image* in, Stats* stats);

}  // namespace IMGLIB
