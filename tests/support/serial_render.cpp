#include "support/serial_render.h"

#include <gtest/gtest.h>

#include "imglib/error.h"
#include "imglib/pixels.h"
#include "util/exceptions.h"

namespace TESSERA {
namespace testing {

void CollectingObserver::tileDone(const ImageBuffer& image, const OutputTileID& id) {
    std::lock_guard<std::mutex> lock(mutex);
    tiles[id.outputIndex].push_back(image);
}

void CollectingObserver::internalTileDone(const std::string& taskName, const std::string&, double) {
    std::lock_guard<std::mutex> lock(mutex);
    ++tilesDoneByTask[taskName];
}

void CollectingObserver::outputFinished(size_t outputIndex) {
    std::lock_guard<std::mutex> lock(mutex);
    finishedOutputs.push_back(outputIndex);
}

Imath::Color4<float> CollectingObserver::pixel(size_t output, int64_t x, int64_t y) {
    std::lock_guard<std::mutex> lock(mutex);
    for (ImageBuffer& tile : tiles[output]) {
        if (!tile.getBounds().contains(x, y)) continue;
        ImageBuffer_LockScoper scoper(tile);
        return pixelAt(tile.getImage(), x, y);
    }
    return Imath::Color4<float>(-1, -1, -1, -1);
}

size_t renderSerially(const std::vector<RenderOutput>& outputs,
                      const RCX_ptr_v4::ref_ptr<CollectingObserver>& observer) {
    std::unique_ptr<RenderPlan> plan = RenderPlan::setUp(outputs);
    Private::ReadyTiles ready;
    std::vector<Private::TilePtr> queue = plan->readyTiles;
    size_t jobs = 0;
    while (!queue.empty()) {
        for (const Private::TilePtr& tile : queue) {
            Private::TileJob(tile, observer, &ready, 0).run();
            ++jobs;
        }
        queue = ready.take();
    }
    return jobs;
}

std::vector<Imath::Color4<float>> renderPixels(const TaskPtr& task, const UTIL::Rect& rect,
                                               int tileSize) {
    RenderManager::setGlobalTileSize(tileSize, tileSize);
    RenderManager::clearSpeculativeCache();
    auto observer = RCX_ptr_v4::ref_ptr<CollectingObserver>(new CollectingObserver);
    renderSerially({RenderOutput{task, rect, IMGLIB::CHANNELS_RGBA, 0}}, observer);
    std::vector<Imath::Color4<float>> pixels;
    for (int64_t y = rect.ymin; y < rect.ymax; ++y)
        for (int64_t x = rect.xmin; x < rect.xmax; ++x) pixels.push_back(observer->pixel(0, x, y));
    return pixels;
}

std::vector<Imath::Color4<float>> renderOnThreads(const RenderDescription& output, int tileSize,
                                                  int threads) {
    RenderManager::setGlobalTileSize(tileSize, tileSize);
    RenderManager::setRenderThreads(uint64_t(threads));
    RenderManager::clearSpeculativeCache();
    auto observer = RCX_ptr_v4::ref_ptr<RecordingObserver>(new RecordingObserver);
    RenderManager::Render({output}, observer, nullptr, true, RENDERTYPE_BATCH);
    EXPECT_EQ(observer->status, RenderStatus::Success) << observer->message;
    const UTIL::Rect& rect = output.rect;
    std::vector<Imath::Color4<float>> pixels;
    for (int64_t y = rect.ymin; y < rect.ymax; ++y)
        for (int64_t x = rect.xmin; x < rect.xmax; ++x) pixels.push_back(observer->pixel(0, x, y));
    return pixels;
}

HostFrame::HostFrame(const UTIL::Rect& rect, int64_t pad, int64_t offset, float fill)
    : rect(rect),
      stride(rect.width() * 4 + pad),
      offset(offset),
      buffer(size_t(offset + stride * rect.height()), fill) {
    image.channels = IMGLIB::CHANNELS_RGBA;
    image.x1 = rect.xmin, image.y1 = rect.ymin, image.x2 = rect.xmax, image.y2 = rect.ymax;
    image.rowBytes = stride * int64_t(sizeof(float));
    image.pixelPtr = buffer.data() + offset;
}

std::string assertionText(const std::function<void()>& call) {
    try {
        call();
    } catch (const UTIL::AssertException& e) {
        return e.expression() + " @ " + e.source();
    }
    return "no assertion";
}

int ScaleOp::apply(const IMGLIB::Image* out, const IMGLIB::Image* in) {
    for (int64_t y = out->y1; y < out->y2; ++y)
        for (int64_t x = out->x1; x < out->x2; ++x) {
            Imath::Color4<float> c = pixelAt(in, x, y);
            const float v[4] = {c.r * k, c.g * k, c.b * k, c.a};
            IMGLIB::SetPixel(out, x, y, v);
        }
    return IMGLIB::ERROR_NONE;
}

int AlphaToGrayOp::apply(const IMGLIB::Image* out, const IMGLIB::Image* in) {
    for (int64_t y = out->y1; y < out->y2; ++y)
        for (int64_t x = out->x1; x < out->x2; ++x) {
            const float a = pixelAt(in, x, y).a;
            const float v[4] = {a, a, a, a};
            IMGLIB::SetPixel(out, x, y, v);
        }
    return IMGLIB::ERROR_NONE;
}

}  // namespace testing
}  // namespace TESSERA
