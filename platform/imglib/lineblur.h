// IMGLIB blurs along straight lines: the directional blur, and glints
// (star-shaped streaks from highlights).
#pragma once

#include <cstdint>

#include "imglib/image.h"
#include "imglib/kernels.h"
#include "tessera_export.h"

namespace IMGLIB {

// Each pixel is the weighted mean of points on a line `length` pixels long
// at `angle` degrees (counter-clockwise from +x, with y pointing down the
// rows: 90 runs towards smaller y). offset in [-1, 1] slides the line: 0
// centres it on the pixel, 1 puts it wholly ahead (along the angle), -1
// wholly behind. Points are spaced about 1 / density pixels apart (at least
// two), weighted by `filter` across the line's length (box: evenly), and
// read bilinearly, or from the nearest pixel when bilinear is false.
// Lengths of 1 or less (and NaN) leave the image as it is.
TESSERA_API int LineBlur(const Image* out, const Image* in, float length, float angle, float offset,
                         float density, FilterType filter, bool bilinear);
TESSERA_API void GetLineBlurPadding(float length, float angle, float offset, int64_t& padX,
                                    int64_t& padY);

// The highlights a glint streaks: R, G, B scaled by
// gain max(0, l - threshold) / l, l the luminance (0.2126, 0.7152, 0.0722);
// alpha becomes that factor's luminance; other channels are copied.
TESSERA_API int GlintControl(const Image* out, const Image* in, float threshold, float gain);

// out = (in when addToImage, else 0) + streaks of `source`: `rays` rays
// (1 to 64) spaced evenly around the circle from `rotation` degrees, each
// `length` pixels long with weights falling off as (1 - d / length)^2,
// normalised so each ray carries the source's brightness once. source must
// have out's channels and cover out grown by GetGlintPadding.
TESSERA_API int Glint(const Image* out, const Image* in, const Image* source, int64_t rays,
                      float length, float rotation, bool addToImage);
TESSERA_API int64_t GetGlintPadding(float length);

}  // namespace IMGLIB
