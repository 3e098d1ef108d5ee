#include "chain.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>

#include "tessera.h"

namespace tessera_cli {

using json = nlohmann::ordered_json;
using TESSERA::OperationDescription;
using TESSERA::OperationParameter;

namespace {

const std::vector<OperationDescription>& operations() {
    static const std::vector<OperationDescription> list = TESSERA::listOperations();
    return list;
}

const OperationDescription* findOperation(const std::string& name) {
    for (const OperationDescription& op : operations())
        if (op.name == name || std::count(op.aliases.begin(), op.aliases.end(), name)) return &op;
    return nullptr;
}

const OperationParameter* findParameter(const OperationDescription& op, const std::string& name) {
    for (const OperationParameter& p : op.parameters)
        if (p.name == name) return &p;
    return nullptr;
}

// composite's operators ("over", "multiply", ...), each a verb of its own.
const std::vector<std::string>& compositeOperators() {
    static const std::vector<std::string> list =
        findParameter(*findOperation("composite"), "operator")->choices;
    return list;
}

// What a verb stands for: an operation, and the parameters the verb itself
// sets (--over is composite with operator over).
struct Verb {
    const OperationDescription* op = nullptr;
    json fixed = json::object();
};

std::optional<Verb> findVerb(const std::string& argument) {
    if (argument.size() < 3 || argument.compare(0, 2, "--") != 0) return std::nullopt;
    const std::string name = argument.substr(2);
    if (const OperationDescription* op = findOperation(name)) return Verb{op};
    const auto& ops = compositeOperators();
    if (std::find(ops.begin(), ops.end(), name) != ops.end())
        return Verb{findOperation("composite"), json{{"operator", name}}};
    return std::nullopt;
}

bool isAssignment(const std::string& argument) {
    const size_t equals = argument.find('=');
    if (equals == 0 || equals == std::string::npos || !std::isalpha((unsigned char)argument[0]))
        return false;
    return std::all_of(argument.begin(), argument.begin() + long(equals),
                       [](char c) { return std::isalnum((unsigned char)c) || c == '_'; });
}

// A value as typed: JSON, a comma list of numbers ("1920,1080"), or a
// bare word. Strings and paths are always the text itself.
json parseValue(const std::string& text, bool isText) {
    if (isText) return text;
    for (const std::string& candidate : {text, "[" + text + "]"}) {
        try {
            return json::parse(candidate);
        } catch (const json::parse_error&) {
        }
    }
    return text;
}

const char* const kOutputFields[] = {"rect",   "channels", "dataType",   "compression", "zipLevel",
                                     "layout", "tileSize", "attributes", "parts",       "id"};
bool isTextField(const std::string& field) {
    return field == "channels" || field == "dataType" || field == "compression" ||
           field == "layout" || field == "id";
}

class ChainBuilder {
public:
    explicit ChainBuilder(const std::vector<std::string>& args) : m_args(args) {}

    json build() {
        while (m_next < m_args.size()) {
            const std::string& arg = m_args[m_next++];
            if (arg == "-o" || arg == "--output")
                output(arg);
            else if (const std::optional<Verb> verb = findVerb(arg))
                apply(arg, *verb);
            else if (arg.size() > 1 && arg[0] == '-')
                throw ChainError("unknown verb '" + arg +
                                 "' (tessera --help lists the verbs, tessera ops the operations)");
            else
                input(arg);
        }
        if (m_outputs.empty()) throw ChainError("nothing to write: end the chain with -o FILE");
        json graph;
        graph["nodes"] = m_nodes;
        graph["outputs"] = m_outputs;
        return graph;
    }

private:
    std::string newId(const std::string& op) {
        const int n = ++m_counts[op];
        return n == 1 ? op : op + std::to_string(n);
    }

    // The KEY=VALUE arguments that follow, by key.
    std::vector<std::pair<std::string, std::string>> assignments() {
        std::vector<std::pair<std::string, std::string>> list;
        while (m_next < m_args.size() && isAssignment(m_args[m_next])) {
            const std::string& a = m_args[m_next++];
            const size_t equals = a.find('=');
            list.emplace_back(a.substr(0, equals), a.substr(equals + 1));
        }
        return list;
    }

    void input(const std::string& path) {
        std::error_code ec;
        if (!TESSERA::hasFrameNumber(path) && !std::filesystem::is_regular_file(path, ec))
            throw ChainError(m_nodes.empty() && m_next == 1
                                 ? "'" + path +
                                       "' is neither a command (render, demo, info, mosaic, "
                                       "ops) nor a file"
                                 : "no file '" + path + "'");
        const std::string id = newId("filein");
        m_nodes.push_back(json{{"id", id}, {"op", "filein"}, {"params", {{"path", path}}}});
        m_stack.push_back(id);
    }

