// Graph files: JSON nodes naming a factory, its parameters and its inputs.
#include "graphfile.h"

#include <nlohmann/json.hpp>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <sstream>

#include "animation.h"
#include "channeltasks.h"
#include "frames.h"
#include "imglib/channels.h"
#include "imglib/error.h"
#include "private/operation.h"

namespace TESSERA {

GraphFileError::GraphFileError(const std::string& node, const std::string& field,
                               const std::string& message)
    : std::runtime_error("node '" + node + "'" + (field.empty() ? "" : ", field '" + field + "'") +
                         ": " + message),
      m_node(node),
      m_field(field) {}

namespace {

using json = nlohmann::json;
using Private::Operation;
using Private::Param;
using Private::ParamType;

// Checks a value against its parameter's type, range and choices.
void checkValue(const std::string& node, const Param& p, const json& v) {
    const std::string why = Private::invalidValue(p, v);
    if (!why.empty()) throw GraphFileError(node, p.name, why);
}

// An output's channels (parseChannelList), which the node must have.
uint64_t parseChannels(const std::string& node, const std::string& text, uint64_t defined) {
    try {
        return parseChannelList(text, defined);
    } catch (const std::invalid_argument& e) {
        throw GraphFileError(node, "channels", std::string("the node has ") + e.what());
    }
}

// The name of channel `name` in view `view` of a multi-view file: the view
// goes before the last part ("R" -> "right.R", "diffuse.R" ->
// "diffuse.right.R").
std::string nameInView(const std::string& name, const std::string& view) {
    const size_t dot = name.rfind('.');
    return dot == std::string::npos ? view + "." + name
                                    : name.substr(0, dot + 1) + view + name.substr(dot);
}

// One output of several views: the default view's channels under their
// names and every other view's under the names that view gives them, each
// view's channels as `channels` asks of its node.
RenderDescription withViews(const RenderDescription& first,
                            const std::vector<std::pair<std::string, std::string>>& views,
                            const std::string& channels, float time,
                            const std::function<TaskPtr(const std::string&, const std::string&,
                                                        const std::string&)>& build) {
    RenderDescription combined = first;
    for (size_t v = 1; v < views.size(); ++v) {
        const auto& [view, node] = views[v];
        const TaskPtr task = build(node, "(output)", "views");
        uint64_t defined = 0;
        task->getOutputDescription(&defined, nullptr);
        const uint64_t wanted = parseChannels(node, channels, defined) & defined;
        std::vector<std::pair<uint64_t, ShuffleSource>> sources;
        for (int bit = 0; bit < IMGLIB::MAX_CHANNELS; ++bit)
            if (combined.channels >> bit & 1)
                sources.emplace_back(uint64_t(1) << bit,
                                     ShuffleSource{ShuffleSource::Input, 0, uint64_t(1) << bit});
        uint64_t mask = combined.channels;
        for (int bit = 0; bit < IMGLIB::MAX_CHANNELS; ++bit) {
            if (!(wanted >> bit & 1)) continue;
            const std::string name = nameInView(IMGLIB::GetChannelName(uint64_t(1) << bit), view);
            const uint64_t to = IMGLIB::GetChannelForName(name);
            if (!to) throw GraphFileError(node, "views", IMGLIB::GetErrorMessage());
            sources.emplace_back(to, ShuffleSource{ShuffleSource::Input, 1, uint64_t(1) << bit});
            mask |= to;
        }
        combined.task = createShuffleTask(node + "." + view, time, sources, combined.task, task);
        combined.channels = mask;
    }
    return combined;
}

// An output's header attributes: names with strings or numbers.
std::vector<FileAttribute> parseAttributes(const std::string& node, const json& attributes) {
    if (!attributes.is_object())
        throw GraphFileError(node, "attributes", "an object of names and strings or numbers");
    std::vector<FileAttribute> list;
    for (auto it = attributes.begin(); it != attributes.end(); ++it) {
        FileAttribute a;
        a.name = it.key();
        if (it.value().is_string()) {
            a.text = it.value().get<std::string>();
        } else if (it.value().is_number() && std::isfinite(it.value().get<double>())) {
            a.isNumber = true;
            a.number = it.value().get<double>();
        } else {
            throw GraphFileError(
                node, "attributes",
                "'" + a.name + "' needs a string or a number, got " + it.value().dump());
        }
        if (a.name.empty()) throw GraphFileError(node, "attributes", "an attribute needs a name");
        list.push_back(a);
    }
    return list;
}

}  // namespace

ParameterOverride parseParameterOverride(const std::string& text) {
    const size_t dot = text.find('.'), equals = text.find('=');
    if (dot == 0 || dot == std::string::npos || equals == std::string::npos || equals < dot + 2)
        throw GraphFileError("(override)", "",
                             "'" + text + "' is not of the form NODE.PARAM=VALUE");
    return {text.substr(0, dot), text.substr(dot + 1, equals - dot - 1), text.substr(equals + 1)};
}

namespace {

const Operation& findOperationFor(const std::string& id, const json& name) {
    if (!name.is_string()) throw GraphFileError(id, "op", "required");
    const Operation* op = Private::findOperation(name.get<std::string>());
    if (!op)
        throw GraphFileError(
            id, "op",
            "unknown operation '" + name.get<std::string>() + "' (tessera ops lists them)");
    return *op;
}

// The node's parameters checked against the declaration, defaults filled
// in, animated values and numbered paths taken at the frame. `varies` tells
// whether any of them changes from frame to frame.
json checkedParams(const std::string& id, const Operation& op, const json& given, int frame,
                   bool& varies) {
    if (!given.is_object()) throw GraphFileError(id, "params", "must be an object");
    for (auto it = given.begin(); it != given.end(); ++it) {
        bool known = false;
        for (const Param& p : op.params) known |= p.name == it.key();
        if (!known) throw GraphFileError(id, it.key(), "unknown parameter of " + op.name);
    }
    varies = false;
    json params = json::object();
    for (const Param& p : op.params) {
        if (!given.contains(p.name)) {
            if (p.fallback.is_null()) throw GraphFileError(id, p.name, "required");
            params[p.name] = p.fallback;
            continue;
        }
        const json& value = given[p.name];
        if (Private::isAnimated(value)) {
            Private::checkKeys(id, p, value, [&](const json& v) { checkValue(id, p, v); });
            params[p.name] = Private::valueAtFrame(value, frame, p.type);
            varies |= Private::changesOverTime(value);
        } else {
            checkValue(id, p, value);
            params[p.name] = value;
        }
        if (p.type == ParamType::Path && hasFrameNumber(value.get<std::string>())) {
            params[p.name] = framePath(value.get<std::string>(), frame);
            varies = true;
        }
    }
    return params;
}

// Runs the declaration's build; its errors name the node.
TaskPtr buildNode(const std::string& id, const Operation& op, const json& params,
                  const std::map<std::string, TaskPtr>& inputs, const std::string& base,
                  int frame) {
    try {
        return op.build(Private::OperationArgs(id, params, inputs, base, float(frame)));
    } catch (const GraphFileError&) {
        throw;
    } catch (const InvalidParameterException& e) {
        throw GraphFileError(id, e.getParameter(), e.getReason());
    } catch (const std::exception& e) {
        throw GraphFileError(id, "", e.what());
    }
}

// An output's name: its "id", or "output", "output2", ... in the file's order.
std::string outputName(const json& output, size_t index) {
    if (output.is_object() && output.contains("id") && output["id"].is_string())
        return output["id"].get<std::string>();
    return index == 0 ? "output" : "output" + std::to_string(index + 1);
}

// Each override replaces a parameter of a node or a field of an output
// (its file, rectangle, channels, ...), whichever the name refers to.
void applyOverrides(json& doc, const std::vector<ParameterOverride>& overrides) {
    for (const ParameterOverride& o : overrides) {
        json* node = nullptr;
        json* output = nullptr;
        for (json& n : doc["nodes"])
            if (n.is_object() && n.value("id", json()) == o.node) node = &n;
        if (doc.contains("outputs") && doc["outputs"].is_array())
            for (size_t i = 0; i < doc["outputs"].size(); ++i)
                if (outputName(doc["outputs"][i], i) == o.node) output = &doc["outputs"][i];
        if (!node && !output)
            throw GraphFileError(o.node, o.parameter, "no such node or output to set");
        if (node && output)
            throw GraphFileError(
                o.node, o.parameter,
                "names a node and an output; give the output an \"id\" of its own");
        json value;
        try {
            value = json::parse(o.value);
        } catch (const json::parse_error&) {
            value = o.value;  // a bare word: a string
        }
        if (output) {
            if (!output->is_object())
                throw GraphFileError(o.node, "", "an output must be an object");
            (*output)[o.parameter] = std::move(value);  // its fields are checked as the file's are
            continue;
        }
        json& params = (*node)["params"];
        if (params.is_null()) params = json::object();
        if (!params.is_object()) throw GraphFileError(o.node, "params", "must be an object");
        params[o.parameter] = std::move(value);
    }
}

// Whether arrays and objects nest deeper than `limit` anywhere in the text
// (brackets inside strings do not count). Found before parsing, so that the
// parser runs without a per-value callback, which costs as much again.
bool nestsDeeperThan(const std::string& text, int limit) {
    int depth = 0;
    bool inString = false;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (inString) {
            if (c == '\\')
                ++i;
            else if (c == '"')
                inString = false;
        } else if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > limit) return true;
        } else if (c == ']' || c == '}') {
            --depth;
        }
    }
    return false;
}

