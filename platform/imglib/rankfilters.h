// IMGLIB rank filters: the median, and erosion and dilation.
#pragma once

#include <cstdint>

#include "imglib/image.h"
#include "tessera_export.h"

namespace IMGLIB {

// The window of a median of width `size`: pixels up to pad = ceil((size - 1)
// / 2) away (0 for sizes of 1 or less, and NaN).
TESSERA_API int64_t GetMedianPadding(float size);

// Each channel of each pixel becomes the median of the window of sizeX by
// sizeY pixels around it (an ellipse inscribed in it when circular). With
// threshold > 0, a pixel is replaced only where it differs from the median
// by more than the threshold (despeckling that leaves detail alone). NaN
// values sort after every number.
TESSERA_API int MedianFilter(const Image* out, const Image* in, float sizeX, float sizeY,
                             bool circular, float threshold);

// Separable grey-scale morphology with a rectangle: along each axis a
// positive radius takes the maximum (dilation), a negative one the minimum
// (erosion) of the pixels up to |radius| away; a fractional radius blends
// the two whole radii around it. Reach: ceil(|radius|) per axis.
TESSERA_API int ErodeOrDilate(const Image* out, const Image* in, float radiusX, float radiusY);
TESSERA_API int64_t GetErodeDilatePadding(float radius);

}  // namespace IMGLIB
