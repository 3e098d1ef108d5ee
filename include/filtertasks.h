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

/// A separable blur's size and filters, and what it reads beyond the input.
struct TESSERA_API BlurParams {
    float sizeX = 0.0f;  ///< filter width in pixels along x (1 or less: none)
    float sizeY = 0.0f;  ///< filter height in pixels along y (1 or less: none)
    IMGLIB::FilterType filterX = IMGLIB::KERNEL_GAUSSIAN;  ///< the filter's shape along x
    IMGLIB::FilterType filterY = IMGLIB::KERNEL_GAUSSIAN;  ///< the filter's shape along y
    /// Outside its data the input is its background colour (0), or extended
    /// by clamping (1) or mirroring (2) from the edge of extendRect (the
    /// input's data when empty), beyond it too with extendFlag.
    ///@{
    IMGLIB::ExtendMethod extendMethod = IMGLIB::EXTEND_BACKGROUND;
    bool extendFlag = false;
    UTIL::Rect extendRect;
    ///@}
};

/// A blur whose size may differ from channel to channel.
struct TESSERA_API PerChannelBlurParameters {
    float channelScale[4] = {1.0f, 1.0f, 1.0f, 1.0f};  ///< size multiplier for R, G, B, A
    BlurParams blur;  ///< the size at a scale of 1, the filters and the extension
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
    float sizeX = 10.0f;                                  ///< the widest blur, in pixels
    float sizeY = 10.0f;                                  ///< the tallest blur, in pixels
    IMGLIB::FilterType filter = IMGLIB::KERNEL_GAUSSIAN;  ///< the filter's shape
    uint64_t controlChannel = IMGLIB::CHANNEL_A;          ///< the control's channel read
    float controlScale = 1.0f;                            ///< the control value's factor
    int64_t layers = 8;  ///< fixed-size blurs blended between (1 to 256)
};
/// The image blurred as much as the control image says, pixel by pixel.
TESSERA_API TaskPtr createImageBlur(const std::string& name, float time,
                                    const ImageBlurParams& params,
                                    const BloomControlSettings& bloom, TaskPtr image,
                                    TaskPtr control);

/// Defocus by a lens aperture `size` pixels across (IMGLIB::Defocus).
struct TESSERA_API DefocusParams {
    float size = 10.0f;     ///< the aperture's width, in pixels
    float aspect = 1.0f;    ///< its height over its width
    int64_t blades = 0;     ///< fewer than 3: a disc
    float rotation = 0.0f;  ///< the polygon's turn, in degrees
};
/// smoothEdges weighs pixels by the part of them inside the aperture.
TESSERA_API TaskPtr createDefocusTask(const std::string& name, float time,
                                      const DefocusParams& params, TaskPtr input, bool smoothEdges);

/// Defocus whose diameter follows a control image: size x clamp(control x
/// controlScale, 0, 1).
struct TESSERA_API ImageDefocusParams {
    DefocusParams defocus;    ///< the largest aperture
    bool smoothEdges = true;  ///< weigh pixels by the part of them inside the aperture
    uint64_t controlChannel = IMGLIB::CHANNEL_A;  ///< the control's channel read
    float controlScale = 1.0f;                    ///< the control value's factor
    int64_t layers = 8;                           ///< fixed-size defocuses blended between
};
/// The image defocused as much as the control image says, pixel by pixel.
TESSERA_API TaskPtr createImageDefocusTask(const std::string& name, float time,
                                           const ImageDefocusParams& params, TaskPtr image,
                                           TaskPtr control);

/// Convolution by the pixels of a kernel image over kernelRect (its data's
/// bounds when empty), the pixel at the centre (kernelRect's middle, rounded
/// down, unless `centred` is off) over the output pixel.
struct TESSERA_API ImageConvolveParams {
    UTIL::Rect kernelRect;  ///< the kernel's pixels (its data's bounds when empty)
    bool centred = true;    ///< the kernel's middle over the output pixel (else centreX, centreY)
    int64_t centreX = 0;    ///< the kernel pixel over the output pixel, when not centred
    int64_t centreY = 0;    ///< (its y)
};
/// normalize divides each channel by the sum of its kernel weights.
TESSERA_API TaskPtr createImageConvolveTask(const std::string& name, float time, bool normalize,
                                            const ImageConvolveParams& params, TaskPtr image,
                                            TaskPtr kernel);
/// The kernel input divided, channel by channel, by its sum over rect: a
/// kernel of unit energy that keeps an image's brightness.
TESSERA_API TaskPtr createEnergyNormalizationTask(const std::string& name, float time,
                                                  const UTIL::Rect& rect, TaskPtr kernel);

/// A blur along rays from a centre, or around it (IMGLIB::RadialBlur); what it
/// reads beyond the input as BlurParams says.
TESSERA_API TaskPtr createRadialBlur(const std::string& name, float time,
                                     const IMGLIB::RadialBlurParams& params,
                                     IMGLIB::ExtendMethod extendMethod, bool extendFlag,
                                     const UTIL::Rect& extendRect, TaskPtr input);

