#include "platform/Log.h"

#include <unistd.h>

#include <cerrno>
#include <string>

namespace platform {

void log(std::string_view message) {
    std::string line = "vantoric-studio-mcp: ";
    line.append(message);
    line.push_back('\n');
    size_t done = 0;
    while (done < line.size()) {
        ssize_t n = ::write(STDERR_FILENO, line.data() + done, line.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        done += static_cast<size_t>(n);
    }
}

}  // namespace platform
