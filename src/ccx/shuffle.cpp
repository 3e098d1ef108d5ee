// Channel shuffling.
#include <algorithm>
#include <stdexcept>

#include "channeltasks.h"
#include "imglib/channels.h"
#include "imglib/pixels.h"
#include "private/operation.h"

namespace TESSERA {
namespace {

using Color4f = Imath::Color4<float>;
using Sources = std::vector<std::pair<uint64_t, ShuffleSource>>;

std::string nameOf(uint64_t channel) {
    for (const auto& [name, bit] : Private::channelChoices())
        if (bit == channel) return name;
    return IMGLIB::GetChannelMaskName(channel);
}

class ShuffleTask : public RenderTask {
public:
    ShuffleTask(const std::string& name, float time, Sources sources, TaskPtr a, TaskPtr b)
        : RenderTask(name, time), m_sources(std::move(sources)) {
        registerInputTask(std::move(a));
        if (b) registerInputTask(std::move(b));  // none when nothing reads it
    }

protected:
    std::string getTypeString() override { return "Shuffle"; }
    void computeCacheID(CacheIDStream& s) override {
        for (const auto& [channel, source] : m_sources)
            s << channel << '<' << int(source.kind) << ',' << source.input << ',' << source.channel
              << ';';
    }
    uint64_t computeOutputChannels() override {
        uint64_t channels = 0;
        for (const auto& [channel, source] : m_sources)
            if (source.kind != ShuffleSource::Input ||
                (getDefinedInputChannels(size_t(source.input)) & source.channel))
                channels |= channel;
        return channels;
    }
    Color4f computeBackgroundColor() override {
        Color4f bg(0, 0, 0, 0);
        for (const auto& [channel, source] : m_sources) {
            const int out = bitIndex(channel);
            if (out < 4) bg[out] = valueOf(source, getInputBackgroundColor(size_t(source.input)));
        }
        return bg;
    }
    UTIL::Region computeOutputDataRegion() override {
        UTIL::Region region;
        for (size_t i = 0; i < 2; ++i)
            if (reads(i)) region.add(getDefinedInputDataRegion(i));
        return region;
    }
    void makeInputFormatRequests() override {
        const uint64_t wanted = getRequiredOutputChannels();
        uint64_t need[2] = {0, 0};
        for (const auto& [channel, source] : m_sources)
            if ((wanted & channel) && source.kind == ShuffleSource::Input)
                need[source.input] |= source.channel;
        for (size_t i = 0; i < 2; ++i)
            if (reads(i)) addInputRequest(i, need[i] & getDefinedInputChannels(i));
    }
    void computeRequiredInputRectangles(const UTIL::Rect& outputRect,
                                        std::vector<UTIL::Rect>& inputRects) override {
        inputRects.assign(2, outputRect);
    }
    void renderRect(const IMGLIB::Image* out,
                    const std::vector<const IMGLIB::Image*>& inputs) override {
        // Per output slot: the input it reads (and the channel there), or the
        // value it is where there is nothing to read. One pass over the tile.
        struct Slot {
            const IMGLIB::Image* in = nullptr;
            int from = -1, inStride = 0;
            float fill = 0;
        };
        const size_t stride = size_t(IMGLIB::GetChannelCount(out->channels));
        std::vector<Slot> slots(stride);
        for (const auto& [channel, source] : m_sources) {
            const int slot = IMGLIB::GetChannelIndex(out->channels, channel);
            if (slot < 0) continue;
            Slot& s = slots[size_t(slot)];
            s.in = source.kind == ShuffleSource::Input && size_t(source.input) < inputs.size()
                       ? inputs[size_t(source.input)]
                       : nullptr;
            s.from = s.in ? IMGLIB::GetChannelIndex(s.in->channels, source.channel) : -1;
            s.inStride = s.in ? IMGLIB::GetChannelCount(s.in->channels) : 0;
            s.fill = valueOf(source, getInputBackgroundColor(size_t(source.input)));
        }
        const int64_t width = out->x2 - out->x1;
        std::vector<const float*> rows(stride);
        std::vector<int64_t> lo(stride), hi(stride), shift(stride);
        for (int64_t y = out->y1; y < out->y2; ++y) {
            float* dst = IMGLIB::GetPixelAddress(out, out->x1, y, 4 * int64_t(stride));
            // Each slot's readable span of this row, in output columns.
            for (size_t c = 0; c < slots.size(); ++c) {
                const Slot& s = slots[c];
                const bool readable = s.from >= 0 && y >= s.in->y1 && y < s.in->y2;
                lo[c] = readable ? std::clamp(s.in->x1 - out->x1, int64_t(0), width) : width;
                hi[c] = readable ? std::clamp(s.in->x2 - out->x1, lo[c], width) : width;
                shift[c] = readable ? s.in->x1 - out->x1 : 0;
                rows[c] = readable
                              ? IMGLIB::GetPixelAddress(s.in, s.in->x1, y, 4 * s.inStride) + s.from
                              : nullptr;
            }
            for (int64_t x = 0; x < width; ++x, dst += stride)
                for (size_t c = 0; c < slots.size(); ++c)
                    dst[c] = x >= lo[c] && x < hi[c] ? rows[c][(x - shift[c]) * slots[c].inStride]
                                                     : slots[c].fill;
        }
    }

private:
    static int bitIndex(uint64_t channel) {
        int i = 0;
        while (channel > 1) channel >>= 1, ++i;
        return i;
    }
    // A constant source's value, or the input channel's background value.
    static float valueOf(const ShuffleSource& source, const Color4f& inputBg) {
        if (source.kind != ShuffleSource::Input) return source.kind == ShuffleSource::One ? 1 : 0;
        const int bit = bitIndex(source.channel);
        return bit < 4 ? inputBg[bit] : 0.0f;
    }
    bool reads(size_t input) const {
        for (const auto& entry : m_sources)
            if (entry.second.kind == ShuffleSource::Input && size_t(entry.second.input) == input)
                return true;
        return false;
    }

