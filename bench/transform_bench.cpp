// A 3840x2160 RGBA float rotation by 17 degrees with scale 0.9, bicubic:
// the affine kernel on one thread, and the whole pipeline on 1 and 2.
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "imglib/resample.h"
#include "support/serial_render.h"
#include "transformtasks.h"

using namespace TESSERA;
using Color = Imath::Color4<float>;

namespace {

constexpr int64_t kWidth = 3840, kHeight = 2160;

struct Frame {
    Frame() : pixels(static_cast<size_t>(kWidth * kHeight * 4)) {
        image.channels = IMGLIB::CHANNELS_RGBA;
        image.x2 = kWidth;
        image.y2 = kHeight;
        image.rowBytes = kWidth * 16;
        image.pixelPtr = pixels.data();
        for (size_t i = 0; i < pixels.size(); ++i) pixels[i] = float(i % 1009) / 1009.0f;
    }
    std::vector<float> pixels;
    IMGLIB::Image image;
};

Frame& source() {
    static Frame f;
    return f;
}

Imath::Matrix33<float> rotation() {
    Imath::Matrix33<float> r, s, t, back;
    t.setTranslation(Imath::V2f(-kWidth / 2.0f, -kHeight / 2.0f));
    s.setScale(Imath::V2f(0.9f, 0.9f));
    r.setRotation(17.0f * 3.14159265f / 180.0f);
    back.setTranslation(Imath::V2f(kWidth / 2.0f, kHeight / 2.0f));
    return t * s * r * back;  // about the centre
}

void BM_RotateKernel(benchmark::State& state) {
    static Frame out;
    std::unique_ptr<IMGLIB::UnaryOperation> op(IMGLIB::createAffineTransformFunction(
        UTIL::Rect(0, 0, kWidth, kHeight), rotation(), IMGLIB::KERNEL_CATMULL_ROM,
        IMGLIB::KERNEL_CATMULL_ROM, Color(0, 0, 0, 0)));
    for (auto _ : state) op->apply(&out.image, &source().image);
    state.counters["Mpix/s/thread"] = benchmark::Counter(
        kWidth * kHeight / 1e6 * double(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_RotateKernel)->UseRealTime()->Unit(benchmark::kMillisecond);

class MemorySource : public testing::ConstantTask {
public:
    MemorySource() : ConstantTask("frame", Color(0, 0, 0, 0), UTIL::Rect(0, 0, kWidth, kHeight)) {}
    std::string getTypeString() override { return "MemorySource"; }
    void renderRect(const IMGLIB::Image* out, const std::vector<const IMGLIB::Image*>&) override {
        IMGLIB::CopyInto(out, &source().image);
    }
};

class NullObserver : public RenderObserver {
public:
    void tileDone(const ImageBuffer&, const OutputTileID&) override {}
};

void BM_RotatePipeline(benchmark::State& state) {
    const int threads = static_cast<int>(state.range(0));
    RenderManager::setRenderThreads(threads);
    RenderManager::setGlobalTileSize(256, 256);
    RenderManager::setSpeculativeCachingEnable(false);
    RenderManager::SetMaxImageMemory(4096);
    HomTransformParams params;
    params.useAffine = true;
    const TaskPtr graph =
        createHomTransformTask("rotate", 0, params, {rotation()}, TaskPtr(new MemorySource));
    const RenderObserverPtr observer(new NullObserver);
    for (auto _ : state)
        RenderManager::Render(
            {RenderDescription(graph, UTIL::Rect(0, 0, kWidth, kHeight), IMGLIB::CHANNELS_RGBA)},
            observer, nullptr, true, RENDERTYPE_BATCH);
    state.counters["Mpix/s/thread"] = benchmark::Counter(
        kWidth * kHeight / 1e6 * double(state.iterations()) / threads, benchmark::Counter::kIsRate);
    RenderManager::setSpeculativeCachingEnable(true);
}
BENCHMARK(BM_RotatePipeline)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
