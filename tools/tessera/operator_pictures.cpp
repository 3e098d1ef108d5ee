#include "operator_pictures.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "graphfile.h"

namespace TESSERA {

namespace {

namespace fs = std::filesystem;
using json = nlohmann::json;

constexpr int kWidth = 128, kHeight = 96;

json node(const std::string& id, const std::string& op, json params, json inputs = json::object()) {
    return {{"id", id}, {"op", op}, {"params", std::move(params)}, {"inputs", std::move(inputs)}};
}

// The plate and the ramp every operator reads: colour with texture inside a
// disc of alpha with a soft edge, depth (near at the centre), and a ramp
// with depth.
json sources() {
    const json area = {0, 0, kWidth, kHeight};
    return json::array(
        {node("board", "checkerboard",
              {{"size", 12},
               {"first", {0.85, 0.85, 0.85, 1}},
               {"second", {0.2, 0.2, 0.2, 1}},
               {"area", area}}),
         node("colours", "fourcorner",
              {{"topLeft", {0.9, 0.3, 0.1, 1}},
               {"topRight", {0.9, 0.8, 0.1, 1}},
               {"bottomLeft", {0.1, 0.3, 0.9, 1}},
               {"bottomRight", {0.2, 0.8, 0.3, 1}},
               {"area", area}}),
         node("textured", "mix", {{"amount", 0.7}}, {{"first", "board"}, {"second", "colours"}}),
         node("disc", "radialramp",
              {{"centre", {kWidth / 2, kHeight / 2}},
               {"radius", 46},
               {"inner", {1, 1, 1, 1}},
               {"outer", {0, 0, 0, 0}},
               {"area", area}}),
         node("matte", "gain", {{"gain", {-8, 1, 1, 3}}}, {{"input", "disc"}}),
         node("solid", "clamp", {{"low", {-8, 0, 0, 0}}, {"high", {1, 1, 1, 1}}},
              {{"input", "matte"}}),
         node("straight", "shuffle", {{"a", "b.a"}, {"z", "b.r"}},
              {{"a", "textured"}, {"b", "solid"}}),
         node("plate", "premultiply", json::object(), {{"input", "straight"}}),
         node("rampRGBA", "linearramp",
              {{"start", {0, 0}},
               {"end", {kWidth, kHeight}},
               {"startColor", {0.9, 0.1, 0.2, 1}},
               {"endColor", {0.1, 0.6, 1.0, 0.5}},
               {"area", area}}),
         node("ramp", "shuffle", {{"z", "a.b"}}, {{"a", "rampRGBA"}})});
}

// The operator with its declared examples (required parameters, and those
// whose default does nothing), the plate first and the ramp second.
json operatorNode(const OperationDescription& op) {
    json params = json::object();
    for (const OperationParameter& p : op.parameters)
        if (!p.example.empty()) params[p.name] = json::parse(p.example);
    json inputs = json::object();
    for (size_t i = 0; i < op.inputs.size(); ++i) inputs[op.inputs[i]] = i == 0 ? "plate" : "ramp";
    return node("op", op.name, params, inputs);
}

bool isRequired(const OperationDescription& op, const std::string& name) {
    for (const OperationParameter& p : op.parameters)
        if (p.name == name) return p.defaultValue.empty();
    return false;
}

json outputTo(const std::string& nodeId, const fs::path& file) {
    return {{"node", nodeId},
            {"rect", {0, 0, kWidth, kHeight}},
            {"channels", "RGBA"},
            {"file", file.string()}};
}

// The files the file-reading operators' examples name.
void writeExampleFiles(const fs::path& dir) {
    json plate = {{"nodes", sources()}, {"outputs", {outputTo("plate", dir / "plate.exr")}}};
    writeGraphOutputs(loadGraph(plate.dump(), dir.string()));
    std::ofstream(dir / "curve.spi1d") << "Version 1\nFrom 0.0 1.0\nLength 3\nComponents 1\n{\n"
                                          "0.0\n0.3\n1.0\n}\n";
    std::ofstream(dir / "config.ocio")
        << "ocio_profile_version: 1\nroles:\n  default: linear\n"
           "displays:\n  sRGB:\n    - !<View> {name: Raw, colorspace: linear}\n"
           "colorspaces:\n  - !<ColorSpace>\n    name: linear\n"
           "  - !<ColorSpace>\n    name: warm\n"
           "    from_reference: !<MatrixTransform> {matrix: [1.2, 0.1, 0, 0, 0, 1, 0, 0, 0, 0.2, "
           "0.8, 0, 0, 0, 0, 1]}\n";
}

}  // namespace

void writeOperatorPictures(const std::string& dir) {
    fs::create_directories(dir);
    const fs::path work =
        fs::temp_directory_path() / ("tessera_pictures_" + std::to_string(getpid()));
    fs::create_directories(work);
    struct Remove {
        fs::path path;
        ~Remove() { fs::remove_all(path); }
    } remove{work};
    writeExampleFiles(work);
    for (const OperationDescription& op : listOperations()) {
        json opNode = operatorNode(op);
        // An example that names what the plate lacks (a render pass such as
        // diffuse.G) gives way to the default.
        for (;;) {
            json nodes = sources();
            nodes.push_back(opNode);
            const json graph = {
                {"nodes", nodes},
                {"outputs", {outputTo("op", fs::absolute(dir) / (op.name + ".png"))}}};
            try {
                writeGraphOutputs(loadGraph(graph.dump(), work.string()));
                break;
            } catch (const GraphFileError& e) {
                const bool optional = opNode["params"].contains(e.getField()) &&
                                      e.getNode() == "op" && !isRequired(op, e.getField());
                if (!optional)
                    throw std::runtime_error("the picture of " + op.name + ": " + e.what());
                opNode["params"].erase(e.getField());
            } catch (const std::exception& e) {
                throw std::runtime_error("the picture of " + op.name + ": " + e.what());
            }
        }
    }
}

}  // namespace TESSERA