// The file's JSON, its fields checked.
json parseDocument(const std::string& text) {
    // Values nest a few levels at most; a file nesting thousands is refused
    // before it is read (nothing else here walks values recursively).
    constexpr int kMaxDepth = 64;
    if (nestsDeeperThan(text, kMaxDepth))
        throw GraphFileError("(file)", "",
                             "values nest more than " + std::to_string(kMaxDepth) + " levels deep");
    json doc;
    try {
        doc = json::parse(text);
    } catch (const json::parse_error& e) {
        throw GraphFileError("(file)", "", std::string("not valid JSON: ") + e.what());
    }
    if (!doc.is_object()) throw GraphFileError("(file)", "", "the graph must be an object");
    for (auto it = doc.begin(); it != doc.end(); ++it)
        if (it.key() != "nodes" && it.key() != "outputs" && it.key() != "frames")
            throw GraphFileError("(file)", it.key(), "unknown field");
    return doc;
}

std::vector<int> declaredFrames(const json& doc) {
    if (!doc.contains("frames")) return {};
    if (!doc["frames"].is_string())
        throw GraphFileError("(file)", "frames", "a frame list such as \"1-100\"");
    try {
        return parseFrames(doc["frames"].get<std::string>());
    } catch (const std::invalid_argument& e) {
        throw GraphFileError("(file)", "frames", e.what());
    }
}

