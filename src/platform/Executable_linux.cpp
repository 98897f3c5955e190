#include <unistd.h>

#include <system_error>

#include "platform/Executable.h"

namespace platform {

std::optional<std::filesystem::path> ownExecutable() {
    std::error_code ec;
    auto target = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (ec || target.empty()) return std::nullopt;
    return target;
}

uid_t ownUser() { return getuid(); }

}  // namespace platform
