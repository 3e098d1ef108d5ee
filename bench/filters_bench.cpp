// The neighbourhood operators on one 256x256 RGBA float tile, its input
// padded by the operator's reach: megapixels per second on one thread.
#include <benchmark/benchmark.h>

#include <functional>
#include <vector>

#include "imglib/bilateral.h"
#include "imglib/defocus.h"
#include "imglib/edges.h"
#include "imglib/lineblur.h"
#include "imglib/radialblur.h"
#include "imglib/rankfilters.h"

namespace {

constexpr int64_t kTile = 256;

struct TileImage {
    TileImage(int64_t pad, float seed) {
        image.channels = IMGLIB::CHANNELS_RGBA;
        image.x1 = image.y1 = -pad;
        image.x2 = image.y2 = kTile + pad;
        image.rowBytes = (kTile + 2 * pad) * 16;
        if (image.rowBytes % 4096 == 0) image.rowBytes += 64;
        pixels.resize(static_cast<size_t>(image.rowBytes / 4 * (kTile + 2 * pad)));
        for (size_t i = 0; i < pixels.size(); ++i) pixels[i] = seed + float(i % 1013) / 1013.0f;
        image.pixelPtr = pixels.data();
    }
    std::vector<float> pixels;
    IMGLIB::Image image;
};

void run(benchmark::State& state, int64_t pad,
         const std::function<int(const IMGLIB::Image*, const IMGLIB::Image*)>& op) {
    const TileImage in(pad, 0.0f);
    TileImage out(0, 0.0f);
    for (auto _ : state) benchmark::DoNotOptimize(op(&out.image, &in.image));
    state.counters["Mpix/s"] = benchmark::Counter(kTile * kTile / 1e6 * double(state.iterations()),
                                                  benchmark::Counter::kIsRate);
}

void BM_Defocus(benchmark::State& state) {
    const float size = float(state.range(0));
    int64_t padX, padY;
    IMGLIB::GetDefocusPadding(size, 1, 0, 0, true, padX, padY);
    run(state, padX, [size](const IMGLIB::Image* out, const IMGLIB::Image* in) {
        return IMGLIB::Defocus(out, in, size, 1, 0, 0, true);
    });
}
BENCHMARK(BM_Defocus)->Arg(10)->Arg(40)->Unit(benchmark::kMicrosecond);

void BM_Median(benchmark::State& state) {
    const float size = float(state.range(0));
    run(state, IMGLIB::GetMedianPadding(size),
        [size](const IMGLIB::Image* out, const IMGLIB::Image* in) {
            return IMGLIB::MedianFilter(out, in, size, size, false, 0);
        });
}
BENCHMARK(BM_Median)->Arg(3)->Arg(5)->Unit(benchmark::kMicrosecond);

void BM_Dilate(benchmark::State& state) {
    const float radius = float(state.range(0));
    run(state, IMGLIB::GetErodeDilatePadding(radius),
        [radius](const IMGLIB::Image* out, const IMGLIB::Image* in) {
            return IMGLIB::ErodeOrDilate(out, in, radius, radius);
        });
}
BENCHMARK(BM_Dilate)->Arg(2)->Arg(10)->Unit(benchmark::kMicrosecond);

void BM_Bilateral(benchmark::State& state) {
    const auto radius = static_cast<uint32_t>(state.range(0));
    run(state, radius, [radius](const IMGLIB::Image* out, const IMGLIB::Image* in) {
        return IMGLIB::BilateralFilter(out, in, radius, radius, 2.0f, 0.1f);
    });
}
BENCHMARK(BM_Bilateral)->Arg(3)->Unit(benchmark::kMicrosecond);

void BM_SobelEdgeDetect(benchmark::State& state) {
    run(state, IMGLIB::GetEdgePadding(false, false), IMGLIB::SobelEdgeDetect);
}
BENCHMARK(BM_SobelEdgeDetect)->Unit(benchmark::kMicrosecond);

void BM_LineBlur(benchmark::State& state) {
    const float length = float(state.range(0));
    int64_t padX, padY;
    IMGLIB::GetLineBlurPadding(length, 30.0f, 0.0f, padX, padY);
    run(state, std::max(padX, padY), [length](const IMGLIB::Image* out, const IMGLIB::Image* in) {
        return IMGLIB::LineBlur(out, in, length, 30.0f, 0.0f, 1.0f, IMGLIB::KERNEL_BOX, true);
    });
}
BENCHMARK(BM_LineBlur)->Arg(20)->Unit(benchmark::kMicrosecond);

void BM_RadialZoom(benchmark::State& state) {
    IMGLIB::RadialBlurParams p;
    p.centreX = p.centreY = 128.0f;
    p.amount = 0.1f;
    p.samples = 16;
    UTIL::Rect need;
    IMGLIB::GetRadialBlurredRequiredInputRect(need, UTIL::Rect(0, 0, kTile, kTile), p);
    run(state, std::max(-need.xmin, need.xmax - kTile),
        [p](const IMGLIB::Image* out, const IMGLIB::Image* in) {
            return IMGLIB::RadialBlur(out, in, p);
        });
}
BENCHMARK(BM_RadialZoom)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