std::string readGraphText(const std::string& path) {
    std::error_code ec;
    if (std::filesystem::is_directory(path, ec))
        throw GraphFileError("(file)", "", "'" + path + "' is a folder, not a graph file");
    std::ifstream in(path);
    if (!in) throw GraphFileError("(file)", "", "cannot read '" + path + "'");
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

}  // namespace

Graph loadGraph(const std::string& text, const std::string& base,
                const std::vector<ParameterOverride>& overrides, std::optional<int> atFrame) {
    json doc = parseDocument(text);
    Graph graph;
    graph.frames = declaredFrames(doc);
    // Without a frame, the first of the file's range (or 0 for a still).
    const int frame = atFrame ? *atFrame : graph.frames.empty() ? 0 : graph.frames.front();
    graph.frame = frame;
    if (!doc.contains("nodes") || !doc["nodes"].is_array())
        throw GraphFileError("(file)", "nodes", "a list of nodes is required");
    applyOverrides(doc, overrides);

    std::map<std::string, const json*> nodes;
    std::vector<std::string> order;
    for (const json& node : doc["nodes"]) {
        if (!node.is_object() || !node.contains("id") || !node["id"].is_string())
            throw GraphFileError("(file)", "id", "every node needs a string id");
        const std::string id = node["id"];
        for (auto it = node.begin(); it != node.end(); ++it)
            if (it.key() != "id" && it.key() != "op" && it.key() != "params" &&
                it.key() != "inputs")
                throw GraphFileError(id, it.key(), "unknown field");
        if (!nodes.emplace(id, &node).second) throw GraphFileError(id, "id", "used twice");
        order.push_back(id);
    }

    std::map<std::string, TaskPtr> built;
    // The first file a node reads, following first inputs first: outputs
    // carry its header attributes over.
    std::map<std::string, std::string> firstFile;
    std::set<std::string> varying;   // built nodes whose output changes with the frame
    std::set<std::string> building;  // the nodes on the path being built
    // The operation and checked parameters of a node whose inputs are next.
    struct Pending {
        const Operation* op = nullptr;
        json params;
        json inputs;
        bool varies = false;
    };
    std::map<std::string, Pending> pending;

    // Checks a node and names the nodes its inputs come from.
    const auto expand = [&](const std::string& id, const json& node) {
        const Operation* op = &findOperationFor(id, node.value("op", json()));
        bool varies = false;
        json params = checkedParams(id, *op, node.value("params", json::object()), frame, varies);
        json inputs = node.value("inputs", json::object());
        if (!inputs.is_object()) throw GraphFileError(id, "inputs", "must be an object");
        for (auto it = inputs.begin(); it != inputs.end(); ++it)
            if (std::none_of(op->inputs.begin(), op->inputs.end(),
                             [&](const Private::Input& in) { return in.name == it.key(); }))
                throw GraphFileError(id, it.key(), "unknown input of " + op->name);
        for (const Private::Input& in : op->inputs) {
            if (in.optional && !inputs.contains(in.name)) continue;
            if (!inputs.contains(in.name) || !inputs[in.name].is_string())
                throw GraphFileError(id, in.name, "input required (a node id)");
        }
        pending[id] = Pending{op, std::move(params), std::move(inputs), varies};
    };

    // Builds a node after its inputs, depth first with a stack of its own: a
    // chain of any length loads without deep recursion.
    const auto build = [&](const std::string& root, const std::string& rootFrom,
                           const std::string& rootField) -> TaskPtr {
        struct Frame {
            std::string id, from, field;
        };
        std::vector<Frame> stack{{root, rootFrom, rootField}};
        while (!stack.empty()) {
            const Frame top = stack.back();
            const std::string& id = top.id;
            if (built.count(id)) {
                stack.pop_back();
                continue;
            }
            auto found = nodes.find(id);
            if (found == nodes.end())
                throw GraphFileError(top.from, top.field, "no node '" + id + "'");
            if (!pending.count(id)) {
                if (!building.insert(id).second)
                    throw GraphFileError(id, top.field, "the graph has a cycle through this node");
                expand(id, *found->second);
                const Pending& p = pending[id];
                // Inputs in reverse, so the first is built first.
                for (auto in = p.op->inputs.rbegin(); in != p.op->inputs.rend(); ++in) {
                    const std::string& input = in->name;
                    if (!p.inputs.contains(input)) continue;
                    const std::string from = p.inputs[input].get<std::string>();
                    if (building.count(from) && !built.count(from))
                        throw GraphFileError(from, input,
                                             "the graph has a cycle through this node");
                    if (!built.count(from)) stack.push_back({from, id, input});
                }
                continue;
            }
            const Pending& p = pending[id];
            std::map<std::string, TaskPtr> inputTasks;
            bool varies = p.varies;
            for (const Private::Input& in : p.op->inputs) {
                inputTasks[in.name] = TaskPtr();
                if (!p.inputs.contains(in.name)) continue;
                const std::string from = p.inputs[in.name].get<std::string>();
                inputTasks[in.name] = built.at(from);
                varies |= varying.count(from) > 0;
                if (!firstFile.count(id) && firstFile.count(from)) firstFile[id] = firstFile[from];
            }
            if (p.op->name == "filein" && p.params.contains("path")) {
                std::string raw = p.params["path"].get<std::string>();
                if (hasFrameNumber(raw)) raw = framePath(raw, frame);
                const std::filesystem::path path(raw);
                firstFile[id] = path.is_absolute() ? path.string()
                                                   : (std::filesystem::path(base) / path).string();
            }
            const TaskPtr task = buildNode(id, *p.op, p.params, inputTasks, base, frame);
            // What changes every frame is not kept for the next: the tile
            // cache keeps what stays, and later frames re-use it.
            if (varies) {
                task->setCaching(false);
                varying.insert(id);
                graph.animated = true;
            }
            building.erase(id);
            pending.erase(id);
            built[id] = task;
            stack.pop_back();
        }
        return built.at(root);
    };

    if (!doc.contains("outputs") || !doc["outputs"].is_array() || doc["outputs"].empty())
        throw GraphFileError("(file)", "outputs", "at least one output is required");
    for (const json& out : doc["outputs"]) {
        // Views: the nodes that show each view of one multi-view file; the
        // first ("left" when there is one) is the default view.
        std::vector<std::pair<std::string, std::string>> views;
        if (out.is_object() && out.contains("views")) {
            const json& v = out["views"];
            if (!v.is_object() || v.size() < 2 ||
                std::any_of(v.begin(), v.end(), [](const json& n) { return !n.is_string(); }))
                throw GraphFileError("(output)", "views",
                                     "an object of two or more views and their nodes");
            for (auto it = v.begin(); it != v.end(); ++it)
                views.emplace(it.key() == "left" ? views.begin() : views.end(), it.key(),
                              it.value().get<std::string>());
        }
        if (!out.is_object() ||
            (views.empty() && (!out.contains("node") || !out["node"].is_string())))
            throw GraphFileError("(output)", "node", "every output names a node");
        const std::string id = views.empty() ? out["node"].get<std::string>() : views[0].second;
        if (out.contains("id") && !out["id"].is_string())
            throw GraphFileError(id, "id", "an output's id is a string");
        for (auto it = out.begin(); it != out.end(); ++it)
            if (it.key() != "id" && it.key() != "node" && it.key() != "rect" &&
                it.key() != "channels" && it.key() != "file" && it.key() != "dataType" &&
                it.key() != "compression" && it.key() != "layout" && it.key() != "tileSize" &&
                it.key() != "zipLevel" && it.key() != "attributes" && it.key() != "views" &&
                it.key() != "parts")
                throw GraphFileError(id, it.key(), "unknown field of an output");
        GraphOutput g;
        g.description.task = build(id, "(output)", views.empty() ? "node" : "views");
        if (out.contains("rect")) {
            checkValue(id, Param{"rect", ParamType::Rect, nullptr}, out["rect"]);
            const json& r = out["rect"];
            g.description.rect = UTIL::Rect(r[0].get<int64_t>(), r[1].get<int64_t>(),
                                            r[2].get<int64_t>(), r[3].get<int64_t>());
        } else {
            // The format, as a compositor writes it (the data window then
            // holds what of the data lies inside it).
            UTIL::Region region;
            g.description.task->getOutputDescription(nullptr, &region);
            const UTIL::Rect& format = g.description.task->getFormat();
            g.description.rect = format.isNull() ? region.boundingBox() : format;
        }
        uint64_t defined = 0;
        g.description.task->getOutputDescription(&defined, nullptr);
        g.description.channels =
            parseChannels(id, out.value("channels", std::string("RGBA")), defined);
        if (!views.empty())
            g.description =
                withViews(g.description, views, out.value("channels", std::string("RGBA")),
                          float(frame), build);
        if (out.contains("file")) {
            const json& files = out["file"];
            std::vector<std::string> paths;
            if (files.is_string())
                paths.push_back(files.get<std::string>());
            else if (files.is_array() && std::all_of(files.begin(), files.end(),
                                                     [](const json& f) { return f.is_string(); }))
                paths = files.get<std::vector<std::string>>();
            else
                throw GraphFileError(id, "file", "a path or a list of paths");
            for (const std::string& path : paths) {
                FileOutParams file;
                file.path = framePath(path, frame);  // relative to the current folder
                graph.animated |= hasFrameNumber(path);
                if (!hasFrameNumber(path)) graph.unnumberedFiles.push_back(path);
                file.dataType = out.value("dataType", std::string());
                file.compression = out.value("compression", std::string("zip"));
                if (out.contains("zipLevel")) {
                    checkValue(id, Param{"zipLevel", ParamType::Int, 4}.range(1, 9),
                               out["zipLevel"]);
                    if (file.compression != "zip" && file.compression != "zips")
                        throw GraphFileError(id, "zipLevel",
                                             "a zip level goes with compression zip or zips, "
                                             "not '" +
                                                 file.compression + "'");
                    file.compression += ":" + std::to_string(out["zipLevel"].get<int>());
                }
                if (firstFile.count(id)) file.attributesFrom = firstFile[id];
                if (out.contains("attributes"))
                    file.attributes = parseAttributes(id, out["attributes"]);
                for (const auto& view : views) file.views.push_back(view.first);
                if (out.contains("parts")) {
                    if (!out["parts"].is_boolean())
                        throw GraphFileError(id, "parts", "true or false");
                    file.parts = out["parts"].get<bool>();
                }
                file.layout = out.value("layout", std::string("tiled"));
                if (file.layout != "tiled" && file.layout != "scanline")
                    throw GraphFileError(id, "layout",
                                         "unknown layout '" + file.layout + "' (tiled, scanline)");
                if (out.contains("tileSize")) {
                    checkValue(id, Param{"tileSize", ParamType::Int, 64}.range(1, 65536),
                               out["tileSize"]);
                    file.tileSize = out["tileSize"].get<int>();
                }
                g.files.push_back(file);
            }
        }
        graph.outputs.push_back(g);
    }
    return graph;
}

