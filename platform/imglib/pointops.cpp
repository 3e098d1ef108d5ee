#include "imglib/pointops.h"

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <string>

#include "imglib/channels.h"
#include "imglib/error.h"
#include "imglib/pixelengine.h"

namespace IMGLIB {
namespace {

int checkImages(const Image* out, const Image* in, const char* name) {
    if (!out || !in) return SetError(ERROR_NULL_IMAGE, std::string(name) + ": null image");
    if (!IsChannelMaskValid(out->channels) || !IsChannelMaskValid(in->channels))
        return SetError(ERROR_INVALID_CHANNEL_MASK, std::string(name) + ": invalid channel mask");
    if (out->width() == 0 || out->height() == 0) return ERROR_NONE;
    if ((!out->pixelPtr && out->channels) || (!in->pixelPtr && in->channels))
        return SetError(ERROR_NULL_IMAGE, std::string(name) + ": image has no pixel memory");
    if (in->x1 > out->x1 || in->y1 > out->y1 || in->x2 < out->x2 || in->y2 < out->y2)
        return SetError(ERROR_OUT_OF_BOUNDS,
                        std::string(name) + ": the input does not cover the output");
    return ERROR_NONE;
}

int run(const Image* out, const Image* in, const PointOp& op, const char* name) {
    return ApplyPointOps(out, in, &op, 1) == ERROR_NONE
               ? ERROR_NONE
               : SetError(GetError(), name + (": " + GetErrorMessage()));
}

Imath::Color4<float> runColor(const Imath::Color4<float>& c, const PointOp& op) {
    return ApplyPointOpsToColor(c, &op, 1);
}

// An operator whose parameters start with RGBA vectors, one after another.
PointOp vectorOp(PointOpKind kind, std::initializer_list<const float*> vectors) {
    PointOp op;
    op.kind = kind;
    float* p = op.p;
    for (const float* v : vectors) p = std::copy_n(v, 4, p);
    return op;
}

PointOp makeSimple(PointOpKind kind, int64_t i0 = 0) {
    PointOp op;
    op.kind = kind;
    op.i[0] = i0;
    return op;
}

}  // namespace

int ApplyPointOps(const Image* out, const Image* in, const PointOp* ops, size_t count) {
    if (int err = checkImages(out, in, "ApplyPointOps")) return err;
    if (out->width() > 0 && out->height() > 0 && out->channels)
        DispatchPointOps(out, in, ops, count);
    return ERROR_NONE;
}

Imath::Color4<float> ApplyPointOpsToColor(const Imath::Color4<float>& color, const PointOp* ops,
                                          size_t count) {
    alignas(16) float pixel[4] = {color.r, color.g, color.b, color.a};
    const Image image = SinglePixelImage(pixel);
    DispatchPointOps(&image, &image, ops, count);
    return Imath::Color4<float>(pixel[0], pixel[1], pixel[2], pixel[3]);
}

PointOp MakeClamp(const float low[4], const float high[4], bool clampLow, bool clampHigh) {
    PointOp op = vectorOp(POINTOP_CLAMP, {low, high});
    op.i[0] = clampLow;
    op.i[1] = clampHigh;
    return op;
}
int Clamp(const Image* out, const Image* in, const float low[4], const float high[4], bool clampLow,
          bool clampHigh) {
    return run(out, in, MakeClamp(low, high, clampLow, clampHigh), "Clamp");
}
Imath::Color4<float> ClampColor(const Imath::Color4<float>& c, const float low[4],
                                const float high[4], bool clampLow, bool clampHigh) {
    return runColor(c, MakeClamp(low, high, clampLow, clampHigh));
}

PointOp MakeThreshold(const float threshold[4], bool replaceBelow, const float below[4],
                      bool replaceAbove, const float above[4]) {
    PointOp op = vectorOp(POINTOP_THRESHOLD, {threshold, below, above});
    op.i[0] = replaceBelow;
    op.i[1] = replaceAbove;
    return op;
}
int Threshold(const Image* out, const Image* in, const float threshold[4], bool replaceBelow,
              const float below[4], bool replaceAbove, const float above[4]) {
    return run(out, in, MakeThreshold(threshold, replaceBelow, below, replaceAbove, above),
               "Threshold");
}

PointOp MakeCleanupClamp(bool clampColorAtOne) {
    PointOp op;
    op.kind = POINTOP_CLEANUP_CLAMP;
    op.i[0] = clampColorAtOne;
    return op;
}
int CleanupClamp(const Image* out, const Image* in, bool clampColorAtOne) {
    return run(out, in, MakeCleanupClamp(clampColorAtOne), "CleanupClamp");
}
Imath::Color4<float> CleanupClampColor(const Imath::Color4<float>& c, bool clampColorAtOne) {
    return runColor(c, MakeCleanupClamp(clampColorAtOne));
}

PointOp MakeContrast(const float contrast[4], const float pivot[4]) {
    return vectorOp(POINTOP_CONTRAST, {contrast, pivot});
}
int Contrast(const Image* out, const Image* in, const float contrast[4], const float pivot[4]) {
    return run(out, in, MakeContrast(contrast, pivot), "Contrast");
}

PointOp MakeExponential(const float exponent[4], const float pivot[4]) {
    return vectorOp(POINTOP_EXPONENTIAL, {exponent, pivot});
}
int Exponential(const Image* out, const Image* in, const float exponent[4], const float pivot[4]) {
    return run(out, in, MakeExponential(exponent, pivot), "Exponential");
}
Imath::Color4<float> Exponential(const Imath::Color4<float>& c, const float exponent[4],
                                 const float pivot[4]) {
    return runColor(c, MakeExponential(exponent, pivot));
}

PointOp MakeCompressRange(float midGrey, float maximum, float scale, bool expand) {
    PointOp op;
    op.kind = expand ? POINTOP_EXPAND_RANGE : POINTOP_COMPRESS_RANGE;
    op.p[0] = midGrey;
    op.p[1] = maximum;
    op.p[2] = scale;
    return op;
}
int CompressRange(const Image* out, const Image* in, float midGrey, float maximum, float scale) {
    return run(out, in, MakeCompressRange(midGrey, maximum, scale, false), "CompressRange");
}
int ExpandRange(const Image* out, const Image* in, float midGrey, float maximum, float scale) {
    return run(out, in, MakeCompressRange(midGrey, maximum, scale, true), "ExpandRange");
}
Imath::Color4<float> CompressColor(const Imath::Color4<float>& c, float midGrey, float maximum,
                                   float scale) {
    return runColor(c, MakeCompressRange(midGrey, maximum, scale, false));
}
Imath::Color4<float> ExpandColor(const Imath::Color4<float>& c, float midGrey, float maximum,
                                 float scale) {
    return runColor(c, MakeCompressRange(midGrey, maximum, scale, true));
}
void GetStandardRangeParameters(float* midGrey, float* maximum, float* scale) {
    if (midGrey) *midGrey = 0.18f;
    if (maximum) *maximum = 16.0f;
    if (scale) *scale = 1.0f;
}

PointOp MakeNContrastBoost(float amount, bool alphaToo) {
    PointOp op;
    op.kind = POINTOP_NCONTRAST_BOOST;
    op.p[0] = amount;
    op.i[0] = alphaToo;
    return op;
}
int NContrastBoost(const Image* out, const Image* in, float amount, bool alphaToo) {
    return run(out, in, MakeNContrastBoost(amount, alphaToo), "NContrastBoost");
}

int Fringe(const Image* out, const Image* in) {
    return run(out, in, makeSimple(POINTOP_FRINGE), "Fringe");
}
Imath::Color4<float> FringeColor(const Imath::Color4<float>& c) {
    return runColor(c, makeSimple(POINTOP_FRINGE));
}

PointOp MakeHSVToAlpha(int component) {
    return makeSimple(POINTOP_HSV_TO_ALPHA, component);
}
int HSVConvert_HueToA(const Image* out, const Image* in) {
    return run(out, in, MakeHSVToAlpha(0), "HSVConvert_HueToA");
}
int HSVConvert_SatToA(const Image* out, const Image* in) {
    return run(out, in, MakeHSVToAlpha(1), "HSVConvert_SatToA");
}
int HSVConvert_ValToA(const Image* out, const Image* in) {
    return run(out, in, MakeHSVToAlpha(2), "HSVConvert_ValToA");
}
PointOp MakeHSVConvert(bool toHSV) {
    return makeSimple(POINTOP_HSV_CONVERT, toHSV);
}
int HSVConvert(const Image* out, const Image* in, bool toHSV) {
    return run(out, in, MakeHSVConvert(toHSV), "HSVConvert");
}
PointOp MakeLabConvert(bool toLab) {
    return makeSimple(POINTOP_LAB_CONVERT, toLab);
}
int LabConvert(const Image* out, const Image* in, bool toLab) {
    return run(out, in, MakeLabConvert(toLab), "LabConvert");
}
Imath::Color4<float> LabConvert(const Imath::Color4<float>& c, bool toLab) {
    return runColor(c, MakeLabConvert(toLab));
}

PointOp MakeLumaCurve(const Imath::Color3<float>& weights, const float* points, int64_t pairs) {
    PointOp op;
    op.kind = POINTOP_LUMA_CURVE;
    op.p[0] = weights.x;
    op.p[1] = weights.y;
    op.p[2] = weights.z;
    op.curve[0] = points;
    op.curvePoints[0] = pairs;
    return op;
}
int ApplyLumaCurve(const Image* out, const Image* in, const Imath::Color3<float>& weights,
                   const float* points, int64_t pairs) {
    return run(out, in, MakeLumaCurve(weights, points, pairs), "ApplyLumaCurve");
}
Imath::Color4<float> ApplyLumaCurveColor(const Imath::Color4<float>& c,
                                         const Imath::Color3<float>& weights, const float* points,
                                         int64_t pairs) {
    return runColor(c, MakeLumaCurve(weights, points, pairs));
}

PointOp MakeRGBACurves(const float* const points[4], const int64_t pairs[4]) {
    PointOp op;
    op.kind = POINTOP_RGBA_CURVES;
    for (int k = 0; k < 4; ++k) {
        op.curve[k] = points[k];
        op.curvePoints[k] = pairs[k];
    }
    return op;
}
int ApplyRGBACurves(const Image* out, const Image* in, const float* r, int64_t nr, const float* g,
                    int64_t ng, const float* b, int64_t nb, const float* a, int64_t na) {
    const float* pts[4] = {r, g, b, a};
    const int64_t n[4] = {nr, ng, nb, na};
    return run(out, in, MakeRGBACurves(pts, n), "ApplyRGBACurves");
}
Imath::Color4<float> ApplyRGBACurvesColor(const Imath::Color4<float>& c, const float* r, int64_t nr,
                                          const float* g, int64_t ng, const float* b, int64_t nb,
                                          const float* a, int64_t na) {
    const float* pts[4] = {r, g, b, a};
    const int64_t n[4] = {nr, ng, nb, na};
    return runColor(c, MakeRGBACurves(pts, n));
}

int MaxRGBToAlpha(const Image* out, const Image* in) {
    return run(out, in, makeSimple(POINTOP_MAX_RGB_TO_ALPHA), "MaxRGBToAlpha");
}
int MinRGBToAlpha(const Image* out, const Image* in) {
    return run(out, in, makeSimple(POINTOP_MIN_RGB_TO_ALPHA), "MinRGBToAlpha");
}
PointOp MakeScreenRGBToAlpha(uint64_t channel) {
    return makeSimple(POINTOP_SCREEN_RGB_TO_ALPHA, static_cast<int64_t>(channel));
}
int ScreenRGBToAlpha(const Image* out, const Image* in, uint64_t channel) {
    return run(out, in, MakeScreenRGBToAlpha(channel), "ScreenRGBToAlpha");
}
int MultInverse(const Image* out, const Image* in) {
    return run(out, in, makeSimple(POINTOP_MULT_INVERSE), "MultInverse");
}
Imath::Color4<float> MultInverseColor(const Imath::Color4<float>& c) {
    return runColor(c, makeSimple(POINTOP_MULT_INVERSE));
}

PointOp MakePosterize(float levels, float low, float high, bool alphaToo, bool clampToRange) {
    PointOp op;
    op.kind = POINTOP_POSTERIZE;
    op.p[0] = levels;
    op.p[1] = low;
    op.p[2] = high;
    op.i[0] = alphaToo;
    op.i[1] = clampToRange;
    return op;
}
int Posterize(const Image* out, const Image* in, float levels, float low, float high, bool alphaToo,
              bool clampToRange) {
    return run(out, in, MakePosterize(levels, low, high, alphaToo, clampToRange), "Posterize");
}
Imath::Color4<float> PosterizeColor(const Imath::Color4<float>& c, float levels, float low,
                                    float high, bool alphaToo, bool clampToRange) {
    return runColor(c, MakePosterize(levels, low, high, alphaToo, clampToRange));
}

PointOp MakeLogConvert(const float black[4], const float white[4], const float density[4],
                       bool toLog, bool alphaToo) {
    PointOp op = vectorOp(POINTOP_LOG_CONVERT, {black, white, density});
    op.i[0] = toLog;
    op.i[1] = alphaToo;
    return op;
}
int LogConvert(const Image* out, const Image* in, const float black[4], const float white[4],
               const float density[4], bool toLog, bool alphaToo) {
    return run(out, in, MakeLogConvert(black, white, density, toLog, alphaToo), "LogConvert");
}
Imath::Color4<float> LogConvert(const Imath::Color4<float>& c, const float black[4],
                                const float white[4], const float density[4], bool toLog,
                                bool alphaToo) {
    return runColor(c, MakeLogConvert(black, white, density, toLog, alphaToo));
}

PointOp MakeBloomControl(float threshold, float gain, bool isolate, bool luminance) {
    PointOp op;
    op.kind = luminance ? POINTOP_BLOOM_LUMINANCE : POINTOP_BLOOM_RGB;
    op.p[0] = threshold;
    op.p[1] = gain;
    op.i[0] = isolate;
    return op;
}
int LuminanceBloomControl(const Image* out, const Image* in, float threshold, float gain,
                          bool isolate) {
    return run(out, in, MakeBloomControl(threshold, gain, isolate, true), "LuminanceBloomControl");
}
int RGBBloomControl(const Image* out, const Image* in, float threshold, float gain, bool isolate) {
    return run(out, in, MakeBloomControl(threshold, gain, isolate, false), "RGBBloomControl");
}

PointOp MakeColorMatrix(const float matrix[20]) {
    PointOp op;
    op.kind = POINTOP_COLOR_MATRIX;
    for (int k = 0; k < 20; ++k) op.p[k] = matrix[k];
    // A gain and offset per channel (most colour matrices) runs as one.
    bool perChannel = true;
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c)
            if (r != c && matrix[5 * r + c] != 0.0f) perChannel = false;
    op.i[0] = perChannel;
    return op;
}
int ColorMatrix(const Image* out, const Image* in, const float matrix[20]) {
    return run(out, in, MakeColorMatrix(matrix), "ColorMatrix");
}
Imath::Color4<float> ColorMatrix(const Imath::Color4<float>& c, const float matrix[20]) {
    return runColor(c, MakeColorMatrix(matrix));
}

