// Where this program's own executable lies: /proc/self/exe. Nothing when the
// kernel does not say (no /proc mounted).
#pragma once
#include <filesystem>
#include <optional>

namespace platform {

std::optional<std::filesystem::path> ownExecutable();

}  // namespace platform
