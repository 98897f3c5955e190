#include "Machine.h"

#include <nlohmann/json.hpp>

namespace installertest {

Machine::Machine() {
    fs::create_directories(home());
    fs::create_directories(bin());
    write("Applications/Vantoric Studio.app/Contents/Resources/AgentLink/vantoric-studio-skill.md", skillText);
    bridge_ = write("Applications/Vantoric Studio.app/Contents/MacOS/vantoric-studio-mcp", "#!/bin/sh\n");
    fs::permissions(bridge_, fs::perms::owner_all | fs::perms::group_exec | fs::perms::others_exec, fs::perm_options::add);
}

void Machine::installAgent(const std::string& id) {
    fs::copy_file(fs::path(VSM_FIXTURES_DIR) / "agents" / id, bin() / id, fs::copy_options::overwrite_existing);
    fs::permissions(bin() / id, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                                    fs::perms::others_read | fs::perms::others_exec);
    if (id == "opencode") {
        nlohmann::json setup = {{"configFolder", openCodeFolder().string()},
                                {"modules", (fs::path(VSM_NPM_DIR) / "node_modules").string()}};
        write("bin/opencode.setup.json", setup.dump());
    }
}

std::vector<std::string> Machine::calls(const std::string& id) const {
    std::vector<std::string> lines;
    std::istringstream in(testsupport::readFile(bin() / (id + ".calls")));
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

void Machine::script(const std::string& id, const std::string& subcommand, const std::string& reply, int status) {
    write("bin/" + id + "." + subcommand + ".reply", reply);
    write("bin/" + id + "." + subcommand + ".exit", std::to_string(status));
}

BridgeInstaller::Settings Machine::settings() const {
    BridgeInstaller::Settings settings;
    settings.serverName = "vantoric-studio";
    settings.managesSkill = true;
    settings.timeout = timeout;
    return settings;
}

Machine::Result Machine::run(const std::vector<std::string>& arguments, std::optional<fs::path> bridge) const {
    std::ostringstream out;
    int status = BridgeInstaller::run(arguments, bridge.value_or(bridge_), root() / "Applications/Vantoric Studio.app",
                                      environment(), settings(), out);
    return {status, out.str()};
}

BridgeInstaller::Agent Machine::agent(const std::string& id) const {
    for (auto& agent : BridgeInstaller::detect(environment()))
        if (agent.id == id) return agent;
    throw std::runtime_error(id + " is not installed on this machine");
}

bool systemHasAgents() {
    std::error_code ec;
    for (const char* folder : {"/opt/homebrew/bin", "/usr/local/bin"})
        for (const char* id : {"claude", "codex", "opencode"})
            if (fs::exists(fs::path(folder) / id, ec)) return true;
    return false;
}

}  // namespace installertest
