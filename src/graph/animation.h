// Animated parameters: a value given as a list of keys, each a frame and a
// value, evaluated at the frame a graph is loaded at.
//
//   "gain": [{"frame": 1, "value": 0.5},
//            {"frame": 24, "value": 2, "interp": "smooth"},
//            {"frame": 48, "value": 1}]
//
// A key's interpolation shapes the stretch from it to the next key: "hold"
// keeps its value, "linear" (the default) runs straight to the next value,
// "smooth" eases out of the key and into the next (3t^2 - 2t^3, level at
// both keys). Before the first key the first value holds, after the last
// the last. Every number of a value is interpolated on its own; integer
// parameters round to the nearest integer.
#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <string>

#include "private/operation.h"

namespace TESSERA {
namespace Private {

// Whether a parameter's value is a list of keys (a list of objects).
bool isAnimated(const nlohmann::json& value);

// Checks a list of keys: frames increasing, known interpolations, and each
// value accepted by checkValue. Throws GraphFileError naming the node and
// the parameter.
void checkKeys(const std::string& node, const Param& param, const nlohmann::json& keys,
               const std::function<void(const nlohmann::json&)>& checkValue);

// The value of checked keys at a frame.
nlohmann::json valueAtFrame(const nlohmann::json& keys, double frame, ParamType type);

// Whether checked keys give more than one value over all frames.
bool changesOverTime(const nlohmann::json& keys);

}  // namespace Private
}  // namespace TESSERA