    Sources m_sources;
};

}  // namespace

ShuffleSource parseShuffleSource(const std::string& text) {
    ShuffleSource s;
    if (text == "0" || text == "1") {
        s.kind = text == "0" ? ShuffleSource::Zero : ShuffleSource::One;
        return s;
    }
    // "a.NAME" or "b.NAME"; a bare name is input a's.
    const bool prefixed = text.size() > 2 && (text[0] == 'a' || text[0] == 'b') && text[1] == '.';
    const std::string name = prefixed ? text.substr(2) : text;
    s.input = prefixed && text[0] == 'b' ? 1 : 0;
    for (const auto& [letter, bit] : Private::channelChoices())
        if (letter == name) {
            s.channel = bit;
            return s;
        }
    // Only names some image has: a typo takes no channel bit.
    if (!name.empty()) s.channel = IMGLIB::FindChannel(name);
    if (s.channel) return s;
    throw std::invalid_argument("'" + text +
                                "' is not a channel any input has: a.X or b.X (X one of r, g, b, "
                                "a, z, u, v, or a channel name such as forward.u), 0 or 1");
}

TaskPtr createShuffleTask(const std::string& name, float time, const Sources& sources, TaskPtr a,
                          TaskPtr b) {
    if (!a) throw std::invalid_argument(name + ": a shuffle needs input a");
    uint64_t seen = 0;
    for (const auto& [channel, source] : sources) {
        const bool oneBit =
            channel && !(channel & (channel - 1)) && IMGLIB::IsChannelMaskValid(channel);
        if (!oneBit || (seen & channel))
            throw std::invalid_argument(name + ": output channel " +
                                        IMGLIB::GetChannelMaskName(channel) +
                                        " is not one channel, or given twice");
        seen |= channel;
        if (source.kind == ShuffleSource::Input &&
            (source.input < 0 || source.input > 1 || !source.channel ||
             (source.channel & (source.channel - 1)) ||
             !IMGLIB::IsChannelMaskValid(source.channel)))
            throw std::invalid_argument(name + ": the source of " + nameOf(channel) +
                                        " is not one channel of a or b");
        if (source.kind == ShuffleSource::Input && source.input == 1 && !b)
            throw std::invalid_argument(name + ": " + nameOf(channel) +
                                        " reads input b, which is not connected");
        // A channel named beyond the fixed ones must be there: nothing
        // stands in for it by position.
        if (source.kind == ShuffleSource::Input &&
            source.channel >= (uint64_t(1) << IMGLIB::NUM_FIXED_CHANNELS)) {
            uint64_t defined = 0;
            (source.input == 0 ? a : b)->getOutputDescription(&defined, nullptr);
            if (!(defined & source.channel))
                throw std::invalid_argument(name + ": " + nameOf(channel) + " reads " +
                                            (source.input == 0 ? "a" : "b") + "." +
                                            IMGLIB::GetChannelName(source.channel) +
                                            ", which that input lacks (it has " +
                                            IMGLIB::GetChannelMaskName(defined) + ")");
        }
    }
    return TaskPtr(new ShuffleTask(name, time, sources, std::move(a), std::move(b)));
}

namespace Private {

void declareShuffleOperations(OperationList& ops) {
    std::vector<Param> params;
    for (const auto& [channel, bit] : channelChoices()) {
        Param p{channel, ParamType::String, "a." + channel,
                "a.X or b.X (X one of r, g, b, a, z, u, v, or a channel name: "
                "a.forward.u; a bare name is a's), 0 or 1; \"\" drops it"};
        // Red from a named channel of the plate, alpha from b.
        if (channel == "r") p = p.withExample("a.diffuse.G");
        if (channel == "a") p = p.withExample("b.a");
        params.push_back(p);
    }
    ops.push_back(
        {"shuffle",
         "each output channel from a channel of a or b, or 0 or 1",
         params,
         {"a", {"b", true}},
         [](const OperationArgs& a) {
             Sources sources;
             for (const auto& [channel, bit] : channelChoices()) {
                 const std::string text = a.text(channel);
                 if (text.empty()) continue;
                 try {
                     sources.emplace_back(bit, parseShuffleSource(text));
                 } catch (const std::invalid_argument& e) {
                     a.fail(channel, e.what());
                 }
             }
             return createShuffleTask(a.node(), a.time(), sources, a.input("a"), a.input("b"));
         },
         "As `oiiotool --ch`, with a second input: `{\"a\": \"1\", \"z\": \"b.r\"}` sets "
         "alpha to 1 and depth from b's red; `{\"r\": \"forward.u\", \"g\": "
         "\"forward.v\", \"b\": \"0\"}` shows motion vectors. A named channel its input "
         "lacks is an error listing what the input has; a letter its input does not define is "
         "left out."});
    ops.push_back(
        {"channelcopy",
         "channels of b brought into a by name, as a compositor's channel copy",
         {Param{"channels", ParamType::String, "all",
                "the channels of b: letters (RGBA, Z), names (forward.u), layers (diffuse.*) or "
                "all"}
              .withExample("A,Z")},
         {"a", "b"},
         [](const OperationArgs& args) {
             const TaskPtr a = args.input("a"), b = args.input("b");
             uint64_t fromA = 0, fromB = 0;
             a->getOutputDescription(&fromA, nullptr);
             b->getOutputDescription(&fromB, nullptr);
             uint64_t copied = 0;
             try {
                 copied = parseChannelList(args.text("channels"), fromB) & fromB;
             } catch (const std::invalid_argument& e) {
                 args.fail("channels", std::string("b has ") + e.what());
             }
             // Every channel of a, then b's in place of a's of the same name.
             Sources sources;
             for (int bit = 0; bit < IMGLIB::MAX_CHANNELS; ++bit) {
                 const uint64_t channel = uint64_t(1) << bit;
                 if ((fromA | copied) & channel)
                     sources.emplace_back(
                         channel,
                         ShuffleSource{ShuffleSource::Input, copied & channel ? 1 : 0, channel});
             }
             return createShuffleTask(args.node(), args.time(), sources, a, b);
         },
         "Like `shuffle`, by name: the output has every channel of a, and the channels named "
         "taken from b (where b has no data, b's background). A name or layer b lacks is an "
         "error listing what b has."});
}

}  // namespace Private
}  // namespace TESSERA
