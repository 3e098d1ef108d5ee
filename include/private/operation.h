// An operator's declaration: its name, description, parameters (types,
// defaults, ranges), inputs and the function that builds its task. Graph
// files, `tessera ops`, the operator reference and the tiling sweep all read
// the declarations; each family of operators declares its own next to its
// factories.
#pragma once

#include <Imath/ImathColor.h>
#include <Imath/ImathMatrix.h>
#include <Imath/ImathVec.h>

#include <functional>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "exceptions.h"
#include "imglib/image.h"
#include "imglib/kernels.h"
#include "rendertask.h"
#include "util/rect.h"

namespace TESSERA {
namespace Private {

using json = nlohmann::json;

enum class ParamType {
    Number,
    Int,
    Bool,
    Color4,
    Color3,
    Vec2,
    Rect,
    String,
    Path,     // a file, relative to the graph file's folder
    Choice,   // one of `choices`
    Floats,   // any count of numbers
    Matrix33  // 9 numbers, row vectors
};

// The type as `tessera ops` and the reference print it.
std::string typeName(ParamType type);

// No parameter means anything beyond ±2^30 (pixels, factors, colours):
// larger values are refused before they become inf or a wrapped coordinate.
constexpr double kMaxMagnitude = double(int64_t(1) << 30);

struct Param {
    Param(std::string n, ParamType t, json f, std::string d = {})
        : name(std::move(n)), type(t), fallback(std::move(f)), doc(std::move(d)) {}

    std::string name;
    ParamType type;
    nlohmann::json fallback;  // null: the parameter is required
    std::string doc;
    // Every number of the value lies in [low, high].
    double low = -std::numeric_limits<double>::infinity();
    double high = std::numeric_limits<double>::infinity();
    std::vector<std::string> choices;
    // For a required parameter: a value that works, for examples and the
    // test suite (a path names a file of the suite's data folder).
    nlohmann::json example = nullptr;

    Param range(double lo, double hi) const {
        Param p = *this;
        p.low = lo, p.high = hi;
        return p;
    }
    Param atLeast(double lo) const { return range(lo, kMaxMagnitude); }
    // Any number a graph may hold: colours, factors and offsets without a
    // natural bound.
    Param anyValue() const { return range(-kMaxMagnitude, kMaxMagnitude); }
    Param withExample(nlohmann::json value) const {
        Param p = *this;
        p.example = std::move(value);
        return p;
    }
};

// A parameter without a default, with a value that works for examples.
inline Param required(std::string name, ParamType type, json example, std::string doc = {}) {
    Param p{std::move(name), type, nullptr, std::move(doc)};
    p.example = std::move(example);
    return p;
}

// A parameter chosen by name from a table, whose names the declaration lists.
template <class T>
using Choices = std::vector<std::pair<std::string, T>>;

template <class T>
Param choiceParam(std::string name, const Choices<T>& table, std::string fallback,
                  std::string doc = {}) {
    Param p{std::move(name), ParamType::Choice, std::move(fallback), std::move(doc)};
    for (const auto& entry : table) p.choices.push_back(entry.first);
    return p;
}

const Choices<IMGLIB::KernelType>& kernelChoices();
const Choices<IMGLIB::ExtendMethod>& extendChoices();
// One channel by its name.
const Choices<uint64_t>& channelChoices();

// A generator's required "area": the rectangle it fills.
Param areaParam();
Param kernelParam(std::string name, std::string fallback, std::string doc = {});
Param extendParam(std::string name, std::string fallback, std::string doc = {});
Param channelParam(std::string name, std::string fallback, std::string doc = {});

// A number as messages and the reference print it (±2^30 by name).
std::string formatNumber(double v);
// Why `value` is not a value of `param` (its type, range or choices), naming
// the value; empty when it is one.
std::string invalidValue(const Param& param, const json& value);
// Checks the values a factory was given against operator `operation`'s
// declaration, by parameter name (each as the parameter's JSON type: see
// the conversions below). Throws InvalidParameterException naming the task,
// the parameter and the value. Graph files and Python pass the same check
// before they reach the factory.
void checkParameters(const std::string& operation, const std::string& task,
                     std::initializer_list<std::pair<const char*, json>> values);

// An enumerator as its declared name; a value the table lacks stays a
// number, which the check refuses.
template <class T>
json choiceValue(const Choices<T>& table, T value) {
    for (const auto& entry : table)
        if (entry.second == value) return entry.first;
    return static_cast<int64_t>(value);
}

struct Input {
    Input(const char* n) : name(n) {}  // NOLINT: a required input, by its name
    Input(std::string n, bool opt) : name(std::move(n)), optional(opt) {}
    std::string name;
    bool optional = false;
};

// Defaults many declarations share.
inline const nlohmann::json kRequired;
inline const nlohmann::json kWhite = {1, 1, 1, 1};
inline const nlohmann::json kBlack = {0, 0, 0, 1};
inline const nlohmann::json kClear = {0, 0, 0, 0};

// What a build function sees of one node: its checked parameters (defaults
// filled in) and its input tasks (null for an optional input left out).
class OperationArgs {
public:
    OperationArgs(const std::string& node, const nlohmann::json& params,
                  const std::map<std::string, TaskPtr>& inputs, const std::string& base, float time)
        : m_node(node), m_params(params), m_inputs(inputs), m_base(base), m_time(time) {}

