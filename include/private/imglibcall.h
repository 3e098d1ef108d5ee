// Turning an IMGLIB status into the render system's exception.
#pragma once

#include <string>

#include "exceptions.h"
#include "imglib/error.h"

namespace TESSERA {
namespace Private {

// Throws ImageLibRenderingException with IMGLIB's message when status is
// an error (warnings pass).
inline void checkImglib(int status, const std::string& taskName) {
    if (status != IMGLIB::ERROR_NONE && status < 256)
        throw ImageLibRenderingException(taskName, IMGLIB::GetErrorMessage(), status);
}

}  // namespace Private
}  // namespace TESSERA
