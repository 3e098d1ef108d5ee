// Luminance-chroma EXR files, read as RGB(A).
#pragma once

#include <memory>
#include <string>

#include "io/imagefiles.h"

namespace TESSERA {
namespace Private {

// A reader of the file as R, G, B (and A) when it is a single-part EXR of
// luminance and chroma (Y, RY, BY); null otherwise, or with `error` set when
// it cannot be read.
std::unique_ptr<ImageReader> openLumaChromaReader(const std::string& path, int subimage,
                                                  std::string& error);

}  // namespace Private
}  // namespace TESSERA
