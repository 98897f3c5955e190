#include "installer/Registration.h"

#include "installer/OpenCode.h"
#include "installer/Text.h"

namespace fs = std::filesystem;

namespace BridgeInstaller {
namespace {

bool startsWith(std::string_view text, std::string_view prefix) { return text.substr(0, prefix.size()) == prefix; }

std::string rest(std::string_view line, std::size_t skip) { return std::string(text::trimmed(line.substr(skip), false)); }

}  // namespace

std::string_view name(Registration::Kind kind) {
    switch (kind) {
        case Registration::Kind::current: return "current";
        case Registration::Kind::absent: return "absent";
        case Registration::Kind::other: return "other";
        case Registration::Kind::unknown: return "unknown";
    }
    return "unknown";
}

Registration registration(const Agent& agent, const fs::path& bridge, const Settings& settings, const System& system) {
    if (agent.id == "claude") {
        auto answer = ask(system, agent.executable, {"mcp", "get", settings.serverName}, settings.timeout);
        return claudeRegistration(answer.status, answer.output, bridge, system);
    }
    if (agent.id == "codex") {
        auto answer = ask(system, agent.executable, {"mcp", "get", settings.serverName, "--json"}, settings.timeout);
        return codexRegistration(answer.status, answer.output, bridge, system);
    }
    return openCodeScan(agent, settings, system).registration(bridge, system);
}

Registration claudeRegistration(int status, std::string_view output, const fs::path& bridge, const System& system) {
    if (status != 0) {
        if (output.find("No MCP server") != std::string_view::npos) return Registration::absent();
        return Registration::unknown(std::string(output));
    }
    std::optional<std::string> command, arguments, url;
    for (const auto& raw : text::lines(output)) {
        std::string_view line = text::trimmed(raw, false);
        if (startsWith(line, "Command:")) {
            command = rest(line, 8);
        } else if (startsWith(line, "Args:")) {
            arguments = rest(line, 5);
        } else if (startsWith(line, "URL:")) {
            url = rest(line, 4);
        }
    }
    if (command) {
        if (arguments && !arguments->empty()) return Registration::other(*command + " " + *arguments);
        if (samePath(*command, bridge, system)) return Registration::current();
        return Registration::other(*command);
    }
    if (url) return Registration::other(*url);
    return Registration::unknown(std::string(output));
}

Registration codexRegistration(int status, std::string_view output, const fs::path& bridge, const System& system) {
    if (status != 0) {
        if (output.find("No MCP server") != std::string_view::npos) return Registration::absent();
        return Registration::unknown(std::string(output));
    }
    auto answer = jsonObject(output);
    if (!answer) return Registration::unknown(std::string(output));
    auto transport = answer->find("transport");
    if (transport == answer->end() || !transport->is_object()) return Registration::unknown(std::string(output));

    if (auto command = transport->find("command"); command != transport->end() && command->is_string()) {
        std::vector<std::string> words{command->get<std::string>()};
        if (auto args = transport->find("args"); args != transport->end() && args->is_array()) {
            bool allStrings = true;
            for (const auto& arg : *args) allStrings = allStrings && arg.is_string();
            if (allStrings) {
                for (const auto& arg : *args) words.push_back(arg.get<std::string>());
            }
        }
        if (words.size() == 1 && samePath(words.front(), bridge, system)) return Registration::current();
        return Registration::other(text::joined(words, " "));
    }
    if (auto url = transport->find("url"); url != transport->end() && url->is_string()) {
        return Registration::other(url->get<std::string>());
    }
    return Registration::unknown(std::string(output));
}

std::optional<nlohmann::json> jsonObject(std::string_view output) {
    std::vector<std::string_view> candidates{output};
    if (auto start = output.find("\n{"); start != std::string_view::npos) candidates.push_back(output.substr(start + 1));
    for (auto candidate : candidates) {
        auto parsed = nlohmann::json::parse(candidate, nullptr, false);
        if (!parsed.is_discarded() && parsed.is_object()) return parsed;
    }
    return std::nullopt;
}

Answer add(const Agent& agent, const fs::path& bridge, const Settings& settings, const System& system) {
    std::vector<std::string> arguments;
    if (agent.id == "claude") {
        arguments = {"mcp", "add", "--scope", "user", settings.serverName, "--", bridge.string()};
    } else if (agent.id == "codex") {
        arguments = {"mcp", "add", settings.serverName};
        if (!settings.sessionBus.empty()) arguments.insert(arguments.end(), {"--env", "DBUS_SESSION_BUS_ADDRESS=" + settings.sessionBus});
        arguments.insert(arguments.end(), {"--", bridge.string()});
    } else {
        arguments = {"mcp", "add", "--global", settings.serverName, "--", bridge.string()};
    }
    return ask(system, agent.executable, arguments, settings.timeout);
}

Answer remove(const Agent& agent, const Settings& settings, const System& system) {
    if (agent.id == "claude") {
        return ask(system, agent.executable, {"mcp", "remove", settings.serverName, "--scope", "user"}, settings.timeout);
    }
    return ask(system, agent.executable, {"mcp", "remove", settings.serverName}, settings.timeout);
}

Outcome install(const Agent& agent, const fs::path& bridge, const SkillSource& skill, const Settings& settings,
                const System& system) {
    Outcome outcome;
    if (agent.id == "opencode") {
        outcome = installOpenCode(agent, bridge, settings, system);
    } else {
        auto found = registration(agent, bridge, settings, system);
        switch (found.kind) {
            case Registration::Kind::current:
                outcome.parts.push_back("Studio's MCP server already set up");
                break;
            case Registration::Kind::absent: {
                auto added = add(agent, bridge, settings, system);
                if (added.status == 0) {
                    outcome.parts.push_back("Studio's MCP server added");
                } else {
                    outcome.fail("could not add Studio's MCP server", added.output);
                }
                break;
            }
            case Registration::Kind::other: {
                auto removed = remove(agent, settings, system);
                if (removed.status != 0) {
                    outcome.fail("could not replace the MCP server that runs " + found.payload, removed.output);
                    break;
                }
                auto added = add(agent, bridge, settings, system);
                if (added.status == 0) {
                    outcome.parts.push_back("Studio's MCP server updated (it ran " + found.payload + ")");
                } else {
                    outcome.fail("removed the MCP server that ran " + found.payload + " but could not add this one",
                                 added.output);
                }
                break;
            }
            case Registration::Kind::unknown:
                outcome.fail("could not read its MCP servers", found.payload);
                break;
        }
    }
    if (settings.managesSkill) installSkill(agent, skill, outcome, system.files);
    return outcome;
}

Outcome uninstall(const Agent& agent, const fs::path& bridge, const Settings& settings, const System& system) {
    Outcome outcome;
    if (agent.id == "opencode") {
        outcome = uninstallOpenCode(agent, bridge, settings, system);
    } else {
        auto found = registration(agent, bridge, settings, system);
        switch (found.kind) {
            case Registration::Kind::current:
            case Registration::Kind::other: {
                // Whatever copy the entry starts, it is ours by name.
                auto removed = remove(agent, settings, system);
                if (removed.status == 0) {
                    outcome.parts.push_back("MCP server removed");
                } else {
                    outcome.fail("could not remove the MCP server", removed.output);
                }
                break;
            }
            case Registration::Kind::absent:
                outcome.parts.push_back("no MCP server to remove");
                break;
            case Registration::Kind::unknown:
                outcome.fail("could not read its MCP servers", found.payload);
                break;
        }
    }
    if (settings.managesSkill) removeSkill(agent, outcome, system.files);
    return outcome;
}

}  // namespace BridgeInstaller
