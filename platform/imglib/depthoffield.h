// IMGLIB depth of field: circles of confusion from depth by the thin-lens
// model, and the scattering (physical) depth of field.
#pragma once

#include <cstdint>

#include "../tessera_export.h"
#include "image.h"

namespace IMGLIB {

// A thin lens. Depth and focus distance are in scene units (metres by
// default: `unitsPerMetre` says otherwise); lengths of the lens and film
// back in millimetres. The film back's width spans `imageWidth` pixels.
struct LensParams {
    float focalLength = 50.0f;    // mm
    float fStop = 2.8f;           // aperture diameter = focalLength / fStop
    float focusDistance = 5.0f;   // scene units
    float unitsPerMetre = 1.0f;   // scene units in a metre
    float filmBackWidth = 36.0f;  // mm
    float imageWidth = 1920.0f;   // pixels across the film back
    float maxCoc = 32.0f;         // the largest diameter made, in pixels
};

// The circle of confusion, in pixels, of a point at `depth`:
// (f / N) f |d - F| / (d (F - f)) on the film, scaled to pixels and clamped
// to maxCoc. Depths that are NaN, 0 or negative count as infinitely far.
// Returns -1 for a lens that cannot focus at F (F <= f, or f, N or the
// film back not positive).
TESSERA_API float CircleOfConfusion(const LensParams& lens, float depth);

// Every channel of out = the circle of confusion of the `depthChannel` of
// depth at the same pixel (depth must cover out).
TESSERA_API int CalculateCocImage(const Image* out, const Image* depth, uint64_t depthChannel,
                                  const LensParams& lens);
// The same, then the smallest (largest) circle within `radius` pixels along
// each axis: depth must cover out grown by ceil(radius). The maximal image
// tells how far any blur reaches a pixel; the minimal one where the image
// is certainly sharp.
TESSERA_API int CalculateMinimalCocImage(const Image* out, const Image* depth,
                                         uint64_t depthChannel, const LensParams& lens,
                                         float radius);
TESSERA_API int CalculateMaximalCocImage(const Image* out, const Image* depth,
                                         uint64_t depthChannel, const LensParams& lens,
                                         float radius);

// Each input pixel spreads its colour evenly over the disc of its own
// circle of confusion (`cocChannel` of coc, clamped to maxCoc); each output
// pixel is the sum of what reaches it divided by the weight that reaches
// it. Blurred foreground thus spreads over sharp background, as a lens
// does. in and coc must cover out grown by ceil(maxCoc / 2).
TESSERA_API int PhysicalDepthOfField(const Image* out, const Image* in, const Image* coc,
                                     uint64_t cocChannel, float maxCoc);
TESSERA_API int64_t GetPhysicalDepthOfFieldPadding(float maxCoc);

// Depth with its holes filled and its foreground widened: every channel,
// NaN, 0 and negative values (no depth) taken as infinitely far, becomes
// the nearest depth within `radius` pixels along each axis; pixels with no
// depth in reach keep theirs. Widening the foreground by the blur's reach
// keeps background pixels from taking the foreground's edge.
TESSERA_API int CleanupDepth(const Image* out, const Image* in, float radius);

}  // namespace IMGLIB
