// IMGLIB edge detection: gradient magnitude (detect) and thin edge masks
// (select) by the Sobel operator and by the Nevatia-Babu compass masks.
#pragma once

#include <cstdint>

#include "imglib/image.h"
#include "tessera_export.h"

namespace IMGLIB {

// Per channel, the magnitude of the gradient, scaled so that a step of
// height h between two pixels reads h on the pixels either side of it.
// Sobel: 3x3 (reach 1); Babu: the strongest of six 5x5 masks at 30-degree
// steps (reach 2).
TESSERA_API int SobelEdgeDetect(const Image* out, const Image* in);
TESSERA_API int BabuEdgeDetect(const Image* out, const Image* in);

// Per channel, 1 on the ridge of the magnitude (a pixel at least as strong
// as its neighbour on one side across the edge and stronger than the one on
// the other: a step is marked on one pixel) where the magnitude reaches
// threshold, else 0. Reach one more than detection's.
TESSERA_API int SobelEdgeSelect(const Image* out, const Image* in, float threshold);
TESSERA_API int BabuEdgeSelect(const Image* out, const Image* in, float threshold);

// The reach of each operator.
TESSERA_API int64_t GetEdgePadding(bool babu, bool select);

}  // namespace IMGLIB
