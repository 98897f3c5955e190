// The installer: `install`, `status [--json]` and `uninstall`, optionally
// limited to some agents. Synchronous; runs on the calling thread and prints
// only to standard output.
#pragma once
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "platform/Environment.h"

namespace BridgeInstaller {

// arguments: the command line without the program name; bridge: this tool's
// own executable with symbolic links resolved; app: the located Studio
// bundle. Returns the process exit status: 0 all done, 1 something failed or a
// wanted agent is missing, 2 a bad command line.
int run(const std::vector<std::string>& arguments, const std::filesystem::path& bridge,
        const std::optional<std::filesystem::path>& app, const platform::Environment& environment);

}  // namespace BridgeInstaller
