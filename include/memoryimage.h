/// @file
/// Pixels the host already holds in memory, as a source task that reads them
/// where they lie.
#pragma once

#include <memory>
#include <string>

#include "imglib/image.h"
#include "rendertask.h"
#include "tessera_export.h"

namespace TESSERA {

/// The pixels of `pixels` (its bounds, channels, rows rowBytes apart) as a
/// source. A tile that the pixels cover, asked with all their channels, is a
/// view of the host's memory: nothing is copied, allocated, cached or swapped
/// for it. Other tiles (reaching beyond the pixels, or asked for fewer
/// channels) are copied from them, transparent black outside.
///
/// `owner` keeps the memory alive for as long as the engine may read it: the
/// task and every tile image of it (those handed to an observer included) hold
/// a copy; it may be null when the memory outlives them all (a static frame,
/// say). The pixels must not change while the task exists: each task is its
/// own image, so tiles cached from it are re-used only by renders of the same
/// task; new pixels take a new task.
///
/// Throws std::invalid_argument naming the task for an invalid channel mask,
/// null pixels under non-empty bounds, or rows shorter than a row of pixels.
TESSERA_API TaskPtr createMemoryImageTask(const std::string& name, float time,
                                          const IMGLIB::Image& pixels,
                                          std::shared_ptr<const void> owner);

}  // namespace TESSERA
