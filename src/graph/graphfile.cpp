// Graph files: JSON nodes naming a factory, its parameters and its inputs.
#include "graphfile.h"

#include <nlohmann/json.hpp>

#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <sstream>

#include "colortasks.h"
#include "compositetasks.h"
#include "filtertasks.h"
#include "generatortasks.h"
#include "imglib/channels.h"
#include "transformtasks.h"

namespace TESSERA {

GraphFileError::GraphFileError(const std::string& node, const std::string& field,
                               const std::string& message)
    : std::runtime_error("node '" + node + "'" + (field.empty() ? "" : ", field '" + field + "'") +
                         ": " + message),
      m_node(node),
      m_field(field) {}

namespace {

using json = nlohmann::json;

enum class Type {
    Number,
    Int,
    Bool,
    Color4,
    Color3,
    Vec2,
    Rect,
    String,
    Kernel,
    Extend,
    Composite,
    Matrix33,
    Floats
};

const char* typeName(Type t) {
    static const char* const names[] = {"number",
                                        "integer",
                                        "bool",
                                        "[r, g, b, a]",
                                        "[r, g, b]",
                                        "[x, y]",
                                        "[xmin, ymin, xmax, ymax]",
                                        "string",
                                        "kernel name",
                                        "\"background\"|\"clamp\"|\"mirror\"",
                                        "operator name",
                                        "[9 numbers]",
                                        "[numbers]"};
    return names[static_cast<int>(t)];
}

struct Param {
    std::string name;
    Type type;
    json fallback;  // null: required
};

// What a build function sees of one node.
class Args {
public:
    Args(const std::string& node, const json& params, const std::map<std::string, TaskPtr>& inputs,
         const std::string& base)
        : m_node(node), m_params(params), m_inputs(inputs), m_base(base) {}

