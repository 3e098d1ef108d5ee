// Header attributes of EXR outputs: what a source file's header says about
// its pictures (chromaticities, frame rate, owner, custom attributes) is
// carried over, and an output's own attributes are set over it.
#pragma once

#include <OpenEXR/openexr.h>

#include <string>
#include <vector>

#include "fileio.h"

namespace TESSERA {
namespace Private {

// Whether an attribute describes the file's layout (windows, channels,
// compression, tiles, line order, parts, views), which an output sets itself.
bool isExrLayoutAttribute(const std::string& name);

// Copies part 0's attributes of the EXR file `from` into `part` of `out`,
// except those that describe the file's layout (windows, channels,
// compression, tiles, line order, parts, views), which the output sets
// itself. A file that cannot be read, or is not EXR, gives nothing.
void copyExrAttributes(exr_context_t out, int part, const std::string& from);

// Each part's attributes apart from its layout, in the file's order, each
// name with its value as text ("owner: \"lighting\"", "framesPerSecond:
// 24/1"). Empty when the file cannot be read or is not EXR.
std::vector<std::vector<std::pair<std::string, std::string>>> exrAttributeTexts(
    const std::string& path);

// Sets the attributes: a string, an integer (a whole number) or a float.
// Empty on success, else what was refused.
std::string setExrAttributes(exr_context_t out, int part,
                             const std::vector<FileAttribute>& attributes);

}  // namespace Private
}  // namespace TESSERA
