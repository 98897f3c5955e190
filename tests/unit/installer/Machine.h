// A user's machine in a temporary folder for installer tests: a home, a bin
// folder that is the whole PATH, the agent doubles of tests/fixtures/agents
// copied into it on request, and a Studio bundle with the bridge and a skill.
// The doubles keep their state and a log of their calls next to themselves,
// so tests set up and inspect an agent through files.
#pragma once
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "installer/BridgeInstaller.h"
#include "support/TempDir.h"

namespace installertest {

namespace fs = std::filesystem;

inline const std::string skillText = "# Vantoric Studio\n\nMake videos with Studio.\n";

class Machine {
public:
    Machine();

    const fs::path& root() const { return dir_.path(); }
    fs::path home() const { return root() / "home"; }
    fs::path bin() const { return root() / "bin"; }
    const fs::path& bridge() const { return bridge_; }
    fs::path openCodeFolder() const { return home() / ".config" / "opencode"; }

    // Puts the double of claude, codex or opencode on the PATH.
    void installAgent(const std::string& id);
    // Their user-level server list ("NAME\tstdio\tCOMMAND\tARGS" lines).
    void setServers(const std::string& id, const std::string& lines) { write("bin/" + id + ".servers", lines); }
    std::string servers(const std::string& id) const { return testsupport::readFile(bin() / (id + ".servers")); }
    // Every call's arguments, one line each, oldest first.
    std::vector<std::string> calls(const std::string& id) const;
    // Makes the next calls of `subcommand` print `reply` and exit with `status`.
    void script(const std::string& id, const std::string& subcommand, const std::string& reply, int status);
    fs::path write(const std::string& relative, const std::string& contents) const { return dir_.write(relative, contents); }

    // The user's environment: HOME, PATH and `variables`.
    platform::Environment environment() const {
        platform::Environment all = variables;
        all["HOME"] = home().string();
        all["PATH"] = bin().string();
        return all;
    }
    platform::Environment variables;
    BridgeInstaller::Settings settings() const;
    // Seconds an agent's program may take; shortened by tests of programs that hang.
    double timeout = 30;
    BridgeInstaller::Agent agent(const std::string& id) const;

    struct Result {
        int status;
        std::string output;
    };
    // The installer as run by the bridge at `bridge` (this machine's by default).
    Result run(const std::vector<std::string>& arguments, std::optional<fs::path> bridge = {}) const;

private:
    testsupport::TempDir dir_;
    fs::path bridge_;
};

// Whether claude, codex or opencode lie in the places detection always
// searches besides PATH; tests that need an agent to be missing skip then.
bool systemHasAgents();

// A line of a double's server list for a stdio entry.
inline std::string stdioEntry(const std::string& name, const std::string& command, const std::string& arguments = "") {
    return name + "\tstdio\t" + command + "\t" + arguments + "\n";
}

}  // namespace installertest
