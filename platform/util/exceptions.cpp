#include "util/exceptions.h"

#include <utility>

namespace UTIL {

AssertException::AssertException(std::string expression, std::string source, int line)
    : std::logic_error("Assertion failed: " + expression + " (" + source + ":" +
                       std::to_string(line) + ")"),
      m_expression(std::move(expression)),
      m_source(std::move(source)),
      m_line(line) {}

void assertFailed(const char* expression, const char* source, int line) {
    throw AssertException(expression, source, line);
}

}  // namespace UTIL
