// The bridge's entry in one agent's list of MCP servers, and the steps that
// install and remove it. Claude Code and Codex keep that list themselves:
// the installer only runs their "mcp" subcommands and reads what they print.
// OpenCode's files are read and edited by OpenCode.h; the skill work that
// follows every agent's MCP step is Skill.h's. Synchronous, one agent's
// commands one after the other, on the calling thread.
#pragma once
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "installer/Detection.h"
#include "installer/Outcome.h"
#include "installer/Answer.h"
#include "installer/Settings.h"
#include "installer/Skill.h"

namespace BridgeInstaller {

// What the installer knows about the entry named after the bridge.
struct Registration {
    enum class Kind { other, unknown, absent, current };

    Kind kind = Kind::absent;
    // other: the command the entry starts, as one line; unknown: the agent's
    // whole answer, or why a file could not be read.
    std::string payload;

    static Registration other(std::string command) { return {Kind::other, std::move(command)}; }
    static Registration unknown(std::string reason) { return {Kind::unknown, std::move(reason)}; }
    static Registration absent() { return {Kind::absent, {}}; }
    static Registration current() { return {Kind::current, {}}; }

    bool operator==(const Registration&) const = default;
};

// "current", "absent", "other" or "unknown".
std::string_view name(Registration::Kind kind);

// Asks the agent: Claude Code and Codex through their programs, OpenCode by
// reading its configuration files.
Registration registration(const Agent& agent, const std::filesystem::path& bridge, const Settings& settings,
                          const System& system);

// The readers of `claude mcp get NAME` and `codex mcp get NAME --json`; the
// system's files and users say whether a command names the bridge.
Registration claudeRegistration(int status, std::string_view output, const std::filesystem::path& bridge,
                                const System& system);
Registration codexRegistration(int status, std::string_view output, const std::filesystem::path& bridge,
                               const System& system);

// The first JSON object in a program's answer: the whole text, or the text
// from the first "{" that starts a line, so that warnings printed before the
// answer do not hide it.
std::optional<nlohmann::json> jsonObject(std::string_view output);

// The agent's own add and remove commands for the bridge's entry.
Answer add(const Agent& agent, const std::filesystem::path& bridge, const Settings& settings, const System& system);
Answer remove(const Agent& agent, const Settings& settings, const System& system);

// The whole `install` and `uninstall` step for one agent: its MCP entry, then
// its skill (unless the bridge serves the subject build).
Outcome install(const Agent& agent, const std::filesystem::path& bridge, const SkillSource& skill,
                const Settings& settings, const System& system);
Outcome uninstall(const Agent& agent, const std::filesystem::path& bridge, const Settings& settings,
                  const System& system);

}  // namespace BridgeInstaller
