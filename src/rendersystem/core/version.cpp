// The library's version, as it was built.
#include "tessera_version.h"

namespace TESSERA {

const char* version() {
    return TESSERA_VERSION;
}

}  // namespace TESSERA
