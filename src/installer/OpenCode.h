// OpenCode's MCP servers live in its own configuration files, JSON with
// comments and trailing commas that users also edit by hand. The installer
// reads those files itself, lets OpenCode's program add a missing entry, and
// changes or removes an existing one by editing the file in place, touching
// only the bytes of that entry, so comments, order and formatting survive.
// Synchronous; a file is either left as it was or replaced whole, and a file
// that cannot be changed is a BridgeError saying why.
#pragma once
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/BridgeError.h"
#include "installer/Detection.h"
#include "installer/Outcome.h"
#include "installer/Registration.h"
#include "installer/Settings.h"

namespace BridgeInstaller {

// One member named after the bridge in one file.
struct OpenCodeEntry {
    std::filesystem::path file;
    std::vector<std::string> path;                    // "mcp" › "servers" › name, or "mcp" › name
    std::optional<std::vector<std::string>> command;  // the "command" array of strings, if there is one

    bool operator==(const OpenCodeEntry&) const = default;
};

struct OpenCodeScan {
    std::vector<OpenCodeEntry> entries;              // file by file, then key path by key path
    std::vector<std::filesystem::path> unreadable;  // unreadable, or unparsable while naming the server

    Registration registration(const std::filesystem::path& bridge, const System& system) const;
};

// opencode.json, then opencode.jsonc, in the agent's configuration folder;
// only those that exist.
std::vector<std::filesystem::path> openCodeConfigs(const Agent& agent, const platform::Files& files);
OpenCodeScan openCodeScan(const Agent& agent, const Settings& settings, const System& system);
// The entries in one file's text; nothing when it is not JSONC we can read.
std::optional<std::vector<OpenCodeEntry>> openCodeEntries(std::string_view text, const std::filesystem::path& file,
                                                          const std::string& serverName);

// Applies an edit to the file a link (if any) points at, keeping its
// permissions. Nothing on success, else why the file was not changed. The
// edit gives the new text, or nothing when it cannot be made safely.
using ConfigEdit = std::function<std::optional<std::string>(const std::string& text)>;
std::optional<BridgeError> editConfig(const std::filesystem::path& file, const ConfigEdit& edit, platform::Files& files);

// The MCP part of OpenCode's install and uninstall steps.
Outcome installOpenCode(const Agent& agent, const std::filesystem::path& bridge, const Settings& settings,
                        const System& system);
Outcome uninstallOpenCode(const Agent& agent, const std::filesystem::path& bridge, const Settings& settings,
                          const System& system);

}  // namespace BridgeInstaller
