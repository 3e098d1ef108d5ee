#include "exceptions.h"

namespace TESSERA {

RenderTaskRenderingException::RenderTaskRenderingException(const std::string& taskName,
                                                           const std::string& message, int code)
    : std::runtime_error(taskName + ": " + message),
      m_taskName(taskName),
      m_message(message),
      m_code(code) {}

}  // namespace TESSERA
