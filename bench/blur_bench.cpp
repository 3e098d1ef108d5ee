// Gaussian blur of a 3840x2160 RGBA float image, sizes 40 (sigma 10) and 9:
// one pass of FastFilter over a tile on one thread, and the blur tasks
// through the render system.
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

// One 256x256 tile (range 1: 0 along x, 1 along y, 2 both axes in one
// call), its padded input laid out as the render system lays out tiles. The
// rate is in megapixels per second on one thread.
void BM_GaussianTilePass(benchmark::State& state) {
    const float size = float(state.range(0));
    const bool horizontal = state.range(1) != 1, vertical = state.range(1) != 0;
    const int64_t pad = IMGLIB::GetFilterPadding(size);
    constexpr int64_t kTile = 256;
    const auto image = [](int64_t width, int64_t height, std::vector<float>& pixels) {
        IMGLIB::Image im;
        im.channels = IMGLIB::CHANNELS_RGBA;
        im.x2 = width, im.y2 = height;
        im.rowBytes = IMGLIB::GetPaddedRowBytes(width, 16, height);
        pixels.assign(static_cast<size_t>(im.rowBytes / 4 * height) + IMGLIB::kPixelAlignment / 4,
                      0.5f);
        im.pixelPtr = IMGLIB::AlignPixels(pixels.data());
        return im;
    };
    std::vector<float> inPixels, outPixels;
    const int64_t padX = horizontal ? pad : 0, padY = vertical ? pad : 0;
    IMGLIB::Image in = image(kTile + 2 * padX, kTile + 2 * padY, inPixels);
    in.x1 -= padX, in.x2 -= padX;
    in.y1 -= padY, in.y2 -= padY;
    for (size_t i = 0; i < inPixels.size(); ++i) inPixels[i] = float(i % 1013) / 1013.0f;
    const IMGLIB::Image out = image(kTile, kTile, outPixels);
    for (auto _ : state)
        IMGLIB::FastFilter(&out, &in, IMGLIB::KERNEL_GAUSSIAN, horizontal ? size : 0.0f,
                           IMGLIB::KERNEL_GAUSSIAN, vertical ? size : 0.0f);
    state.counters["Mpix/s"] = benchmark::Counter(kTile * kTile / 1e6 * double(state.iterations()),
                                                  benchmark::Counter::kIsRate);
}
BENCHMARK(BM_GaussianTilePass)
    ->Args({40, 0})
    ->Args({40, 1})
    ->Args({40, 2})
    ->Args({9, 0})
    ->Args({9, 1})
    ->Args({9, 2})
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);

void BM_GaussianPipeline(benchmark::State& state) {
    const int threads = static_cast<int>(state.range(1));
    static Frame frame;
    bench::setUpPipeline(threads);
    PerChannelBlurParameters params;
    params.blur.sizeX = params.blur.sizeY = float(state.range(0));
    const TaskPtr graph = createBlur("blur", 0, params, bench::memorySource("frame", frame));
    for (auto _ : state) bench::renderPipeline(graph, UTIL::Rect(0, 0, kWidth, kHeight));
    state.counters["Mpix/s/thread"] = benchmark::Counter(
        kWidth * kHeight / 1e6 * double(state.iterations()) / threads, benchmark::Counter::kIsRate);
}
BENCHMARK(BM_GaussianPipeline)
    ->Args({40, 1})
    ->Args({40, 2})
    ->Args({9, 2})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
