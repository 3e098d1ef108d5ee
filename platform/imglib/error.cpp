#include "imglib/error.h"

#include <algorithm>
#include <cstring>

namespace IMGLIB {
namespace {

// Trivially destructible, so a thread's exit runs no destructor for it
// (pool threads come and go; a destructor would run after the thread has
// finished and race, as far as ThreadSanitizer can tell, with the reuse of
// the thread's storage). Messages longer than the buffer are cut.
struct ThreadError {
    int code = ERROR_NONE;
    char message[1024] = {};
};

ThreadError& threadError() {
    thread_local ThreadError error;
    return error;
}

}  // namespace

int GetError() {
    return threadError().code;
}

std::string GetErrorMessage() {
    return threadError().message;
}

void ClearError() {
    threadError().code = ERROR_NONE;
    threadError().message[0] = '\0';
}

int CheckError() {
    const int code = threadError().code;
    ClearError();
    return code;
}

int SetError(int code, const std::string& message) {
    ThreadError& error = threadError();
    error.code = code;
    const size_t length = std::min(message.size(), sizeof error.message - 1);
    std::memcpy(error.message, message.data(), length);
    error.message[length] = '\0';
    return code;
}

}  // namespace IMGLIB
