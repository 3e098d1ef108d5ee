/// @file
/// Blocking renders into the caller's memory, for hosts that want pixels and
/// no observer.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <vector>

#include "imglib/image.h"
#include "renderdescription.h"
#include "renderobserver.h"
#include "rendertask.h"
#include "tessera_export.h"
#include "util/rect.h"

namespace TESSERA {

/// How far a render is: output tiles delivered of all it has.
struct RenderProgress {
    uint64_t tilesDone = 0;   ///< output tiles delivered
    uint64_t tilesTotal = 0;  ///< output tiles in all
    /// Done over total: 0 to 1 (1 for a render of no tiles).
    double fraction() const { return tilesTotal ? double(tilesDone) / double(tilesTotal) : 1.0; }
};

/// How a blocking render reports, is cancelled, and queues.
struct RenderOptions {
    /// Called on the calling thread while the render runs (whenever it
    /// wakes, at least every 25 ms) and once at the end. Throwing from it
    /// cancels the render; the exception then leaves the render call.
    std::function<void(const RenderProgress&)> progress;
    /// Set from any thread (a signal handler included) to cancel the render.
    const std::atomic<bool>* cancel = nullptr;
    /// The render queue it runs in; one render per queue at a time. A
    /// render that finds its queue busy waits its turn (renders waiting go in
    /// the order they came; progress and cancel work while they wait).
    RenderType type = RENDERTYPE_BATCH;
};

/// Renders the outputs for the observer, as RenderManager::Render does, and
/// waits, with the options' progress and cancellation. Progress counts the
/// output tiles delivered to the observer.
TESSERA_API void renderOutputs(const std::vector<RenderDescription>& outputs,
                               const RenderObserverPtr& observer,
                               const RenderOptions& options = {});

/// Renders task over destination's bounds, with destination's channels, into
/// destination's pixels, and returns when every tile is there. Throws the
/// render's error (naming the task), or RenderCancelledException when it
/// was cancelled; destination then holds whatever tiles had arrived.
TESSERA_API void renderInto(const TaskPtr& task, const IMGLIB::Image& destination,
                            const RenderOptions& options = {});

/// An image a render filled: interleaved 32-bit floats, one value per
/// channel of `channels` in ascending bit order, rows without padding.
struct TESSERA_API RenderedImage {
    uint64_t channels = 0;      ///< the channel bits, in the pixels' order
    UTIL::Rect rect;            ///< the area rendered
    std::vector<float> pixels;  ///< rows from rect.ymin, rect.width() pixels each
    /// The record IMGLIB's functions take; valid while pixels is unchanged.
    IMGLIB::Image image();
};

/// renderInto an image of rect it allocates.
TESSERA_API RenderedImage renderImage(const TaskPtr& task, const UTIL::Rect& rect,
                                      uint64_t channels, const RenderOptions& options = {});

}  // namespace TESSERA
