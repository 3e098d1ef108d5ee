// IMGLIB pixel-wise operators: every output pixel depends only on the input
// pixel at the same place. Each operator is one entry of a table (a kind and
// its parameters) run by one vectorized engine, so a chain of them is run in
// one pass over memory: each group of pixels is loaded once, goes through
// every operator, and is stored once.
//
// Images are premultiplied RGBA (any of the four may be absent; an absent
// channel reads as 0 and is not written). Channels beyond RGBA are copied
// from the input where it has them. Every operator takes (out, in, ...) and
// in may be out; in must cover out. docs/imglib.md gives every formula.
#pragma once

#include <Imath/ImathColor.h>
#include <Imath/ImathMatrix.h>

#include <cstdint>
#include <vector>

#include "../tessera_export.h"
#include "image.h"

namespace IMGLIB {

enum PointOpKind : int32_t {
    POINTOP_COPY,
    POINTOP_CLAMP,            // p0-3 low, p4-7 high; i0 clampLow, i1 clampHigh
    POINTOP_THRESHOLD,        // p0-3 threshold, p4-7 below, p8-11 above; i0, i1 replace below/above
    POINTOP_CLEANUP_CLAMP,    // i0 clamp colour at 1 too
    POINTOP_CONTRAST,         // p0-3 contrast, p4-7 pivot
    POINTOP_EXPONENTIAL,      // p0-3 exponent, p4-7 pivot
    POINTOP_COMPRESS_RANGE,   // p0 mid grey, p1 maximum, p2 scale
    POINTOP_EXPAND_RANGE,     // the inverse, same parameters
    POINTOP_NCONTRAST_BOOST,  // p0 amount; i0 alpha too
    POINTOP_FRINGE,
    POINTOP_HSV_TO_ALPHA,  // i0 component: 0 hue, 1 saturation, 2 value
    POINTOP_HSV_CONVERT,   // i0 true: RGB to HSV, false: HSV to RGB
    POINTOP_LAB_CONVERT,   // i0 true: RGB to L*a*b*, false: back
    POINTOP_LUMA_CURVE,    // p0-2 luma weights; curve 0
    POINTOP_RGBA_CURVES,   // curves 0-3 (an empty curve leaves its channel alone)
    POINTOP_MAX_RGB_TO_ALPHA,
    POINTOP_MIN_RGB_TO_ALPHA,
    POINTOP_SCREEN_RGB_TO_ALPHA,  // i0 channel bit: 1, 2 or 4
    POINTOP_MULT_INVERSE,
    POINTOP_POSTERIZE,    // p0 levels, p1 low, p2 high; i0 alpha too, i1 clamp to [low, high]
    POINTOP_LOG_CONVERT,  // p0-3 black code, p4-7 white code, p8-11 density; i0 to log, i1 alpha
                          // too
    POINTOP_BLOOM_LUMINANCE,  // p0 threshold, p1 gain; i0 isolate (below the threshold becomes 0)
    POINTOP_BLOOM_RGB,        // the same per channel
    POINTOP_COLOR_MATRIX,     // p0-19: 4 rows of (r, g, b, a, offset)
    POINTOP_PREMULTIPLY,      // colour times alpha
    POINTOP_LUMINANCE,        // p0-2 weights: R = G = B = weights . RGB
    POINTOP_LUMA_KEY,         // p0-2 weights, p3 low, p4 1 / (high - low) (0: a step); i0 invert
    POINTOP_CHROMA_KEY,       // see MakeChromaKey
};

// One operator: its kind and parameters. Curves are (x, y) pairs sorted by x
// (not owned; they must outlive the call).
struct PointOp {
    PointOpKind kind = POINTOP_COPY;
    float p[20] = {};
    int64_t i[2] = {};
    const float* curve[4] = {};
    int64_t curvePoints[4] = {};
};

// Runs ops[0], ops[1], ... on every pixel of out (reading in).
TESSERA_API int ApplyPointOps(const Image* out, const Image* in, const PointOp* ops, size_t count);
// The same operators on one colour (the same arithmetic as the images get).
TESSERA_API Imath::Color4<float> ApplyPointOpsToColor(const Imath::Color4<float>& color,
                                                      const PointOp* ops, size_t count);

// ---- The operators by name: a thin layer over the table. ----
TESSERA_API PointOp MakeClamp(const float low[4], const float high[4], bool clampLow,
                              bool clampHigh);
TESSERA_API int Clamp(const Image* out, const Image* in, const float low[4], const float high[4],
                      bool clampLow, bool clampHigh);
TESSERA_API Imath::Color4<float> ClampColor(const Imath::Color4<float>& c, const float low[4],
                                            const float high[4], bool clampLow, bool clampHigh);
TESSERA_API PointOp MakeThreshold(const float threshold[4], bool replaceBelow, const float below[4],
                                  bool replaceAbove, const float above[4]);
TESSERA_API int Threshold(const Image* out, const Image* in, const float threshold[4],
                          bool replaceBelow, const float below[4], bool replaceAbove,
                          const float above[4]);
TESSERA_API PointOp MakeCleanupClamp(bool clampColorAtOne);
TESSERA_API int CleanupClamp(const Image* out, const Image* in, bool clampColorAtOne);
TESSERA_API Imath::Color4<float> CleanupClampColor(const Imath::Color4<float>& c,
                                                   bool clampColorAtOne);
TESSERA_API PointOp MakeContrast(const float contrast[4], const float pivot[4]);
TESSERA_API int Contrast(const Image* out, const Image* in, const float contrast[4],
                         const float pivot[4]);
TESSERA_API PointOp MakeExponential(const float exponent[4], const float pivot[4]);
TESSERA_API int Exponential(const Image* out, const Image* in, const float exponent[4],
                            const float pivot[4]);
TESSERA_API Imath::Color4<float> Exponential(const Imath::Color4<float>& c, const float exponent[4],
                                             const float pivot[4]);
TESSERA_API PointOp MakeCompressRange(float midGrey, float maximum, float scale, bool expand);
TESSERA_API int CompressRange(const Image* out, const Image* in, float midGrey, float maximum,
                              float scale);
TESSERA_API int ExpandRange(const Image* out, const Image* in, float midGrey, float maximum,
                            float scale);
TESSERA_API Imath::Color4<float> CompressColor(const Imath::Color4<float>& c, float midGrey,
                                               float maximum, float scale);
TESSERA_API Imath::Color4<float> ExpandColor(const Imath::Color4<float>& c, float midGrey,
                                             float maximum, float scale);
// The standard compress/expand range parameters; each pointer may be null.
TESSERA_API void GetStandardRangeParameters(float* midGrey, float* maximum, float* scale);
TESSERA_API PointOp MakeNContrastBoost(float amount, bool alphaToo);
TESSERA_API int NContrastBoost(const Image* out, const Image* in, float amount, bool alphaToo);
TESSERA_API int Fringe(const Image* out, const Image* in);
TESSERA_API Imath::Color4<float> FringeColor(const Imath::Color4<float>& c);
TESSERA_API PointOp MakeHSVToAlpha(int component);
TESSERA_API int HSVConvert_HueToA(const Image* out, const Image* in);
TESSERA_API int HSVConvert_SatToA(const Image* out, const Image* in);
TESSERA_API int HSVConvert_ValToA(const Image* out, const Image* in);
TESSERA_API PointOp MakeHSVConvert(bool toHSV);
TESSERA_API int HSVConvert(const Image* out, const Image* in, bool toHSV);
TESSERA_API PointOp MakeLabConvert(bool toLab);
TESSERA_API int LabConvert(const Image* out, const Image* in, bool toLab);
TESSERA_API Imath::Color4<float> LabConvert(const Imath::Color4<float>& c, bool toLab);
TESSERA_API PointOp MakeLumaCurve(const Imath::Color3<float>& weights, const float* points,
                                  int64_t pairs);
TESSERA_API int ApplyLumaCurve(const Image* out, const Image* in,
                               const Imath::Color3<float>& weights, const float* points,
                               int64_t pairs);
TESSERA_API Imath::Color4<float> ApplyLumaCurveColor(const Imath::Color4<float>& c,
                                                     const Imath::Color3<float>& weights,
                                                     const float* points, int64_t pairs);
TESSERA_API PointOp MakeRGBACurves(const float* const points[4], const int64_t pairs[4]);
TESSERA_API int ApplyRGBACurves(const Image* out, const Image* in, const float* r, int64_t nr,
                                const float* g, int64_t ng, const float* b, int64_t nb,
                                const float* a, int64_t na);
TESSERA_API Imath::Color4<float> ApplyRGBACurvesColor(const Imath::Color4<float>& c, const float* r,
                                                      int64_t nr, const float* g, int64_t ng,
                                                      const float* b, int64_t nb, const float* a,
                                                      int64_t na);
TESSERA_API int MaxRGBToAlpha(const Image* out, const Image* in);
TESSERA_API int MinRGBToAlpha(const Image* out, const Image* in);
TESSERA_API PointOp MakeScreenRGBToAlpha(uint64_t channel);
TESSERA_API int ScreenRGBToAlpha(const Image* out, const Image* in, uint64_t channel);
TESSERA_API int MultInverse(const Image* out, const Image* in);
TESSERA_API Imath::Color4<float> MultInverseColor(const Imath::Color4<float>& c);
TESSERA_API PointOp MakePosterize(float levels, float low, float high, bool alphaToo,
                                  bool clampToRange);
TESSERA_API int Posterize(const Image* out, const Image* in, float levels, float low, float high,
                          bool alphaToo, bool clampToRange);
TESSERA_API Imath::Color4<float> PosterizeColor(const Imath::Color4<float>& c, float levels,
                                                float low, float high, bool alphaToo,
                                                bool clampToRange);
TESSERA_API PointOp MakeLogConvert(const float black[4], const float white[4],
                                   const float density[4], bool toLog, bool alphaToo);
TESSERA_API int LogConvert(const Image* out, const Image* in, const float black[4],
                           const float white[4], const float density[4], bool toLog, bool alphaToo);
TESSERA_API Imath::Color4<float> LogConvert(const Imath::Color4<float>& c, const float black[4],
                                            const float white[4], const float density[4],
                                            bool toLog, bool alphaToo);
TESSERA_API PointOp MakeBloomControl(float threshold, float gain, bool isolate, bool luminance);
TESSERA_API int LuminanceBloomControl(const Image* out, const Image* in, float threshold,
                                      float gain, bool isolate);
TESSERA_API int RGBBloomControl(const Image* out, const Image* in, float threshold, float gain,
                                bool isolate);
TESSERA_API PointOp MakeColorMatrix(const float matrix[20]);
TESSERA_API int ColorMatrix(const Image* out, const Image* in, const float matrix[20]);
TESSERA_API Imath::Color4<float> ColorMatrix(const Imath::Color4<float>& c, const float matrix[20]);

TESSERA_API PointOp MakePremultiply();
TESSERA_API PointOp MakeLuminance(const Imath::Color3<float>& weights);
// Alpha from luminance: 0 at `low` and below, 1 at `high` and above, linear
// between (a step at `low` when they are equal); inverted on request.
TESSERA_API PointOp MakeLumaKey(const Imath::Color3<float>& weights, float low, float high,
                                bool invert);
// Alpha times a matte that is 0 where the pixel's chroma (B - Y, R - Y, Rec.709
// luma) is within `tolerance` of the key colour's (a distance relative to the
// key's own chroma), rising to 1 over `softness`; the key's strongest channel
// is then pulled towards the larger of the other two by `spill` (0 to 1).
TESSERA_API PointOp MakeChromaKey(const Imath::Color3<float>& key, float tolerance, float softness,
                                  float spill);

// Imath multiplies row vectors (v' = v M): IMGLIB row c, column k is M[k][c],
// column 4 the offset.
TESSERA_API void ConvertMtx_imathToImglib(float* out, const Imath::Matrix44<float>& m,
                                          const Imath::Color4<float>& offset);
// Rotation of hue by `degrees` about the grey axis (a matrix for row vectors).
TESSERA_API void BuildMatrix_HueShift(Imath::Matrix44<float>* m, float degrees);
// c' = luma + saturation (c - luma), luma = weights . rgb.
TESSERA_API void BuildMatrix_Saturation(Imath::Matrix44<float>* m, float saturation,
                                        const Imath::Color3<float>& weights);

}  // namespace IMGLIB
