#include <random>

#include "imglib/pixels.h"
#include "private/imglibcall.h"
#include "transform/projectivetransformtask.h"
#include "util/exceptions.h"

UTIL_ASSERT_SOURCE("transform/motionblurtransform")

namespace TESSERA {
namespace Private {

MotionBlurTransformTask::MotionBlurTransformTask(
    const std::string& name, float time, const std::vector<Imath::Matrix33<float>>& matrices,
    IMGLIB::KernelType primary, IMGLIB::KernelType secondary, int32_t samplesPerStratum,
    TaskPtr inputTask)
    : RenderTask(name, time),
      m_matrices(matrices),
      m_primary(primary),
      m_secondary(secondary),
      m_samplesPerStratum(static_cast<uint64_t>(samplesPerStratum)) {
    UTIL_ASSERT(inputTask);
    registerInputTask(inputTask);
}

void MotionBlurTransformTask::computeCacheID(CacheIDStream& stream) {
    for (const Imath::Matrix33<float>& m : m_matrices) stream << m << ",";
    stream << int(m_primary) << "," << int(m_secondary) << "," << m_samplesPerStratum << ","
           << kIndexSetCount << ",";
}

uint64_t MotionBlurTransformTask::computeOutputChannels() {
    // Singular matrices stand for identity here (the projective task refuses them).
    m_inverses.clear();
    for (const Imath::Matrix33<float>& m : m_matrices) m_inverses.push_back(m.inverse(false));
    m_inputBounds = getDefinedInputDataRegion(0).boundingBox();
    return getDefinedInputChannels(0);
}

UTIL::Region MotionBlurTransformTask::computeOutputDataRegion() {
    UTIL::Region region;
    for (const UTIL::Rect& r : getDefinedInputDataRegion(0).rects()) {
        UTIL::Rect box;
        for (const Imath::Matrix33<float>& m : m_matrices)
            box = box.boundingBox(IMGLIB::GetTransformedOutputRect(m, m_primary, m_secondary, r));
        region.add(box);
    }
    region.simplify();
    return region;
}

void MotionBlurTransformTask::makeInputFormatRequests() {
    addInputRequest(0, getDefinedInputChannels(0) & getRequiredOutputChannels());
}

void MotionBlurTransformTask::computeRequiredInputRectangles(const UTIL::Rect& outputRect,
                                                             std::vector<UTIL::Rect>& inputRects) {
    UTIL::Rect box;
    for (const Imath::Matrix33<float>& inverse : m_inverses)
        box = box.boundingBox(
            IMGLIB::GetRequiredTransformInputRect(inverse, m_primary, m_secondary, outputRect));
    inputRects.assign(1, box.intersection(m_inputBounds));
}

std::vector<std::vector<size_t>> MotionBlurTransformTask::buildIndexSets() const {
    const uint64_t S = m_samplesPerStratum;
    const size_t K = static_cast<size_t>(m_matrices.size() / S);  // the last N mod S are unused
    std::mt19937 generator(5489u);
    // A uniform draw in [0, S - 1] from one 32-bit output, by rejection.
    const uint64_t range = 0xFFFFFFFFull;
    const uint64_t divisor = range / S + (range % S == S - 1 ? 1 : 0);
    std::vector<std::vector<size_t>> sets(kIndexSetCount, std::vector<size_t>(K));
    for (std::vector<size_t>& set : sets)
        for (size_t k = 0; k < K; ++k) {
            uint64_t r = 0;
            if (S > 1) do
                    r = generator() / divisor;
                while (r > S - 1);
            set[k] = static_cast<size_t>(k * S + r);
        }
    return sets;
}

void MotionBlurTransformTask::preRender() {
    // Transparent black outside the input, whatever the task's background.
    m_function.reset(IMGLIB::createMotionBlurTransformFunction(
        m_matrices, buildIndexSets(), m_primary, m_secondary, Imath::Color4<float>(0, 0, 0, 0)));
}

void MotionBlurTransformTask::renderRect(const IMGLIB::Image* output,
                                         const std::vector<const IMGLIB::Image*>& inputs) {
    if (inputs.empty() || !inputs[0] || !m_function) {
        const Imath::Color4<float>& bg = getBackgroundColor();
        const float rgba[4] = {bg.r, bg.g, bg.b, bg.a};
        checkImglib(IMGLIB::Fill(output, rgba), getNameAtTime());
        return;
    }
    checkImglib(m_function->apply(output, inputs[0]), getNameAtTime());
}

}  // namespace Private
}  // namespace TESSERA
