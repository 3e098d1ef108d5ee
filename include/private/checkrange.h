// Parameters a render could not honour, refused when a task is made.
#pragma once

#include <cstdint>
#include <sstream>
#include <string>

#include "exceptions.h"

namespace TESSERA {
namespace Private {

// Throws RenderTaskRenderingException naming the task, the parameter and
// the value when the value lies outside [low, high].
inline void checkRange(const std::string& task, const std::string& parameter, int64_t value,
                       int64_t low, int64_t high) {
    if (value >= low && value <= high) return;
    throw RenderTaskRenderingException(task,
                                       parameter + " " + std::to_string(value) +
                                           " is out of range (" + std::to_string(low) + " to " +
                                           std::to_string(high) + ")",
                                       -1);
}

// The same for a real number; NaN is always refused.
inline void checkReal(const std::string& task, const std::string& parameter, double value,
                      double low, double high) {
    if (value >= low && value <= high) return;
    std::ostringstream message;
    message << parameter << " " << value << " is out of range (" << low << " to " << high << ")";
    throw RenderTaskRenderingException(task, message.str(), -1);
}

}  // namespace Private
}  // namespace TESSERA
