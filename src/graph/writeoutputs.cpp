#include "graphfile.h"
#include "util/exceptions.h"

namespace TESSERA {

void writeGraphOutputs(const Graph& graph, const RenderOptions& options) {
    RCX_ptr_v4::ref_ptr<FileWriter> writer(new FileWriter);
    std::vector<RenderDescription> outputs;
    for (const GraphOutput& out : graph.outputs) {
        if (!out.files.empty()) writer->addOutput(outputs.size(), out.description, out.files);
        outputs.push_back(out.description);
    }
    renderOutputs(outputs, writer, options);
    // The render fails with the first file's error; the others are kept.
    const std::string errors = writer->getErrors();
    if (!errors.empty()) throw UTIL::ErrorException(errors);
}

}  // namespace TESSERA