TaskPtr createOperationTask(const std::string& operation, const std::string& node,
                            const std::string& paramsJson,
                            const std::map<std::string, TaskPtr>& inputs,
                            const std::string& baseDirectory, int frame) {
    const Operation& op = findOperationFor(node, json(operation));
    json given;
    try {
        given = paramsJson.empty() ? json::object() : json::parse(paramsJson);
    } catch (const json::parse_error& e) {
        throw GraphFileError(node, "params", std::string("not valid JSON: ") + e.what());
    }
    bool varies = false;
    const json params = checkedParams(node, op, given, frame, varies);
    for (const auto& entry : inputs)
        if (std::none_of(op.inputs.begin(), op.inputs.end(),
                         [&](const Private::Input& in) { return in.name == entry.first; }))
            throw GraphFileError(node, entry.first, "unknown input of " + op.name);
    std::map<std::string, TaskPtr> tasks;
    for (const Private::Input& in : op.inputs) {
        const auto given = inputs.find(in.name);
        tasks[in.name] = given == inputs.end() ? TaskPtr() : given->second;
        if (!tasks[in.name] && !in.optional) throw GraphFileError(node, in.name, "input required");
    }
    return buildNode(node, op, params, tasks, baseDirectory, frame);
}

Graph loadGraphFile(const std::string& path, const std::vector<ParameterOverride>& overrides,
                    std::optional<int> frame) {
    const GraphSource source = readGraphSource(path);
    return loadGraph(source.text, source.baseDirectory, overrides, frame);
}

