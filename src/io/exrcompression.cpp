#include "io/exrcompression.h"

#include <cstdlib>

#include "io/exrzip.h"
#include "util/exceptions.h"

namespace TESSERA {
namespace Private {

namespace {

struct Known {
    const char* name;
    exr_compression_t type;
};
const Known kCompressions[] = {
    {"none", EXR_COMPRESSION_NONE}, {"rle", EXR_COMPRESSION_RLE},
    {"zips", EXR_COMPRESSION_ZIPS}, {"zip", EXR_COMPRESSION_ZIP},
    {"piz", EXR_COMPRESSION_PIZ},   {"pxr24", EXR_COMPRESSION_PXR24},
    {"b44", EXR_COMPRESSION_B44},   {"b44a", EXR_COMPRESSION_B44A},
    {"dwaa", EXR_COMPRESSION_DWAA}, {"dwab", EXR_COMPRESSION_DWAB},
};

}  // namespace

ExrCompression parseExrCompression(const std::string& path, const std::string& given) {
    ExrCompression c;
    c.name = given.substr(0, given.find(':'));
    const Known* known = nullptr;
    for (const Known& k : kCompressions)
        if (c.name == k.name) known = &k;
    if (!known) {
        std::string names;
        for (const Known& k : kCompressions)
            names += names.empty() ? k.name : std::string(", ") + k.name;
        throw UTIL::ErrorException("cannot write '" + path + "': unknown compression '" + given +
                                   "' (" + names + ")");
    }
    c.type = known->type;
    c.zipLevel = kDefaultZipLevel;
    if (c.name.size() == given.size()) return c;
    const std::string level = given.substr(c.name.size() + 1);
    char* end = nullptr;
    if (c.name == "zip" || c.name == "zips") {
        const long n = std::strtol(level.c_str(), &end, 10);
        if (level.empty() || *end != '\0' || n < 1 || n > 9)
            throw UTIL::ErrorException("cannot write '" + path + "': compression '" + given +
                                       "' has a zip level that is not a whole number from 1 to 9");
        c.zipLevel = int(n);
    } else if (c.name == "dwaa" || c.name == "dwab") {
        const float n = std::strtof(level.c_str(), &end);
        if (level.empty() || *end != '\0' || !(n > 0 && n <= 1e6f))
            throw UTIL::ErrorException("cannot write '" + path + "': compression '" + given +
                                       "' has a DWA level that is not a number above 0");
        c.dwaLevel = n;
    }
    return c;
}

}  // namespace Private
}  // namespace TESSERA
