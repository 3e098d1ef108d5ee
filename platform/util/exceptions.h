/// @file
/// UTIL exception classes and the always-on assertion macro.
#pragma once

#include <stdexcept>
#include <string>

#include "../tessera_export.h"

namespace UTIL {

/// A recoverable error reported by the platform layer.
class TESSERA_API ErrorException : public std::runtime_error {
public:
    /// what() is `message`.
    explicit ErrorException(const std::string& message) : std::runtime_error(message) {}
};

/// An error after which the operation cannot go on.
class TESSERA_API FatalErrorException : public std::runtime_error {
public:
    /// what() is `message`.
    explicit FatalErrorException(const std::string& message) : std::runtime_error(message) {}
};

/// The image memory budget could not be met.
class TESSERA_API OutOfMemoryException : public std::runtime_error {
public:
    /// what() is `message`.
    explicit OutOfMemoryException(const std::string& message) : std::runtime_error(message) {}
};

/// A broken invariant. what() reads "Assertion failed: EXPR (SOURCE:LINE)".
class TESSERA_API AssertException : public std::logic_error {
public:
    /// The failed check's text, the source file's name and the line.
    AssertException(std::string expression, std::string source, int line);

    const std::string& expression() const { return m_expression; }  ///< the check, as written
    const std::string& source() const { return m_source; }          ///< the file that asserts
    int line() const { return m_line; }                             ///< its line

private:
    std::string m_expression;
    std::string m_source;
    int m_line;
};

/// Throws AssertException; what the assertion macros call.
[[noreturn]] TESSERA_API void assertFailed(const char* expression, const char* source, int line);

}  // namespace UTIL

/// Assertions stay on in every build and throw UTIL::AssertException. Each
/// source file that asserts names itself once, at the top:
///     UTIL_ASSERT_SOURCE("rendersystem/core/tileid");
#define UTIL_ASSERT_SOURCE(name)                \
    namespace {                                 \
    constexpr const char* kAssertSource = name; \
    }

/// Throws UTIL::AssertException naming `expr` when it is false.
#define UTIL_ASSERT(expr) \
    ((expr) ? static_cast<void>(0) : ::UTIL::assertFailed(#expr, kAssertSource, __LINE__))

/// For checks whose reported text must differ from the C++ that tests it.
#define UTIL_ASSERT_TEXT(expr, text) \
    ((expr) ? static_cast<void>(0) : ::UTIL::assertFailed(text, kAssertSource, __LINE__))