std::vector<int> graphFileFrames(const std::string& path) {
    return graphFrames(readGraphSource(path));
}

GraphSource readGraphSource(const std::string& path) {
    const std::string base = std::filesystem::path(path).parent_path().string();
    return GraphSource{readGraphText(path), base.empty() ? "." : base};
}

std::vector<int> graphFrames(const GraphSource& source) {
    return declaredFrames(parseDocument(source.text));
}

std::vector<OperationDescription> listOperations() {
    std::vector<OperationDescription> list;
    for (const Operation& op : Private::operations()) {
        OperationDescription d;
        d.name = op.name;
        d.family = op.family;
        d.summary = op.summary;
        d.reference = op.reference;
        d.aliases = op.aliases;
        d.rules = op.rules;
        for (const Private::Input& input : op.inputs) {
            d.inputs.push_back(input.name);
            d.optionalInputs.push_back(input.optional);
        }
        for (const Param& p : op.params) {
            OperationParameter q;
            q.name = p.name;
            q.type = Private::typeName(p.type);
            q.defaultValue = p.fallback.is_null() ? std::string() : p.fallback.dump();
            q.description = p.doc;
            q.low = p.low;
            q.high = p.high;
            if (std::isfinite(p.low) || std::isfinite(p.high))
                q.range = (std::isfinite(p.low) ? Private::formatNumber(p.low) : "-inf") + " to " +
                          (std::isfinite(p.high) ? Private::formatNumber(p.high) : "inf");
            q.choices = p.choices;
            q.example = p.example.is_null() ? std::string() : p.example.dump();
            d.parameters.push_back(std::move(q));
        }
        list.push_back(std::move(d));
    }
    return list;
}

