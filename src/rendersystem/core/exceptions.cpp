#include "exceptions.h"

namespace TESSERA {

RenderTaskRenderingException::RenderTaskRenderingException(const std::string& taskName,
                                                           const std::string& message, int code)
    : std::runtime_error(taskName + ": " + message),
      m_taskName(taskName),
      m_message(message),
      m_code(code) {}

InvalidParameterException::InvalidParameterException(const std::string& taskName,
                                                     const std::string& parameter,
                                                     const std::string& why)
    : RenderTaskRenderingException(taskName, "parameter '" + parameter + "': " + why, -1),
      m_parameter(parameter),
      m_reason(why) {}

}  // namespace TESSERA
