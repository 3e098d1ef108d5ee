#include "transform/projectivetransformtask.h"

#include "imglib/pixels.h"
#include "private/imglibcall.h"
#include "util/exceptions.h"

UTIL_ASSERT_SOURCE("transform/projectivetransformtask")

namespace TESSERA {
namespace Private {

ProjectiveTransformTask::ProjectiveTransformTask(const std::string& name, float time,
                                                 const Imath::Matrix33<float>& m,
                                                 IMGLIB::KernelType primary,
                                                 IMGLIB::KernelType secondary, TaskPtr inputTask)
    : RenderTask(name, time), m_matrix(m), m_primary(primary), m_secondary(secondary) {
    UTIL_ASSERT(inputTask);
    m_inverse = m.inverse(true);  // throws "Cannot invert singular matrix."
    registerInputTask(inputTask);
}

void ProjectiveTransformTask::computeCacheID(CacheIDStream& stream) {
    stream << m_matrix << "," << int(m_primary) << "," << int(m_secondary) << ",";
}

uint64_t ProjectiveTransformTask::computeOutputChannels() {
    m_inputBounds = getDefinedInputDataRegion(0).boundingBox();
    return getDefinedInputChannels(0);
}

UTIL::Region ProjectiveTransformTask::computeOutputDataRegion() {
    UTIL::Region region;
    for (const UTIL::Rect& r : getDefinedInputDataRegion(0).rects())
        region.add(IMGLIB::GetTransformedOutputRect(m_matrix, m_primary, m_secondary, r));
    return region;
}

void ProjectiveTransformTask::makeInputFormatRequests() {
    addInputRequest(0, getDefinedInputChannels(0) & getRequiredOutputChannels());
}

void ProjectiveTransformTask::computeRequiredInputRectangles(const UTIL::Rect& outputRect,
                                                             std::vector<UTIL::Rect>& inputRects) {
    inputRects.assign(
        1, IMGLIB::GetRequiredTransformInputRect(m_inverse, m_primary, m_secondary, outputRect)
               .intersection(m_inputBounds));
}

void ProjectiveTransformTask::renderRect(const IMGLIB::Image* output,
                                         const std::vector<const IMGLIB::Image*>& inputs) {
    const Imath::Color4<float>& bg = getBackgroundColor();
    if (inputs.empty() || !inputs[0]) {
        const float rgba[4] = {bg.r, bg.g, bg.b, bg.a};
        checkImglib(IMGLIB::Fill(output, rgba), getNameAtTime());
        return;
    }
    checkImglib(IMGLIB::ProjTransformImage(output, inputs[0], m_matrix, m_primary, m_secondary, bg),
                getNameAtTime());
}

void AffineTransformTask::preRender() {
    m_function.reset(IMGLIB::createAffineTransformFunction(m_inputBounds, m_matrix, m_primary,
                                                           m_secondary, getBackgroundColor()));
}

void AffineTransformTask::renderRect(const IMGLIB::Image* output,
                                     const std::vector<const IMGLIB::Image*>& inputs) {
    if (inputs.empty() || !inputs[0] || !m_function) {
        ProjectiveTransformTask::renderRect(output, inputs);
        return;
    }
    checkImglib(m_function->apply(output, inputs[0]), getNameAtTime());
}

}  // namespace Private
}  // namespace TESSERA
