// Gaussian blur of a 3840x2160 RGBA float image, sizes 40 (sigma 10) and 9:
// FastFilter on one thread, and the blur tasks through the render system.
#include <benchmark/benchmark.h>

#include <vector>

#include "bench_support.h"
#include "filtertasks.h"
#include "imglib/fastfilter.h"
#include "imglib/pixels.h"

using namespace TESSERA;
using Color = Imath::Color4<float>;

namespace {

using bench::Frame;
using bench::kHeight;
using bench::kWidth;

void BM_GaussianKernel(benchmark::State& state) {
    const float size = float(state.range(0));
    const int64_t pad = IMGLIB::GetFilterPadding(size);
    static Frame out;
    Frame in(0.0f, pad);
    for (auto _ : state)
        IMGLIB::FastFilter(&out.image, &in.image, IMGLIB::KERNEL_GAUSSIAN, size,
                           IMGLIB::KERNEL_GAUSSIAN, size);
    state.counters["Mpix/s/thread"] = benchmark::Counter(
        kWidth * kHeight / 1e6 * double(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_GaussianKernel)->Arg(40)->Arg(9)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_GaussianPipeline(benchmark::State& state) {
    const int threads = static_cast<int>(state.range(1));
    static Frame frame;
    RenderManager::setRenderThreads(threads);
    RenderManager::setGlobalTileSize(256, 256);
    RenderManager::setSpeculativeCachingEnable(false);
    RenderManager::SetMaxImageMemory(4096);
    RenderManager::ClearRenderTaskCache();
    PerChannelBlurParameters params;
    params.blur.sizeX = params.blur.sizeY = float(state.range(0));
    const TaskPtr graph =
        createBlur("blur", 0, params, TaskPtr(new bench::MemorySource("frame", frame)));
    const RenderObserverPtr observer(new bench::NullObserver);
    for (auto _ : state)
        RenderManager::Render(
            {RenderDescription(graph, UTIL::Rect(0, 0, kWidth, kHeight), IMGLIB::CHANNELS_RGBA)},
            observer, nullptr, true, RENDERTYPE_BATCH);
    state.counters["Mpix/s/thread"] = benchmark::Counter(
        kWidth * kHeight / 1e6 * double(state.iterations()) / threads, benchmark::Counter::kIsRate);
    RenderManager::setSpeculativeCachingEnable(true);
}
BENCHMARK(BM_GaussianPipeline)
    ->Args({40, 1})
    ->Args({40, 2})
    ->Args({9, 2})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
