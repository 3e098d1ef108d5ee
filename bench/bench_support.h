// What the whole-pipeline benchmarks share: a decoded 4K frame in memory, a
// source task serving it, and an observer that lets tiles go.
#pragma once

#include <string>
#include <vector>

#include "imglib/pixels.h"
#include "memoryimage.h"
#include "rendermanager.h"
#include "renderobserver.h"

namespace TESSERA {
namespace bench {

constexpr int64_t kWidth = 3840, kHeight = 2160;

// An RGBA float frame over [-pad, size + pad), rows packed.
struct Frame {
    explicit Frame(float seed = 0.0f, int64_t pad = 0)
        : pixels(static_cast<size_t>((kWidth + 2 * pad) * (kHeight + 2 * pad) * 4)) {
        image.channels = IMGLIB::CHANNELS_RGBA;
        image.x1 = -pad;
        image.y1 = -pad;
        image.x2 = kWidth + pad;
        image.y2 = kHeight + pad;
        image.rowBytes = (kWidth + 2 * pad) * 16;
        image.pixelPtr = pixels.data();
        for (size_t i = 0; i < pixels.size(); ++i)
            pixels[i] =
                (i % 4 == 3) ? float((i / 4) % 97) / 96.0f : seed + float(i % 1013) / 1013.0f;
    }
    std::vector<float> pixels;
    IMGLIB::Image image;
};

// Decoded pixels in memory as a graph source, read where they lie (the
// frames live as long as the benchmark).
inline TaskPtr memorySource(const std::string& name, const IMGLIB::Image& image) {
    return createMemoryImageTask(name, 0, image, nullptr);
}
inline TaskPtr memorySource(const std::string& name, const Frame& frame) {
    return memorySource(name, frame.image);
}

class NullObserver : public RenderObserver {
public:
    void tileDone(const ImageBuffer&, const OutputTileID&) override {}
};

// Engine settings for timing whole pipelines: `threads` workers, 256-pixel
// tiles, room for every tile, and no tile of one run kept for the next.
inline void setUpPipeline(int threads) {
    RenderManager::setRenderThreads(uint64_t(threads));
    RenderManager::setGlobalTileSize(256, 256);
    RenderManager::setSpeculativeCachingEnable(false);
    RenderManager::SetMaxImageMemory(4096);
    RenderManager::ClearRenderTaskCache();
}

// One batch render of `graph` over `area`, RGBA, its tiles let go.
inline void renderPipeline(const TaskPtr& graph, const UTIL::Rect& area) {
    const RenderObserverPtr observer(new NullObserver);
    RenderManager::Render({RenderDescription(graph, area, IMGLIB::CHANNELS_RGBA)}, observer,
                          nullptr, true, RENDERTYPE_BATCH);
}

}  // namespace bench
}  // namespace TESSERA
