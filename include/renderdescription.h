/// @file
/// RenderDescription and RenderType: what a host asks a render for.
#pragma once

#include <cstdint>

#include "rendertask.h"
#include "tessera_export.h"
#include "util/rect.h"

namespace TESSERA {

/// Three independent render queues, each running one render at a time (and
/// one analysis render), all sharing the worker threads.
enum RenderType : int {
    RENDERTYPE_VIEWER = 0,      ///< interactive: what an artist is looking at
    RENDERTYPE_BATCH = 1,       ///< final frames written to disk
    RENDERTYPE_BACKGROUND = 2,  ///< thumbnails, proxies, caches warmed ahead
};
constexpr int RENDERTYPE_COUNT = 3;  ///< how many queues there are

/// One output of a render: the area and channels wanted of a task. Its
/// position in the render's list is the output index OutputTileID reports.
struct TESSERA_API RenderDescription {
    RenderDescription() = default;
    /// `channels` of `task` over `rect`.
    RenderDescription(TaskPtr task, const UTIL::Rect& rect, uint64_t channels)
        : task(std::move(task)), rect(rect), channels(channels) {}

    TaskPtr task;           ///< what to render
    UTIL::Rect rect;        ///< the area wanted
    uint64_t channels = 0;  ///< the channel bits wanted
};

}  // namespace TESSERA
