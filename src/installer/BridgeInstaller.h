// The installer: `install`, `status [--json]` and `uninstall`, optionally
// limited to some agents. It parses the command line, refuses to install
// from a temporary location, detects the agents, runs one step per selected
// agent (Registration.h, OpenCode.h, Skill.h), prints what happened and
// returns the exit status. Synchronous; runs on the calling thread, one
// agent's programs at a time, prints only to the stream it is given, and
// touches the machine only through the System it is given.
#pragma once
#include <filesystem>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "installer/Detection.h"
#include "installer/Outcome.h"
#include "installer/Registration.h"
#include "installer/Settings.h"
#include "installer/System.h"
#include "platform/Environment.h"

namespace BridgeInstaller {

// arguments: the command line without the program name; bridge: this tool's
// own executable with symbolic links resolved; app: the located Studio
// bundle; environment: the one main captured. Runs against this machine's
// real files, programs and users and prints to standard output. Returns the
// process exit status: 0 all done, 1 something failed or a wanted agent is
// missing, 2 a bad command line.
int run(const std::vector<std::string>& arguments, const std::filesystem::path& bridge,
        const std::optional<std::filesystem::path>& app, const platform::Environment& environment);

// The same with the machine, the build's values and the output given explicitly.
int run(const std::vector<std::string>& arguments, const std::filesystem::path& bridge,
        const std::optional<std::filesystem::path>& app, const System& system, const Settings& settings,
        std::ostream& out);

// A copy started from a disk image or moved aside by the system's quarantine
// would register a path that soon vanishes.
bool isTransientLocation(const std::filesystem::path& path);

// One agent in `status --json`.
struct StatusEntry {
    std::string id;
    std::string title;
    Registration registration;
};

// {"agents":[{"detail":…,"id":…,"registration":…,"title":…}],"bridge":…}:
// keys sorted, no white space, every slash written "\/".
std::string statusJSON(const std::vector<StatusEntry>& entries, const std::filesystem::path& bridge);

// The `status` step for one agent.
Outcome report(const Agent& agent, const std::filesystem::path& bridge, const Settings& settings,
               const System& system);

}  // namespace BridgeInstaller
