// Who this program is: where its own executable lies (/proc/self/exe;
// nothing when the kernel does not say, no /proc mounted), and the user it
// runs as (its real uid).
#pragma once
#include <sys/types.h>

#include <filesystem>
#include <optional>

namespace platform {

std::optional<std::filesystem::path> ownExecutable();
uid_t ownUser();

}  // namespace platform