PointOp MakePremultiply() {
    return makeSimple(POINTOP_PREMULTIPLY);
}

PointOp MakeLuminance(const Imath::Color3<float>& weights) {
    PointOp op;
    op.kind = POINTOP_LUMINANCE;
    op.p[0] = weights.x, op.p[1] = weights.y, op.p[2] = weights.z;
    return op;
}

PointOp MakeLumaKey(const Imath::Color3<float>& weights, float low, float high, bool invert) {
    PointOp op = MakeLuminance(weights);
    op.kind = POINTOP_LUMA_KEY;
    op.p[3] = low;
    op.p[4] = high > low ? 1.0f / (high - low) : 0.0f;
    op.i[0] = invert;
    return op;
}

PointOp MakeChromaKey(const Imath::Color3<float>& key, float tolerance, float softness,
                      float spill) {
    PointOp op;
    op.kind = POINTOP_CHROMA_KEY;
    const float y = 0.2126f * key.x + 0.7152f * key.y + 0.0722f * key.z;
    const float u = key.z - y, v = key.x - y, length = std::sqrt(u * u + v * v);
    op.p[0] = u, op.p[1] = v;
    op.p[2] = length > 0.0f ? 1.0f / length : 0.0f;
    op.p[3] = tolerance;
    op.p[4] = softness > 0.0f ? 1.0f / softness : 0.0f;
    op.p[5] = spill;
    op.i[0] = key.x >= key.y && key.x >= key.z ? 0 : key.y >= key.z ? 1 : 2;
    return op;
}

