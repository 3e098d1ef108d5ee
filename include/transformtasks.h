// Geometric transforms by 3x3 matrices, and motion blur over a shutter.
#pragma once

#include <Imath/ImathMatrix.h>

#include <cstdint>
#include <string>
#include <vector>

#include "imglib/kernels.h"
#include "rendertask.h"
#include "tessera_export.h"

namespace TESSERA {

struct TESSERA_API HomTransformParams {
    IMGLIB::KernelType primaryKernel = IMGLIB::KERNEL_CATMULL_ROM;    // reconstructs
    IMGLIB::KernelType secondaryKernel = IMGLIB::KERNEL_CATMULL_ROM;  // where it minifies
    bool clampOutput = false;              // a cleanup clamp after the transform
    bool filterInCompressedRange = false;  // filter in the standard compressed range
    bool useAffine = false;                // one matrix: the affine task
    int32_t motionSamplesPerStratum = 1;   // motion blur: matrices per stratum
};

// One matrix: a projective (or affine) transform of input. Several: the
// same task if they are all equal, else a motion blur averaging, for each
// output pixel, one matrix from each stratum of motionSamplesPerStratum
// consecutive matrices. A singular matrix throws "Cannot invert singular
// matrix." (motion blur takes identity for it); an empty list or a zero
// motionSamplesPerStratum throws std::invalid_argument naming the task.
TESSERA_API TaskPtr createHomTransformTask(const std::string& name, float time,
                                           const HomTransformParams& params,
                                           const std::vector<Imath::Matrix33<float>>& matrices,
                                           TaskPtr input);

}  // namespace TESSERA
