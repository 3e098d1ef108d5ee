// IMGLIB unsharp masking from an already blurred copy of the image.
#pragma once

#include "imglib/image.h"
#include "tessera_export.h"

namespace IMGLIB {

// For R, G, B and A (index 0 to 3 of amount and threshold): out = in +
// amount (in - blurred) where |in - blurred| exceeds the threshold, else in.
// Other channels are copied. blurred must cover out; a channel it lacks
// reads 0.
TESSERA_API int UnsharpMaskFromBlur(const Image* out, const Image* in, const Image* blurred,
                                    const float* amount, const float* threshold);

}  // namespace IMGLIB
