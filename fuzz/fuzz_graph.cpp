// Any text as a graph file: loaded, its outputs rendered over a small box
// and written (as the command would write them, into a scratch folder).
#include <filesystem>

#include "fuzz_common.h"
#include "graphfile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace TESSERA;
    fuzzing::setUpRenders();
    const std::string folder = fuzzing::scratchFolder();
    try {
        Graph graph = loadGraph(std::string(reinterpret_cast<const char*>(data), size), folder);
        for (GraphOutput& out : graph.outputs) {
            out.description.rect =
                out.description.rect.intersection(UTIL::Rect(-64, -64, 192, 192));
            // Files go to the scratch folder, whatever the graph names.
            for (FileOutParams& file : out.files)
                file.path =
                    folder + "/output" + std::filesystem::path(file.path).extension().string();
        }
        writeGraphOutputs(graph, fuzzing::withDeadline());
    } catch (const std::exception&) {
    }
    return 0;
}
