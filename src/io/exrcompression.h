// An EXR output's compression as given: a name and, after a colon, a level
// ("zip:6", "dwaa:45"), as OpenImageIO spells it.
#pragma once

#include <string>

namespace TESSERA {
namespace Private {

struct ExrCompression {
    std::string name;     // "zip", "piz", "dwaa", ...
    int zipLevel = 4;     // zip and zips: 1 (fastest) to 9 (smallest)
    float dwaLevel = 45;  // dwaa and dwab: the quantization level
};

// Throws UTIL::ErrorException naming the file for a zip level that is not
// a whole number from 1 to 9; an unknown name is the writer's to refuse.
ExrCompression parseExrCompression(const std::string& path, const std::string& given);

}  // namespace Private
}  // namespace TESSERA
