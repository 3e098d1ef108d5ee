// Neighbourhood filters.
#pragma once

#include <string>

#include "imglib/image.h"
#include "imglib/kernels.h"
#include "rendertask.h"
#include "tessera_export.h"
#include "util/rect.h"

namespace TESSERA {

struct TESSERA_API BlurParams {
    float sizeX = 0.0f;  // filter width in pixels along x (1 or less: none)
    float sizeY = 0.0f;
    IMGLIB::FilterType filterX = IMGLIB::KERNEL_GAUSSIAN;
    IMGLIB::FilterType filterY = IMGLIB::KERNEL_GAUSSIAN;
    // Outside its data the input is its background colour (0), or extended
    // by clamping (1) or mirroring (2) from the edge of extendRect (the
    // input's data when empty), beyond it too with extendFlag.
    IMGLIB::ExtendMethod extendMethod = IMGLIB::EXTEND_BACKGROUND;
    bool extendFlag = false;
    UTIL::Rect extendRect;
};

struct TESSERA_API PerChannelBlurParameters {
    float channelScale[4] = {1.0f, 1.0f, 1.0f, 1.0f};  // size multiplier for R, G, B, A
    BlurParams blur;
};

// A separable blur: NAME.horzBlur along x, then NAME.vertBlur along y (the
// result). Channels of different scales are blurred apart (NAME.red,
// NAME.green, ...) and merged by NAME.ChannelMerge.
TESSERA_API TaskPtr createBlur(const std::string& name, float time,
                               const PerChannelBlurParameters& params, TaskPtr input);
// The same factory under the name the other factories follow.
TESSERA_API TaskPtr createBlurTask(const std::string& name, float time,
                                   const PerChannelBlurParameters& params, TaskPtr input);

}  // namespace TESSERA
