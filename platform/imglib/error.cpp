#include "imglib/error.h"

namespace IMGLIB {
namespace {

struct ThreadError {
    int code = ERROR_NONE;
    std::string message;
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
    threadError().message.clear();
}

int CheckError() {
    const int code = threadError().code;
    ClearError();
    return code;
}

int SetError(int code, const std::string& message) {
    threadError().code = code;
    threadError().message = message;
    return code;
}

}  // namespace IMGLIB
