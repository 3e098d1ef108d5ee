// The operator registry: every family's declarations in one list, and what
// their build functions use to read a node.
#include "private/operation.h"

#include <algorithm>
#include <filesystem>

#include "graphfile.h"
#include "imglib/channels.h"

namespace TESSERA {
namespace Private {

std::string typeName(ParamType type) {
    static const char* const names[] = {"number",
                                        "integer",
                                        "bool",
                                        "[r, g, b, a]",
                                        "[r, g, b]",
                                        "[x, y]",
                                        "[xmin, ymin, xmax, ymax]",
                                        "string",
                                        "path",
                                        "name",
                                        "[numbers]",
                                        "[9 numbers]"};
    return names[static_cast<int>(type)];
}

const Choices<IMGLIB::KernelType>& kernelChoices() {
    static const Choices<IMGLIB::KernelType> table = {
        {"nearest", IMGLIB::KERNEL_NEAREST},
        {"box", IMGLIB::KERNEL_BOX},
        {"triangle", IMGLIB::KERNEL_TRIANGLE},
        {"gaussian", IMGLIB::KERNEL_GAUSSIAN},
        {"catmull-rom", IMGLIB::KERNEL_CATMULL_ROM},
        {"mitchell", IMGLIB::KERNEL_MITCHELL},
        {"lanczos3", IMGLIB::KERNEL_LANCZOS3},
        {"blackman-harris", IMGLIB::KERNEL_BLACKMAN_HARRIS},
        {"b-spline", IMGLIB::KERNEL_BSPLINE}};
    return table;
}

const Choices<IMGLIB::ExtendMethod>& extendChoices() {
    static const Choices<IMGLIB::ExtendMethod> table = {{"background", IMGLIB::EXTEND_BACKGROUND},
                                                        {"clamp", IMGLIB::EXTEND_CLAMP},
                                                        {"mirror", IMGLIB::EXTEND_MIRROR}};
    return table;
}

const Choices<uint64_t>& channelChoices() {
    static const Choices<uint64_t> table = {{"r", IMGLIB::CHANNEL_R}, {"g", IMGLIB::CHANNEL_G},
                                            {"b", IMGLIB::CHANNEL_B}, {"a", IMGLIB::CHANNEL_A},
                                            {"z", IMGLIB::CHANNEL_Z}, {"u", IMGLIB::CHANNEL_U},
                                            {"v", IMGLIB::CHANNEL_V}};
    return table;
}

Param areaParam() {
    return required("area", ParamType::Rect, {0, 0, 64, 48},
                    "the rectangle filled, in pixels (xmax and ymax excluded); nothing outside it")
        .anyValue();
}

Param kernelParam(std::string name, std::string fallback, std::string doc) {
    return choiceParam(std::move(name), kernelChoices(), std::move(fallback), std::move(doc));
}

Param extendParam(std::string name, std::string fallback, std::string doc) {
    return choiceParam(std::move(name), extendChoices(), std::move(fallback), std::move(doc));
}

Param channelParam(std::string name, std::string fallback, std::string doc) {
    return choiceParam(std::move(name), channelChoices(), std::move(fallback), std::move(doc));
}

Imath::Color4<float> OperationArgs::color(const std::string& n) const {
    const nlohmann::json& v = value(n);
    return {v[0].get<float>(), v[1].get<float>(), v[2].get<float>(), v[3].get<float>()};
}

Imath::Color3<float> OperationArgs::color3(const std::string& n) const {
    const nlohmann::json& v = value(n);
    return {v[0].get<float>(), v[1].get<float>(), v[2].get<float>()};
}

Imath::V2f OperationArgs::vec2(const std::string& n) const {
    return {value(n)[0].get<float>(), value(n)[1].get<float>()};
}

UTIL::Rect OperationArgs::rect(const std::string& n) const {
    const nlohmann::json& v = value(n);
    return UTIL::Rect(v[0].get<int64_t>(), v[1].get<int64_t>(), v[2].get<int64_t>(),
                      v[3].get<int64_t>());
}

std::vector<float> OperationArgs::floats(const std::string& n) const {
    return value(n).get<std::vector<float>>();
}

Imath::Matrix33<float> OperationArgs::matrix(const std::string& n) const {
    const nlohmann::json& v = value(n);
    Imath::Matrix33<float> m;
    for (int i = 0; i < 9; ++i) m[i / 3][i % 3] = v[i].get<float>();
    return m;
}

std::string OperationArgs::path(const std::string& n) const {
    const std::filesystem::path p(text(n));
    return p.is_absolute() ? p.string() : (std::filesystem::path(m_base) / p).string();
}

void OperationArgs::fail(const std::string& param, const std::string& message) const {
    throw GraphFileError(m_node, param, message);
}

const OperationList& operations() {
    static const OperationList list = [] {
        const std::pair<const char*, void (*)(OperationList&)> families[] = {
            {"Generators", declareGeneratorOperations},
            {"Generators", declareTextOperations},
            {"Files", declareFileOperations},
            {"Colour", declareColorOperations},
            {"Channels", declareShuffleOperations},
            {"Keys and mattes", declareKeyOperations},
            {"Keys and mattes", declareMatteOperations},
            {"Colour management", declareOCIOOperations},
            {"Compositing", declareCompositeOperations},
            {"Compositing", declareDepthMergeOperations},
            {"Blur", declareBlurOperations},
            {"Blur", declareDefocusOperations},
            {"Blur", declareMotionBlurOperations},
            {"Blur", declareRadialBlurOperations},
            {"Filters", declareConvolveOperations},
            {"Filters", declareRankFilterOperations},
            {"Filters", declareEdgeOperations},
            {"Filters", declarePerimeterOperations},
            {"Filters", declareSharpenOperations},
            {"Filters", declareGlintOperations},
            {"Depth", declareDepthOfFieldOperations},
            {"Geometry", declareGeometryOperations},
            {"Geometry", declareResizeOperations},
            {"Geometry", declareWarpOperations},
            {"Transforms", declareTransformOperations}};
        OperationList all;
        for (const auto& [family, declare] : families) {
            OperationList ops;
            declare(ops);
            for (Operation& op : ops) {
                op.family = family;
                all.push_back(std::move(op));
            }
        }
        return all;
    }();
    return list;
}

const Operation* findOperation(const std::string& name) {
    for (const Operation& op : operations())
        if (op.name == name ||
            std::find(op.aliases.begin(), op.aliases.end(), name) != op.aliases.end())
            return &op;
    return nullptr;
}

}  // namespace Private
}  // namespace TESSERA
