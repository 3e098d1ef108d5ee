#include "filter/neighbourhoodtask.h"

#include <algorithm>

#include "cacheidstream.h"
#include "exceptions.h"
#include "filtertasks.h"
#include "imglib/channels.h"
#include "imglib/pixels.h"
#include "private/imglibcall.h"

namespace TESSERA {
namespace Private {

NeighbourhoodTask::NeighbourhoodTask(const std::string& name, float time, const std::string& type,
                                     TaskPtr image)
    : RenderTask(name, time), m_type(type) {
    registerInputTask(std::move(image));
}

void NeighbourhoodTask::checkReach(int64_t padX, int64_t padY) const {
    if (padX >= 0 && padY >= 0 && padX <= kMaxReach && padY <= kMaxReach) return;
    throw RenderTaskRenderingException(getNameAtTime(),
                                       "size: a reach of " + std::to_string(std::max(padX, padY)) +
                                           " pixels is out of range (0 to " +
                                           std::to_string(kMaxReach) + ")",
                                       -1);
}

void NeighbourhoodTask::setPadding(int64_t padX, int64_t padY) {
    checkReach(padX, padY);
    m_padX = padX;
    m_padY = padY;
}

void NeighbourhoodTask::setExtension(IMGLIB::ExtendMethod method, bool extendFlag,
                                     const UTIL::Rect& extendRect) {
    m_extendMethod = method;
    m_extendFlag = extendFlag;
    m_extendRect = extendRect;
}

size_t NeighbourhoodTask::addAuxiliaryInput(TaskPtr input, uint64_t channels, int64_t padX,
                                            int64_t padY, std::optional<UTIL::Rect> fixedRect) {
    checkReach(padX, padY);
    m_auxiliary.push_back({channels, padX, padY, fixedRect});
    return registerInputTask(std::move(input));
}

void NeighbourhoodTask::computeCacheID(CacheIDStream& stream) {
    stream << m_padX << "," << m_padY << "," << int(m_extendMethod) << "," << m_extendFlag << ","
           << m_extendRect << ";";
    describe(stream);
}

uint64_t NeighbourhoodTask::computeOutputChannels() {
    return getDefinedInputChannels(0);
}

UTIL::Region NeighbourhoodTask::computeOutputDataRegion() {
    UTIL::Region region;
    for (const UTIL::Rect& r : getDefinedInputDataRegion(0).rects())
        region.add(r.grown(m_padX, m_padY));
    return region;
}

void NeighbourhoodTask::makeInputFormatRequests() {
    const uint64_t channels = getRequiredOutputChannels();
    const uint64_t imageChannels =
        m_imageChannels ? m_imageChannels : channels | (m_alwaysRead & getDefinedInputChannels(0));
    // Extension needs an edge to start from: the image's data when the
    // caller named none.
    UTIL::Rect edge = m_extendRect;
    if (edge.isNull() && m_extendMethod != IMGLIB::EXTEND_BACKGROUND)
        edge = getDefinedInputDataRegion(0).boundingBox();
    if (edge.isNull() && m_extendMethod != IMGLIB::EXTEND_BACKGROUND)
        addInputRequest(0, imageChannels);  // no data: nothing to extend
    else
        addInputRequest(0, imageChannels, m_extendMethod, m_extendFlag, edge);
    for (size_t i = 1; i <= m_auxiliary.size(); ++i) addInputRequest(i, auxiliaryChannels(i));
}

uint64_t NeighbourhoodTask::auxiliaryChannels(size_t input) {
    const uint64_t asked = m_auxiliary[input - 1].channels;
    if (asked == kAllDefinedChannels) return getDefinedInputChannels(input);
    return asked ? asked : getRequiredOutputChannels();
}

void NeighbourhoodTask::computeRequiredInputRectangles(const UTIL::Rect& outputRect,
                                                       std::vector<UTIL::Rect>& inputRects) {
    inputRects.assign(1, outputRect.grown(m_padX, m_padY));
    for (const Auxiliary& a : m_auxiliary)
        inputRects.push_back(a.fixedRect ? *a.fixedRect : outputRect.grown(a.padX, a.padY));
}

void NeighbourhoodTask::renderRect(const IMGLIB::Image* out,
                                   const std::vector<const IMGLIB::Image*>& inputs) {
    if (m_fillWithoutImage && (inputs.empty() || !inputs[0])) {
        // The task's own background: the input's, unless the member says
        // what its operator makes of a constant image.
        const Imath::Color4<float>& bg = getBackgroundColor();
        const float rgba[4] = {bg.r, bg.g, bg.b, bg.a};
        check(IMGLIB::Fill(out, rgba));
        return;
    }
    if (std::find(inputs.begin(), inputs.end(), nullptr) == inputs.end()) {
        filterAsked(out, inputs);
        return;
    }
    // Missing inputs stand in as images of their background colour.
    std::vector<const IMGLIB::Image*> images(inputs);
    ImageBuffer_MultiLockScoper locks;
    std::vector<UTIL::Rect> rects;
    computeRequiredInputRectangles(UTIL::Rect(out->x1, out->y1, out->x2, out->y2), rects);
    for (size_t i = 0; i < images.size(); ++i) {
        if (images[i]) continue;
        const uint64_t asked = i == 0 ? m_imageChannels : auxiliaryChannels(i);
        ImageBuffer standIn =
            makeBackgroundInputImage(i, IMGLIB::ValidateChannelMask(asked ? asked : out->channels),
                                     rects[i], getName() + ".background" + std::to_string(i));
        images[i] = locks.push(standIn);
    }
    filterAsked(out, images);
}

void NeighbourhoodTask::filterAsked(const IMGLIB::Image* out,
                                    const std::vector<const IMGLIB::Image*>& in) {
    if (!m_alwaysRead || in[0]->channels == out->channels) {
        filter(out, in);
        return;
    }
    ImageBuffer whole(in[0]->channels, UTIL::Rect(out->x1, out->y1, out->x2, out->y2),
                      getName() + ".allChannelsRead");
    ImageBuffer_LockScoper lock(whole);
    filter(whole.getImage(), in);
    check(IMGLIB::CopyInto(out, whole.getImage()));
}

void NeighbourhoodTask::check(int status) {
    checkImglib(status, getNameAtTime());
}

TaskPtr withBloom(const std::string& name, float time, const BloomControlSettings& bloom,
                  TaskPtr input) {
    if (bloom.gain == 1.0f && !bloom.isolate) return input;
    TaskPtr bloomed = createBloomTask(name + ".Bloom", time, bloom, std::move(input));
    bloomed->setCaching(false);
    return bloomed;
}

}  // namespace Private

BloomControlSettings noBloom() {
    BloomControlSettings none;
    none.gain = 1.0f;
    none.isolate = false;
    return none;
}

}  // namespace TESSERA
