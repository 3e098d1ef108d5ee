#include "animation.h"

#include <cmath>

#include "graphfile.h"

namespace TESSERA {
namespace Private {

using json = nlohmann::json;

namespace {

bool animatable(ParamType type) {
    switch (type) {
        case ParamType::Number:
        case ParamType::Int:
        case ParamType::Color4:
        case ParamType::Color3:
        case ParamType::Vec2:
        case ParamType::Rect:
        case ParamType::Floats:
        case ParamType::Matrix33:
            return true;
        default:
            return false;
    }
}

bool integral(ParamType type) {
    return type == ParamType::Int || type == ParamType::Rect;
}

double ease(double t, const std::string& interp) {
    if (interp == "hold") return 0;
    if (interp == "smooth") return t * t * (3 - 2 * t);
    return t;
}

double mix(double a, double b, double s, bool roundToInteger) {
    const double v = a + (b - a) * s;
    return roundToInteger ? double(std::llround(v)) : v;
}

}  // namespace

bool isAnimated(const json& value) {
    return value.is_array() && !value.empty() && value.front().is_object();
}

void checkKeys(const std::string& node, const Param& param, const json& keys,
               const std::function<void(const json&)>& checkValue) {
    if (!animatable(param.type))
        throw GraphFileError(node, param.name,
                             "a " + typeName(param.type) +
                                 " cannot be animated (numbers, colours, points and matrices can)");
    const json* previous = nullptr;
    for (const json& key : keys) {
        if (!key.is_object() || !key.contains("frame") || !key["frame"].is_number() ||
            !key.contains("value"))
            throw GraphFileError(node, param.name,
                                 "every key is {\"frame\": F, \"value\": V}, got " + key.dump());
        for (auto it = key.begin(); it != key.end(); ++it)
            if (it.key() != "frame" && it.key() != "value" && it.key() != "interp")
                throw GraphFileError(node, param.name, "unknown field '" + it.key() + "' of a key");
        const json interp = key.value("interp", json("linear"));
        if (interp != "hold" && interp != "linear" && interp != "smooth")
            throw GraphFileError(
                node, param.name,
                "unknown interpolation " + interp.dump() + " (hold, linear or smooth)");
        checkValue(key["value"]);
        if (previous) {
            if (key["frame"].get<double>() <= (*previous)["frame"].get<double>())
                throw GraphFileError(node, param.name,
                                     "key frames must increase: " + key["frame"].dump() +
                                         " follows " + (*previous)["frame"].dump());
            if (key["value"].is_array() && key["value"].size() != (*previous)["value"].size())
                throw GraphFileError(node, param.name,
                                     "every key's value needs as many numbers as the first");
        }
        previous = &key;
    }
}

json valueAtFrame(const json& keys, double frame, ParamType type) {
    if (frame <= keys.front()["frame"].get<double>()) return keys.front()["value"];
    if (frame >= keys.back()["frame"].get<double>()) return keys.back()["value"];
    size_t i = 0;
    while (keys[i + 1]["frame"].get<double>() <= frame) ++i;
    const json &from = keys[i], &to = keys[i + 1];
    const double f0 = from["frame"].get<double>(), f1 = to["frame"].get<double>();
    const double s = ease((frame - f0) / (f1 - f0), from.value("interp", std::string("linear")));
    const json &a = from["value"], &b = to["value"];
    const bool round = integral(type);
    const auto number = [&](const json& x, const json& y) -> json {
        const double v = mix(x.get<double>(), y.get<double>(), s, round);
        return round ? json(int64_t(v)) : json(v);
    };
    if (!a.is_array()) return number(a, b);
    json value = json::array();
    for (size_t c = 0; c < a.size(); ++c) value.push_back(number(a[c], b[c]));
    return value;
}

bool changesOverTime(const json& keys) {
    for (size_t i = 1; i < keys.size(); ++i)
        if (keys[i]["value"] != keys[0]["value"]) return true;
    return false;
}

}  // namespace Private
}  // namespace TESSERA
