// Renders a set of outputs on the calling thread, tile job by tile job, and
// gathers what the observer is told.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "inplacetask.h"
#include "rendersystem/core/renderplan.h"
#include "rendersystem/core/tilejob.h"
#include "support/test_tasks.h"

namespace TESSERA {
namespace testing {

using Private::RenderOutput;
using Private::RenderPlan;

// Keeps every output tile and can paste them into one image per output.
class CollectingObserver : public RenderObserver {
public:
    void tileDone(const ImageBuffer& image, const OutputTileID& id) override;
    void internalTileDone(const std::string& taskName, const std::string&, double) override;
    void outputFinished(size_t outputIndex) override;

    // The output's pixel at (x, y), from whichever tile holds it.
    Imath::Color4<float> pixel(size_t output, int64_t x, int64_t y);

    std::mutex mutex;
    std::map<size_t, std::vector<ImageBuffer>> tiles;
    std::map<std::string, int> tilesDoneByTask;
    std::vector<size_t> finishedOutputs;
};

// Keeps the order of output tiles and the outcome.
class RecordingObserver : public CollectingObserver {
public:
    void tileDone(const ImageBuffer& image, const OutputTileID& id) override {
        CollectingObserver::tileDone(image, id);
        std::lock_guard<std::mutex> lock(mutex);
        order.push_back(id.tileID);
    }
    void internalTileDone(const std::string& task, const std::string& d, double seconds) override {
        CollectingObserver::internalTileDone(task, d, seconds);
        std::lock_guard<std::mutex> lock(mutex);
        secondsByTask[task] += seconds;
        descriptionOf[task] = d;
        if (seconds == 0.0) ++cachedTiles;
    }
    void renderFinished(RenderStatus s, const std::string& m) override {
        std::lock_guard<std::mutex> lock(mutex);
        status = s;
        message = m;
        ++finishCalls;
    }
    std::vector<TileID> order;
    std::map<std::string, double> secondsByTask;
    std::map<std::string, std::string> descriptionOf;
    int cachedTiles = 0;
    RenderStatus status = RenderStatus::Error;
    std::string message;
    int finishCalls = 0;
};

// Sets up the render, runs every tile job in readiness order and ends the
// render (also when a job throws). Returns the number of jobs run.
size_t renderSerially(const std::vector<RenderOutput>& outputs,
                      const RCX_ptr_v4::ref_ptr<CollectingObserver>& observer);

// Renders rect of task with square tiles of `tileSize` on the calling thread
// (the tile cache emptied first) and returns its pixels, row by row.
std::vector<Imath::Color4<float>> renderPixels(const TaskPtr& task, const UTIL::Rect& rect,
                                               int tileSize);

// Renders one output through the render manager on `threads` workers with
// square tiles of `tileSize` (the tile cache emptied first), expects it to
// succeed and returns its pixels, row by row.
std::vector<Imath::Color4<float>> renderOnThreads(const RenderDescription& output, int tileSize,
                                                  int threads);

// A host's RGBA frame over `rect`, its rows padded by `pad` floats and its
// first pixel `offset` floats into the buffer, as a host's frame may be
// laid out; every float starts as `fill`.
struct HostFrame {
    HostFrame(const UTIL::Rect& rect, int64_t pad, int64_t offset, float fill);
    // Row y of the frame (from rect.ymin), its first pixel.
    const float* row(int64_t y) const { return buffer.data() + offset + (y - rect.ymin) * stride; }

    UTIL::Rect rect;
    int64_t stride, offset;  // in floats
    std::vector<float> buffer;
    IMGLIB::Image image;  // the frame's record, for renderInto
};

// The assertion a call raises, as "EXPRESSION @ SOURCE", or "no assertion".
std::string assertionText(const std::function<void()>& call);

// Pixel-wise test operators.
class ScaleOp : public InPlaceOp {  // RGB x k
public:
    explicit ScaleOp(float k) : k(k) {}
    void computeCacheID(CacheIDStream& s) override { s << k; }
    int apply(const IMGLIB::Image* out, const IMGLIB::Image* in) override;
    std::string getTypeString() override { return "Scale"; }
    Imath::Color4<float> applyToColor(const Imath::Color4<float>& c) override {
        return Imath::Color4<float>(c.r * k, c.g * k, c.b * k, c.a);
    }
    float k;
};

// RGB = A: needs only alpha, makes only RGB.
class AlphaToGrayOp : public InPlaceOp {
public:
    void computeCacheID(CacheIDStream&) override {}
    int apply(const IMGLIB::Image* out, const IMGLIB::Image* in) override;
    std::size_t getOutputChannels(std::size_t) override { return IMGLIB::CHANNELS_RGB; }
    std::size_t getRequiredInputChannels(std::size_t) override { return IMGLIB::CHANNEL_A; }
    std::string getTypeString() override { return "AlphaToGray"; }
};

}  // namespace testing
}  // namespace TESSERA
