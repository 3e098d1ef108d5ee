// Any bytes as an EXR file, read through the file input and rendered: the
// core library's reader, the header checks before it, and what the module
// reads for it (deep, DWA, luminance-chroma files).
#include "fuzz_common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace TESSERA;
    fuzzing::setUpRenders();
    const std::string path = fuzzing::asFile(data, size, "input.exr");
    try {
        FileInParams params(path);
        fuzzing::renderSmall(createFileInTask("in", 0, params));
    } catch (const std::exception&) {
        // A refusal is the right answer to most inputs; crashes and hangs
        // are what the fuzzer looks for.
    }
    return 0;
}
