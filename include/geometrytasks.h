/// @file
/// Exact geometry: crop, data window, reposition, orientation and borders.
/// Every output pixel is one input pixel (or a fill colour): no resampling.
#pragma once

#include <Imath/ImathColor.h>

#include <cstdint>
#include <string>

#include "imglib/image.h"
#include "rendertask.h"
#include "tessera_export.h"
#include "util/rect.h"

namespace TESSERA {

/// The input inside `rect`; outside it transparent black, or the input's
/// background colour when blackOutside is false.
TESSERA_API TaskPtr createCropTask(const std::string& name, float time, const UTIL::Rect& rect,
                                   bool blackOutside, TaskPtr input);

/// The input with its defined region set to `rect` (shrink: the part of the
/// input's region inside rect). Pixels outside the region become the input's
/// background colour.
TESSERA_API TaskPtr createDataWindowTask(const std::string& name, float time,
                                         const UTIL::Rect& rect, bool shrink, TaskPtr input);

/// The input moved by whole pixels.
TESSERA_API TaskPtr createRepositionTask(const std::string& name, float time, int64_t dx,
                                         int64_t dy, TaskPtr input);

/// An exact re-arrangement of pixels.
enum class Orientation {
    Flip,       ///< top to bottom
    Flop,       ///< left to right
    Transpose,  ///< x and y exchanged
    Rotate90,   ///< clockwise, as the image is viewed (y down)
    Rotate180,
    Rotate270
};

/// The input's data (its bounding box) turned or mirrored in place: the
/// result's box keeps the input box's top-left corner.
TESSERA_API TaskPtr createOrientTask(const std::string& name, float time, Orientation orientation,
                                     TaskPtr input);

/// The input's bounding box grown by the margins (each 0 or more); the new
/// pixels are `color` (EXTEND_BACKGROUND) or the edge clamped or mirrored.
TESSERA_API TaskPtr createBorderTask(const std::string& name, float time, int64_t left, int64_t top,
                                     int64_t right, int64_t bottom, IMGLIB::ExtendMethod method,
                                     const Imath::Color4<float>& color, TaskPtr input);

}  // namespace TESSERA
