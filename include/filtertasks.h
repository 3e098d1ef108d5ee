/// @file
/// Neighbourhood filters.
#pragma once

#include <string>

#include <Imath/ImathColor.h>

#include "colortasks.h"
#include "imglib/defocus.h"
#include "imglib/depthoffield.h"
#include "imglib/image.h"
#include "imglib/kernels.h"
#include "imglib/radialblur.h"
#include "imglib/vectorblur.h"
#include "rendertask.h"
#include "tessera_export.h"
#include "util/rect.h"

namespace TESSERA {

struct TESSERA_API BlurParams {
    float sizeX = 0.0f;  ///< filter width in pixels along x (1 or less: none)
    float sizeY = 0.0f;
    IMGLIB::FilterType filterX = IMGLIB::KERNEL_GAUSSIAN;
    IMGLIB::FilterType filterY = IMGLIB::KERNEL_GAUSSIAN;
    /// Outside its data the input is its background colour (0), or extended
    /// by clamping (1) or mirroring (2) from the edge of extendRect (the
    /// input's data when empty), beyond it too with extendFlag.
    ///@{
    IMGLIB::ExtendMethod extendMethod = IMGLIB::EXTEND_BACKGROUND;
    bool extendFlag = false;
    UTIL::Rect extendRect;
    ///@}
};

struct TESSERA_API PerChannelBlurParameters {
    float channelScale[4] = {1.0f, 1.0f, 1.0f, 1.0f};  ///< size multiplier for R, G, B, A
    BlurParams blur;
};

/// A separable blur: NAME.horzBlur along x, then NAME.vertBlur along y (the
/// result). Channels of different scales are blurred apart (NAME.red,
/// NAME.green, ...) and merged by NAME.ChannelMerge.
TESSERA_API TaskPtr createBlur(const std::string& name, float time,
                               const PerChannelBlurParameters& params, TaskPtr input);
/// The same factory under the name the other factories follow.
TESSERA_API TaskPtr createBlurTask(const std::string& name, float time,
                                   const PerChannelBlurParameters& params, TaskPtr input);

// ---- The rest of the neighbourhood family. Factories that need an input
// they were not given throw TesseraException; every factory returns a task
// whose defined region is its input's grown by the operator's reach.

/// Settings that leave a filter's input as it is before the filter: no bloom.
TESSERA_API BloomControlSettings noBloom();

/// A blur whose size follows a control image: `size` scaled by the control's
/// channel times controlScale, clamped to [0, 1] (see IMGLIB::ImageBlur).
struct TESSERA_API ImageBlurParams {
    float sizeX = 10.0f;
    float sizeY = 10.0f;
    IMGLIB::FilterType filter = IMGLIB::KERNEL_GAUSSIAN;
    uint64_t controlChannel = IMGLIB::CHANNEL_A;
    float controlScale = 1.0f;
    int64_t layers = 8;  ///< fixed-size blurs blended between (1 to 256)
};
TESSERA_API TaskPtr createImageBlur(const std::string& name, float time,
                                    const ImageBlurParams& params,
                                    const BloomControlSettings& bloom, TaskPtr image,
                                    TaskPtr control);

/// Defocus by a lens aperture `size` pixels across (IMGLIB::Defocus).
struct TESSERA_API DefocusParams {
    float size = 10.0f;
    float aspect = 1.0f;
    int64_t blades = 0;  ///< fewer than 3: a disc
    float rotation = 0.0f;
};
/// smoothEdges weighs pixels by the part of them inside the aperture.
TESSERA_API TaskPtr createDefocusTask(const std::string& name, float time,
                                      const DefocusParams& params, TaskPtr input, bool smoothEdges);

/// Defocus whose diameter follows a control image: size x clamp(control x
/// controlScale, 0, 1).
struct TESSERA_API ImageDefocusParams {
    DefocusParams defocus;
    bool smoothEdges = true;
    uint64_t controlChannel = IMGLIB::CHANNEL_A;
    float controlScale = 1.0f;
    int64_t layers = 8;
};
TESSERA_API TaskPtr createImageDefocusTask(const std::string& name, float time,
                                           const ImageDefocusParams& params, TaskPtr image,
                                           TaskPtr control);

/// Convolution by the pixels of a kernel image over kernelRect (its data's
/// bounds when empty), the pixel at the centre (kernelRect's middle, rounded
/// down, unless `centred` is off) over the output pixel.
struct TESSERA_API ImageConvolveParams {
    UTIL::Rect kernelRect;
    bool centred = true;
    int64_t centreX = 0;
    int64_t centreY = 0;
};
/// normalize divides each channel by the sum of its kernel weights.
TESSERA_API TaskPtr createImageConvolveTask(const std::string& name, float time, bool normalize,
                                            const ImageConvolveParams& params, TaskPtr image,
                                            TaskPtr kernel);
/// The kernel input divided, channel by channel, by its sum over rect: a
/// kernel of unit energy that keeps an image's brightness.
TESSERA_API TaskPtr createEnergyNormalizationTask(const std::string& name, float time,
                                                  const UTIL::Rect& rect, TaskPtr kernel);

TESSERA_API TaskPtr createRadialBlur(const std::string& name, float time,
                                     const IMGLIB::RadialBlurParams& params,
                                     IMGLIB::ExtendMethod extendMethod, bool extendFlag,
                                     const UTIL::Rect& extendRect, TaskPtr input);

/// A blur along a line (IMGLIB::LineBlur).
struct TESSERA_API DirectionalBlurParams {
    float length = 10.0f;
    float angle = 0.0f;   ///< degrees counter-clockwise from +x
    float offset = 0.0f;  ///< -1 behind, 0 centred, 1 ahead
    float density = 1.0f;
    IMGLIB::FilterType filter = IMGLIB::KERNEL_BOX;
    bool bilinear = true;
};
TESSERA_API TaskPtr createDirectionalBlur(const std::string& name, float time,
                                          const DirectionalBlurParams& params,
                                          const BloomControlSettings& bloom, TaskPtr input);

/// Motion blur along per-pixel vectors (IMGLIB::VectorBlur, or
/// IMGLIB::VectorSplat when splat is set).
struct TESSERA_API VectorBlurParams {
    IMGLIB::VectorBlurSettings vectors;
    bool splat = false;
};
TESSERA_API TaskPtr createVectorBlur(const std::string& name, float time,
                                     const VectorBlurParams& params,
                                     const BloomControlSettings& bloom, TaskPtr image,
                                     TaskPtr vectors);

struct TESSERA_API MedianFilterParams {
    float sizeX = 3.0f;  ///< window widths
    float sizeY = 3.0f;
    bool circular = false;
    float threshold = 0.0f;  ///< > 0: replace only outliers
};
TESSERA_API TaskPtr createMedianFilterTask(const std::string& name, float time,
                                           const MedianFilterParams& params, TaskPtr input);

/// Radii in pixels: positive dilates, negative erodes.
struct TESSERA_API ErodeDilateParams {
    float radiusX = 1.0f;
    float radiusY = 1.0f;
};
TESSERA_API TaskPtr createErodeDilateTask(const std::string& name, float time,
                                          const ErodeDilateParams& params, TaskPtr input);

struct TESSERA_API BilateralFilterParams {
    uint32_t radiusX = 5;
    uint32_t radiusY = 5;
    float sigmaSpatial = 3.0f;
    float sigmaRange = 0.1f;
};
TESSERA_API TaskPtr createBilateralFilterTask(const std::string& name, float time,
                                              const BilateralFilterParams& params, TaskPtr input);

enum EdgeDetectMethod : int32_t { EDGE_SOBEL = 0, EDGE_BABU = 1 };
struct TESSERA_API EdgeDetectParams {
    EdgeDetectMethod method = EDGE_SOBEL;
    bool select = false;     ///< thin 0/1 edges instead of the gradient magnitude
    float threshold = 0.1f;  ///< the weakest edge selected
};
TESSERA_API TaskPtr createEdgeDetectTask(const std::string& name, float time,
                                         const EdgeDetectParams& params, TaskPtr input);

/// image + amount (image - blurred) where the difference exceeds threshold,
/// per R, G, B, A.
TESSERA_API TaskPtr createUnSharpTask(const std::string& name, float time,
                                      Imath::Color4<float> amount, Imath::Color4<float> threshold,
                                      TaskPtr image, TaskPtr blurred);

/// Colour carried `distance` pixels out past the matte's edge.
TESSERA_API TaskPtr createPerimeterExtendTask(const std::string& name, float time, float distance,
                                              TaskPtr input);

/// Highlights a glint streaks (IMGLIB::GlintControl).
struct TESSERA_API GlintControlParams {
    float threshold = 1.0f;
    float gain = 1.0f;
};
struct TESSERA_API GlintParams {
    int64_t rays = 4;
    float length = 50.0f;
    float rotation = 45.0f;
};
/// Streaks of `source` (the image itself when null) added to the image when
/// addToImage, else alone.
///@{
TESSERA_API TaskPtr createGlintTask(const std::string& name, float time, bool addToImage,
                                    const GlintParams& params, TaskPtr image, TaskPtr source);
TESSERA_API TaskPtr createGlintControlTask(const std::string& name, float time,
                                           const GlintControlParams& params, TaskPtr input);
///@}

/// Depth of field from a depth image.
struct TESSERA_API DepthOfFieldParams {
    IMGLIB::LensParams lens;
    uint64_t depthChannel = IMGLIB::CHANNEL_Z;
    bool physical = false;           ///< scatter (IMGLIB::PhysicalDepthOfField) rather than gather
    IMGLIB::ApertureShape aperture;  ///< of the gathering depth of field
    int64_t layers = 8;              ///< of the gathering depth of field
    float cleanupRadius = 2.0f;      ///< of the depth clean-up
};
enum CircleOfConfusionOutputType : int32_t {
    COC_OUTPUT_COC = 0,      ///< each pixel's own circle
    COC_OUTPUT_MINIMAL = 1,  ///< the smallest within the largest circle's radius
    COC_OUTPUT_MAXIMAL = 2,  ///< the largest within it
};
/// The circle of confusion, in pixels, in every channel of `channels` (the
/// depth channel when 0), from the depth channel of the input.
TESSERA_API TaskPtr createCircleOfConfusionTask(const std::string& name, float time,
                                                const DepthOfFieldParams& params, uint64_t channels,
                                                CircleOfConfusionOutputType type, TaskPtr depth);
/// The image blurred by its depth; where a mask is given, only as much as
/// the mask's alpha.
TESSERA_API TaskPtr createDepthOfFieldTask(const std::string& name, float time,
                                           const DepthOfFieldParams& params,
                                           const BloomControlSettings& bloom, TaskPtr image,
                                           TaskPtr depth, TaskPtr mask);
/// Depth with its holes filled and its foreground widened by cleanupRadius.
TESSERA_API TaskPtr createDOFDepthCleanupTask(const std::string& name, float time,
                                              const DepthOfFieldParams& params, TaskPtr depth);

}  // namespace TESSERA
