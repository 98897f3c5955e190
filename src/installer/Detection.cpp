#include "installer/Detection.h"

#include "installer/Outcome.h"
#include "installer/Text.h"

namespace fs = std::filesystem;

namespace BridgeInstaller {
namespace {

// The folder of an agent: the variable's value as it stands when set, else
// the default below home.
fs::path baseFolder(const platform::Environment& environment, const std::string& variable, const fs::path& fallback) {
    if (auto value = platform::nonEmpty(environment, variable)) return fs::path(*value);
    return fallback;
}

std::optional<fs::path> find(const std::string& program, const std::vector<fs::path>& searchPath,
                             const platform::Files& files) {
    for (const auto& folder : searchPath) {
        fs::path candidate = folder / program;
        if (files.isExecutable(candidate)) return candidate;
    }
    return std::nullopt;
}

// Symbolic links resolved as far as the path exists, no "." or "..", no
// trailing slash; composed so that canonically equivalent spellings come out
// the same.
std::string canonicalSpelling(const fs::path& path, const platform::Files& files) {
    std::string spelled = files.resolved(path).string();
    while (spelled.size() > 1 && spelled.back() == '/') spelled.pop_back();
    return text::normalized(spelled);
}

}  // namespace

std::vector<Agent> detect(const System& system) {
    const auto& environment = system.environment;
    fs::path home = platform::homeFolder(environment, system.users).value_or("/");

    std::vector<fs::path> searchPath;
    if (auto it = environment.find("PATH"); it != environment.end()) {
        std::string_view rest = it->second;
        while (true) {
            auto colon = rest.find(':');
            auto piece = rest.substr(0, colon);
            if (!piece.empty()) searchPath.emplace_back(std::string(piece));
            if (colon == std::string_view::npos) break;
            rest.remove_prefix(colon + 1);
        }
    }
    // Where installers put these programs even when the PATH of the shell
    // that started us does not say so.
    searchPath.push_back(home / ".local/bin");
    searchPath.push_back("/opt/homebrew/bin");
    searchPath.push_back("/usr/local/bin");

    std::vector<Agent> agents;
    for (std::string_view id : agentIDs) {
        std::string program(id);
        auto executable = find(program, searchPath, system.files);
        if (!executable) continue;
        Agent agent{program, title(id), *executable, {}, std::nullopt};
        if (id == "claude") {
            agent.skillsFolder = baseFolder(environment, "CLAUDE_CONFIG_DIR", home / ".claude") / "skills";
        } else if (id == "codex") {
            agent.skillsFolder = baseFolder(environment, "CODEX_HOME", home / ".codex") / "skills";
        } else {
            fs::path base = baseFolder(environment, "XDG_CONFIG_HOME", home / ".config") / "opencode";
            agent.skillsFolder = base / "skills";
            agent.configFolder = base;
        }
        agents.push_back(std::move(agent));
    }
    return agents;
}

bool samePath(std::string_view path, const fs::path& file, const System& system) {
    fs::path expanded = platform::expandingTilde(path, system.environment, system.users);
    return canonicalSpelling(expanded, system.files) == canonicalSpelling(file, system.files);
}

bool launches(const std::optional<std::vector<std::string>>& command, const fs::path& bridge, const System& system) {
    if (!command || command->size() != 1) return false;
    return samePath(command->front(), bridge, system);
}

}  // namespace BridgeInstaller
