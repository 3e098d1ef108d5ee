/// @file
/// Geometric transforms by 3x3 matrices, and motion blur over a shutter.
#pragma once

#include <Imath/ImathMatrix.h>
#include <Imath/ImathVec.h>

#include <cstdint>
#include <string>
#include <vector>

#include "imglib/image.h"
#include "imglib/kernels.h"
#include "rendertask.h"
#include "tessera_export.h"

namespace TESSERA {

/// How a matrix transform filters.
struct TESSERA_API HomTransformParams {
    IMGLIB::KernelType primaryKernel = IMGLIB::KERNEL_CATMULL_ROM;    ///< reconstructs
    IMGLIB::KernelType secondaryKernel = IMGLIB::KERNEL_CATMULL_ROM;  ///< where it minifies
    bool clampOutput = false;              ///< a cleanup clamp after the transform
    bool filterInCompressedRange = false;  ///< filter in the standard compressed range
    bool useAffine = false;                ///< one matrix: the affine task
    int32_t motionSamplesPerStratum = 1;   ///< motion blur: matrices per stratum
};

/// One matrix: a projective (or affine) transform of input. Several: the
/// same task if they are all equal, else a motion blur averaging, for each
/// output pixel, one matrix from each stratum of motionSamplesPerStratum
/// consecutive matrices. A singular matrix throws "Cannot invert singular
/// matrix." (motion blur takes identity for it); an empty list, a
/// motionSamplesPerStratum below 1 or a number beyond ±2^30 throws
/// InvalidParameterException naming the task, the parameter and the value.
TESSERA_API TaskPtr createHomTransformTask(const std::string& name, float time,
                                           const HomTransformParams& params,
                                           const std::vector<Imath::Matrix33<float>>& matrices,
                                           TaskPtr input);

/// Scale and translate: the output pixel centre X reads the input at
/// (X - translate) / scale, filtered separably by `filter` (its natural
/// width where the scale enlarges, widened by 1 / scale where it reduces, so
/// a reduction is free of aliasing). The output's box is the input's box
/// mapped; pixels the filter reads beyond the input's box are `extend`ed.
struct TESSERA_API ResizeParams {
    float scaleX = 1;      ///< the factor of width
    float scaleY = 1;      ///< the factor of height
    float translateX = 0;  ///< the move right after scaling, in pixels
    float translateY = 0;  ///< the move down after scaling
    IMGLIB::KernelType filter = IMGLIB::KERNEL_LANCZOS3;  ///< the reconstruction filter
    IMGLIB::ExtendMethod extend = IMGLIB::EXTEND_CLAMP;   ///< what it reads beyond the box
    /// When not empty, the output's box exactly (a resize to a size in whole
    /// pixels), in place of the input's box mapped and rounded outwards.
    UTIL::Rect box;
};

/// Scales of 0, below 1/1024 or above 1024, or not finite, throw
/// InvalidParameterException naming the task, the parameter and the value.
TESSERA_API TaskPtr createResizeTask(const std::string& name, float time,
                                     const ResizeParams& params, TaskPtr input);

/// Brown-Conrady lens distortion: radial k1, k2, k3 and tangential p1, p2
/// about the centre of `format` (plus `centre`), in units of half its
/// width; a null format stands for the input's box. Applied (the inverse
/// found numerically) or, with undistort, removed; the output box holds the
/// whole input. Give the plate's format when chaining: an overscanned
/// result has a larger box than the plate.
struct TESSERA_API LensDistortionParams {
    float k1 = 0;             ///< radial, r^2
    float k2 = 0;             ///< radial, r^4
    float k3 = 0;             ///< radial, r^6
    float p1 = 0;             ///< tangential
    float p2 = 0;             ///< tangential
    Imath::V2f centre{0, 0};  ///< the distortion's centre off the format's, in pixels
    UTIL::Rect format;        ///< the frame the units follow (null: the input's box)
    bool undistort = false;   ///< remove the distortion instead of applying it
};
/// The input distorted (or undistorted) as the parameters say.
TESSERA_API TaskPtr createLensDistortionTask(const std::string& name, float time,
                                             const LensDistortionParams& params, TaskPtr input);

/// The input read where an ST map points: s and t (the map's channels
/// sChannel and tChannel) run 0 to 1 across the input's box, t upwards. A
/// map without those channels throws std::invalid_argument naming them.
TESSERA_API TaskPtr createSTMapTask(const std::string& name, float time, uint64_t sChannel,
                                    uint64_t tChannel, TaskPtr input, TaskPtr map);

}  // namespace TESSERA