    const json& value(const std::string& name) const { return m_params.at(name); }
    float number(const std::string& n) const { return value(n).get<float>(); }
    int integer(const std::string& n) const { return value(n).get<int>(); }
    bool flag(const std::string& n) const { return value(n).get<bool>(); }
    std::string text(const std::string& n) const { return value(n).get<std::string>(); }
    Color4f color(const std::string& n) const {
        const json& v = value(n);
        return Color4f(v[0].get<float>(), v[1].get<float>(), v[2].get<float>(), v[3].get<float>());
    }
    Imath::Color3<float> color3(const std::string& n) const {
        const json& v = value(n);
        return Imath::Color3<float>(v[0].get<float>(), v[1].get<float>(), v[2].get<float>());
    }
    Imath::V2f vec2(const std::string& n) const {
        return Imath::V2f(value(n)[0].get<float>(), value(n)[1].get<float>());
    }
    UTIL::Rect rect(const std::string& n) const {
        const json& v = value(n);
        return UTIL::Rect(v[0].get<int64_t>(), v[1].get<int64_t>(), v[2].get<int64_t>(),
                          v[3].get<int64_t>());
    }
    std::vector<float> floats(const std::string& n) const {
        return value(n).get<std::vector<float>>();
    }
    IMGLIB::KernelType kernel(const std::string& n) const;
    IMGLIB::ExtendMethod extend(const std::string& n) const;
    Imath::Matrix33<float> matrix(const std::string& n) const {
        const json& v = value(n);
        Imath::Matrix33<float> m;
        for (int i = 0; i < 9; ++i) m[i / 3][i % 3] = v[i].get<float>();
        return m;
    }
    std::string path(const std::string& n) const {
        const std::filesystem::path p(text(n));
        return p.is_absolute() ? p.string() : (std::filesystem::path(m_base) / p).string();
    }
    TaskPtr input(const std::string& n) const { return m_inputs.at(n); }
    // One channel by its name ("r", "g", "b", "a", "z", "u", "v").
    uint64_t channel(const std::string& n) const;
    // A value of a table by its name.
    template <class T>
    T choice(const std::vector<std::pair<std::string, T>>& table, const std::string& n) const;
    const std::string& node() const { return m_node; }

private:
    std::string m_node;
    const json& m_params;
    const std::map<std::string, TaskPtr>& m_inputs;
    std::string m_base;
};

struct Operation {
    std::string name;
    std::string summary;
    std::vector<Param> params;
    std::vector<std::string> inputs;
    std::function<TaskPtr(const Args&)> build;
};

const std::vector<std::pair<std::string, IMGLIB::KernelType>> kKernels = {
    {"nearest", IMGLIB::KERNEL_NEAREST},
    {"box", IMGLIB::KERNEL_BOX},
    {"triangle", IMGLIB::KERNEL_TRIANGLE},
    {"gaussian", IMGLIB::KERNEL_GAUSSIAN},
    {"catmull-rom", IMGLIB::KERNEL_CATMULL_ROM},
    {"mitchell", IMGLIB::KERNEL_MITCHELL},
    {"lanczos3", IMGLIB::KERNEL_LANCZOS3},
    {"blackman-harris", IMGLIB::KERNEL_BLACKMAN_HARRIS},
    {"b-spline", IMGLIB::KERNEL_BSPLINE}};

const std::vector<std::pair<std::string, CompositeOp>> kComposites = {
    {"add", COMPOSITE_ADD},
    {"atop", COMPOSITE_ATOP},
    {"average", COMPOSITE_AVERAGE},
    {"difference", COMPOSITE_DIFFERENCE},
    {"divide", COMPOSITE_DIVIDE},
    {"exclusion", COMPOSITE_EXCLUSION},
    {"from", COMPOSITE_FROM},
    {"geometric", COMPOSITE_GEOMETRIC},
    {"hypotenuse", COMPOSITE_HYPOTENUSE},
    {"max", COMPOSITE_MAX},
    {"min", COMPOSITE_MIN},
    {"multiply", COMPOSITE_MULTIPLY},
    {"in", COMPOSITE_IN},
    {"out", COMPOSITE_OUT},
    {"over", COMPOSITE_OVER},
    {"under", COMPOSITE_UNDER},
    {"screen", COMPOSITE_SCREEN},
    {"minus", COMPOSITE_MINUS}};

template <class T>
T lookup(const std::vector<std::pair<std::string, T>>& table, const std::string& key,
         const std::string& node, const std::string& field) {
    for (const auto& entry : table)
        if (entry.first == key) return entry.second;
    std::string names;
    for (const auto& entry : table) names += (names.empty() ? "" : ", ") + entry.first;
    throw GraphFileError(node, field, "unknown value '" + key + "' (one of: " + names + ")");
}

uint64_t Args::channel(const std::string& n) const {
    static const std::vector<std::pair<std::string, uint64_t>> channels = {
        {"r", IMGLIB::CHANNEL_R}, {"g", IMGLIB::CHANNEL_G}, {"b", IMGLIB::CHANNEL_B},
        {"a", IMGLIB::CHANNEL_A}, {"z", IMGLIB::CHANNEL_Z}, {"u", IMGLIB::CHANNEL_U},
        {"v", IMGLIB::CHANNEL_V}};
    return lookup(channels, text(n), m_node, n);
}

template <class T>
T Args::choice(const std::vector<std::pair<std::string, T>>& table, const std::string& n) const {
    return lookup(table, text(n), m_node, n);
}

IMGLIB::KernelType Args::kernel(const std::string& n) const {
    return lookup(kKernels, text(n), m_node, n);
}

IMGLIB::ExtendMethod Args::extend(const std::string& n) const {
    static const std::vector<std::pair<std::string, IMGLIB::ExtendMethod>> methods = {
        {"background", IMGLIB::EXTEND_BACKGROUND},
        {"clamp", IMGLIB::EXTEND_CLAMP},
        {"mirror", IMGLIB::EXTEND_MIRROR}};
    return lookup(methods, text(n), m_node, n);
}

const json kNoDefault;
const json kWhite = json::array({1, 1, 1, 1});
const json kBlack = json::array({0, 0, 0, 1});
const json kClear = json::array({0, 0, 0, 0});
const json kIdentity33 = json::array({1, 0, 0, 0, 1, 0, 0, 0, 1});

// Every operation a graph file can name.
DefocusParams defocusParams(const Args& a) {
    DefocusParams p;
    p.size = a.number("size");
    p.aspect = a.number("aspect");
    p.blades = a.integer("blades");
    p.rotation = a.number("rotation");
    return p;
}

// The thin lens and the depth of field's settings, shared by its three
// operations.
std::vector<Param> withLens(std::vector<Param> params) {
    const std::vector<Param> lens = {{"focalLength", Type::Number, 50},
                                     {"fStop", Type::Number, 2.8},
                                     {"focusDistance", Type::Number, 5},
                                     {"unitsPerMetre", Type::Number, 1},
                                     {"filmBackWidth", Type::Number, 36},
                                     {"imageWidth", Type::Number, 1920},
                                     {"maxCoc", Type::Number, 32},
                                     {"depthChannel", Type::String, "z"},
                                     {"physical", Type::Bool, false},
                                     {"blades", Type::Int, 0},
                                     {"layers", Type::Int, 8},
                                     {"cleanupRadius", Type::Number, 2}};
    params.insert(params.begin(), lens.begin(), lens.end());
    return params;
}

DepthOfFieldParams dofParams(const Args& a) {
    DepthOfFieldParams p;
    p.lens.focalLength = a.number("focalLength");
    p.lens.fStop = a.number("fStop");
    p.lens.focusDistance = a.number("focusDistance");
    p.lens.unitsPerMetre = a.number("unitsPerMetre");
    p.lens.filmBackWidth = a.number("filmBackWidth");
    p.lens.imageWidth = a.number("imageWidth");
    p.lens.maxCoc = a.number("maxCoc");
    p.depthChannel = a.channel("depthChannel");
    p.physical = a.flag("physical");
    p.aperture.blades = a.integer("blades");
    p.layers = a.integer("layers");
    p.cleanupRadius = a.number("cleanupRadius");
    return p;
}

const std::vector<Operation>& operations() {
    static const std::vector<Operation> ops = {
        // Generators.
        {"constant",
         "one colour over an area",
         {{"color", Type::Color4, kWhite}, {"area", Type::Rect, kNoDefault}},
         {},
         [](const Args& a) {
             return createConstantTask(a.node(), 0, a.color("color"), a.rect("area"));
         }},
        {"checkerboard",
         "squares of two colours",
         {{"first", Type::Color4, kWhite},
          {"second", Type::Color4, kBlack},
          {"size", Type::Number, 64},
          {"area", Type::Rect, kNoDefault}},
         {},
         [](const Args& a) {
             return createCheckerboardTask(a.node(), 0, a.color("first"), a.color("second"),
                                           a.number("size"), a.rect("area"));
         }},
        {"colorbars",
         "eight bars at 75%",
         {{"area", Type::Rect, kNoDefault}},
         {},
         [](const Args& a) { return createColorBarsTask(a.node(), 0, a.rect("area")); }},
        {"linearramp",
         "a ramp between two points",
         {{"start", Type::Vec2, kNoDefault},
          {"startColor", Type::Color4, kBlack},
          {"end", Type::Vec2, kNoDefault},
          {"endColor", Type::Color4, kWhite},
          {"area", Type::Rect, kNoDefault}},
         {},
         [](const Args& a) {
             return createLinearRampTask(a.node(), 0, a.vec2("start"), a.color("startColor"),
                                         a.vec2("end"), a.color("endColor"), a.rect("area"));
         }},
        {"radialramp",
         "a ramp out from a centre",
         {{"centre", Type::Vec2, kNoDefault},
          {"radius", Type::Number, kNoDefault},
          {"inner", Type::Color4, kWhite},
          {"outer", Type::Color4, kBlack},
          {"area", Type::Rect, kNoDefault}},
         {},
         [](const Args& a) {
             return createRadialRampTask(a.node(), 0, a.vec2("centre"), a.number("radius"),
                                         a.color("inner"), a.color("outer"), a.rect("area"));
         }},
        {"lattice",
         "grid lines",
         {{"lineColor", Type::Color4, kWhite},
          {"fillColor", Type::Color4, kBlack},
          {"spacing", Type::Number, 32},
          {"lineWidth", Type::Number, 1},
          {"area", Type::Rect, kNoDefault}},
         {},
         [](const Args& a) {
             return createLatticeTask(a.node(), 0, a.color("lineColor"), a.color("fillColor"),
                                      a.number("spacing"), a.number("lineWidth"), a.rect("area"));
         }},
        {"huewheel",
         "hues around a centre",
         {{"centre", Type::Vec2, kNoDefault},
          {"radius", Type::Number, kNoDefault},
          {"area", Type::Rect, kNoDefault}},
         {},
         [](const Args& a) {
             return createHueWheelTask(a.node(), 0, a.vec2("centre"), a.number("radius"),
                                       a.rect("area"));
         }},
        {"perlinnoise",
         "fractal Perlin noise",
         {{"scale", Type::Number, 64},
          {"octaves", Type::Int, 4},
          {"gain", Type::Number, 0.5},
          {"seed", Type::Int, 0},
          {"low", Type::Color4, kBlack},
          {"high", Type::Color4, kWhite},
          {"area", Type::Rect, kNoDefault}},
         {},
         [](const Args& a) {
             return createPerlinNoiseTask(a.node(), 0, a.number("scale"), a.integer("octaves"),
                                          a.number("gain"), uint32_t(a.integer("seed")),
                                          a.color("low"), a.color("high"), a.rect("area"));
         }},
        {"randomnoise",
         "a random value per pixel",
         {{"seed", Type::Int, 0},
          {"low", Type::Color4, kBlack},
          {"high", Type::Color4, kWhite},
          {"area", Type::Rect, kNoDefault}},
         {},
         [](const Args& a) {
             return createRandomNoiseTask(a.node(), 0, uint32_t(a.integer("seed")), a.color("low"),
                                          a.color("high"), a.rect("area"));
         }},
        {"filein",
         "an image file",
         {{"path", Type::String, kNoDefault}, {"subimage", Type::Int, 0}},
         {},
         [](const Args& a) {
             return createFileInTask(a.node(), 0,
                                     FileInParams{a.path("path"), a.integer("subimage")});
         }},
        // Colour operations.
        {"gain",
         "multiply",
         {{"gain", Type::Color4, kWhite}},
         {"input"},
         [](const Args& a) {
             return createGainTask(a.node(), 0, a.color("gain"), a.input("input"));
         }},
        {"colortransform",
         "a 4x4 matrix (row vectors) and an offset",
         {{"matrix", Type::Floats, json::array({1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1})},
          {"offset", Type::Color4, kClear}},
         {"input"},
         [](const Args& a) {
             const std::vector<float> m = a.floats("matrix");
             if (m.size() != 16) throw GraphFileError(a.node(), "matrix", "needs 16 numbers");
             return createColorTransformTask(
                 a.node(), 0,
                 Imath::Matrix44<float>(m[0], m[1], m[2], m[3], m[4], m[5], m[6], m[7], m[8], m[9],
                                        m[10], m[11], m[12], m[13], m[14], m[15]),
                 a.color("offset"), a.input("input"));
         }},
        {"clamp",
         "clamp to [low, high]",
         {{"low", Type::Color4, kClear},
          {"high", Type::Color4, kWhite},
          {"clampLow", Type::Bool, true},
          {"clampHigh", Type::Bool, true}},
         {"input"},
         [](const Args& a) {
             return createClampTask(a.node(), 0, a.color("low"), a.color("high"),
                                    a.flag("clampLow"), a.flag("clampHigh"), a.input("input"));
         }},
        {"threshold",
         "replace below or above a threshold",
         {{"threshold", Type::Color4, json::array({0.5, 0.5, 0.5, 0.5})},
          {"replaceBelow", Type::Bool, true},
          {"belowColor", Type::Color4, kClear},
          {"replaceAbove", Type::Bool, false},
          {"aboveColor", Type::Color4, kWhite}},
         {"input"},
         [](const Args& a) {
             return createThresholdTask(a.node(), 0, a.color("threshold"), a.flag("replaceBelow"),
                                        a.color("belowColor"), a.flag("replaceAbove"),
                                        a.color("aboveColor"), a.input("input"));
         }},
        {"cleanupclamp",
         "alpha to [0, 1], colour to 0 and above",
         {{"clampColorAtOne", Type::Bool, false}},
         {"input"},
         [](const Args& a) {
             return createCleanupClampTask(a.node(), 0, a.flag("clampColorAtOne"),
                                           a.input("input"));
         }},
        {"contrast",
         "(c - pivot) contrast + pivot",
         {{"contrast", Type::Color4, kWhite},
          {"pivot", Type::Color4, json::array({0.18, 0.18, 0.18, 0})}},
         {"input"},
         [](const Args& a) {
             return createContrastTask(a.node(), 0, a.color("contrast"), a.color("pivot"),
                                       a.input("input"));
         }},
        {"gamma",
         "pivot (c / pivot)^(1 / gamma)",
         {{"gamma", Type::Color4, kWhite}, {"pivot", Type::Color4, kWhite}},
         {"input"},
         [](const Args& a) {
             return createGammaTask(a.node(), 0, a.color("gamma"), a.color("pivot"),
                                    a.input("input"));
         }},
        {"exponential",
         "pivot (c / pivot)^exponent",
         {{"exponent", Type::Color4, kWhite}, {"pivot", Type::Color4, kWhite}},
         {"input"},
         [](const Args& a) {
             return createExponentialTask(a.node(), 0, a.color("exponent"), a.color("pivot"),
                                          a.input("input"));
         }},
        {"compressrange",
         "log2 range compression, or its inverse",
         {{"midGrey", Type::Number, 0.18},
          {"maximum", Type::Number, 16},
          {"scale", Type::Number, 1},
          {"expand", Type::Bool, false}},
         {"input"},
         [](const Args& a) {
             return createCompressRangeTask(a.node(), 0, a.number("midGrey"), a.number("maximum"),
                                            a.number("scale"), a.flag("expand"), a.input("input"));
         }},
        {"ncontrastboost",
         "smoothstep contrast",
         {{"amount", Type::Number, 1}, {"alphaToo", Type::Bool, false}},
         {"input"},
         [](const Args& a) {
             return createNContrastBoostTask(a.node(), 0, a.number("amount"), a.flag("alphaToo"),
                                             a.input("input"));
         }},
        {"hueshift",
         "hue rotation and saturation",
         {{"hueShift", Type::Number, 0},
          {"saturation", Type::Number, 1},
          {"weights", Type::Color3, json::array({0.2126, 0.7152, 0.0722})}},
         {"input"},
         [](const Args& a) {
             HueShiftParams p;
             p.hueShift = a.number("hueShift");
             p.saturation = a.number("saturation");
             p.weights = a.color3("weights");
             return createHueShiftTask(a.node(), 0, p, a.input("input"));
         }},
        {"multinverse",
         "unpremultiply",
         {},
         {"input"},
         [](const Args& a) { return createMultInverseTask(a.node(), 0, a.input("input")); }},
        {"posterize",
         "quantise to levels",
         {{"levels", Type::Number, 8},
          {"low", Type::Number, 0},
          {"high", Type::Number, 1},
          {"alphaToo", Type::Bool, false},
          {"clampToRange", Type::Bool, true}},
         {"input"},
         [](const Args& a) {
             return createPosterizeTask(a.node(), 0, a.number("levels"), a.number("low"),
                                        a.number("high"), a.flag("alphaToo"),
                                        a.flag("clampToRange"), a.input("input"));
         }},
        {"hsvconvert",
         "RGB to HSV, or back",
         {{"toHSV", Type::Bool, true}},
         {"input"},
         [](const Args& a) {
             return createHSVConvertTask(a.node(), 0, a.flag("toHSV"), a.input("input"));
         }},
        {"lab",
         "RGB to L*a*b*, or back",
         {{"toLab", Type::Bool, true}},
         {"input"},
         [](const Args& a) {
             return createLabTask(a.node(), 0, a.flag("toLab"), a.input("input"));
         }},
        {"maxrgbtoalpha",
         "alpha = max(R, G, B)",
         {},
         {"input"},
         [](const Args& a) { return createMaxRGBToAlphaTask(a.node(), 0, a.input("input")); }},
        {"minrgbtoalpha",
         "alpha = min(R, G, B)",
         {},
         {"input"},
         [](const Args& a) { return createMinRGBToAlphaTask(a.node(), 0, a.input("input")); }},
        {"bloom",
         "bloom control",
         {{"threshold", Type::Number, 1},
          {"gain", Type::Number, 0.5},
          {"isolate", Type::Bool, false},
          {"luminance", Type::Bool, true}},
         {"input"},
         [](const Args& a) {
             BloomControlSettings b;
             b.threshold = a.number("threshold");
             b.gain = a.number("gain");
             b.isolate = a.flag("isolate");
             b.luminance = a.flag("luminance");
             return createBloomTask(a.node(), 0, b, a.input("input"));
         }},
        {"rgbacurves",
         "a curve per channel, (x, y) pairs",
         {{"red", Type::Floats, json::array()},
          {"green", Type::Floats, json::array()},
          {"blue", Type::Floats, json::array()},
          {"alpha", Type::Floats, json::array()}},
         {"input"},
         [](const Args& a) {
             return createRGBACurvesTask(a.node(), 0, a.floats("red"), a.floats("green"),
                                         a.floats("blue"), a.floats("alpha"), a.input("input"));
         }},
        {"lumacurves",
         "a curve on luma, (x, y) pairs",
         {{"weights", Type::Color3, json::array({0.2126, 0.7152, 0.0722})},
          {"points", Type::Floats, json::array({0, 0, 1, 1})}},
         {"input"},
         [](const Args& a) {
             return createLumaCurvesTask(a.node(), 0, a.color3("weights"), a.floats("points"),
                                         a.input("input"));
         }},
        {"fringe",
         "keep half-covered edge pixels",
         {},
         {"input"},
         [](const Args& a) { return createFringeTask(a.node(), 0, a.input("input")); }},
        {"screenrgbtoalpha",
         "a screen key: 1 red, 2 green, 4 blue",
         {{"channel", Type::Int, 2}},
         {"input"},
         [](const Args& a) {
             return createScreenRGBToAlphaTask(a.node(), 0, uint64_t(a.integer("channel")),
                                               a.input("input"));
         }},
        {"hsvcomponenttoalpha",
         "alpha = hue (0), saturation (1) or value (2)",
         {{"component", Type::Int, 2}},
         {"input"},
         [](const Args& a) {
             return createHSVComponentToAlphaTask(a.node(), 0, HSVComponent(a.integer("component")),
                                                  a.input("input"));
         }},
        {"logconvert",
         "Cineon-style log conversion",
         {{"blackCode", Type::Color4, json::array({0.0929, 0.0929, 0.0929, 0})},
          {"whiteCode", Type::Color4, json::array({0.6696, 0.6696, 0.6696, 1})},
          {"density", Type::Color4, json::array({3.41, 3.41, 3.41, 1})},
          {"toLog", Type::Bool, true},
          {"alphaToo", Type::Bool, false}},
         {"input"},
         [](const Args& a) {
             return createAnalyticalLogConvertTask(
                 a.node(), 0, a.color("blackCode"), a.color("whiteCode"), a.color("density"),
                 a.flag("toLog"), a.flag("alphaToo"), a.input("input"));
         }},
        {"copy",
         "the input as it is (a cache point)",
         {},
         {"input"},
         [](const Args& a) { return createInPlaceCopyTask(a.node(), 0, a.input("input")); }},
        {"ociofile",
         "an OpenColorIO file transform (LUT)",
         {{"path", Type::String, kNoDefault}, {"inverse", Type::Bool, false}},
         {"input"},
         [](const Args& a) {
             auto t = OCIO_NAMESPACE::FileTransform::Create();
             t->setSrc(a.path("path").c_str());
             return createOCIOTransformTask(a.node(), 0, t,
                                            a.flag("inverse")
                                                ? OCIO_NAMESPACE::TRANSFORM_DIR_INVERSE
                                                : OCIO_NAMESPACE::TRANSFORM_DIR_FORWARD,
                                            a.input("input"));
         }},
        {"ociocolorspace",
         "OpenColorIO colour-space conversion",
         {{"config", Type::String, kNoDefault},
          {"from", Type::String, kNoDefault},
          {"to", Type::String, kNoDefault}},
         {"input"},
         [](const Args& a) {
             auto config = OCIO_NAMESPACE::Config::CreateFromFile(a.path("config").c_str());
             return createOCIOProcessorTask(
                 a.node(), 0, config->getProcessor(a.text("from").c_str(), a.text("to").c_str()),
                 a.input("input"));
         }},
        // Compositing.
        {"composite",
         "a over b, and the other operators",
         {{"operator", Type::Composite, "over"},
          {"alphaFlag", Type::Bool, false},
          {"extremaFlag", Type::Bool, false},
          {"cleanupClamp", Type::Bool, false},
          {"mix", Type::Number, 1}},
         {"a", "b"},
         [](const Args& a) {
             return createCompositeTask(
                 a.node(), 0, lookup(kComposites, a.text("operator"), a.node(), "operator"),
                 a.flag("extremaFlag"), a.flag("alphaFlag"), a.flag("cleanupClamp"),
                 a.number("mix"), a.input("a"), a.input("b"));
         }},
        {"mix",
         "first (1 - amount) + second amount",
         {{"amount", Type::Number, 0.5}},
         {"first", "second"},
         [](const Args& a) {
             return createMixTask(a.node(), 0, a.number("amount"), a.input("first"),
                                  a.input("second"));
         }},
        // Filters and transforms.
        {"blur",
         "separable blur",
         {{"size", Type::Vec2, kNoDefault},
          {"filter", Type::Kernel, "gaussian"},
          {"extend", Type::Extend, "background"},
          {"channelScale", Type::Color4, kWhite}},
         {"input"},
         [](const Args& a) {
             PerChannelBlurParameters p;
             const Imath::V2f size = a.vec2("size");
             const Color4f scale = a.color("channelScale");
             p.blur.sizeX = size.x;
             p.blur.sizeY = size.y;
             p.blur.filterX = p.blur.filterY = a.kernel("filter");
             p.blur.extendMethod = a.extend("extend");
             for (int c = 0; c < 4; ++c) p.channelScale[c] = scale[c];
             return createBlur(a.node(), 0, p, a.input("input"));
         }},
        {"defocus",
         "convolution by a lens aperture (a disc, or a polygon of 3 or more blades)",
         {{"size", Type::Number, kNoDefault},
          {"aspect", Type::Number, 1},
          {"blades", Type::Int, 0},
          {"rotation", Type::Number, 0},
          {"smooth", Type::Bool, true}},
         {"input"},
         [](const Args& a) {
             return createDefocusTask(a.node(), 0, defocusParams(a), a.input("input"),
                                      a.flag("smooth"));
         }},
        {"imageDefocus",
         "defocus whose size follows a channel of the control image (0 to 1)",
         {{"size", Type::Number, kNoDefault},
          {"aspect", Type::Number, 1},
          {"blades", Type::Int, 0},
          {"rotation", Type::Number, 0},
          {"smooth", Type::Bool, true},
          {"channel", Type::String, "a"},
          {"scale", Type::Number, 1},
          {"layers", Type::Int, 8}},
         {"input", "control"},
         [](const Args& a) {
             ImageDefocusParams p;
             p.defocus = defocusParams(a);
             p.smoothEdges = a.flag("smooth");
             p.controlChannel = a.channel("channel");
             p.controlScale = a.number("scale");
             p.layers = a.integer("layers");
             return createImageDefocusTask(a.node(), 0, p, a.input("input"), a.input("control"));
         }},
        {"imageBlur",
         "blur whose size follows a channel of the control image (0 to 1)",
         {{"size", Type::Vec2, kNoDefault},
          {"filter", Type::Kernel, "gaussian"},
          {"channel", Type::String, "a"},
          {"scale", Type::Number, 1},
          {"layers", Type::Int, 8}},
         {"input", "control"},
         [](const Args& a) {
             ImageBlurParams p;
             p.sizeX = a.vec2("size").x;
             p.sizeY = a.vec2("size").y;
             p.filter = a.kernel("filter");
             p.controlChannel = a.channel("channel");
             p.controlScale = a.number("scale");
             p.layers = a.integer("layers");
             return createImageBlur(a.node(), 0, p, noBloom(), a.input("input"),
                                    a.input("control"));
         }},
        {"convolve",
         "convolution by the pixels of a kernel image",
         {{"normalize", Type::Bool, true}, {"kernelArea", Type::Rect, json::array({0, 0, 0, 0})}},
         {"input", "kernel"},
         [](const Args& a) {
             ImageConvolveParams p;
             p.kernelRect = a.rect("kernelArea");
             return createImageConvolveTask(a.node(), 0, a.flag("normalize"), p, a.input("input"),
                                            a.input("kernel"));
         }},
        {"energyNormalize",
         "a kernel divided by its sum over an area (its data when empty)",
         {{"area", Type::Rect, json::array({0, 0, 0, 0})}},
         {"kernel"},
         [](const Args& a) {
             return createEnergyNormalizationTask(a.node(), 0, a.rect("area"), a.input("kernel"));
         }},
        {"radialBlur",
         "zoom or spin blur about a centre",
         {{"type", Type::String, "zoom"},
          {"centre", Type::Vec2, kNoDefault},
          {"amount", Type::Number, 0.1},
          {"samples", Type::Int, 32},
          {"extend", Type::Extend, "background"}},
         {"input"},
         [](const Args& a) {
             IMGLIB::RadialBlurParams p;
             p.type = a.choice<IMGLIB::RadialBlurType>(
                 {{"zoom", IMGLIB::RADIAL_ZOOM}, {"spin", IMGLIB::RADIAL_SPIN}}, "type");
             p.centreX = a.vec2("centre").x;
             p.centreY = a.vec2("centre").y;
             p.amount = a.number("amount");
             p.samples = a.integer("samples");
             return createRadialBlur(a.node(), 0, p, a.extend("extend"), false, UTIL::Rect(),
                                     a.input("input"));
         }},
        {"directionalBlur",
         "blur along a line at an angle (degrees)",
         {{"length", Type::Number, kNoDefault},
          {"angle", Type::Number, 0},
          {"offset", Type::Number, 0},
          {"filter", Type::Kernel, "box"}},
         {"input"},
         [](const Args& a) {
             DirectionalBlurParams p;
             p.length = a.number("length");
             p.angle = a.number("angle");
             p.offset = a.number("offset");
             p.filter = a.kernel("filter");
             return createDirectionalBlur(a.node(), 0, p, noBloom(), a.input("input"));
         }},
        {"vectorBlur",
         "motion blur along per-pixel vectors (channels u and v of the vectors input)",
         {{"scale", Type::Number, 1},
          {"maxLength", Type::Number, 64},
          {"samples", Type::Int, 16},
          {"splat", Type::Bool, false}},
         {"input", "vectors"},
         [](const Args& a) {
             VectorBlurParams p;
             p.vectors.scale = a.number("scale");
             p.vectors.maxLength = a.number("maxLength");
             p.vectors.samples = a.integer("samples");
             p.splat = a.flag("splat");
             return createVectorBlur(a.node(), 0, p, noBloom(), a.input("input"),
                                     a.input("vectors"));
         }},
        {"median",
         "median of a window",
         {{"size", Type::Vec2, json::array({3, 3})},
          {"circular", Type::Bool, false},
          {"threshold", Type::Number, 0}},
         {"input"},
         [](const Args& a) {
             const MedianFilterParams p{a.vec2("size").x, a.vec2("size").y, a.flag("circular"),
                                        a.number("threshold")};
             return createMedianFilterTask(a.node(), 0, p, a.input("input"));
         }},
        {"erodeDilate",
         "dilation (positive radii) or erosion (negative)",
         {{"radius", Type::Vec2, kNoDefault}},
         {"input"},
         [](const Args& a) {
             const ErodeDilateParams p{a.vec2("radius").x, a.vec2("radius").y};
             return createErodeDilateTask(a.node(), 0, p, a.input("input"));
         }},
        {"bilateral",
         "edge-preserving blur",
         {{"radius", Type::Vec2, json::array({5, 5})},
          {"sigmaSpatial", Type::Number, 3},
          {"sigmaRange", Type::Number, 0.1}},
         {"input"},
         [](const Args& a) {
             const Imath::V2f r = a.vec2("radius");
             if (r.x < 0 || r.y < 0 || r.x > 1000 || r.y > 1000)
                 throw GraphFileError(a.node(), "radius", "must be 0 to 1000");
             const BilateralFilterParams p{uint32_t(r.x), uint32_t(r.y), a.number("sigmaSpatial"),
                                           a.number("sigmaRange")};
             return createBilateralFilterTask(a.node(), 0, p, a.input("input"));
         }},
        {"edgeDetect",
         "gradient magnitude, or thin 0/1 edges with select",
         {{"method", Type::String, "sobel"},
          {"select", Type::Bool, false},
          {"threshold", Type::Number, 0.1}},
         {"input"},
         [](const Args& a) {
             const EdgeDetectParams p{
                 a.choice<EdgeDetectMethod>({{"sobel", EDGE_SOBEL}, {"babu", EDGE_BABU}}, "method"),
                 a.flag("select"), a.number("threshold")};
             return createEdgeDetectTask(a.node(), 0, p, a.input("input"));
         }},
        {"unsharp",
         "input + amount (input - blurred) where the difference exceeds the threshold",
         {{"amount", Type::Color4, json::array({1, 1, 1, 0})},
          {"threshold", Type::Color4, json::array({0, 0, 0, 0})}},
         {"input", "blurred"},
         [](const Args& a) {
             return createUnSharpTask(a.node(), 0, a.color("amount"), a.color("threshold"),
                                      a.input("input"), a.input("blurred"));
         }},
        {"perimeterExtend",
         "colour carried a distance past the matte's edge",
         {{"distance", Type::Number, kNoDefault}},
         {"input"},
         [](const Args& a) {
             return createPerimeterExtendTask(a.node(), 0, a.number("distance"), a.input("input"));
         }},
        {"glintControl",
         "the highlights a glint streaks",
         {{"threshold", Type::Number, 1}, {"gain", Type::Number, 1}},
         {"input"},
         [](const Args& a) {
             return createGlintControlTask(a.node(), 0, {a.number("threshold"), a.number("gain")},
                                           a.input("input"));
         }},
        {"glint",
         "star streaks of the source (the input when none), added to the input",
         {{"rays", Type::Int, 4},
          {"length", Type::Number, 50},
          {"rotation", Type::Number, 45},
          {"add", Type::Bool, true}},
         {"input", "source?"},
         [](const Args& a) {
             const GlintParams p{a.integer("rays"), a.number("length"), a.number("rotation")};
             return createGlintTask(a.node(), 0, a.flag("add"), p, a.input("input"),
                                    a.input("source"));
         }},
        {"circleOfConfusion",
         "circles of confusion (pixels) of a depth channel, in red",
         withLens({{"output", Type::String, "coc"}}),
         {"depth"},
         [](const Args& a) {
             return createCircleOfConfusionTask(
                 a.node(), 0, dofParams(a), IMGLIB::CHANNEL_R,
                 a.choice<CircleOfConfusionOutputType>({{"coc", COC_OUTPUT_COC},
                                                        {"minimal", COC_OUTPUT_MINIMAL},
                                                        {"maximal", COC_OUTPUT_MAXIMAL}},
                                                       "output"),
                 a.input("depth"));
         }},
        {"depthOfField",
         "the input blurred by the circles of confusion of its depth",
         withLens({}),
         {"input", "depth", "mask?"},
         [](const Args& a) {
             return createDepthOfFieldTask(a.node(), 0, dofParams(a), noBloom(), a.input("input"),
                                           a.input("depth"), a.input("mask"));
         }},
        {"depthCleanup",
         "depth with holes filled and foreground widened",
         withLens({}),
         {"depth"},
         [](const Args& a) {
             return createDOFDepthCleanupTask(a.node(), 0, dofParams(a), a.input("depth"));
         }},
        {"transform",
         "a 3x3 matrix (row vectors)",
         {{"matrix", Type::Matrix33, kIdentity33},
          {"filter", Type::Kernel, "catmull-rom"},
          {"minifyFilter", Type::Kernel, "catmull-rom"}},
         {"input"},
         [](const Args& a) {
             HomTransformParams p;
             p.primaryKernel = a.kernel("filter");
             p.secondaryKernel = a.kernel("minifyFilter");
             p.useAffine = true;
             return createHomTransformTask(a.node(), 0, p, {a.matrix("matrix")}, a.input("input"));
         }},
        {"motionblur",
         "average over a shutter of 3x3 matrices (9 numbers each)",
         {{"matrices", Type::Floats, kNoDefault},
          {"samplesPerStratum", Type::Int, 1},
          {"filter", Type::Kernel, "catmull-rom"}},
         {"input"},
         [](const Args& a) {
             const std::vector<float> values = a.floats("matrices");
             if (values.empty() || values.size() % 9)
                 throw GraphFileError(a.node(), "matrices", "needs 9 numbers per matrix");
             std::vector<Imath::Matrix33<float>> matrices;
             for (size_t i = 0; i < values.size(); i += 9) {
                 Imath::Matrix33<float> m;
                 for (int k = 0; k < 9; ++k) m[k / 3][k % 3] = values[i + size_t(k)];
                 matrices.push_back(m);
             }
             HomTransformParams p;
             p.primaryKernel = p.secondaryKernel = a.kernel("filter");
             p.motionSamplesPerStratum = a.integer("samplesPerStratum");
             return createHomTransformTask(a.node(), 0, p, matrices, a.input("input"));
         }},
        {"rotate",
         "rotate and scale about a centre, then move",
         {{"degrees", Type::Number, 0},
          {"scale", Type::Number, 1},
          {"centre", Type::Vec2, json::array({0, 0})},
          {"translate", Type::Vec2, json::array({0, 0})},
          {"filter", Type::Kernel, "catmull-rom"}},
         {"input"},
         [](const Args& a) {
             const Imath::V2f c = a.vec2("centre"), t = a.vec2("translate");
             Imath::Matrix33<float> toOrigin, s, r, back;
             toOrigin.setTranslation(-c);
             s.setScale(Imath::V2f(a.number("scale"), a.number("scale")));
             r.setRotation(a.number("degrees") * 3.14159265f / 180.0f);
             back.setTranslation(c + t);
             HomTransformParams p;
             p.primaryKernel = p.secondaryKernel = a.kernel("filter");
             p.useAffine = true;
             return createHomTransformTask(a.node(), 0, p, {toOrigin * s * r * back},
                                           a.input("input"));
         }},
    };
    return ops;
}

void checkType(const std::string& node, const Param& p, const json& v) {
    auto numbers = [&](size_t n) {
        if (!v.is_array() || (n && v.size() != n)) return false;
        for (const json& e : v)
            if (!e.is_number()) return false;
        return true;
    };
    bool ok = true;
    switch (p.type) {
        case Type::Number:
            ok = v.is_number();
            break;
        case Type::Int:
            ok = v.is_number_integer();
            break;
        case Type::Bool:
            ok = v.is_boolean();
            break;
        case Type::Color4:
            ok = numbers(4);
            break;
        case Type::Color3:
            ok = numbers(3);
            break;
        case Type::Vec2:
            ok = numbers(2);
            break;
        case Type::Rect:
            ok = numbers(4);
            break;
        case Type::Matrix33:
            ok = numbers(9);
            break;
        case Type::Floats:
            ok = numbers(0);
            break;
        default:
            ok = v.is_string();
            break;
    }
    if (!ok)
        throw GraphFileError(node, p.name,
                             std::string("expected ") + typeName(p.type) + ", got " + v.dump());
}

uint64_t parseChannels(const std::string& node, const std::string& text) {
    uint64_t mask = 0;
    for (char c : text) {
        switch (c) {
            case 'R':
                mask |= IMGLIB::CHANNEL_R;
                break;
            case 'G':
                mask |= IMGLIB::CHANNEL_G;
                break;
            case 'B':
                mask |= IMGLIB::CHANNEL_B;
                break;
            case 'A':
                mask |= IMGLIB::CHANNEL_A;
                break;
            case 'Z':
                mask |= IMGLIB::CHANNEL_Z;
                break;
            default:
                throw GraphFileError(node, "channels",
                                     "unknown channel '" + std::string(1, c) + "' (R, G, B, A, Z)");
        }
    }
    return mask;
}

}  // namespace

Graph loadGraph(const std::string& text, const std::string& base) {
    // Values nest a few levels at most; a file nesting thousands is refused
    // while it is read (nothing else here walks values recursively).
    constexpr int kMaxDepth = 64;
    bool tooDeep = false;
    json doc;
    try {
        doc = json::parse(text, [&](int depth, json::parse_event_t, json&) {
            tooDeep |= depth > kMaxDepth;
            return !tooDeep;
        });
    } catch (const json::parse_error& e) {
        throw GraphFileError("(file)", "", std::string("not valid JSON: ") + e.what());
    }
    if (tooDeep)
        throw GraphFileError("(file)", "",
                             "values nest more than " + std::to_string(kMaxDepth) + " levels deep");
    if (!doc.is_object()) throw GraphFileError("(file)", "", "the graph must be an object");
    for (auto it = doc.begin(); it != doc.end(); ++it)
        if (it.key() != "nodes" && it.key() != "outputs")
            throw GraphFileError("(file)", it.key(), "unknown field");
    if (!doc.contains("nodes") || !doc["nodes"].is_array())
        throw GraphFileError("(file)", "nodes", "a list of nodes is required");

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
    std::set<std::string> building;  // the nodes on the path being built
    // The operation and checked parameters of a node whose inputs are next.
    struct Pending {
        const Operation* op = nullptr;
        json params;
        json inputs;
    };
    std::map<std::string, Pending> pending;

    // Checks a node and names the nodes its inputs come from.
    const auto expand = [&](const std::string& id, const json& node) {
        if (!node.contains("op") || !node["op"].is_string())
            throw GraphFileError(id, "op", "required");
        const Operation* op = nullptr;
        for (const Operation& candidate : operations())
            if (candidate.name == node["op"].get<std::string>()) op = &candidate;
        if (!op)
            throw GraphFileError(id, "op",
                                 "unknown operation '" + node["op"].get<std::string>() +
                                     "' (tessera ops lists them)");

        json params = json::object();
        const json given = node.value("params", json::object());
        if (!given.is_object()) throw GraphFileError(id, "params", "must be an object");
        for (auto it = given.begin(); it != given.end(); ++it) {
            bool known = false;
            for (const Param& p : op->params) known |= p.name == it.key();
            if (!known) throw GraphFileError(id, it.key(), "unknown parameter of " + op->name);
        }
        for (const Param& p : op->params) {
            if (given.contains(p.name)) {
                checkType(id, p, given[p.name]);
                params[p.name] = given[p.name];
            } else if (p.fallback.is_null()) {
                throw GraphFileError(id, p.name, "required");
            } else {
                params[p.name] = p.fallback;
            }
        }
        json inputs = node.value("inputs", json::object());
        if (!inputs.is_object()) throw GraphFileError(id, "inputs", "must be an object");
        for (auto it = inputs.begin(); it != inputs.end(); ++it)
            if (std::find(op->inputs.begin(), op->inputs.end(), it.key()) == op->inputs.end() &&
                std::find(op->inputs.begin(), op->inputs.end(), it.key() + "?") == op->inputs.end())
                throw GraphFileError(id, it.key(), "unknown input of " + op->name);
        for (std::string name : op->inputs) {
            const bool optional = name.back() == '?';
            if (optional) name.pop_back();
            if (optional && !inputs.contains(name)) continue;
            if (!inputs.contains(name) || !inputs[name].is_string())
                throw GraphFileError(id, name, "input required (a node id)");
        }
        pending[id] = Pending{op, std::move(params), std::move(inputs)};
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
            const Frame frame = stack.back();
            const std::string& id = frame.id;
            if (built.count(id)) {
                stack.pop_back();
                continue;
            }
            auto found = nodes.find(id);
            if (found == nodes.end())
                throw GraphFileError(frame.from, frame.field, "no node '" + id + "'");
            if (!pending.count(id)) {
                if (!building.insert(id).second)
                    throw GraphFileError(id, frame.field,
                                         "the graph has a cycle through this node");
                expand(id, *found->second);
                const Pending& p = pending[id];
                // Inputs in reverse, so the first is built first.
                for (auto name = p.op->inputs.rbegin(); name != p.op->inputs.rend(); ++name) {
                    std::string input = *name;
                    if (input.back() == '?') input.pop_back();
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
            for (std::string name : p.op->inputs) {
                if (name.back() == '?') name.pop_back();
                inputTasks[name] = p.inputs.contains(name)
                                       ? built.at(p.inputs[name].get<std::string>())
                                       : TaskPtr();
            }
            TaskPtr task;
            try {
                task = p.op->build(Args(id, p.params, inputTasks, base));
            } catch (const GraphFileError&) {
                throw;
            } catch (const std::exception& e) {
                throw GraphFileError(id, "", e.what());
            }
            building.erase(id);
            pending.erase(id);
            built[id] = task;
            stack.pop_back();
        }
        return built.at(root);
    };

    Graph graph;
    if (!doc.contains("outputs") || !doc["outputs"].is_array() || doc["outputs"].empty())
        throw GraphFileError("(file)", "outputs", "at least one output is required");
    for (const json& out : doc["outputs"]) {
        if (!out.is_object() || !out.contains("node") || !out["node"].is_string())
            throw GraphFileError("(output)", "node", "every output names a node");
        const std::string id = out["node"];
        for (auto it = out.begin(); it != out.end(); ++it)
            if (it.key() != "node" && it.key() != "rect" && it.key() != "channels" &&
                it.key() != "file" && it.key() != "dataType" && it.key() != "compression")
                throw GraphFileError(id, it.key(), "unknown field of an output");
        GraphOutput g;
        g.description.task = build(id, "(output)", "node");
        if (out.contains("rect")) {
            checkType(id, Param{"rect", Type::Rect, kNoDefault}, out["rect"]);
            const json& r = out["rect"];
            g.description.rect = UTIL::Rect(r[0].get<int64_t>(), r[1].get<int64_t>(),
                                            r[2].get<int64_t>(), r[3].get<int64_t>());
        } else {
            UTIL::Region region;
            g.description.task->getOutputDescription(nullptr, &region);
            g.description.rect = region.boundingBox();
        }
        g.description.channels = parseChannels(id, out.value("channels", std::string("RGBA")));
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
                file.path = path;  // as given: relative to the current folder
                file.dataType = out.value("dataType", std::string());
                file.compression = out.value("compression", std::string("zip"));
                g.files.push_back(file);
            }
        }
        graph.outputs.push_back(g);
    }
    return graph;
}

