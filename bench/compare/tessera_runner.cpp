// The workloads as Tessera graphs: memory sources, the factories, and a
// blocking render whose tiles are rendered in the output's pixels.
#include "runners.h"

#include "../bench_support.h"
#include "colortasks.h"
#include "compositetasks.h"
#include "filtertasks.h"
#include "geometrytasks.h"
#include "renderimage.h"
#include "rendermanager.h"
#include "transformtasks.h"

namespace compare {
namespace {

using namespace TESSERA;
using Color = Imath::Color4<float>;

// The workloads' steps as Tessera tasks.
struct Steps {
    int64_t width, height;

    TaskPtr grade(TaskPtr t, size_t steps) const {
        const Imath::Matrix44<float> identity;
        for (size_t i = 0; i < steps; ++i) {
            const float v = kColourChain[i].value;
            const std::string name = "step" + std::to_string(i);
            switch (kColourChain[i].step) {
                case Step::Multiply:
                    t = createGainTask(name, 0, Color(v, v, v, 1), t);
                    break;
                case Step::Add:
                    t = createColorTransformTask(name, 0, identity, Color(v, v, v, 0), t);
                    break;
                case Step::Power:
                    t = createExponentialTask(name, 0, Color(v, v, v, 1), Color(1, 1, 1, 1), t);
                    break;
            }
        }
        return t;
    }

    TaskPtr blur(TaskPtr input, double sigma) const {
        PerChannelBlurParameters params;
        params.blur.sizeX = params.blur.sizeY = float(4 * sigma);
        params.blur.extendMethod = IMGLIB::EXTEND_CLAMP;
        return createBlur("blur", 0, params, std::move(input));
    }

    TaskPtr rotate(TaskPtr input) const {
        const std::array<double, 6> m = rotationMatrix(double(width), double(height));
        // Row vectors: (x, y, 1) times the matrix.
        const Imath::Matrix33<float> matrix{
            float(m[0]), float(m[3]), 0, float(m[1]), float(m[4]), 0, float(m[2]), float(m[5]), 1};
        HomTransformParams params;
        params.useAffine = true;
        return createHomTransformTask("rotate", 0, params, {matrix}, std::move(input));
    }

    TaskPtr perspective(TaskPtr input) const {
        const std::array<float, 9> c = perspectiveColumns(double(width), double(height));
        const Imath::Matrix33<float> matrix(reinterpret_cast<const float(*)[3]>(c.data()));
        return createHomTransformTask("perspective", 0, HomTransformParams{}, {matrix},
                                      std::move(input));
    }

    TaskPtr resize(TaskPtr input, Filter filter) const {
        ResizeParams params;
        params.scaleX = params.scaleY = 0.5f;
        params.filter =
            filter == Filter::Lanczos3 ? IMGLIB::KERNEL_LANCZOS3 : IMGLIB::KERNEL_CATMULL_ROM;
        return createResizeTask("resize", 0, params, std::move(input));
    }
    TaskPtr flip(TaskPtr input) const {
        return createOrientTask("flip", 0, Orientation::Flip, std::move(input));
    }
    TaskPtr crop(TaskPtr input) const {
        return createCropTask("crop", 0,
                              UTIL::Rect(kCropX, kCropY, kCropX + width / 2, kCropY + height / 2),
                              true, std::move(input));
    }

    TaskPtr over(TaskPtr a, TaskPtr b) const {
        return createCompositeTask("over", 0, COMPOSITE_OVER, false, false, false, 1.0f, a, b);
    }
};

class TesseraRunner : public Runner {
public:
    explicit TesseraRunner(TileShape shape) : m_shape(shape) {}
    std::string name() const override {
        return m_shape == TileShape::Strip ? "Tessera, strips" : "Tessera";
    }
    void setThreads(int threads) override { RenderManager::setRenderThreads(uint64_t(threads)); }
    void run(Workload workload, const Inputs& inputs, Picture& out) override {
        // Every run renders from the sources: no tile of an earlier run is kept.
        RenderManager::setSpeculativeCachingEnable(false);
        if (m_shape == TileShape::Strip)
            RenderManager::setGlobalTileSize(out.width, kStripRows);
        else
            RenderManager::setGlobalTileSize(kSquareTile, kSquareTile);
        RenderManager::ClearRenderTaskCache();
        const TaskPtr a = bench::memorySource("a", inputs.a.image);
        const TaskPtr b = bench::memorySource("b", inputs.b.image);
        Steps steps{inputs.b.width, inputs.b.height};
        const TaskPtr graph = compose(workload, steps, a, b);
        renderInto(graph, out.image);
    }

private:
    static constexpr int64_t kSquareTile = 256;  // the engine's default
    static constexpr int64_t kStripRows = 16;    // a strip holds about a square tile's pixels
    const TileShape m_shape;
};

}  // namespace

std::unique_ptr<Runner> makeTesseraRunner(TileShape shape) {
    return std::make_unique<TesseraRunner>(shape);
}

}  // namespace compare
