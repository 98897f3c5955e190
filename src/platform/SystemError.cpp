#include "platform/SystemError.h"

#include <cstring>

namespace platform {

SystemError SystemError::fromErrno(int code, const std::string& what) {
    if (code == 0) return {0, what};
    char buffer[256];
    // The GNU strerror_r returns the text, not always in the buffer.
    const char* text = strerror_r(code, buffer, sizeof buffer);
    return {code, what + ": " + text};
}

}  // namespace platform
