// One check of a parameter's value against its declaration (type, range,
// choices), shared by graph files, the Python module and the C++ factories.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <sstream>
#include <stdexcept>

#include "exceptions.h"
#include "private/operation.h"

namespace TESSERA {
namespace Private {

std::string formatNumber(double v) {
    if (std::fabs(v) == kMaxMagnitude) return v < 0 ? "-2^30" : "2^30";
    std::ostringstream out;
    out << v;
    return out.str();
}

namespace {

// As JSON, but each real number in its shortest form (-9 for -9.0f, 0.1 for
// 0.1f), and NaN and inf by name, where JSON would print null.
std::string valueText(const json& v) {
    if (v.is_number_float()) {
        const double x = v.get<double>();
        if (std::isnan(x)) return "nan";
        if (std::isinf(x)) return x < 0 ? "-inf" : "inf";
        char text[32];
        const float f = static_cast<float>(x);
        const auto end = double(f) == x ? std::to_chars(text, text + sizeof text, f).ptr
                                        : std::to_chars(text, text + sizeof text, x).ptr;
        return std::string(text, end);
    }
    if (!v.is_array()) return v.dump();
    std::string text = "[";
    for (const json& e : v) text += (text.size() > 1 ? "," : "") + valueText(e);
    return text + "]";
}

bool holdsType(ParamType type, const json& v) {
    const auto numbers = [&](size_t n) {
        return v.is_array() && (!n || v.size() == n) &&
               std::all_of(v.begin(), v.end(), [](const json& e) { return e.is_number(); });
    };
    switch (type) {
        case ParamType::Number:
            return v.is_number();
        case ParamType::Int:
            return v.is_number_integer();
        case ParamType::Bool:
            return v.is_boolean();
        case ParamType::Color4:
        case ParamType::Rect:
            return numbers(4);
        case ParamType::Color3:
            return numbers(3);
        case ParamType::Vec2:
            return numbers(2);
        case ParamType::Matrix33:
            return numbers(9);
        case ParamType::Floats:
            return numbers(0);
        case ParamType::String:
        case ParamType::Path:
        case ParamType::Choice:
            return v.is_string();
    }
    return false;
}

// True when every number of `v` passes `test`.
template <class Test>
bool everyNumber(const json& v, Test test) {
    if (v.is_number()) return test(v.get<double>());
    return !v.is_array() ||
           std::all_of(v.begin(), v.end(), [&](const json& e) { return test(e.get<double>()); });
}

}  // namespace

std::string invalidValue(const Param& p, const json& v) {
    if (!holdsType(p.type, v)) return "expected " + typeName(p.type) + ", got " + valueText(v);
    if (p.type == ParamType::Int && (v.get<double>() < INT32_MIN || v.get<double>() > INT32_MAX))
        return "value " + valueText(v) + " is out of range";
    if (!everyNumber(v, [&](double x) { return x >= p.low && x <= p.high; }))
        return "value " + valueText(v) + " is out of range (" + formatNumber(p.low) + " to " +
               formatNumber(p.high) + ")";
    // No parameter means anything beyond ±2^30 (pixels, factors, colours):
    // such values are refused here, before they become inf or a wrapped
    // coordinate. Rectangles are whole pixels.
    const bool rect = p.type == ParamType::Rect;
    if (!everyNumber(v, [&](double x) {
            return std::fabs(x) <= kMaxMagnitude && (!rect || x == std::floor(x));
        }))
        return "value " + valueText(v) +
               (rect ? " is out of range (a rectangle of whole pixels within ±2^30)"
                     : " is out of range (beyond ±2^30)");
    if (p.type == ParamType::Choice &&
        std::find(p.choices.begin(), p.choices.end(), v.get<std::string>()) == p.choices.end()) {
        std::string names;
        for (const std::string& c : p.choices) names += (names.empty() ? "" : ", ") + c;
        return "unknown value '" + v.get<std::string>() + "' (one of: " + names + ")";
    }
    return {};
}

void checkParameters(const std::string& operation, const std::string& task,
                     std::initializer_list<std::pair<const char*, json>> values) {
    const Operation* op = findOperation(operation);
    if (!op) throw std::logic_error("no operator '" + operation + "' to check " + task + " by");
    for (const auto& given : values) {
        const std::string name = given.first;
        const auto p = std::find_if(op->params.begin(), op->params.end(),
                                    [&](const Param& q) { return q.name == name; });
        if (p == op->params.end())
            throw std::logic_error("operator '" + operation + "' declares no parameter '" + name +
                                   "'");
        const std::string why = invalidValue(*p, given.second);
        if (!why.empty()) throw InvalidParameterException(task, name, why);
    }
}

}  // namespace Private
}  // namespace TESSERA
