// IMGLIB error reporting: each thread has its own pending error.
#pragma once

#include <string>

#include "../tessera_export.h"

namespace IMGLIB {

// Operators return one of these; 0 is success. Codes from 256 up are
// warnings: the operation did what was asked but has something to say.
enum ErrorCode : int {
    ERROR_NONE = 0,
    ERROR_INVALID_CHANNEL_MASK = 1,
    ERROR_INVALID_ARGUMENT = 2,
    ERROR_NULL_IMAGE = 3,
    ERROR_OUT_OF_BOUNDS = 4,
    ERROR_TOO_MANY_CHANNELS = 5,  // no channel bit is free for a new name
    ERROR_FILE_OPEN = 16,
    ERROR_FILE_WRITE = 17,
    ERROR_FILE_READ = 18,
    ERROR_FILE_FORMAT = 19,     // not a raw dump, or a damaged one
    ERROR_FILE_MISMATCH = 20,   // a raw dump of a different image
    ERROR_FILE_EXISTS = 21,     // WriteRAW: the path is taken
    WARNING_EMPTY_IMAGE = 257,  // the image has no pixels: only its header was dumped
};

// The calling thread's pending error code (ERROR_NONE when there is none).
TESSERA_API int GetError();
// Its message ("" when there is none).
TESSERA_API std::string GetErrorMessage();
TESSERA_API void ClearError();
// Returns the pending code and clears it.
TESSERA_API int CheckError();
// Records an error for the calling thread and returns code, so an operator
// can end with `return SetError(...)`.
TESSERA_API int SetError(int code, const std::string& message);

}  // namespace IMGLIB
