// Finding the coding agents installed for this user: each agent's program on
// the search path and the folders in which it keeps skills and (OpenCode
// only) the configuration the installer edits. Also whether a command an
// agent is configured with starts this very bridge. Detection reads the
// environment and the files of the System it is given; nothing is kept
// between calls.
#pragma once
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "installer/System.h"

namespace BridgeInstaller {

struct Agent {
    std::string id;     // "claude", "codex" or "opencode"
    std::string title;  // "Claude Code", "Codex" or "OpenCode"
    std::filesystem::path executable;
    std::filesystem::path skillsFolder;
    std::optional<std::filesystem::path> configFolder;  // only OpenCode's files are edited by the installer
};

// The agents whose program is found, at most one per identifier, in the
// order claude, codex, opencode.
std::vector<Agent> detect(const System& system);

// Whether a path written in an agent's configuration ("~" allowed) and the
// given file name the same file, after resolving symbolic links and "." and
// ".." components. Nothing needs to exist.
bool samePath(std::string_view path, const std::filesystem::path& file, const System& system);

// Whether the command is exactly one word and that word is the bridge: a
// command with arguments, or one that runs the bridge through another
// program, is some other server.
bool launches(const std::optional<std::vector<std::string>>& command, const std::filesystem::path& bridge,
              const System& system);

}  // namespace BridgeInstaller