void ConvertMtx_imathToImglib(float* out, const Imath::Matrix44<float>& m,
                              const Imath::Color4<float>& offset) {
    const float off[4] = {offset.r, offset.g, offset.b, offset.a};
    for (int row = 0; row < 4; ++row) {
        for (int k = 0; k < 4; ++k) out[5 * row + k] = m[k][row];
        out[5 * row + 4] = off[row];
    }
}

void BuildMatrix_HueShift(Imath::Matrix44<float>* m, float degrees) {
    // Rodrigues' rotation about the unit grey axis (1, 1, 1) / sqrt(3).
    const float t = degrees * 3.14159265f / 180.0f;
    const float c = std::cos(t), s = std::sin(t), k = (1.0f - c) / 3.0f, q = s / std::sqrt(3.0f);
    const float rot[3][3] = {{c + k, k - q, k + q}, {k + q, c + k, k - q}, {k - q, k + q, c + k}};
    *m = Imath::Matrix44<float>();
    // Column vectors rotate by rot; row vectors by its transpose.
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) (*m)[j][i] = rot[i][j];
}

void BuildMatrix_Saturation(Imath::Matrix44<float>* m, float saturation,
                            const Imath::Color3<float>& weights) {
    const float w[3] = {weights.x, weights.y, weights.z};
    *m = Imath::Matrix44<float>();
    // Row vectors: out_j = sum_i in_i m[i][j].
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            (*m)[i][j] = (1.0f - saturation) * w[i] + (i == j ? saturation : 0.0f);
}

}  // namespace IMGLIB
