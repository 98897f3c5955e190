#include "Machine.h"

#include <fstream>

#include <nlohmann/json.hpp>

namespace installertest {

Machine::Machine() {
    home_ = dir_.path() / "home";
    bin_ = dir_.path() / "bin";
    fs::create_directories(home_);
    fs::create_directories(bin_);
    app_ = dir_.path() / "Applications" / "Vantoric Studio.app";
    dir_.write("Applications/Vantoric Studio.app/Contents/Resources/AgentLink/vantoric-studio-skill.md", skillText);
    bridge_ = dir_.write("Applications/Vantoric Studio.app/Contents/MacOS/vantoric-studio-mcp", "#!/bin/sh\n");
    fs::permissions(bridge_, fs::perms::owner_all | fs::perms::group_exec | fs::perms::others_exec,
                    fs::perm_options::add);
}

void Machine::installAgent(const std::string& id) {
    fs::copy_file(fs::path(VSM_FIXTURES_DIR) / "agents" / id, bin_ / id, fs::copy_options::overwrite_existing);
    fs::permissions(bin_ / id, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                                   fs::perms::others_read | fs::perms::others_exec);
    if (id == "opencode") {
        nlohmann::json setup = {{"configFolder", openCodeFolder().string()},
                                {"modules", (fs::path(VSM_NPM_DIR) / "node_modules").string()}};
        dir_.write("bin/opencode.setup.json", setup.dump());
    }
}

void Machine::setServers(const std::string& id, const std::string& lines) { dir_.write("bin/" + id + ".servers", lines); }

std::string Machine::servers(const std::string& id) const { return testsupport::readFile(bin_ / (id + ".servers")); }

std::vector<std::string> Machine::calls(const std::string& id) const {
    std::vector<std::string> lines;
    std::istringstream in(testsupport::readFile(bin_ / (id + ".calls")));
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

void Machine::script(const std::string& id, const std::string& subcommand, const std::string& reply, int status) {
    dir_.write("bin/" + id + "." + subcommand + ".reply", reply);
    dir_.write("bin/" + id + "." + subcommand + ".exit", std::to_string(status));
}

platform::Environment Machine::environment() const { return {{"HOME", home_.string()}, {"PATH", bin_.string()}}; }

BridgeInstaller::Settings Machine::settings(bool subject) const {
    BridgeInstaller::Settings settings;
    settings.serverName = subject ? "studio-subject" : "vantoric-studio";
    settings.managesSkill = !subject;
    settings.timeout = 30;
    return settings;
}

Machine::Result Machine::run(const std::vector<std::string>& arguments, bool subject) const {
    std::ostringstream out;
    int status = BridgeInstaller::run(arguments, bridge_, app_, environment(), settings(subject), out);
    return {status, out.str()};
}

Machine::Result Machine::run(const std::vector<std::string>& arguments, const fs::path& bridge) const {
    std::ostringstream out;
    int status = BridgeInstaller::run(arguments, bridge, app_, environment(), settings(), out);
    return {status, out.str()};
}

BridgeInstaller::Agent Machine::agent(const std::string& id) const {
    for (auto& agent : BridgeInstaller::detect(environment())) {
        if (agent.id == id) return agent;
    }
    throw std::runtime_error(id + " is not installed on this machine");
}

bool systemHasAgents() {
    for (const char* folder : {"/opt/homebrew/bin", "/usr/local/bin"}) {
        for (const char* id : {"claude", "codex", "opencode"}) {
            std::error_code ec;
            if (fs::exists(fs::path(folder) / id, ec)) return true;
        }
    }
    return false;
}

std::string stdioEntry(const std::string& name, const std::string& command, const std::string& arguments) {
    return name + "\tstdio\t" + command + "\t" + arguments + "\n";
}

}  // namespace installertest
