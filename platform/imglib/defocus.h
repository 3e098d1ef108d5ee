// IMGLIB defocus: convolution by the shape of a lens aperture (a disc or a
// regular polygon), the bokeh of an out-of-focus lens.
#pragma once

#include <cstdint>

#include "../tessera_export.h"
#include "image.h"

namespace IMGLIB {

// The aperture: `size` pixels across along x and size x aspect along y
// (aspect <= 0 or NaN: 1); fewer than 3 blades a disc, else a regular
// polygon with its corners on that ellipse, turned by `rotation` degrees.
// Smooth edges weigh each pixel by the part of it inside the aperture;
// hard edges take the pixels whose centres are inside. Sizes of 1 or less
// (and NaN) leave the image as it is.
struct ApertureShape {
    float aspect = 1.0f;
    int64_t blades = 0;
    float rotation = 0.0f;
    bool smooth = true;
};

// How far the aperture reaches from its centre along x and y.
TESSERA_API void GetDefocusPadding(float size, float aspect, int64_t blades, float rotation,
                                   bool smooth, int64_t& padX, int64_t& padY);

// out = in convolved by the normalised aperture. in must cover out grown by
// the padding. Cost per pixel grows with the aperture's height, not its
// area: each row of the aperture is summed from running sums of the input.
TESSERA_API int Defocus(const Image* out, const Image* in, float size, float aspect, int64_t blades,
                        float rotation, bool smooth);

}  // namespace IMGLIB
