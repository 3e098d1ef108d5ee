// A graph file rendered frame by frame.
#include <exception>

#include "exceptions.h"
#include "frames.h"
#include "io/outputfile.h"

namespace TESSERA {

std::string unnumberedFileMessage(const Graph& graph) {
    return "'" + graph.unnumberedFiles.front() +
           "' has no frame number (#### or %04d), so every frame would be written to it";
}

std::vector<FrameFailure> writeGraphFrames(const std::string& graphPath,
                                           const std::vector<int>& frames,
                                           const std::vector<ParameterOverride>& overrides,
                                           const SequenceOptions& options) {
    return writeGraphFrames(readGraphSource(graphPath), frames, overrides, options);
}

std::vector<FrameFailure> writeGraphFrames(const GraphSource& source,
                                           const std::vector<int>& frames,
                                           const std::vector<ParameterOverride>& overrides,
                                           const SequenceOptions& options) {
    graphFrames(source);  // a text that is not a graph fails once, not at every frame
    std::vector<FrameFailure> failures;
    for (size_t i = 0; i < frames.size(); ++i) {
        const int frame = frames[i];
        if (options.cancel && options.cancel->load())
            throw RenderCancelledException("Render cancelled.");
        // The caller's own exceptions end the sequence; the frame's are its failure.
        std::exception_ptr callerError;
        RenderOptions render;
        render.cancel = options.cancel;
        render.type = options.type;
        if (options.progress)
            render.progress = [&](const RenderProgress& p) {
                try {
                    options.progress(SequenceProgress{frame, i, frames.size(), p});
                } catch (...) {
                    callerError = std::current_exception();
                    throw;
                }
            };
        std::string error;
        bool wholeSequence = false;  // a failure that ends the sequence
        try {
            const Graph graph = loadGraph(source.text, source.baseDirectory, overrides, frame);
            if (frames.size() > 1 && !graph.unnumberedFiles.empty()) {
                wholeSequence = true;
                throw GraphFileError("(output)", "file", unnumberedFileMessage(graph));
            }
            if (options.removeAbandonedFiles)
                for (const GraphOutput& out : graph.outputs)
                    for (const FileOutParams& file : out.files)
                        Private::removeAbandonedTemporaries(file.path);
            writeGraphOutputs(graph, render);
        } catch (const RenderCancelledException&) {
            throw;
        } catch (const std::exception& e) {
            if (callerError) std::rethrow_exception(callerError);
            if (wholeSequence) throw;
            error = "frame " + std::to_string(frame) + ": " + e.what();
            failures.push_back({frame, error});
        }
        if (options.frameDone) options.frameDone(frame, error);
    }
    return failures;
}

}  // namespace TESSERA
