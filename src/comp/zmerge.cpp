// Depth compositing: of two images with depth, the nearer pixel goes over
// the farther one.
#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <vector>

#include "compositetasks.h"
#include "imglib/channels.h"
#include "imglib/pixels.h"
#include "private/operation.h"

namespace TESSERA {
namespace {

using Color4f = Imath::Color4<float>;

// One input's pixel: RGBA, depth (infinite where nothing covers it) and
// where its other channels are.
struct Sample {
    float rgba[4];
    float z;
    const float* pixel;  // null outside the image
};

class ZMergeTask : public RenderTask {
public:
    ZMergeTask(const std::string& name, float time, float softness, TaskPtr a, TaskPtr b)
        : RenderTask(name, time), m_softness(softness) {
        registerInputTask(std::move(a));
        registerInputTask(std::move(b));
    }

protected:
    std::string getTypeString() override { return "ZMerge"; }
    void computeCacheID(CacheIDStream& s) override { s << m_softness; }
    uint64_t computeOutputChannels() override {
        return getDefinedInputChannels(0) | getDefinedInputChannels(1);
    }
    Color4f computeBackgroundColor() override {
        // Backgrounds have no depth: a over b.
        const Color4f a = getInputBackgroundColor(0), b = getInputBackgroundColor(1);
        return a + b * (1.0f - a.a);
    }
    UTIL::Region computeOutputDataRegion() override {
        UTIL::Region r = getDefinedInputDataRegion(0);
        r.add(getDefinedInputDataRegion(1));
        return r;
    }
    void makeInputFormatRequests() override {
        const uint64_t wanted =
            getRequiredOutputChannels() | IMGLIB::CHANNELS_RGBA | IMGLIB::CHANNEL_Z;
        for (size_t i = 0; i < 2; ++i) addInputRequest(i, wanted & getDefinedInputChannels(i));
    }
    void computeRequiredInputRectangles(const UTIL::Rect& outputRect,
                                        std::vector<UTIL::Rect>& inputRects) override {
        inputRects.assign(2, outputRect);
    }
    void renderRect(const IMGLIB::Image* out,
                    const std::vector<const IMGLIB::Image*>& inputs) override;

private:
    float m_softness;
};

// Where an input image keeps each channel the merge reads or passes on,
// worked out once per tile.
struct InputLayout {
    InputLayout(const IMGLIB::Image* image, uint64_t outChannels) : image(image) {
        if (!image) return;
        stride = IMGLIB::GetChannelCount(image->channels);
        for (int c = 0; c < 4; ++c)
            rgba[c] = IMGLIB::GetChannelIndex(image->channels, uint64_t(1) << c);
        z = IMGLIB::GetChannelIndex(image->channels, IMGLIB::CHANNEL_Z);
        for (int bit = 0; bit < 64; ++bit)
            if (outChannels & (uint64_t(1) << bit))
                slotOf.push_back(IMGLIB::GetChannelIndex(image->channels, uint64_t(1) << bit));
    }
    const IMGLIB::Image* image;
    int stride = 0, rgba[4] = {-1, -1, -1, -1}, z = -1;
    std::vector<int> slotOf;  // per output slot: the input's slot, or -1
};

Sample sampleAt(const InputLayout& in, const Color4f& bg, int64_t x, int64_t y) {
    Sample s{{bg.r, bg.g, bg.b, bg.a}, std::numeric_limits<float>::infinity(), nullptr};
    const IMGLIB::Image* image = in.image;
    if (!image || x < image->x1 || x >= image->x2 || y < image->y1 || y >= image->y2) return s;
    s.pixel = IMGLIB::GetPixelAddress(image, x, y, 4 * in.stride);
    for (int c = 0; c < 4; ++c) s.rgba[c] = in.rgba[c] >= 0 ? s.pixel[in.rgba[c]] : 0.0f;
    if (in.z >= 0 && s.rgba[3] > 0.0f) s.z = s.pixel[in.z];
    return s;
}

void ZMergeTask::renderRect(const IMGLIB::Image* out,
                            const std::vector<const IMGLIB::Image*>& inputs) {
    const InputLayout in[2] = {InputLayout(inputs.size() > 0 ? inputs[0] : nullptr, out->channels),
                               InputLayout(inputs.size() > 1 ? inputs[1] : nullptr, out->channels)};
    const Color4f bg[2] = {getInputBackgroundColor(0), getInputBackgroundColor(1)};
    const int stride = IMGLIB::GetChannelCount(out->channels);
    const int zSlot = IMGLIB::GetChannelIndex(out->channels, IMGLIB::CHANNEL_Z);
    int rgbaSlot[4];
    for (int c = 0; c < 4; ++c)
        rgbaSlot[c] = IMGLIB::GetChannelIndex(out->channels, uint64_t(1) << c);
    for (int64_t y = out->y1; y < out->y2; ++y) {
        float* dst = IMGLIB::GetPixelAddress(out, out->x1, y, 4 * stride);
        for (int64_t x = out->x1; x < out->x2; ++x, dst += stride) {
            const Sample a = sampleAt(in[0], bg[0], x, y), b = sampleAt(in[1], bg[1], x, y);
            // w: how much of the result has a in front.
            float w;
            if (m_softness > 0.0f && std::isfinite(a.z) && std::isfinite(b.z))
                w = std::clamp(0.5f + (b.z - a.z) / m_softness, 0.0f, 1.0f);
            else
                w = a.z <= b.z ? 1.0f : 0.0f;
            // Other channels from the pixel in front; depth the nearer one.
            const Sample& front = w >= 0.5f ? a : b;
            const InputLayout& frontLayout = w >= 0.5f ? in[0] : in[1];
            for (int slot = 0; slot < stride; ++slot) {
                const int from = front.pixel ? frontLayout.slotOf[size_t(slot)] : -1;
                dst[slot] = from >= 0 ? front.pixel[from] : 0.0f;
            }
            for (int c = 0; c < 4; ++c) {
                if (rgbaSlot[c] < 0) continue;
                const float aOverB = a.rgba[c] + b.rgba[c] * (1.0f - a.rgba[3]);
                const float bOverA = b.rgba[c] + a.rgba[c] * (1.0f - b.rgba[3]);
                dst[rgbaSlot[c]] = w * aOverB + (1.0f - w) * bOverA;
            }
            if (zSlot >= 0) {
                const float z = std::min(a.z, b.z);
                dst[zSlot] = std::isfinite(z) ? z : 0.0f;
            }
        }
    }
}

}  // namespace

TaskPtr createZMergeTask(const std::string& name, float time, float softness, TaskPtr a,
                         TaskPtr b) {
    Private::checkParameters("zmerge", name, {{"softness", softness}});
    for (const auto& [label, input] : {std::make_pair("a", a), std::make_pair("b", b)}) {
        if (!input) throw std::invalid_argument(name + ": input " + label + " is required");
        uint64_t channels = 0;
        input->getOutputDescription(&channels, nullptr);
        if (!(channels & IMGLIB::CHANNEL_Z))
            throw std::invalid_argument(name + ": input " + label + " (" + input->getName() +
                                        ") has no Z channel (it has " +
                                        IMGLIB::GetChannelMaskName(channels) + ")");
    }
    return TaskPtr(new ZMergeTask(name, time, softness, std::move(a), std::move(b)));
}

namespace Private {

void declareDepthMergeOperations(OperationList& ops) {
    ops.push_back(
        {"zmerge",
         "the nearer of two images over the farther, by their Z channels",
         {Param{"softness", ParamType::Number, 0,
                "a depth range across which the two blend (0: the nearer wins outright)"}
              .atLeast(0)},
         {"a", "b"},
         [](const OperationArgs& a) {
             return createZMergeTask(a.node(), a.time(), a.number("softness"), a.input("a"),
                                     a.input("b"));
         },
         "Smaller Z is nearer; a pixel of alpha 0 has no depth. With w = 1 where Z<sub>a</sub> "
         "≤ Z<sub>b</sub> (or clamp(½ + (Z<sub>b</sub> − Z<sub>a</sub>) / softness, 0, 1)), the "
         "result is w (a over b) + (1 − w)(b over a), Z the smaller of the two. As `oiiotool "
         "--zover` when softness is 0."});
}

}  // namespace Private
}  // namespace TESSERA