namespace {

void describeParameter(std::ostream& out, const OperationParameter& p) {
    out << p.name << " (" << p.type << ")"
        << (p.defaultValue.empty() ? ", required" : ", default " + p.defaultValue);
    if (!p.range.empty()) out << ", " << p.range;
    if (!p.choices.empty()) {
        out << ", one of";
        for (const std::string& c : p.choices) out << " " << c;
    }
    if (!p.description.empty()) out << ": " << p.description;
}

}  // namespace

std::string describeOperations() {
    std::ostringstream out;
    for (const OperationDescription& op : listOperations()) {
        out << op.name << ": " << op.summary << "\n";
        for (size_t i = 0; i < op.inputs.size(); ++i)
            out << "    input " << op.inputs[i] << (op.optionalInputs[i] ? " (optional)" : "")
                << "\n";
        for (const OperationParameter& p : op.parameters) {
            out << "    ";
            describeParameter(out, p);
            out << "\n";
        }
    }
    return out.str();
}

std::string describeOperation(const std::string& name) {
    for (const OperationDescription& op : listOperations()) {
        if (op.name != name &&
            std::find(op.aliases.begin(), op.aliases.end(), name) == op.aliases.end())
            continue;
        std::ostringstream out;
        out << op.name << " (" << op.family << "): " << op.summary << "\n";
        for (const std::string& alias : op.aliases) out << "also accepted as " << alias << "\n";
        if (!op.reference.empty()) out << "\n" << op.reference << "\n";
        out << "\n";
        for (size_t i = 0; i < op.inputs.size(); ++i)
            out << "input " << op.inputs[i] << (op.optionalInputs[i] ? " (optional)" : "") << "\n";
        for (const OperationParameter& p : op.parameters) {
            describeParameter(out, p);
            out << "\n";
        }
        for (const std::string& rule : op.rules) out << "and: " << rule << "\n";
        return out.str();
    }
    throw std::invalid_argument("unknown operation '" + name + "' (tessera ops lists them)");
}

