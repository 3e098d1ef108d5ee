// IMGLIB motion blur by per-pixel motion vectors.
#pragma once

#include <cstdint>

#include "../tessera_export.h"
#include "image.h"

namespace IMGLIB {

// The motion of a pixel is (u, v) read from `uChannel` and `vChannel` of
// the vector image, times `scale`, shortened to at most maxLength pixels
// (NaN: no motion); the blur spans the motion centred on the pixel (the
// shutter open from -1/2 to +1/2 of a frame's motion).
struct VectorBlurSettings {
    uint64_t uChannel = CHANNEL_U;
    uint64_t vChannel = CHANNEL_V;
    float scale = 1.0f;
    float maxLength = 64.0f;
    int64_t samples = 16;  // 2 to 1024 points along the motion
};

// Gather: each pixel averages the input along its own motion. Cheap, but a
// moving object's blur stays inside its own outline.
TESSERA_API int VectorBlur(const Image* out, const Image* in, const Image* vectors,
                           const VectorBlurSettings& settings);
// Scatter: each input pixel spreads its colour along its own motion, so a
// moving object's blur smears over the still background; pixels nothing
// reaches keep the input.
TESSERA_API int VectorSplat(const Image* out, const Image* in, const Image* vectors,
                            const VectorBlurSettings& settings);
// The reach of both (in and vectors must cover out grown by it).
TESSERA_API int64_t GetVectorBlurPadding(float maxLength);

}  // namespace IMGLIB
