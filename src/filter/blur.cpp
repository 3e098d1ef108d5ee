// The separable blur: one task per pass, and the per-channel merge.
#include <array>

#include "filter/neighbourhoodtask.h"
#include "filtertasks.h"
#include "imglib/channels.h"
#include "imglib/fastfilter.h"
#include "imglib/pixels.h"
#include "private/imglibcall.h"
#include "private/inputabsorber.h"
#include "private/operation.h"

namespace TESSERA {
namespace Private {

// One pass of a separable blur (the other axis has size 0). A vertical pass
// whose horizontal pass has no other consumer does both in one sweep per
// tile, so the horizontal result is read back from cache, not memory.
class Blur : public NeighbourhoodTask, public InputAbsorber {
public:
    Blur(const std::string& name, float time, float sizeX, float sizeY, const BlurParams& params,
         TaskPtr input)
        : NeighbourhoodTask(name, time, "Blur", std::move(input)),
          m_sizeX(sizeX),
          m_sizeY(sizeY),
          m_params(params) {
        setPadding(IMGLIB::GetFilterPadding(sizeX), IMGLIB::GetFilterPadding(sizeY));
        setExtension(params.extendMethod, params.extendFlag, params.extendRect);
    }

    bool absorbInput(RenderTask& input) override {
        auto* horizontal = dynamic_cast<Blur*>(&input);
        if (!horizontal || m_sizeX != 0.0f || horizontal->m_sizeY != 0.0f ||
            horizontal->m_params.extendMethod != m_params.extendMethod ||
            horizontal->m_params.extendFlag != m_params.extendFlag ||
            !(horizontal->m_params.extendRect == m_params.extendRect))
            return false;
        m_sizeX = horizontal->m_sizeX;
        m_params.filterX = horizontal->m_params.filterX;
        setPadding(horizontal->padX(), padY());
        return true;
    }

protected:
    void describe(CacheIDStream& s) override {
        s << m_sizeX << "," << m_sizeY << "," << int(m_params.filterX) << ","
          << int(m_params.filterY);
    }
    void filter(const IMGLIB::Image* out, const std::vector<const IMGLIB::Image*>& in) override {
        check(IMGLIB::FastFilter(out, in[0], m_params.filterX, m_sizeX, m_params.filterY, m_sizeY));
    }

private:
    float m_sizeX, m_sizeY;
    BlurParams m_params;
};

// Channel c of the output from input c (red, green, blue, alpha).
class FilterChannelMergeTask : public RenderTask {
public:
    FilterChannelMergeTask(const std::string& name, float time,
                           const std::array<TaskPtr, 4>& inputs)
        : RenderTask(name, time) {
        for (const TaskPtr& input : inputs) registerInputTask(input);
    }

protected:
    std::string getTypeString() override { return "BlurChannelMerge"; }
    void computeCacheID(CacheIDStream&) override {}
    uint64_t computeOutputChannels() override {
        uint64_t channels = 0;
        for (int c = 0; c < 4; ++c) channels |= getDefinedInputChannels(c) & (uint64_t(1) << c);
        return IMGLIB::ValidateChannelMask(channels);
    }
    UTIL::Region computeOutputDataRegion() override {
        UTIL::Region region;
        for (size_t c = 0; c < 4; ++c) region.add(getDefinedInputDataRegion(c));
        return region;
    }
    Imath::Color4<float> computeBackgroundColor() override {
        Imath::Color4<float> bg;
        for (int c = 0; c < 4; ++c) bg[c] = getInputBackgroundColor(c)[c];
        return bg;
    }
    void makeInputFormatRequests() override {
        for (int c = 0; c < 4; ++c)
            addInputRequest(c, getRequiredOutputChannels() & (uint64_t(1) << c));
    }
    void computeRequiredInputRectangles(const UTIL::Rect& outputRect,
                                        std::vector<UTIL::Rect>& inputRects) override {
        inputRects.assign(4, outputRect);
    }
    void renderRect(const IMGLIB::Image* out,
                    const std::vector<const IMGLIB::Image*>& inputs) override {
        const int64_t pixelBytes = IMGLIB::GetPixelBytes(out->channels);
        const int n = IMGLIB::GetChannelCount(out->channels);
        for (int c = 0; c < 4; ++c) {
            const uint64_t channel = uint64_t(1) << c;
            const int slot = IMGLIB::GetChannelIndex(out->channels, channel);
            if (slot < 0) continue;
            const IMGLIB::Image* in = inputs[static_cast<size_t>(c)];
            const float bg = getInputBackgroundColor(static_cast<size_t>(c))[c];
            const int inSlot = in ? IMGLIB::GetChannelIndex(in->channels, channel) : -1;
            const int m = in ? IMGLIB::GetChannelCount(in->channels) : 0;
            for (int64_t y = out->y1; y < out->y2; ++y) {
                float* dst = IMGLIB::GetPixelAddress(out, out->x1, y, pixelBytes) + slot;
                if (inSlot < 0) {
                    for (int64_t x = 0; x < out->width(); ++x) dst[x * n] = bg;
                    continue;
                }
                const float* src = IMGLIB::GetPixelAddress(in, out->x1, y, 4 * m) + inSlot;
                for (int64_t x = 0; x < out->width(); ++x) dst[x * n] = src[x * m];
            }
        }
    }
};

}  // namespace Private

namespace {

TaskPtr separableChain(const std::string& name, float time, float sizeX, float sizeY,
                       const BlurParams& params, TaskPtr input) {
    TaskPtr horizontal(new Private::Blur(name + ".horzBlur", time, sizeX, 0.0f, params, input));
    horizontal->setCaching(false);
    return TaskPtr(new Private::Blur(name + ".vertBlur", time, 0.0f, sizeY, params, horizontal));
}

}  // namespace

TaskPtr createBlur(const std::string& name, float time, const PerChannelBlurParameters& params,
                   TaskPtr input) {
    const float* scale = params.channelScale;
    const BlurParams& blur = params.blur;
    if (scale[0] == scale[1] && scale[1] == scale[2] && scale[2] == scale[3])
        return separableChain(name, time, blur.sizeX * scale[0], blur.sizeY * scale[0], blur,
                              input);
    static const char* const kWords[4] = {"red", "green", "blue", "alpha"};
    std::array<TaskPtr, 4> chains;
    for (int c = 0; c < 4; ++c) {
        chains[c] = separableChain(name + "." + kWords[c], time, blur.sizeX * scale[c],
                                   blur.sizeY * scale[c], blur, input);
        chains[c]->setCaching(false);
    }
    return TaskPtr(new Private::FilterChannelMergeTask(name + ".ChannelMerge", time, chains));
}

TaskPtr createBlurTask(const std::string& name, float time, const PerChannelBlurParameters& params,
                       TaskPtr input) {
    const BlurParams& b = params.blur;
    const float* scale = params.channelScale;
    Private::checkParameters(
        "blur", name,
        {{"size", {b.sizeX, b.sizeY}},
         {"filter", Private::choiceValue(Private::kernelChoices(), b.filterX)},
         {"filter", Private::choiceValue(Private::kernelChoices(), b.filterY)},
         {"extend", Private::choiceValue(Private::extendChoices(), b.extendMethod)},
         {"channelScale", {scale[0], scale[1], scale[2], scale[3]}}});
    return createBlur(name, time, params, std::move(input));
}

namespace Private {

void declareBlurOperations(OperationList& ops) {
    ops.push_back(
        {"blur",
         "separable blur",
         {required("size", ParamType::Vec2, {5, 3},
                   "the filter's width and height, in pixels (0: no blur along that axis)")
              .range(0, 2048),
          kernelParam("filter", "gaussian", "the filter's shape"),
          extendParam("extend", "background", "what the filter reads beyond the input's data"),
          Param{"channelScale", ParamType::Color4, kWhite,
                "each channel's size as a factor of size (red, green, blue, alpha)"}
              .range(0, 2)},
         {"input"},
         [](const OperationArgs& a) {
             PerChannelBlurParameters p;
             const Imath::V2f size = a.vec2("size");
             const Color4f scale = a.color("channelScale");
             p.blur.sizeX = size.x;
             p.blur.sizeY = size.y;
             p.blur.filterX = p.blur.filterY = a.kernel("filter");
             p.blur.extendMethod = a.extend("extend");
             for (int c = 0; c < 4; ++c) p.channelScale[c] = scale[c];
             return createBlur(a.node(), a.time(), p, a.input("input"));
         }});
}

}  // namespace Private

}  // namespace TESSERA
