// Pixel kernels and whole pipelines on a 3840x2160 RGBA float image: over,
// a colour matrix and a chain of ten colour operations, next to the
// machine's streaming bandwidth (read and write of the same bytes).
#include <benchmark/benchmark.h>

#include <cstring>
#include <functional>
#include <thread>
#include <vector>

#include "bench_support.h"
#include "colortasks.h"
#include "compositetasks.h"
#include "imglib/compositeops.h"
#include "imglib/pixels.h"
#include "imglib/pointops.h"

using namespace TESSERA;
using Color = Imath::Color4<float>;

namespace {

using bench::Frame;
using bench::kHeight;
using bench::kWidth;
using bench::NullObserver;
constexpr double kMegapixels = kWidth * kHeight / 1e6;

Frame& frameA() {
    static Frame f(0.1f);
    return f;
}
Frame& frameB() {
    static Frame f(0.3f);
    return f;
}

void setRates(benchmark::State& state, int threads) {
    state.counters["Mpix/s/thread"] = benchmark::Counter(
        kMegapixels * double(state.iterations()) / threads, benchmark::Counter::kIsRate);
}

// ---- The ceiling: read and write every byte once. ----
void BM_StreamingBandwidth(benchmark::State& state) {
    const int threads = static_cast<int>(state.range(0));
    Frame& in = frameA();
    static std::vector<float> out(in.pixels.size());
    for (auto _ : state) {
        std::vector<std::thread> pool;
        for (int t = 0; t < threads; ++t)
            pool.emplace_back([&, t] {
                const size_t begin = in.pixels.size() * t / threads;
                const size_t end = in.pixels.size() * (t + 1) / threads;
                std::memcpy(out.data() + begin, in.pixels.data() + begin, (end - begin) * 4);
            });
        for (auto& th : pool) th.join();
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(in.pixels.size()) * 4 * 2);
    setRates(state, threads);
}
BENCHMARK(BM_StreamingBandwidth)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);

// ---- Kernels on the whole frame, one thread. ----
IMGLIB::PointOp gainOp(float k) {
    const float m[20] = {k, 0, 0, 0, 0, 0, k, 0, 0, 0, 0, 0, k, 0, 0, 0, 0, 0, 1, 0};
    return IMGLIB::MakeColorMatrix(m);
}
IMGLIB::PointOp addOp(float k) {
    const float m[20] = {1, 0, 0, 0, k, 0, 1, 0, 0, k, 0, 0, 1, 0, k, 0, 0, 0, 1, 0};
    return IMGLIB::MakeColorMatrix(m);
}
IMGLIB::PointOp powOp(float e) {
    const float ex[4] = {e, e, e, 1}, pivot[4] = {1, 1, 1, 1};
    return IMGLIB::MakeExponential(ex, pivot);
}
std::vector<IMGLIB::PointOp> tenOps() {
    return {gainOp(1.1f), addOp(0.01f),  powOp(0.9f),   gainOp(0.95f), addOp(-0.005f),
            powOp(1.1f),  gainOp(1.02f), addOp(0.002f), powOp(0.98f),  gainOp(1.01f)};
}

void BM_OverKernel(benchmark::State& state) {
    static Frame out(0);
    for (auto _ : state)
        IMGLIB::Over(&out.image, &frameB().image, &frameA().image, false, Color(0, 0, 0, 0),
                     Color(0, 0, 0, 0));
    setRates(state, 1);
}
BENCHMARK(BM_OverKernel)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_ColorMatrixKernel(benchmark::State& state) {
    static Frame out(0);
    const IMGLIB::PointOp op = gainOp(1.5f);
    for (auto _ : state) IMGLIB::ApplyPointOps(&out.image, &frameA().image, &op, 1);
    setRates(state, 1);
}
BENCHMARK(BM_ColorMatrixKernel)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_TenOpChainKernel(benchmark::State& state) {
    static Frame out(0);
    const std::vector<IMGLIB::PointOp> ops = tenOps();
    for (auto _ : state) IMGLIB::ApplyPointOps(&out.image, &frameA().image, ops.data(), ops.size());
    setRates(state, 1);
}
BENCHMARK(BM_TenOpChainKernel)->UseRealTime()->Unit(benchmark::kMillisecond);

// ---- Whole pipelines through RenderManager: sources, tiles, threads. ----
void timePipeline(benchmark::State& state, const std::function<TaskPtr()>& build) {
    const int threads = static_cast<int>(state.range(0));
    bench::setUpPipeline(threads);
    const TaskPtr graph = build();
    for (auto _ : state) bench::renderPipeline(graph, UTIL::Rect(0, 0, kWidth, kHeight));
    setRates(state, threads);
}

void BM_OverPipeline(benchmark::State& state) {
    timePipeline(state, [] {
        return createCompositeTask("over", 0, COMPOSITE_OVER, false, false, false, 1.0f,
                                   bench::memorySource("a", frameA()),
                                   bench::memorySource("b", frameB()));
    });
}
BENCHMARK(BM_OverPipeline)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_ColorMatrixPipeline(benchmark::State& state) {
    timePipeline(state, [] {
        return createGainTask("gain", 0, Color(1.5f, 1.5f, 1.5f, 1),
                              bench::memorySource("a", frameA()));
    });
}
BENCHMARK(BM_ColorMatrixPipeline)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_TenOpChainPipeline(benchmark::State& state) {
    timePipeline(state, [] {
        TaskPtr t = bench::memorySource("a", frameA());
        const Color zero(0, 0, 0, 0), one(1, 1, 1, 1);
        Imath::Matrix44<float> identity;
        const float gains[4] = {1.1f, 0.95f, 1.02f, 1.01f}, adds[3] = {0.01f, -0.005f, 0.002f},
                    pows[3] = {0.9f, 1.1f, 0.98f};
        for (int i = 0; i < 3; ++i) {
            t = createGainTask("mul", 0, Color(gains[i], gains[i], gains[i], 1), t);
            t = createColorTransformTask("add", 0, identity, Color(adds[i], adds[i], adds[i], 0),
                                         t);
            t = createExponentialTask("pow", 0, Color(pows[i], pows[i], pows[i], 1), one, t);
        }
        return createGainTask("mul", 0, Color(gains[3], gains[3], gains[3], 1), t);
    });
}
BENCHMARK(BM_TenOpChainPipeline)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
