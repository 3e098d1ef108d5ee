// IMGLIB bilateral filter: an edge-preserving blur.
#pragma once

#include <cstdint>

#include "imglib/image.h"
#include "tessera_export.h"

namespace IMGLIB {

// Each pixel becomes the weighted mean of the pixels up to radiusX, radiusY
// away, the weight of a neighbour at offset d with colour difference r
// (Euclidean over the R, G, B channels present) being
// exp(-|d|^2 / (2 sigmaSpatial^2)) exp(-r^2 / (2 sigmaRange^2)): neighbours
// across an edge barely count. Every channel takes the same weights.
// sigmaSpatial <= 0 weighs the window evenly; sigmaRange <= 0 (or NaN)
// leaves the image as it is.
TESSERA_API int BilateralFilter(const Image* out, const Image* in, uint32_t radiusX,
                                uint32_t radiusY, float sigmaSpatial, float sigmaRange);

}  // namespace IMGLIB
