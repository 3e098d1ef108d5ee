// IMGLIB perimeter extension: colour carried out past the edge of a matte.
#pragma once

#include <cstdint>

#include "imglib/image.h"
#include "tessera_export.h"

namespace IMGLIB {

// Pixels whose alpha is 0 (or NaN) and that lie within `distance` pixels
// (Euclidean, centre to centre) of a pixel with alpha > 0 take the colour of
// the nearest such pixel: its R, G, B divided by its alpha (the straight
// colour), its other channels as they are; their alpha stays 0. Filtering
// the result later does not pull black in from outside the matte. An image
// without alpha has no perimeter and is copied. Reach: ceil(distance).
TESSERA_API int ExtendImagePerimeter(const Image* out, const Image* in, float distance);
TESSERA_API int64_t GetPerimeterPadding(float distance);

}  // namespace IMGLIB
