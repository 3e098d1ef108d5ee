// An EXR output's compression as given: a name and, after a colon, a level
// ("zip:6", "dwaa:45"), as OpenImageIO spells it.
#pragma once

#include <OpenEXR/openexr.h>

#include <string>

namespace TESSERA {
namespace Private {

struct ExrCompression {
    std::string name;  // "zip", "piz", "dwaa", ...
    // OpenEXR's core and C++ libraries number compressions alike, so the
    // C++ writer takes this as Imf::Compression.
    exr_compression_t type = EXR_COMPRESSION_ZIP;
    int zipLevel = 4;     // zip and zips: 1 (fastest) to 9 (smallest)
    float dwaLevel = 45;  // dwaa and dwab: the quantization level
};

// Throws UTIL::ErrorException naming the file for an unknown name (listing
// the known ones) or a level that is not one.
ExrCompression parseExrCompression(const std::string& path, const std::string& given);

}  // namespace Private
}  // namespace TESSERA
