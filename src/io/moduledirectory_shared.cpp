// The shared library knows no build folder: it loads the module found
// beside itself, wherever it was installed.
#include "io/imagefiles.h"

namespace TESSERA {
namespace Private {

const char* formatModuleBuildDirectory() {
    return nullptr;
}

}  // namespace Private
}  // namespace TESSERA
