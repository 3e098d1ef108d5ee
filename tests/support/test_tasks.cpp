#include "support/test_tasks.h"

#include "imglib/channels.h"
#include "imglib/pixels.h"

namespace TESSERA {
namespace testing {

ConstantTask::ConstantTask(const std::string& name, const Imath::Color4<float>& color,
                           const UTIL::Rect& area, uint64_t channels)
    : ProbeTask(name), color(color), area(area), channels(channels) {}

std::string ConstantTask::getTypeString() {
    hookCalls.push_back("type");
    return "Constant";
}

void ConstantTask::computeCacheID(CacheIDStream& stream) {
    hookCalls.push_back("cacheID");
    stream << color.r << ' ' << color.g << ' ' << color.b << ' ' << color.a << ' ' << area;
}

uint64_t ConstantTask::computeOutputChannels() {
    hookCalls.push_back("channels");
    return channels;
}

UTIL::Region ConstantTask::computeOutputDataRegion() {
    hookCalls.push_back("region");
    return UTIL::Region(area);
}

Imath::Color4<float> ConstantTask::computeBackgroundColor() {
    hookCalls.push_back("background");
    return background;
}

void ConstantTask::renderRect(const IMGLIB::Image* output,
                              const std::vector<const IMGLIB::Image*>&) {
    ++renderCalls;
    const float rgba[4] = {color.r, color.g, color.b, color.a};
    IMGLIB::Fill(output, rgba);
}

FunctionTask::FunctionTask(const std::string& tag, const UTIL::Rect& area, Pattern pattern,
                           uint64_t channels)
    : ConstantTask(tag, Imath::Color4<float>(0, 0, 0, 0), area, channels),
      pattern(std::move(pattern)) {}

void FunctionTask::computeCacheID(CacheIDStream& stream) {
    stream << getName() << ' ' << area << ' ' << channels;
}

void FunctionTask::renderRect(const IMGLIB::Image* output,
                              const std::vector<const IMGLIB::Image*>&) {
    ++renderCalls;
    const int n = IMGLIB::GetChannelCount(output->channels);
    for (int64_t y = output->y1; y < output->y2; ++y)
        for (int64_t x = output->x1; x < output->x2; ++x) {
            float* p = IMGLIB::GetPixelAddress(output, x, y, 4 * n);
            const bool inside = area.contains(x, y);
            int slot = 0;
            for (int bit = 0; bit < 64; ++bit)
                if (output->channels >> bit & 1)
                    p[slot++] = inside ? pattern(x, y, bit) : bit < 4 ? background[bit] : 0.0f;
        }
}

GainTask::GainTask(const std::string& name, std::vector<TaskPtr> inputs, float gain)
    : ProbeTask(name), gain(gain) {
    for (TaskPtr& input : inputs) registerInputTask(input);
}

std::string GainTask::getTypeString() {
    return typeString;
}

void GainTask::computeCacheID(CacheIDStream& stream) {
    stream << gain;
}

uint64_t GainTask::computeOutputChannels() {
    uint64_t channels = 0;
    for (size_t i = 0; i < getInputTaskCount(); ++i) channels |= getDefinedInputChannels(i);
    return channels;
}

UTIL::Region GainTask::computeOutputDataRegion() {
    UTIL::Region region;
    for (size_t i = 0; i < getInputTaskCount(); ++i) region.add(getDefinedInputDataRegion(i));
    return region;
}

Imath::Color4<float> GainTask::computeBackgroundColor() {
    Imath::Color4<float> sum(0, 0, 0, 0);
    for (size_t i = 0; i < getInputTaskCount(); ++i) sum += getInputBackgroundColor(i);
    return sum * gain;
}

void GainTask::makeInputFormatRequests() {
    for (size_t i = 0; i < getInputTaskCount(); ++i)
        addInputRequest(i, getRequiredOutputChannels());
}

void GainTask::computeRequiredInputRectangles(const UTIL::Rect& outputRect,
                                              std::vector<UTIL::Rect>& inputRects) {
    inputRects.assign(getInputTaskCount(), outputRect);
}

void GainTask::renderRect(const IMGLIB::Image* output,
                          const std::vector<const IMGLIB::Image*>& inputs) {
    ++renderCalls;
    for (int64_t y = output->y1; y < output->y2; ++y)
        for (int64_t x = output->x1; x < output->x2; ++x) {
            Imath::Color4<float> sum(0, 0, 0, 0);
            for (const IMGLIB::Image* input : inputs)
                if (input && x >= input->x1 && x < input->x2 && y >= input->y1 && y < input->y2)
                    sum += pixelAt(input, x, y);
            const Imath::Color4<float> value = sum * gain;
            const float rgba[4] = {value.r, value.g, value.b, value.a};
            IMGLIB::SetPixel(output, x, y, rgba);
        }
}

BoxXTask::BoxXTask(const std::string& name, TaskPtr input, int64_t radius,
                   IMGLIB::ExtendMethod method)
    : GainTask(name, {std::move(input)}, 1.0f), radius(radius), method(method) {
    typeString = "BoxX";
}

void BoxXTask::computeCacheID(CacheIDStream& stream) {
    stream << radius << ' ' << int(method);
}

void BoxXTask::makeInputFormatRequests() {
    addInputRequest(0, getRequiredOutputChannels(), method, false,
                    getDefinedInputDataRegion(0).boundingBox());
}

void BoxXTask::computeRequiredInputRectangles(const UTIL::Rect& outputRect,
                                              std::vector<UTIL::Rect>& inputRects) {
    inputRects.assign(1, outputRect.grown(radius, 0));
}

void BoxXTask::renderRect(const IMGLIB::Image* output,
                          const std::vector<const IMGLIB::Image*>& inputs) {
    ++renderCalls;
    for (int64_t y = output->y1; y < output->y2; ++y)
        for (int64_t x = output->x1; x < output->x2; ++x) {
            Imath::Color4<float> sum(0, 0, 0, 0);
            for (int64_t dx = -radius; dx <= radius; ++dx) sum += pixelAt(inputs[0], x + dx, y);
            const Imath::Color4<float> mean = sum / float(2 * radius + 1);
            const float rgba[4] = {mean.r, mean.g, mean.b, mean.a};
            IMGLIB::SetPixel(output, x, y, rgba);
        }
}

Imath::Color4<float> pixelAt(const IMGLIB::Image* image, int64_t x, int64_t y) {
    float rgba[4] = {0, 0, 0, 0};
    IMGLIB::GetPixel(image, x, y, rgba);
    return Imath::Color4<float>(rgba[0], rgba[1], rgba[2], rgba[3]);
}

}  // namespace testing
}  // namespace TESSERA
