// Any bytes as an image file of a format OpenImageIO reads (the first byte
// picks which), read through the file input's format module and rendered.
#include "fuzz_common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace TESSERA;
    if (size < 1) return 0;
    static const char* const kExtensions[] = {".png", ".tif", ".jpg", ".dpx",
                                              ".tga", ".hdr", ".bmp", ".exr"};
    const char* extension = kExtensions[data[0] % 8];
    fuzzing::setUpRenders();
    const std::string path = fuzzing::asFile(data + 1, size - 1, std::string("input") + extension);
    try {
        fuzzing::renderSmall(createFileInTask("in", 0, FileInParams(path)));
    } catch (const std::exception&) {
    }
    return 0;
}
