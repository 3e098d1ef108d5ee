// IMGLIB radial blurs: zoom (along lines through a centre) and spin (along
// circles around it).
#pragma once

#include <cstdint>

#include "../tessera_export.h"
#include "../util/rect.h"
#include "image.h"

namespace IMGLIB {

enum RadialBlurType : int32_t {
    RADIAL_ZOOM = 0,  // towards the centre
    RADIAL_SPIN = 1,  // around the centre
};

// Pixel (x, y) has its centre at (x + 0.5, y + 0.5). Zoom: each pixel is
// the mean of `samples` points on the segment from itself to the point
// `amount` of the way to the centre (amount < 1; negative zooms outwards).
// Spin: the mean over an arc of `amount` degrees centred on the pixel.
// Points are read bilinearly. The centre itself stays as it is.
struct RadialBlurParams {
    RadialBlurType type = RADIAL_ZOOM;
    float centreX = 0.0f;
    float centreY = 0.0f;
    float amount = 0.1f;
    int64_t samples = 32;  // 2 to 4096
};

// Checks the parameters; returns an error code (message set) or ERROR_NONE.
TESSERA_API int ValidateRadialBlurParams(const RadialBlurParams& params);
TESSERA_API int RadialBlur(const Image* out, const Image* in, const RadialBlurParams& params);

// The output pixels that read any pixel of `in`, and the input pixels that
// the output pixels of `out` read.
TESSERA_API void GetRadialBlurredOutputRect(const UTIL::Rect& in, UTIL::Rect& out,
                                            const RadialBlurParams& params);
TESSERA_API void GetRadialBlurredRequiredInputRect(UTIL::Rect& in, const UTIL::Rect& out,
                                                   const RadialBlurParams& params);

}  // namespace IMGLIB
