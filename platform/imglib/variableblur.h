// IMGLIB blurs whose size varies over the image, driven by a control image.
// Both blend between a few blurs of fixed size ("layers"): layer k of L is
// the blur at k / L of the largest size, and a pixel whose amount is a
// (0 to 1) takes layers floor(a L) and the next, weighted linearly. So cost
// is L fixed-size blurs, whatever the control image holds.
#pragma once

#include <cstdint>

#include "imglib/defocus.h"
#include "imglib/image.h"
#include "imglib/kernels.h"
#include "tessera_export.h"

namespace IMGLIB {

// FastFilter by `filter` of up to sizeX by sizeY; the amount is the control
// image's `controlChannel` times controlScale, clamped to [0, 1] (NaN: 0).
// in must cover out grown by FastFilter's padding of the full sizes;
// control must cover out.
TESSERA_API int ImageBlur(const Image* out, const Image* in, const Image* control, float sizeX,
                          float sizeY, float controlScale, int64_t layers, uint64_t controlChannel,
                          FilterType filter);

// Defocus by the aperture with a diameter of coc x cocScale pixels read from
// the `cocChannel` of the coc image, at most maxCoc (the amount is the
// diameter / maxCoc). Each output pixel gathers with its own diameter, so
// sharp pixels stay sharp next to blurred ones. in must cover out grown by
// the Defocus padding of maxCoc; coc must cover out.
TESSERA_API int NonPhysicalDepthOfField(const Image* out, const Image* in, const Image* coc,
                                        uint64_t cocChannel, float cocScale, float maxCoc,
                                        int64_t layers, const ApertureShape& aperture);

}  // namespace IMGLIB
