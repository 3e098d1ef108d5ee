// createHomTransformTask: the transform, with its optional range and clamp
// wrappers.
#include <cmath>
#include <stdexcept>

#include "colortasks.h"
#include "private/operation.h"
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
        throw InvalidParameterException(name, "matrices", "needs at least one matrix");
    std::vector<float> numbers;
    for (const Imath::Matrix33<float>& m : matrices)
        numbers.insert(numbers.end(), m.getValue(), m.getValue() + 9);
    Private::checkParameters(
        "motionblur", name,
        {{"matrices", numbers}, {"samplesPerStratum", params.motionSamplesPerStratum}});
    Private::checkParameters(
        "transform", name,
        {{"filter", Private::choiceValue(Private::kernelChoices(), params.primaryKernel)},
         {"minifyFilter", Private::choiceValue(Private::kernelChoices(), params.secondaryKernel)}});
    const bool motion = matrices.size() > 1 && !allEqual(matrices);

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

namespace Private {

void declareTransformOperations(OperationList& ops) {
    ops.push_back(
        {"transform",
         "a 3x3 matrix (row vectors)",
         {Param{"matrix", ParamType::Matrix33, nlohmann::json{1, 0, 0, 0, 1, 0, 0, 0, 1},
                "the 3x3 matrix taking input pixels to output pixels, row vectors: (x, y, 1) × M"}
              .anyValue(),
          kernelParam("filter", "catmull-rom",
                      "the reconstruction filter where the transform enlarges"),
          kernelParam("minifyFilter", "catmull-rom", "the filter where the transform shrinks")},
         {"input"},
         [](const OperationArgs& a) {
             HomTransformParams p;
             p.primaryKernel = a.kernel("filter");
             p.secondaryKernel = a.kernel("minifyFilter");
             p.useAffine = true;
             return createHomTransformTask(a.node(), a.time(), p, {a.matrix("matrix")},
                                           a.input("input"));
         }});
    ops.push_back(
        {"motionblur",
         "average over a shutter of 3x3 matrices (9 numbers each)",
         {required(
              "matrices", ParamType::Floats,
              {1, 0, 0, 0, 1, 0, 0, 0, 1, 1, 0, 0, 0, 1, 0, 3.5, -2, 1, 1, 0, 0, 0, 1, 0, 7, -4, 1},
              "the shutter's matrices, 9 numbers each (as transform's), from shutter open to close")
              .anyValue(),
          Param{"samplesPerStratum", ParamType::Int, 1,
                "images averaged between two consecutive matrices"}
              .atLeast(1),
          kernelParam("filter", "catmull-rom", "the reconstruction filter")},
         {"input"},
         [](const OperationArgs& a) {
             const std::vector<float> values = a.floats("matrices");
             if (values.empty() || values.size() % 9)
                 a.fail("matrices", "needs 9 numbers per matrix");
             std::vector<Imath::Matrix33<float>> matrices;
             for (size_t i = 0; i < values.size(); i += 9) {
                 Imath::Matrix33<float> m;
                 for (int k = 0; k < 9; ++k) m[k / 3][k % 3] = values[i + size_t(k)];
                 matrices.push_back(m);
             }
             HomTransformParams p;
             p.primaryKernel = p.secondaryKernel = a.kernel("filter");
             p.motionSamplesPerStratum = a.integer("samplesPerStratum");
             return createHomTransformTask(a.node(), a.time(), p, matrices, a.input("input"));
         }});
    ops.back().rules = {"matrices holds 9 numbers per matrix, at least one matrix"};
    ops.push_back(
        {"rotate",
         "rotate and scale about a centre, then move",
         {Param{"degrees", ParamType::Number, 0,
                "the rotation, in degrees, counter-clockwise as viewed"}
              .range(-360000, 360000),
          Param{"scale", ParamType::Number, 1, "the factor of size, about the centre"}.range(
              1.0 / 1024, 1024),
          Param{"centre", ParamType::Vec2, json::array({0, 0}),
                "the centre of rotation and scale, in pixels"}
              .anyValue(),
          Param{"translate", ParamType::Vec2, json::array({0, 0}),
                "the move after rotation and scale, in pixels (right and down)"}
              .anyValue(),
          kernelParam("filter", "catmull-rom", "the reconstruction filter")},
         {"input"},
         [](const OperationArgs& a) {
             const Imath::V2f c = a.vec2("centre"), t = a.vec2("translate");
             Imath::Matrix33<float> toOrigin, s, r, back;
             toOrigin.setTranslation(-c);
             s.setScale(Imath::V2f(a.number("scale"), a.number("scale")));
             r.setRotation(a.number("degrees") * 3.14159265f / 180.0f);
             back.setTranslation(c + t);
             HomTransformParams p;
             p.primaryKernel = p.secondaryKernel = a.kernel("filter");
             p.useAffine = true;
             return createHomTransformTask(a.node(), a.time(), p, {toOrigin * s * r * back},
                                           a.input("input"));
         }});
}

}  // namespace Private

}  // namespace TESSERA
