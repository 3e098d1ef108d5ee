/// @file
/// CacheIDStream: the text from which a task's cache ID is made.
#pragma once

#include <sstream>
#include <string>

#include "tessera_export.h"

namespace TESSERA {

/// A character output stream that starts out holding the task's type string.
/// A task writes every parameter that changes its output into it, with the
/// usual stream insertion and the stream's default formatting.
class TESSERA_API CacheIDStream : public std::ostringstream {
public:
    /// A stream holding `typeString`, the task's type.
    explicit CacheIDStream(const std::string& typeString) { *this << typeString; }
};

}  // namespace TESSERA