Graph loadGraphFile(const std::string& path) {
    std::ifstream in(path);
    if (!in) throw GraphFileError("(file)", "", "cannot read '" + path + "'");
    std::stringstream text;
    text << in.rdbuf();
    return loadGraph(text.str(), std::filesystem::path(path).parent_path().string());
}

std::vector<OperationDescription> listOperations() {
    std::vector<OperationDescription> list;
    for (const Operation& op : operations()) {
        OperationDescription d;
        d.name = op.name;
        d.summary = op.summary;
        for (const std::string& input : op.inputs) {
            const bool optional = input.back() == '?';
            d.inputs.push_back(optional ? input.substr(0, input.size() - 1) : input);
            d.optionalInputs.push_back(optional);
        }
        for (const Param& p : op.params)
            d.parameters.push_back({p.name, typeName(p.type),
                                    p.fallback.is_null() ? std::string() : p.fallback.dump()});
        list.push_back(std::move(d));
    }
    return list;
}

std::string describeOperations() {
    std::ostringstream out;
    for (const OperationDescription& op : listOperations()) {
        out << op.name << ": " << op.summary << "\n";
        for (size_t i = 0; i < op.inputs.size(); ++i)
            out << "    input " << op.inputs[i] << (op.optionalInputs[i] ? " (optional)" : "")
                << "\n";
        for (const OperationParameter& p : op.parameters)
            out << "    " << p.name << " (" << p.type << ")"
                << (p.defaultValue.empty() ? ", required" : ", default " + p.defaultValue) << "\n";
    }
    return out.str();
}

}  // namespace TESSERA
