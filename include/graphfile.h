/// @file
/// Graph files: a render described in JSON (see docs/graph-format.md).
#pragma once

#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "fileio.h"
#include "renderdescription.h"
#include "renderimage.h"
#include "tessera_export.h"

namespace TESSERA {

/// A mistake in a graph file, naming the node and the field.
class TESSERA_API GraphFileError : public std::runtime_error {
public:
    /// what() reads "node 'NODE', field 'FIELD': MESSAGE" (no field part when empty).
    GraphFileError(const std::string& node, const std::string& field, const std::string& message);
    const std::string& getNode() const { return m_node; }    ///< the node's id, or "(file)"
    const std::string& getField() const { return m_field; }  ///< the field; may be empty

private:
    std::string m_node, m_field;
};

/// One output of a graph: what to render, and the files it goes to.
struct TESSERA_API GraphOutput {
    RenderDescription description;     ///< the task, rectangle and channels rendered
    std::vector<FileOutParams> files;  ///< none: not written
};

/// A graph file loaded at a frame: its outputs, built as tasks.
struct TESSERA_API Graph {
    std::vector<GraphOutput> outputs;  ///< in the file's order
    std::vector<int> frames;  ///< the frames the file declares ("frames"); empty for a still
    int frame = 0;            ///< the frame it was loaded at (its tasks' time)
    bool animated = false;    ///< some value or file path changes from frame to frame
    /// Files written under one name at every frame (their paths carry no
    /// frame number): a sequence of more than one frame refuses them.
    std::vector<std::string> unnumberedFiles;
};

/// A value that replaces a node's parameter in the file (or adds it): the
/// value is JSON text, or a bare word taken as a string.
struct TESSERA_API ParameterOverride {
    std::string node;       ///< the node's id, or an output's name
    std::string parameter;  ///< the parameter, or the output's field
    std::string value;      ///< JSON text, or a bare word
};
/// Reads "NODE.PARAM=VALUE"; throws GraphFileError naming the text when it
/// does not have that form.
TESSERA_API ParameterOverride parseParameterOverride(const std::string& text);

/// Builds the tasks of a graph file's text at a frame, with the overrides
/// applied first (checked as the file's own values are; a node that is not
/// there is an error; an output is named by its "id", by default "output",
/// "output2", ... in the file's order). Animated values and numbered paths are taken at the
/// frame; without one, at the first frame the file declares, or 0. Relative
/// file paths are taken from `baseDirectory`. Throws GraphFileError.
///@{
TESSERA_API Graph loadGraph(const std::string& json, const std::string& baseDirectory = ".",
                            const std::vector<ParameterOverride>& overrides = {},
                            std::optional<int> frame = std::nullopt);
TESSERA_API Graph loadGraphFile(const std::string& path,
                                const std::vector<ParameterOverride>& overrides = {},
                                std::optional<int> frame = std::nullopt);
///@}

/// The frames a graph file declares ("frames"); empty for a still. Reads
/// only the file, not its inputs.
TESSERA_API std::vector<int> graphFileFrames(const std::string& path);

/// A graph's text and the folder its relative input paths are taken from:
/// a graph read once (from a file, or from a pipe that cannot be read
/// twice) and loaded at many frames.
struct TESSERA_API GraphSource {
    std::string text;                 ///< the graph's JSON
    std::string baseDirectory = ".";  ///< where its relative input paths start
};
/// Reads a graph file; throws GraphFileError when it cannot be read.
TESSERA_API GraphSource readGraphSource(const std::string& path);
/// The frames a graph declares ("frames"); empty for a still. Throws
/// GraphFileError when the text is not a graph.
TESSERA_API std::vector<int> graphFrames(const GraphSource& source);

/// Renders every output of the graph and writes those that name files (each
/// under a temporary name, renamed when complete), waiting, with the
/// options' progress and cancellation. Throws what failed, naming the file.
TESSERA_API void writeGraphOutputs(const Graph& graph, const RenderOptions& options = {});

/// One node built as a graph file builds it: the operation by name, its
/// parameters as a JSON object (checked against the declaration, defaults
/// filled in), its input tasks by input name (optional ones may be left
/// out). Relative paths are taken from baseDirectory; numbered paths
/// (a.####.exr) at `frame`, which is also the task's time. Throws
/// GraphFileError naming the node.
TESSERA_API TaskPtr createOperationTask(const std::string& operation, const std::string& node,
                                        const std::string& paramsJson,
                                        const std::map<std::string, TaskPtr>& inputs,
                                        const std::string& baseDirectory = ".", int frame = 0);

/// What a graph file may use: every operation with its inputs and parameters.
struct TESSERA_API OperationParameter {
    std::string name;                  ///< as graph files and Python name it
    std::string type;                  ///< as `tessera ops` prints it ("number", "[x, y]", ...)
    std::string defaultValue;          ///< JSON text; empty when the parameter is required
    std::string description;           ///< its meaning, with its unit
    std::string range;                 ///< "0 to 32", "-2^30 to 2^30"; empty when not a number
    double low = 0;                    ///< the range's low end, for every number of the value
    double high = 0;                   ///< its high end
    std::vector<std::string> choices;  ///< the names a choice parameter accepts
    std::string
        example;  ///< JSON text: a value that works (for a required one, or one whose default
                  // does nothing)
};
/// One operation a graph may use, as its declaration describes it.
struct TESSERA_API OperationDescription {
    std::string name;       ///< the `op` of graph files, the verb and the Python function
    std::string family;     ///< "Colour", "Geometry", ...
    std::string summary;    ///< one line
    std::string reference;  ///< the formula or the equivalent operation elsewhere (Markdown)
    std::vector<std::string> inputs;             ///< the inputs' names, in order
    std::vector<bool> optionalInputs;            ///< one flag per input
    std::vector<OperationParameter> parameters;  ///< in the declaration's order
    std::vector<std::string> aliases;            ///< older names, still accepted
    std::vector<std::string> rules;  ///< conditions beyond the ranges ("high is at least low")
};
/// Every operation, grouped by family.
TESSERA_API std::vector<OperationDescription> listOperations();
/// Every operation: its name, summary, inputs and parameters.
TESSERA_API std::string describeOperations();
/// One operation in full; throws std::invalid_argument for an unknown name.
TESSERA_API std::string describeOperation(const std::string& name);
/// The operator reference in Markdown (docs/operators.md).
TESSERA_API std::string operatorReference();

}  // namespace TESSERA
