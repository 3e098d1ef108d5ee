#include "inplacetask.h"

#include <iostream>

#include "exceptions.h"
#include "imglib/channels.h"
#include "private/imglibcall.h"
#include "rendersystem/core/rendertask_imp.h"
#include "util/exceptions.h"

UTIL_ASSERT_SOURCE("rendersystem/core/inplacetask")

namespace TESSERA {

InPlaceOp::~InPlaceOp() = default;

std::size_t InPlaceOp::getOutputChannels(std::size_t channels) {
    return channels;
}

std::size_t InPlaceOp::getRequiredInputChannels(std::size_t channels) {
    return channels;
}

Imath::Color4<float> InPlaceOp::applyToColor(const Imath::Color4<float>& color) {
    std::cerr << getTypeString()
              << "::computeBackgroundColor is not implemented, using incorrect default "
                 "implementation."
              << std::endl;
    return color;
}

InPlaceTask::InPlaceTask(const InPlaceOpPtr& op, const std::string& name, float time, TaskPtr input)
    : RenderTask(name, time), m_ops{op} {
    if (!input)
        throw RenderTaskRenderingException(getNameAtTime(), "InPlace tasks require an input", -1);
    registerInputTask(input);
}

const InPlaceOpPtr& InPlaceTask::getOp() const {
    UTIL_ASSERT(m_ops.size() == 1);
    return m_ops[0];
}

void InPlaceTask::appendOp(const InPlaceOpPtr& op) {
    m_ops.push_back(op);
}

std::string InPlaceTask::getTypeString() {
    return m_ops.size() == 1 ? m_ops[0]->getTypeString() : "ConcatenatedInPlaceOp";
}

void InPlaceTask::computeCacheID(CacheIDStream& stream) {
    if (m_ops.size() == 1) {
        m_ops[0]->computeCacheID(stream);
        return;
    }
    // Each operator as its type and parameters, then "," (downstream first).
    for (const InPlaceOpPtr& op : m_ops) {
        stream << op->getTypeString();
        op->computeCacheID(stream);
        stream << ",";
    }
}

uint64_t InPlaceTask::computeOutputChannels() {
    uint64_t channels = getDefinedInputChannels(0);
    for (auto op = m_ops.rbegin(); op != m_ops.rend(); ++op)
        channels = (*op)->getOutputChannels(IMGLIB::ValidateChannelMask(channels));
    return channels;
}

UTIL::Region InPlaceTask::computeOutputDataRegion() {
    // Pixel-wise: outside the input's data the output is the operators'
    // image of the input's background colour, which is this task's.
    return getDefinedInputDataRegion(0);
}

Imath::Color4<float> InPlaceTask::computeBackgroundColor() {
    Imath::Color4<float> color = getInputBackgroundColor(0);
    for (auto op = m_ops.rbegin(); op != m_ops.rend(); ++op) color = (*op)->applyToColor(color);
    return color;
}

std::size_t InPlaceTask::requiredChannels(std::size_t* bufferChannels) {
    std::size_t channels = getRequiredOutputChannels();
    std::size_t buffer = 0;
    for (const InPlaceOpPtr& op : m_ops) {
        channels = op->getRequiredInputChannels(channels);
        buffer |= channels;
    }
    if (bufferChannels) *bufferChannels = buffer;
    return channels;
}

void InPlaceTask::makeInputFormatRequests() {
    addInputRequest(0, getDefinedInputChannels(0) & requiredChannels(nullptr));
}

void InPlaceTask::computeRequiredInputRectangles(const UTIL::Rect& outputRect,
                                                 std::vector<UTIL::Rect>& inputRects) {
    inputRects.assign(1, outputRect);
}

void InPlaceTask::renderRect(const IMGLIB::Image* out,
                             const std::vector<const IMGLIB::Image*>& inputImages) {
    UTIL_ASSERT(inputImages.size() > 0);
    UTIL_ASSERT(inputImages[0]);
    UTIL_ASSERT(m_ops.size() >= 1);
    const IMGLIB::Image* in = inputImages[0];
    if (m_ops.size() == 1) {
        Private::checkImglib(m_ops[0]->apply(out, in), getNameAtTime());
        return;
    }
    // Upstream first: consecutive table operators run as one fused pass,
    // which carries R, G, B and A in registers between them.
    std::vector<std::vector<IMGLIB::PointOp>> fused;
    std::vector<InPlaceOp*> steps;  // null where a fused group stands
    for (auto op = m_ops.rbegin(); op != m_ops.rend(); ++op) {
        if (const IMGLIB::PointOp* point = (*op)->getPointOp()) {
            if (steps.empty() || steps.back()) {
                fused.emplace_back();
                steps.push_back(nullptr);
            }
            fused.back().push_back(*point);
        } else {
            steps.push_back(op->get());
        }
    }
    std::size_t passed = 0;
    requiredChannels(&passed);
    const uint64_t bufferChannels = IMGLIB::ValidateChannelMask(passed);
    ImageBuffer buffer(bufferChannels, UTIL::Rect(out->x1, out->y1, out->x2, out->y2),
                       "Concatenated Buffer");
    // The output itself serves as the work image when it has every channel
    // that passes between the operators (or one fused pass is all there is).
    const bool inOutput = steps.size() == 1 || (out->channels & bufferChannels) == bufferChannels;
    if (!inOutput) buffer.lock();
    struct Unlock {
        ImageBuffer& buffer;
        bool locked;
        ~Unlock() {
            if (locked) buffer.unlockNoThrow();
        }
    } unlock{buffer, !inOutput};
    const IMGLIB::Image* work = inOutput ? out : buffer.getImage();

    size_t group = 0;
    for (size_t i = 0; i < steps.size(); ++i) {
        const IMGLIB::Image* source = i == 0 ? in : work;
        const IMGLIB::Image* target = i + 1 == steps.size() ? out : work;
        const int status = steps[i] ? steps[i]->apply(target, source)
                                    : IMGLIB::ApplyPointOps(target, source, fused[group].data(),
                                                            fused[group].size());
        if (!steps[i]) ++group;
        Private::checkImglib(status, getNameAtTime());
    }
}

void InPlaceTask::collapseChain(const std::vector<TaskPtr>& chain) {
    size_t begin = 0;
    while (begin < chain.size()) {
        size_t end = begin;
        while (end < chain.size() && dynamic_cast<InPlaceTask*>(chain[end].get())) ++end;
        if (end - begin >= 2) {
            auto* first = static_cast<InPlaceTask*>(chain[begin].get());
            for (size_t i = begin + 1; i < end; ++i)
                // A task collapsed in an earlier render brings all its operators.
                for (const InPlaceOpPtr& op : static_cast<InPlaceTask*>(chain[i].get())->m_ops)
                    first->appendOp(op);
            first->imp().replaceInput(0, chain[end - 1]->imp().getInputTask(0));
            // Logs and the observer name what the task now is.
            first->imp().m_typeString = first->getTypeString();
        }
        begin = end == begin ? begin + 1 : end;
    }
}

}  // namespace TESSERA
