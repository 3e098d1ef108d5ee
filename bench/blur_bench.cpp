// Gaussian blur of a 3840x2160 RGBA float image, sizes 40 (sigma 10) and 9:
// FastFilter on one thread, and the blur tasks through the render system.
#include <benchmark/benchmark.h>

#include <vector>

#include "filtertasks.h"
#include "imglib/fastfilter.h"
#include "imglib/pixels.h"
#include "support/serial_render.h"

using namespace TESSERA;
using Color = Imath::Color4<float>;

namespace {

constexpr int64_t kWidth = 3840, kHeight = 2160;

struct Frame {
    Frame(int64_t pad) : pixels(static_cast<size_t>((kWidth + 2 * pad) * (kHeight + 2 * pad) * 4)) {
        image.channels = IMGLIB::CHANNELS_RGBA;
        image.x1 = -pad;
        image.y1 = -pad;
        image.x2 = kWidth + pad;
        image.y2 = kHeight + pad;
        image.rowBytes = (kWidth + 2 * pad) * 16;
        image.pixelPtr = pixels.data();
        for (size_t i = 0; i < pixels.size(); ++i) pixels[i] = float(i % 1013) / 1013.0f;
    }
    std::vector<float> pixels;
    IMGLIB::Image image;
};

void BM_GaussianKernel(benchmark::State& state) {
    const float size = float(state.range(0));
    const int64_t pad = IMGLIB::GetFilterPadding(size);
    static Frame out(0);
    Frame in(pad);
    for (auto _ : state)
        IMGLIB::FastFilter(&out.image, &in.image, IMGLIB::KERNEL_GAUSSIAN, size,
                           IMGLIB::KERNEL_GAUSSIAN, size);
    state.counters["Mpix/s/thread"] =
        benchmark::Counter(kWidth * kHeight / 1e6 * double(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_GaussianKernel)->Arg(40)->Arg(9)->UseRealTime()->Unit(benchmark::kMillisecond);

class MemorySource : public testing::ConstantTask {
public:
    explicit MemorySource(const Frame& frame)
        : ConstantTask("frame", Color(0, 0, 0, 0), UTIL::Rect(0, 0, kWidth, kHeight)), frame(frame) {}
    std::string getTypeString() override { return "MemorySource"; }
    void renderRect(const IMGLIB::Image* out, const std::vector<const IMGLIB::Image*>&) override {
        IMGLIB::CopyInto(out, &frame.image);
    }
    const Frame& frame;
};

class NullObserver : public RenderObserver {
public:
    void tileDone(const ImageBuffer&, const OutputTileID&) override {}
};

void BM_GaussianPipeline(benchmark::State& state) {
    const int threads = static_cast<int>(state.range(1));
    static Frame frame(0);
    RenderManager::setRenderThreads(threads);
    RenderManager::setGlobalTileSize(256, 256);
    RenderManager::setSpeculativeCachingEnable(false);
    RenderManager::SetMaxImageMemory(4096);
    RenderManager::ClearRenderTaskCache();
    PerChannelBlurParameters params;
    params.blur.sizeX = params.blur.sizeY = float(state.range(0));
    const TaskPtr graph = createBlur("blur", 0, params, TaskPtr(new MemorySource(frame)));
    const RenderObserverPtr observer(new NullObserver);
    for (auto _ : state)
        RenderManager::Render({RenderDescription(graph, UTIL::Rect(0, 0, kWidth, kHeight),
                                                 IMGLIB::CHANNELS_RGBA)},
                              observer, nullptr, true, RENDERTYPE_BATCH);
    state.counters["Mpix/s/thread"] = benchmark::Counter(
        kWidth * kHeight / 1e6 * double(state.iterations()) / threads, benchmark::Counter::kIsRate);
    RenderManager::setSpeculativeCachingEnable(true);
}
BENCHMARK(BM_GaussianPipeline)->Args({40, 1})->Args({40, 2})->Args({9, 2})->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
