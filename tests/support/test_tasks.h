// Small tasks for exercising the task contract in tests.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "tessera.h"

namespace TESSERA {
namespace testing {

// Exposes the protected task-writer operations and records hook calls.
class ProbeTask : public RenderTask {
public:
    ProbeTask(const std::string& name, float time = 0.0f) : RenderTask(name, time) {}

    using RenderTask::addInputRequest;
    using RenderTask::getDefinedInputChannels;
    using RenderTask::getDefinedInputDataRegion;
    using RenderTask::getDefinedOutputDataRegion;
    using RenderTask::getInputBackgroundColor;
    using RenderTask::getInputCacheID;
    using RenderTask::getInputTaskCount;
    using RenderTask::getRequiredInputChannels;
    using RenderTask::getRequiredOutputChannels;
    using RenderTask::getTileHeight;
    using RenderTask::getTileWidth;
    using RenderTask::ignoreInputCacheID;
    using RenderTask::registerInputTask;
    using RenderTask::setRenderLocalLocking;

    std::vector<std::string> hookCalls;
    std::atomic<int> renderCalls{0};
};

// A constant colour over an area; no inputs.
class ConstantTask : public ProbeTask {
public:
    ConstantTask(const std::string& name, const Imath::Color4<float>& color, const UTIL::Rect& area,
                 uint64_t channels = IMGLIB::CHANNELS_RGBA);

    std::string getTypeString() override;
    void computeCacheID(CacheIDStream& stream) override;
    uint64_t computeOutputChannels() override;
    UTIL::Region computeOutputDataRegion() override;
    Imath::Color4<float> computeBackgroundColor() override;
    void makeInputFormatRequests() override {}
    void computeRequiredInputRectangles(const UTIL::Rect&, std::vector<UTIL::Rect>&) override {}
    void renderRect(const IMGLIB::Image* output,
                    const std::vector<const IMGLIB::Image*>& inputs) override;

    Imath::Color4<float> color;
    UTIL::Rect area;
    uint64_t channels;
    Imath::Color4<float> background{0, 0, 0, 0};  // outside area
};

// Multiplies every channel of its inputs' sum by a gain; 1 or 2 inputs.
class GainTask : public ProbeTask {
public:
    GainTask(const std::string& name, std::vector<TaskPtr> inputs, float gain);

    std::string getTypeString() override;
    void computeCacheID(CacheIDStream& stream) override;
    uint64_t computeOutputChannels() override;
    UTIL::Region computeOutputDataRegion() override;
    Imath::Color4<float> computeBackgroundColor() override;
    void makeInputFormatRequests() override;
    void computeRequiredInputRectangles(const UTIL::Rect& outputRect,
                                        std::vector<UTIL::Rect>& inputRects) override;
    void renderRect(const IMGLIB::Image* output,
                    const std::vector<const IMGLIB::Image*>& inputs) override;

    float gain;
    std::string typeString = "Gain";
};

// Mean of the 2r+1 pixels around x, reading its input extended by `method`
// beyond the input's data (the request's display rectangle is the data's bounds).
class BoxXTask : public GainTask {
public:
    BoxXTask(const std::string& name, TaskPtr input, int64_t radius,
             IMGLIB::ExtendMethod method = IMGLIB::EXTEND_CLAMP);

    void computeCacheID(CacheIDStream& stream) override;
    void makeInputFormatRequests() override;
    void computeRequiredInputRectangles(const UTIL::Rect& outputRect,
                                        std::vector<UTIL::Rect>& inputRects) override;
    void renderRect(const IMGLIB::Image* output,
                    const std::vector<const IMGLIB::Image*>& inputs) override;

    int64_t radius;
    IMGLIB::ExtendMethod method;
};

// Pixels given by a function of (x, y, channel bit index: 0 R ... 4 Z, 5 U,
// 6 V) over an area; `tag` names the function in the cache identity.
class FunctionTask : public ConstantTask {
public:
    using Pattern = std::function<float(int64_t x, int64_t y, int channel)>;
    FunctionTask(const std::string& tag, const UTIL::Rect& area, Pattern pattern,
                 uint64_t channels = IMGLIB::CHANNELS_RGBA);
    std::string getTypeString() override { return "Function"; }
    void computeCacheID(CacheIDStream& stream) override;
    void renderRect(const IMGLIB::Image* output,
                    const std::vector<const IMGLIB::Image*>& inputs) override;

    Pattern pattern;
};

// (x, y, x*y mod 7, 1) over its area; records the areas it renders.
class PatternTask : public ConstantTask {
public:
    PatternTask(const std::string& name, const UTIL::Rect& area, int workPerPixel = 0)
        : ConstantTask(name, Imath::Color4<float>(0, 0, 0, 0), area), work(workPerPixel) {}
    std::string getTypeString() override { return "Pattern"; }
    void computeCacheID(CacheIDStream& s) override { s << area << ' ' << work; }
    void renderRect(const IMGLIB::Image* out, const std::vector<const IMGLIB::Image*>&) override {
        ++renderCalls;
        {
            std::lock_guard<std::mutex> lock(mutex);
            rendered.push_back(UTIL::Rect(out->x1, out->y1, out->x2, out->y2));
        }
        for (int64_t y = out->y1; y < out->y2; ++y) {
            if (work && RenderManager::CheckAbort()) return;
            for (int64_t x = out->x1; x < out->x2; ++x) {
                volatile float spin = 0;
                for (int i = 0; i < work; ++i) spin = spin + 1.0f;
                const float v[4] = {float(x), float(y), float((x * y) % 7), 1};
                IMGLIB::SetPixel(out, x, y, v);
            }
        }
    }
    static Imath::Color4<float> at(int64_t x, int64_t y) {
        return Imath::Color4<float>(float(x), float(y), float((x * y) % 7), 1);
    }
    int work;
    std::mutex mutex;
    std::vector<UTIL::Rect> rendered;
};

// Overrides neither renderRect: the defaults' assertions fire.
class NoRenderTask : public ConstantTask {
public:
    using ConstantTask::ConstantTask;
    using RenderTask::renderRect;
    void renderRect(const IMGLIB::Image*,
                    const std::vector<const IMGLIB::Image*>& inputs) override {
        RenderTask::renderRect(nullptr, inputs);
    }
};

// A new reference-counted object.
template <class T, class... Args>
RCX_ptr_v4::ref_ptr<T> make(Args&&... args) {
    return RCX_ptr_v4::ref_ptr<T>(new T(std::forward<Args>(args)...));
}

// A pixel of an image as RGBA (absent channels read 0).
Imath::Color4<float> pixelAt(const IMGLIB::Image* image, int64_t x, int64_t y);

}  // namespace testing
}  // namespace TESSERA