std::string operatorReference() {
    std::ostringstream out;
    out << "# Operators\n\n"
           "Generated by `tessera ops --markdown` from the operators' declarations; do not edit.\n"
           "Every operator is a graph-file `op` with the parameters and inputs below "
           "(see graph-format.md). Each picture is the operator's example on the same plate "
           "(a textured gradient in a disc of soft alpha, nearer at its centre), its second "
           "input a ramp (`tessera ops --pictures`).\n";
    std::string family;
    for (const OperationDescription& op : listOperations()) {
        if (op.family != family) {
            family = op.family;
            out << "\n## " << family << "\n";
        }
        out << "\n### " << op.name << "\n\n"
            << "![" << op.name << "](operators/" << op.name << ".png)\n\n"
            << op.summary << ".\n";
        for (const std::string& alias : op.aliases)
            out << "\nAlso accepted under its older name `" << alias << "`.\n";
        if (!op.reference.empty()) out << "\n" << op.reference << "\n";
        if (!op.inputs.empty()) {
            out << "\nInputs:";
            for (size_t i = 0; i < op.inputs.size(); ++i)
                out << (i ? ", " : " ") << "`" << op.inputs[i] << "`"
                    << (op.optionalInputs[i] ? " (optional)" : "");
            out << ".\n";
        }
        if (!op.parameters.empty()) {
            out << "\n| parameter | type | default | allowed | meaning |\n|---|---|---|---|---|\n";
            for (const OperationParameter& p : op.parameters) {
                std::string allowed = p.range;
                for (const std::string& c : p.choices)
                    allowed += (allowed.empty() ? "" : ", ") + ("`" + c + "`");
                out << "| `" << p.name << "` | " << p.type << " | "
                    << (p.defaultValue.empty() ? "required" : "`" + p.defaultValue + "`") << " | "
                    << allowed << " | " << p.description << " |\n";
            }
        }
        if (!op.rules.empty()) {
            out << "\nAlso required:";
            for (size_t i = 0; i < op.rules.size(); ++i) out << (i ? "; " : " ") << op.rules[i];
            out << ".\n";
        }
    }
    return out.str();
}

}  // namespace TESSERA