/// A blur along a line (IMGLIB::LineBlur).
struct TESSERA_API DirectionalBlurParams {
    float length = 10.0f;                            ///< the line's length, in pixels
    float angle = 0.0f;                              ///< degrees counter-clockwise from +x
    float offset = 0.0f;                             ///< -1 behind, 0 centred, 1 ahead
    float density = 1.0f;                            ///< samples per pixel of length
    IMGLIB::FilterType filter = IMGLIB::KERNEL_BOX;  ///< the weights along the line
    bool bilinear = true;  ///< samples between pixels interpolated (else the nearest)
};
/// The input blurred along a line.
TESSERA_API TaskPtr createDirectionalBlur(const std::string& name, float time,
                                          const DirectionalBlurParams& params,
                                          const BloomControlSettings& bloom, TaskPtr input);

/// Motion blur along per-pixel vectors (IMGLIB::VectorBlur, or
/// IMGLIB::VectorSplat when splat is set).
struct TESSERA_API VectorBlurParams {
    IMGLIB::VectorBlurSettings vectors;  ///< how the vectors are read and sampled
    bool splat = false;                  ///< scatter each pixel along its vector (else gather)
};
/// The image blurred along the vectors image's per-pixel vectors.
TESSERA_API TaskPtr createVectorBlur(const std::string& name, float time,
                                     const VectorBlurParams& params,
                                     const BloomControlSettings& bloom, TaskPtr image,
                                     TaskPtr vectors);

/// A median window and what it replaces.
struct TESSERA_API MedianFilterParams {
    float sizeX = 3.0f;      ///< the window's width, in pixels
    float sizeY = 3.0f;      ///< its height
    bool circular = false;   ///< an elliptical window (else a rectangle)
    float threshold = 0.0f;  ///< > 0: replace only outliers
};
/// Each pixel the median of its window, channel by channel.
TESSERA_API TaskPtr createMedianFilterTask(const std::string& name, float time,
                                           const MedianFilterParams& params, TaskPtr input);

/// Radii in pixels: positive dilates, negative erodes.
struct TESSERA_API ErodeDilateParams {
    float radiusX = 1.0f;  ///< along x
    float radiusY = 1.0f;  ///< along y
};
/// Each pixel the maximum (dilate) or minimum (erode) of an ellipse around it.
TESSERA_API TaskPtr createErodeDilateTask(const std::string& name, float time,
                                          const ErodeDilateParams& params, TaskPtr input);

/// An edge-preserving smoothing's reach and falloffs.
struct TESSERA_API BilateralFilterParams {
    uint32_t radiusX = 5;       ///< the window's half width, in pixels
    uint32_t radiusY = 5;       ///< its half height
    float sigmaSpatial = 3.0f;  ///< the Gaussian falloff with distance, in pixels
    float sigmaRange = 0.1f;    ///< the Gaussian falloff with difference of value
};
/// Each pixel a mean of its neighbours weighted by distance and by likeness.
TESSERA_API TaskPtr createBilateralFilterTask(const std::string& name, float time,
                                              const BilateralFilterParams& params, TaskPtr input);

/// How gradients are measured: Sobel's 3x3 operator, or Babu's oriented masks.
enum EdgeDetectMethod : int32_t { EDGE_SOBEL = 0, EDGE_BABU = 1 };
/// An edge detector's method and what it gives.
struct TESSERA_API EdgeDetectParams {
    EdgeDetectMethod method = EDGE_SOBEL;  ///< the gradient operator
    bool select = false;                   ///< thin 0/1 edges instead of the gradient magnitude
    float threshold = 0.1f;                ///< the weakest edge selected
};
/// The input's edges, channel by channel.
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
    float threshold = 1.0f;  ///< the brightness above which a pixel streaks
    float gain = 1.0f;       ///< the factor of what exceeds it
};
/// A glint's star of streaks.
struct TESSERA_API GlintParams {
    int64_t rays = 4;        ///< streaks around each highlight
    float length = 50.0f;    ///< each streak's length, in pixels
    float rotation = 45.0f;  ///< the first streak's angle, in degrees
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
    IMGLIB::LensParams lens;                    ///< focal length, f-stop and focus distance
    uint64_t depthChannel = IMGLIB::CHANNEL_Z;  ///< the depth image's channel read
    bool physical = false;           ///< scatter (IMGLIB::PhysicalDepthOfField) rather than gather
    IMGLIB::ApertureShape aperture;  ///< of the gathering depth of field
    int64_t layers = 8;              ///< of the gathering depth of field
    float cleanupRadius = 2.0f;      ///< of the depth clean-up
};
/// What a circle-of-confusion task gives for each pixel.
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
