// InputRequest: what a task asks of one input in one render.
#pragma once

#include <Imath/ImathColor.h>

#include <cstdint>

#include "imglib/image.h"
#include "rendertask.h"
#include "util/rect.h"

namespace TESSERA {
namespace Private {

// The channels a consumer needs of an input and how the input is to be made
// up outside its defined data: filled with its background colour, or
// extended from its edge by clamping or mirroring.
struct InputRequest {
    RenderTask::Imp* input = nullptr;
    uint64_t channels = 0;
    Imath::Color4<float> backgroundColor{0, 0, 0, 0};  // the input's, when requested
    IMGLIB::ExtendMethod method = IMGLIB::EXTEND_BACKGROUND;
    bool extendWithOverscan = false;  // extending methods only
    UTIL::Rect displayRect;           // extending methods only; never empty for them
};

}  // namespace Private
}  // namespace TESSERA
