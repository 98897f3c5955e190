#include "installer/BridgeInstaller.h"

#include <algorithm>
#include <iostream>
#include <set>

#include <nlohmann/json.hpp>

#include "installer/Skill.h"
#include "installer/Text.h"

namespace fs = std::filesystem;

namespace BridgeInstaller {
namespace {

constexpr std::string_view usage =
    "Usage: vantoric-studio-mcp install | status [--json] | uninstall [claude] [codex] [opencode]";

bool isCommand(const std::string& word) { return word == "install" || word == "status" || word == "uninstall"; }

bool isAgentID(const std::string& word) {
    return std::find(agentIDs.begin(), agentIDs.end(), word) != agentIDs.end();
}

}  // namespace

int run(const std::vector<std::string>& arguments, const fs::path& bridge, const std::optional<fs::path>& app,
        const platform::Environment& environment) {
    platform::LinuxCommandRunner commands(environment);
    System system{platform::systemFiles(), commands, platform::systemUsers(), environment};
    int status = run(arguments, bridge, app, system, Settings::current(environment), std::cout);
    std::cout.flush();
    return status;
}

int run(const std::vector<std::string>& arguments, const fs::path& bridge, const std::optional<fs::path>& app,
        const System& system, const Settings& given, std::ostream& out) {
    Settings settings = given;
    const auto& environment = system.environment;
    if (auto bus = environment.find("DBUS_SESSION_BUS_ADDRESS"); bus != environment.end()) settings.sessionBus = bus->second;
    if (arguments.empty() || !isCommand(arguments.front())) {
        out << usage << '\n';
        return 2;
    }
    const std::string& command = arguments.front();
    bool json = command == "status" && std::find(arguments.begin(), arguments.end(), "--json") != arguments.end();

    std::set<std::string> wanted;
    for (std::size_t i = 1; i < arguments.size(); ++i) {
        if (arguments[i] == "--json") continue;
        std::string word = text::lowercased(arguments[i]);
        if (!isAgentID(word)) {
            out << "Unknown agent \"" << word << "\": choose claude, codex or opencode.\n" << usage << '\n';
            return 2;
        }
        wanted.insert(word);
    }

    if (command == "install" && isTransientLocation(bridge)) {
        out << "This copy of Vantoric Studio runs from a temporary location:\n  " << bridge.string() << '\n';
        out << "Move Vantoric Studio to Applications first, then run this again.\n";
        return 1;
    }

    std::vector<Agent> selected;
    for (auto& agent : detect(system)) {
        if (wanted.empty() || wanted.count(agent.id)) selected.push_back(std::move(agent));
    }

    if (json) {
        std::vector<StatusEntry> entries;
        for (const auto& agent : selected) {
            entries.push_back({agent.id, agent.title, registration(agent, bridge, settings, system)});
        }
        out << statusJSON(entries, bridge) << '\n';
        return 0;
    }

    bool failed = false;
    for (std::string_view id : agentIDs) {
        bool found = std::any_of(selected.begin(), selected.end(), [&](const Agent& agent) { return agent.id == id; });
        if (wanted.count(std::string(id)) && !found) {
            out << title(id) << ": not found on your PATH.\n";
            failed = true;
        }
    }

    if (selected.empty()) {
        if (wanted.empty()) out << "No coding agent found on your PATH (looked for claude, codex and opencode).\n";
        out << "Add Studio by hand with this command as a stdio MCP server:\n  " << bridge.string() << '\n';
        return 1;
    }

    auto skill = skillSource(app, system.files);
    bool adviceDue = false;
    for (const auto& agent : selected) {
        Outcome outcome;
        if (command == "install") {
            outcome = install(agent, bridge, skill, settings, system);
        } else if (command == "uninstall") {
            outcome = uninstall(agent, bridge, settings, system);
        } else {
            outcome = report(agent, bridge, settings, system);
        }
        outcome.print(agent.title, out);
        out.flush();  // agents can take seconds each; show progress as it comes
        if (!outcome.succeeded) failed = true;
        if (command == "install" && outcome.succeeded) adviceDue = true;
    }

    if (adviceDue) {
        out << "\nStart a new session in your agent and ask it to make a demo video with Vantoric Studio.\n";
        out << "The first time, Studio asks you once to allow the agent.\n";
    }
    return failed ? 1 : 0;
}

bool isTransientLocation(const fs::path& path) {
    for (const auto& component : path) {
        if (component == "AppTranslocation") return true;
    }
    return path.string().rfind("/Volumes/", 0) == 0;
}

std::string statusJSON(const std::vector<StatusEntry>& entries, const fs::path& bridge) {
    try {
        // nlohmann::json keeps object members sorted by key and writes no
        // white space; it never escapes slashes, so that is done after.
        auto agents = nlohmann::json::array();
        for (const auto& entry : entries) {
            std::string detail;
            if (entry.registration.kind == Registration::Kind::other) detail = entry.registration.payload;
            if (entry.registration.kind == Registration::Kind::unknown) {
                detail = text::prefixCharacters(entry.registration.payload, 400);
            }
            agents.push_back({{"id", entry.id},
                              {"title", entry.title},
                              {"registration", std::string(name(entry.registration.kind))},
                              {"detail", detail}});
        }
        nlohmann::json report = {{"bridge", bridge.string()}, {"agents", agents}};
        std::string written = report.dump();
        // A slash only ever appears inside a string, where "\/" means the same.
        std::string escaped;
        escaped.reserve(written.size() + 16);
        for (char c : written) {
            if (c == '/') escaped += '\\';
            escaped += c;
        }
        return escaped;
    } catch (const nlohmann::json::exception&) {
        return "{}";
    }
}

Outcome report(const Agent& agent, const fs::path& bridge, const Settings& settings, const System& system) {
    Outcome outcome;
    auto found = registration(agent, bridge, settings, system);
    switch (found.kind) {
        case Registration::Kind::current:
            outcome.parts.push_back("MCP server added");
            break;
        case Registration::Kind::absent:
            outcome.parts.push_back("MCP server not added");
            break;
        case Registration::Kind::other:
            outcome.parts.push_back("MCP server added but it runs another copy");
            outcome.details.push_back("    It runs " + found.payload +
                                      "; `vantoric-studio-mcp install` points it at this one.");
            break;
        case Registration::Kind::unknown:
            outcome.parts.push_back("MCP server unknown");
            for (auto& line : indented(found.payload)) outcome.details.push_back(std::move(line));
            outcome.succeeded = false;
            break;
    }
    if (settings.managesSkill) reportSkill(agent, outcome, system.files);
    return outcome;
}

}  // namespace BridgeInstaller
