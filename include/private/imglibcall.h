// Turning an IMGLIB status into the render system's exception.
#pragma once

#include <string>

#include <Imath/ImathColor.h>

#include "exceptions.h"
#include "imglib/error.h"
#include "imglib/image.h"
#include "imglib/pixels.h"
#include "util/region.h"

namespace TESSERA {
namespace Private {

// Throws ImageLibRenderingException with IMGLIB's message when status is
// an error (warnings pass).
inline void checkImglib(int status, const std::string& taskName) {
    if (status != IMGLIB::ERROR_NONE && status < 256)
        throw ImageLibRenderingException(taskName, IMGLIB::GetErrorMessage(), status);
}

// Fills the pixels of `image` outside `keep` with `colour`, leaving the
// rest for whatever is written there next (each pixel is written once).
inline void fillOutside(const IMGLIB::Image* image, const UTIL::Region& keep,
                        const Imath::Color4<float>& colour, const std::string& taskName) {
    const float rgba[4] = {colour.r, colour.g, colour.b, colour.a};
    const UTIL::Rect bounds(image->x1, image->y1, image->x2, image->y2);
    const UTIL::Region outside = UTIL::Region(bounds).subtracted(keep);
    for (const UTIL::Rect& r : outside.rects()) {
        IMGLIB::Image part;
        checkImglib(IMGLIB::GetSubImage(image, r.xmin, r.ymin, r.xmax, r.ymax, &part), taskName);
        checkImglib(IMGLIB::Fill(&part, rgba), taskName);
    }
}

}  // namespace Private
}  // namespace TESSERA
