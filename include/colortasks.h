/// @file
/// The colour operations: single-input, pixel-by-pixel tasks. Each factory
/// builds one operator and wraps it in an InPlaceTask, so chains of them run
/// as one pass. Some return their input itself when they would change nothing.
#pragma once

#include <Imath/ImathColor.h>
#include <Imath/ImathMatrix.h>

#include <cstdint>
#include <string>
#include <vector>

#include "rendertask.h"
#include "tessera_export.h"

namespace TESSERA {

/// One component of hue, saturation and value.
enum HSVComponent : int { HSV_HUE = 0, HSV_SATURATION = 1, HSV_VALUE = 2 };

/// A turn of hue and a change of saturation about the grey axis.
struct TESSERA_API HueShiftParams {
    float hueShift = 0.0f;                                    ///< degrees about the grey axis
    float saturation = 1.0f;                                  ///< 0 grey, 1 unchanged
    Imath::Color3<float> weights{0.2126f, 0.7152f, 0.0722f};  ///< luma of grey
};

/// How bright values are tamed before a filter spreads them (and restored
/// after), so highlights bloom instead of smearing.
struct TESSERA_API BloomControlSettings {
    float threshold = 1.0f;  ///< values above it are scaled down...
    float gain = 0.5f;       ///< ...by this factor on the part above
    bool isolate = false;    ///< values below the threshold become 0
    bool luminance = true;   ///< act on luminance (hue kept) rather than per channel
};

/// An RGBA colour (premultiplied where it colours an image).
using Color4f = Imath::Color4<float>;

/// Per channel: max(c, low) when clampLow, min(c, high) when clampHigh.
/// Returns input when neither is set.
TESSERA_API TaskPtr createClampTask(const std::string& name, float sampleRate, const Color4f& low,
                                    const Color4f& high, bool clampLow, bool clampHigh,
                                    TaskPtr input);
/// Per channel: c >= threshold ? (replaceAbove ? above : c) : (replaceBelow ? below : c).
TESSERA_API TaskPtr createThresholdTask(const std::string& name, float sampleRate,
                                        const Color4f& threshold, bool replaceBelow,
                                        const Color4f& belowColor, bool replaceAbove,
                                        const Color4f& aboveColor, TaskPtr input);
/// Alpha to [0, 1], colour to 0 and above (and to 1 and below with clampColorAtOne).
TESSERA_API TaskPtr createCleanupClampTask(const std::string& name, float sampleRate,
                                           bool clampColorAtOne, TaskPtr input);
/// (c - pivot) * contrast + pivot. Returns input when contrast is 1 in all four.
TESSERA_API TaskPtr createContrastTask(const std::string& name, float sampleRate,
                                       const Color4f& contrast, const Color4f& pivot,
                                       TaskPtr input);
/// pivot * (c / pivot)^(1 / gamma) for c > 0. Returns input when gamma is 1 in all four.
TESSERA_API TaskPtr createGammaTask(const std::string& name, float sampleRate, const Color4f& gamma,
                                    const Color4f& pivot, TaskPtr input);
/// pivot * (c / pivot)^exponent for c > 0. Returns input when exponent is 1 in all four.
TESSERA_API TaskPtr createExponentialTask(const std::string& name, float sampleRate,
                                          const Color4f& exponent, const Color4f& pivot,
                                          TaskPtr input);
/// Log2 compression of RGB about midGrey mapping maximum to scale, or its inverse.
///@{
TESSERA_API TaskPtr createCompressRangeTask(const std::string& name, float sampleRate,
                                            float midGrey, float maximum, float scale, bool expand,
                                            TaskPtr input);
TESSERA_API TaskPtr createStandardCompressRangeTask(const std::string& name, float sampleRate,
                                                    TaskPtr input);
TESSERA_API TaskPtr createStandardExpandRangeTask(const std::string& name, float sampleRate,
                                                  TaskPtr input);
TESSERA_API TaskPtr createNContrastBoostTask(const std::string& name, float sampleRate,
                                             float amount, bool alphaToo, TaskPtr input);
TESSERA_API TaskPtr createFringeTask(const std::string& name, float sampleRate, TaskPtr input);
TESSERA_API TaskPtr createHSVComponentToAlphaTask(const std::string& name, float sampleRate,
                                                  HSVComponent component, TaskPtr input);
TESSERA_API TaskPtr createHSVConvertTask(const std::string& name, float sampleRate, bool toHSV,
                                         TaskPtr input);
TESSERA_API TaskPtr createLabTask(const std::string& name, float sampleRate, bool toLab,
                                  TaskPtr input);
///@}
/// Points are (x, y) pairs; they are sorted by x.
TESSERA_API TaskPtr createLumaCurvesTask(const std::string& name, float sampleRate,
                                         const Imath::Color3<float>& weights,
                                         const std::vector<float>& points, TaskPtr input);
/// Returns input when all four lists are empty.
///@{
TESSERA_API TaskPtr createRGBACurvesTask(const std::string& name, float sampleRate,
                                         const std::vector<float>& red,
                                         const std::vector<float>& green,
                                         const std::vector<float>& blue,
                                         const std::vector<float>& alpha, TaskPtr input);
TESSERA_API TaskPtr createMaxRGBToAlphaTask(const std::string& name, float sampleRate,
                                            TaskPtr input);
TESSERA_API TaskPtr createMinRGBToAlphaTask(const std::string& name, float sampleRate,
                                            TaskPtr input);
///@}
/// channel: 1 red, 2 green or 4 blue screen.
TESSERA_API TaskPtr createScreenRGBToAlphaTask(const std::string& name, float sampleRate,
                                               uint64_t channel, TaskPtr input);
/// Unpremultiplies: RGB / alpha where alpha is not 0.
TESSERA_API TaskPtr createMultInverseTask(const std::string& name, float sampleRate, TaskPtr input);
/// Colour times alpha (an image without alpha has alpha 0: add one first).
TESSERA_API TaskPtr createPremultiplyTask(const std::string& name, float sampleRate, TaskPtr input);
/// R = G = B = weights . RGB; alpha and other channels as they are.
TESSERA_API TaskPtr createLuminanceTask(const std::string& name, float sampleRate,
                                        const Imath::Color3<float>& weights, TaskPtr input);
/// Alpha from luminance: 0 up to `low`, 1 from `high`, linear between;
/// inverted on request. Colour is left alone (premultiply to cut it out).
TESSERA_API TaskPtr createLumaKeyTask(const std::string& name, float sampleRate,
                                      const Imath::Color3<float>& weights, float low, float high,
                                      bool invert, TaskPtr input);
/// A screen key: alpha falls to 0 where the chroma is within `tolerance` of
/// the key colour's (relative to the key's chroma), rising to 1 over
/// `softness`; `spill` (0 to 1) pulls the key's strongest channel down to
/// the larger of the other two. Colour is left alone otherwise.
///@{
TESSERA_API TaskPtr createChromaKeyTask(const std::string& name, float sampleRate,
                                        const Imath::Color3<float>& key, float tolerance,
                                        float softness, float spill, TaskPtr input);
TESSERA_API TaskPtr createPosterizeTask(const std::string& name, float sampleRate, float levels,
                                        float low, float high, bool alphaToo, bool clampToRange,
                                        TaskPtr input);
///@}
/// Cineon-style log conversion with black and white code values and density.
///@{
TESSERA_API TaskPtr createAnalyticalLogConvertTask(const std::string& name, float sampleRate,
                                                   const Color4f& blackCode,
                                                   const Color4f& whiteCode, const Color4f& density,
                                                   bool toLog, bool alphaToo, TaskPtr input);
TESSERA_API TaskPtr createBloomTask(const std::string& name, float sampleRate,
                                    const BloomControlSettings& settings, TaskPtr input);
TESSERA_API TaskPtr createInPlaceCopyTask(const std::string& name, float sampleRate, TaskPtr input);
///@}
/// out = in M + offset (row vectors, as Imath multiplies).
TESSERA_API TaskPtr createColorTransformTask(const std::string& name, float sampleRate,
                                             const Imath::Matrix44<float>& matrix,
                                             const Color4f& offset, TaskPtr input);
/// A matrix already in IMGLIB's layout: 4 rows of (r, g, b, a, offset).
///@{
TESSERA_API TaskPtr createColorTransformTask(const std::string& name, float sampleRate,
                                             const float* matrix, TaskPtr input);
TESSERA_API TaskPtr createGainTask(const std::string& name, float sampleRate, const Color4f& gain,
                                   TaskPtr input);
TESSERA_API TaskPtr createHueShiftTask(const std::string& name, float sampleRate,
                                       const HueShiftParams& params, TaskPtr input);
///@}

}  // namespace TESSERA
