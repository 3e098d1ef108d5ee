// createHomTransformTask: the transform, with its optional range and clamp
// wrappers.
#include <cmath>
#include <stdexcept>

#include "colortasks.h"
#include "transform/projectivetransformtask.h"
#include "transformtasks.h"

namespace TESSERA {
namespace {

// Element by element, relative to the first matrix's element.
bool allEqual(const std::vector<Imath::Matrix33<float>>& matrices) {
    const Imath::Matrix33<float>& first = matrices[0];
    for (size_t i = 1; i < matrices.size(); ++i)
        for (int r = 0; r < 3; ++r)
            for (int c = 0; c < 3; ++c)
                if (std::fabs(matrices[i][r][c] - first[r][c]) > std::fabs(first[r][c]) * 1e-9f)
                    return false;
    return true;
}

// The wrapper takes over the wrapped task's caching; the wrapped stops caching.
TaskPtr takeCaching(TaskPtr wrapper, const TaskPtr& wrapped) {
    wrapper->setCaching(wrapped->getCaching());
    wrapped->setCaching(false);
    return wrapper;
}

}  // namespace

TaskPtr createHomTransformTask(const std::string& name, float time,
                               const HomTransformParams& params,
                               const std::vector<Imath::Matrix33<float>>& matrices, TaskPtr input) {
    if (matrices.empty())
        throw std::invalid_argument(name + ": createHomTransformTask needs at least one matrix");
    const bool motion = matrices.size() > 1 && !allEqual(matrices);
    if (motion && params.motionSamplesPerStratum < 1)
        throw std::invalid_argument(name + ": motionSamplesPerStratum must be at least 1, not " +
                                    std::to_string(params.motionSamplesPerStratum));

    if (input && params.filterInCompressedRange)
        input = takeCaching(createStandardCompressRangeTask(input->getName() + ".compressRange",
                                                            input->getTime(), input),
                            input);

    TaskPtr transform;
    if (motion)
        transform = TaskPtr(new Private::MotionBlurTransformTask(
            name, time, matrices, params.primaryKernel, params.secondaryKernel,
            params.motionSamplesPerStratum, input));
    else if (matrices.size() == 1 && params.useAffine)
        transform = TaskPtr(new Private::AffineTransformTask(
            name, time, matrices[0], params.primaryKernel, params.secondaryKernel, input));
    else
        transform = TaskPtr(new Private::ProjectiveTransformTask(
            name, time, matrices[0], params.primaryKernel, params.secondaryKernel, input));

    TaskPtr current = transform;
    if (params.filterInCompressedRange)
        current = takeCaching(createStandardExpandRangeTask(transform->getName() + ".expandRange",
                                                            transform->getTime(), transform),
                              current);
    if (params.clampOutput)
        current = takeCaching(createCleanupClampTask(transform->getName() + ".clamp",
                                                     transform->getTime(), false, current),
                              current);
    return current;
}

}  // namespace TESSERA
