// A failure at the OS boundary, as a value: the errno (0 when the failure has
// none) and a sentence saying what failed, naming the path or service. The
// layers above turn it into their own messages; nothing here throws.
#pragma once
#include <string>

namespace platform {

struct SystemError {
    int code = 0;
    std::string description;

    // "<what>: <strerror(code)>", or just <what> when code is 0.
    static SystemError fromErrno(int code, const std::string& what);
};

}  // namespace platform