    const nlohmann::json& value(const std::string& name) const { return m_params.at(name); }
    float number(const std::string& n) const { return value(n).get<float>(); }
    int integer(const std::string& n) const { return value(n).get<int>(); }
    bool flag(const std::string& n) const { return value(n).get<bool>(); }
    std::string text(const std::string& n) const { return value(n).get<std::string>(); }
    Imath::Color4<float> color(const std::string& n) const;
    Imath::Color3<float> color3(const std::string& n) const;
    Imath::V2f vec2(const std::string& n) const;
    UTIL::Rect rect(const std::string& n) const;
    std::vector<float> floats(const std::string& n) const;
    Imath::Matrix33<float> matrix(const std::string& n) const;
    // A path, absolute or relative to the graph file's folder.
    std::string path(const std::string& n) const;
    template <class T>
    T choice(const Choices<T>& table, const std::string& n) const {
        const std::string key = text(n);
        for (const auto& entry : table)
            if (entry.first == key) return entry.second;
        fail(n, "unknown value '" + key + "'");
    }
    IMGLIB::KernelType kernel(const std::string& n) const { return choice(kernelChoices(), n); }
    IMGLIB::ExtendMethod extend(const std::string& n) const { return choice(extendChoices(), n); }
    uint64_t channel(const std::string& n) const { return choice(channelChoices(), n); }
    TaskPtr input(const std::string& n) const { return m_inputs.at(n); }
    const std::string& node() const { return m_node; }
    // The frame the node is built for: its task's time.
    float time() const { return m_time; }
    // Throws the graph-file error naming this node and the parameter.
    [[noreturn]] void fail(const std::string& param, const std::string& message) const;

private:
    std::string m_node;
    const nlohmann::json& m_params;
    const std::map<std::string, TaskPtr>& m_inputs;
    std::string m_base;
    float m_time;
};

struct Operation {
    std::string name;
    std::string summary;  // one line
    std::vector<Param> params;
    std::vector<Input> inputs;
    std::function<TaskPtr(const OperationArgs&)> build;
    // What the operator computes: a formula, or the peer tool's operation it
    // matches (Markdown).
    std::string reference = {};
    std::string family = {};  // filled in by the registry
    // Older names graph files and scripts may still use.
    std::vector<std::string> aliases = {};
    // What the ranges cannot say: conditions on one value beyond its range
    // or between values, each refused by the factory naming its parameter.
    std::vector<std::string> rules = {};
};

using OperationList = std::vector<Operation>;

// Every operator, by family, in the order the reference lists them.
const OperationList& operations();
// By its name or one of its older names.
const Operation* findOperation(const std::string& name);

// Each family's declarations, next to its factories.
void declareGeneratorOperations(OperationList& ops);
void declareTextOperations(OperationList& ops);
void declareFileOperations(OperationList& ops);
void declareColorOperations(OperationList& ops);
void declareShuffleOperations(OperationList& ops);
void declareKeyOperations(OperationList& ops);
void declareMatteOperations(OperationList& ops);
void declareDepthMergeOperations(OperationList& ops);
void declareOCIOOperations(OperationList& ops);
void declareCompositeOperations(OperationList& ops);
void declareBlurOperations(OperationList& ops);
void declareDefocusOperations(OperationList& ops);
void declareConvolveOperations(OperationList& ops);
void declareMotionBlurOperations(OperationList& ops);
void declareRadialBlurOperations(OperationList& ops);
void declareRankFilterOperations(OperationList& ops);
void declareEdgeOperations(OperationList& ops);
void declarePerimeterOperations(OperationList& ops);
void declareSharpenOperations(OperationList& ops);
void declareGlintOperations(OperationList& ops);
void declareDepthOfFieldOperations(OperationList& ops);
void declareTransformOperations(OperationList& ops);
void declareGeometryOperations(OperationList& ops);
void declareResizeOperations(OperationList& ops);
void declareWarpOperations(OperationList& ops);

}  // namespace Private
}  // namespace TESSERA

// The engine's value types as the JSON of their parameter types, so that a
// factory checks them as a graph file gives them.
namespace nlohmann {
template <>
struct adl_serializer<Imath::Color4<float>> {
    static void to_json(json& j, const Imath::Color4<float>& c) { j = {c.r, c.g, c.b, c.a}; }
};
template <>
struct adl_serializer<Imath::Color3<float>> {
    static void to_json(json& j, const Imath::Color3<float>& c) { j = {c.x, c.y, c.z}; }
};
template <>
struct adl_serializer<Imath::V2f> {
    static void to_json(json& j, const Imath::V2f& v) { j = {v.x, v.y}; }
};
template <>
struct adl_serializer<Imath::Matrix33<float>> {
    static void to_json(json& j, const Imath::Matrix33<float>& m) {
        j = json::array();
        for (int r = 0; r < 3; ++r)
            for (int c = 0; c < 3; ++c) j.push_back(m[r][c]);
    }
};
template <>
struct adl_serializer<UTIL::Rect> {
    static void to_json(json& j, const UTIL::Rect& r) { j = {r.xmin, r.ymin, r.xmax, r.ymax}; }
};
}  // namespace nlohmann
