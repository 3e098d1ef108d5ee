#include "io/exrcompression.h"

#include <cstdlib>

#include "io/exrzip.h"
#include "util/exceptions.h"

namespace TESSERA {
namespace Private {

ExrCompression parseExrCompression(const std::string& path, const std::string& given) {
    ExrCompression c;
    c.name = given.substr(0, given.find(':'));
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
