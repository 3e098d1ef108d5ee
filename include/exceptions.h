/// @file
/// The exceptions a render reports.
#pragma once

#include <stdexcept>
#include <string>

#include "tessera_export.h"

namespace TESSERA {

/// A task failed to render. Carries the task's name (its name-at-time
/// label), the message and an integer code.
class TESSERA_API RenderTaskRenderingException : public std::runtime_error {
public:
    /// what() reads "TASK: MESSAGE".
    RenderTaskRenderingException(const std::string& taskName, const std::string& message, int code);
    const std::string& getTaskName() const { return m_taskName; }  ///< the failed task's label
    const std::string& getMessage() const { return m_message; }    ///< why, without the task
    int getCode() const { return m_code; }                         ///< IMGLIB's status, or -1

private:
    std::string m_taskName;
    std::string m_message;
    int m_code;
};

/// An IMGLIB operator returned an error status; the message is IMGLIB's.
class TESSERA_API ImageLibRenderingException : public RenderTaskRenderingException {
public:
    using RenderTaskRenderingException::RenderTaskRenderingException;  ///< as its base
};

/// A factory was given a value its operator does not take (outside the
/// parameter's range or choices, or not a number). Thrown when the task is
/// made; what() reads "TASK: parameter 'NAME': WHY", WHY naming the value.
class TESSERA_API InvalidParameterException : public RenderTaskRenderingException {
public:
    /// `why` names the value and what the parameter takes.
    InvalidParameterException(const std::string& taskName, const std::string& parameter,
                              const std::string& why);
    const std::string& getParameter() const { return m_parameter; }  ///< the parameter's name
    const std::string& getReason() const { return m_reason; }        ///< `why`, as given

private:
    std::string m_parameter;
    std::string m_reason;
};

/// The render was cancelled.
class TESSERA_API RenderCancelledException : public std::runtime_error {
public:
    /// what() is `message`.
    explicit RenderCancelledException(const std::string& message) : std::runtime_error(message) {}
};

}  // namespace TESSERA