    void apply(const std::string& arg, const Verb& verb) {
        const OperationDescription& op = *verb.op;
        std::vector<std::string> required;
        for (size_t i = 0; i < op.inputs.size(); ++i)
            if (!op.optionalInputs[i]) required.push_back(op.inputs[i]);
        if (m_stack.size() < required.size()) {
            std::string names;
            for (const std::string& r : required) names += (names.empty() ? "" : ", ") + r;
            throw ChainError(arg + " takes " + std::to_string(required.size()) + " image" +
                             (required.size() == 1 ? "" : "s") + " (" + names +
                             "); the chain has " + std::to_string(m_stack.size()));
        }
        json params = verb.fixed;
        for (const auto& [key, value] : assignments()) {
            const OperationParameter* p = findParameter(op, key);
            if (!p)
                throw ChainError(arg + ": " + op.name + " has no parameter '" + key +
                                 "' (tessera " + arg + " --help)");
            params[key] =
                parseValue(value, p->type == "string" || p->type == "path" || p->type == "name");
        }
        json node{{"id", newId(op.name)}, {"op", op.name}};
        if (!params.empty()) node["params"] = params;
        if (!required.empty()) {
            json inputs = json::object();
            const size_t first = m_stack.size() - required.size();
            for (size_t i = 0; i < required.size(); ++i) inputs[required[i]] = m_stack[first + i];
            m_stack.resize(first);
            node["inputs"] = inputs;
        }
        m_stack.push_back(node["id"]);
        m_nodes.push_back(std::move(node));
    }

    void output(const std::string& arg) {
        if (m_next >= m_args.size()) throw ChainError(arg + " needs a file name");
        if (m_stack.empty()) throw ChainError(arg + ": no image to write yet");
        json out{{"node", m_stack.back()}, {"file", m_args[m_next++]}};
        for (const auto& [key, value] : assignments()) {
            if (std::find(std::begin(kOutputFields), std::end(kOutputFields), key) ==
                std::end(kOutputFields))
                throw ChainError(arg + ": an output has no field '" + key +
                                 "' (rect, channels, dataType, compression, layout, tileSize, "
                                 "attributes, parts, id)");
            out[key] = parseValue(value, isTextField(key));
        }
        m_outputs.push_back(std::move(out));
    }

    const std::vector<std::string>& m_args;
    size_t m_next = 0;
    std::vector<std::string> m_stack;  // node ids, the top last
    std::map<std::string, int> m_counts;
    json m_nodes = json::array(), m_outputs = json::array();
};

}  // namespace

bool isChainVerb(const std::string& argument) {
    return findVerb(argument).has_value();
}

std::string graphText(const std::string& nodes, const std::string& outputs,
                      const std::string& frames) {
    std::ostringstream text;
    text << "{\n";
    if (!frames.empty()) text << "  \"frames\": " << json(frames).dump() << ",\n";
    const std::pair<const char*, std::string> lists[] = {{"nodes", nodes}, {"outputs", outputs}};
    for (const auto& [name, list] : lists) {
        const json items = json::parse(list);
        text << "  \"" << name << "\": [\n";
        for (size_t i = 0; i < items.size(); ++i)
            text << "    " << items[i].dump() << (i + 1 < items.size() ? ",\n" : "\n");
        text << "  ]" << (std::string(name) == "nodes" ? ",\n" : "\n");
    }
    text << "}\n";
    return text.str();
}

std::string chainGraph(const std::vector<std::string>& arguments, const std::string& frames) {
    const json graph = ChainBuilder(arguments).build();
    return graphText(graph["nodes"].dump(), graph["outputs"].dump(), frames);
}

std::string chainVerbHelp(const std::string& verb) {
    const std::optional<Verb> found = findVerb(verb);
    if (!found) throw ChainError("unknown verb '" + verb + "'");
    std::string help = TESSERA::describeOperation(found->op->name);
    if (!found->fixed.empty())
        help = verb + " is composite with operator " + found->fixed["operator"].get<std::string>() +
               ":\n\n" + help;
    return help;
}

std::string chainHelp() {
    std::ostringstream text;
    text
        << "Chains: tessera [OPTIONS] FILE... --VERB [KEY=VALUE]... -o FILE [FIELD=VALUE]...\n"
           "  Files push images; a verb takes its inputs from the top (the earliest first) and\n"
           "  pushes its result; -o writes the top image. --dump-graph prints the graph file\n"
           "  instead of rendering it; --frames LIST renders numbered files (a.####.exr).\n"
           "  tessera fg.exr bg.exr --over -o comp.exr\n"
           "  tessera plate.exr --resize size=960,540 filter=lanczos3 -o half.exr compression=piz\n"
           "  tessera --constant color=0.2,0.3,0.4,1 area=0,0,64,64 -o swatch.png\n"
           "Verbs (tessera --VERB --help describes one):\n ";
    size_t column = 1;
    const auto add = [&](const std::string& verb) {
        if (column + verb.size() + 3 > 90) {
            text << "\n ";
            column = 1;
        }
        text << " --" << verb;
        column += verb.size() + 3;
    };
    for (const OperationDescription& op : operations()) add(op.name);
    for (const std::string& op : compositeOperators())
        if (!findOperation(op)) add(op);
    text << "\n";
    return text.str();
}

}  // namespace tessera_cli
