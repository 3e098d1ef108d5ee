// The render controller's overhead: what a tile costs beyond its pixels,
// and what setting up a large graph costs.
#include <benchmark/benchmark.h>

#include "support/serial_render.h"

using namespace TESSERA;
using namespace TESSERA::testing;
using Color = Imath::Color4<float>;

namespace {

// Writes nothing: a tile costs only the machinery around it.
class TrivialTask : public ConstantTask {
public:
    using ConstantTask::ConstantTask;
    void renderRect(const IMGLIB::Image*, const std::vector<const IMGLIB::Image*>&) override {}
};

class NullObserver : public RenderObserver {
public:
    void tileDone(const ImageBuffer&, const OutputTileID&) override {}
};

// Tiles per second through RenderManager::Render on 1 or 2 threads.
void BM_TilesPerSecond(benchmark::State& state) {
    RenderManager::setRenderThreads(static_cast<uint64_t>(state.range(0)));
    RenderManager::setGlobalTileSize(16, 16);
    RenderManager::setSpeculativeCachingEnable(false);
    const UTIL::Rect rect(0, 0, 1024, 1024);  // 4096 tiles
    TaskPtr task(new TrivialTask("trivial", Color(1, 1, 1, 1), rect));
    RenderObserverPtr observer(new NullObserver);
    int64_t tiles = 0;
    for (auto _ : state) {
        RenderManager::Render({RenderDescription(task, rect, IMGLIB::CHANNELS_RGBA)}, observer,
                              nullptr, true, RENDERTYPE_BATCH);
        tiles += 4096;
    }
    state.SetItemsProcessed(tiles);  // tiles per second; 1e6 / that is us per tile
    RenderManager::setSpeculativeCachingEnable(true);
    RenderManager::setGlobalTileSize(256, 256);
}
BENCHMARK(BM_TilesPerSecond)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);

// Set-up (and tear-down) of a graph of 1,000 tasks: a ladder where each
// task reads the two before it, rendered as one small output tile.
void BM_SetUpThousandTasks(benchmark::State& state) {
    RenderManager::ClearRenderTaskCache();
    std::vector<TaskPtr> tasks;
    tasks.push_back(TaskPtr(new ConstantTask("c0", Color(1, 1, 1, 1), UTIL::Rect(0, 0, 64, 64))));
    tasks.push_back(TaskPtr(new ConstantTask("c1", Color(2, 2, 2, 1), UTIL::Rect(0, 0, 64, 64))));
    for (int i = 2; i < 1000; ++i)
        tasks.push_back(
            TaskPtr(new GainTask("g" + std::to_string(i), {tasks[i - 1], tasks[i - 2]}, 0.5f)));
    for (auto _ : state) {
        std::unique_ptr<RenderPlan> plan = RenderPlan::setUp(
            {RenderOutput{tasks.back(), UTIL::Rect(0, 0, 64, 64), IMGLIB::CHANNELS_RGBA, 0}});
        benchmark::DoNotOptimize(plan->tileCount);
    }
    RenderManager::ClearRenderTaskCache();
}
BENCHMARK(BM_SetUpThousandTasks)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
