// The static library links into programs anywhere in the build tree (tests,
// benchmarks, fuzz targets), not beside the module: it looks where the
// build put it. It is never installed.
#include "io/imagefiles.h"

namespace TESSERA {
namespace Private {

const char* formatModuleBuildDirectory() {
    return TESSERA_MODULE_BUILD_DIR;
}

}  // namespace Private
}  // namespace TESSERA
