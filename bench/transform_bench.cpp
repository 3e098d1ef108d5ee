// A 3840x2160 RGBA float rotation by 17 degrees with scale 0.9, bicubic:
// the affine kernel on one thread, and the whole pipeline on 1 and 2; a
// perspective keystone of the same frame, bicubic, on 1 and 2 threads; the
// same frame resized to half, lanczos3 and cubic, on 1 and 2 threads.
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "bench_support.h"
#include "imglib/resample.h"
#include "transformtasks.h"

using namespace TESSERA;
using Color = Imath::Color4<float>;

namespace {

using bench::Frame;
using bench::kHeight;
using bench::kWidth;

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

void BM_RotatePipeline(benchmark::State& state) {
    const int threads = static_cast<int>(state.range(0));
    bench::setUpPipeline(threads);
    HomTransformParams params;
    params.useAffine = true;
    const TaskPtr graph = createHomTransformTask("rotate", 0, params, {rotation()},
                                                 bench::memorySource("frame", source()));
    for (auto _ : state) bench::renderPipeline(graph, UTIL::Rect(0, 0, kWidth, kHeight));
    state.counters["Mpix/s/thread"] = benchmark::Counter(
        kWidth * kHeight / 1e6 * double(state.iterations()) / threads, benchmark::Counter::kIsRate);
}
BENCHMARK(BM_RotatePipeline)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);

// About the centre, w grows by 0.1 across the frame and 0.3 down it: the
// far corner is reduced, the near one enlarged (as make bench's keystone).
Imath::Matrix33<float> keystone() {
    Imath::Matrix33<float> toCentre, tilt, back;
    toCentre.setTranslation(Imath::V2f(-kWidth / 2.0f, -kHeight / 2.0f));
    tilt[0][2] = 0.1f / kWidth;
    tilt[1][2] = 0.3f / kHeight;
    back.setTranslation(Imath::V2f(kWidth / 2.0f, kHeight / 2.0f));
    return toCentre * tilt * back;
}

void BM_PerspectivePipeline(benchmark::State& state) {
    const int threads = static_cast<int>(state.range(0));
    bench::setUpPipeline(threads);
    const TaskPtr graph = createHomTransformTask("keystone", 0, HomTransformParams(), {keystone()},
                                                 bench::memorySource("frame", source()));
    for (auto _ : state) bench::renderPipeline(graph, UTIL::Rect(0, 0, kWidth, kHeight));
    state.counters["Mpix/s/thread"] = benchmark::Counter(
        kWidth * kHeight / 1e6 * double(state.iterations()) / threads, benchmark::Counter::kIsRate);
}
BENCHMARK(BM_PerspectivePipeline)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);

// Arguments: threads, and 0 for lanczos3 or 1 for cubic (Catmull-Rom).
void BM_ResizePipeline(benchmark::State& state) {
    const int threads = static_cast<int>(state.range(0));
    bench::setUpPipeline(threads);
    ResizeParams params;
    params.scaleX = params.scaleY = 0.5f;
    params.filter = state.range(1) == 0 ? IMGLIB::KERNEL_LANCZOS3 : IMGLIB::KERNEL_CATMULL_ROM;
    const TaskPtr graph =
        createResizeTask("resize", 0, params, bench::memorySource("frame", source()));
    for (auto _ : state) bench::renderPipeline(graph, UTIL::Rect(0, 0, kWidth / 2, kHeight / 2));
    state.counters["Mpix/s/thread"] = benchmark::Counter(
        kWidth * kHeight / 4e6 * double(state.iterations()) / threads, benchmark::Counter::kIsRate);
}
BENCHMARK(BM_ResizePipeline)
    ->Args({1, 0})
    ->Args({2, 0})
    ->Args({1, 1})
    ->Args({2, 1})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
