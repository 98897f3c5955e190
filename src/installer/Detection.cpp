#include "installer/Detection.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <system_error>

#include "installer/Outcome.h"
#include "installer/Text.h"

namespace fs = std::filesystem;

namespace BridgeInstaller {
namespace {

std::optional<std::string> passwordHome(uid_t uid) {
    if (auto* entry = getpwuid(uid); entry && entry->pw_dir) return std::string(entry->pw_dir);
    return std::nullopt;
}

// The folder of an agent: the variable's value as it stands when set, else
// the default below home.
fs::path baseFolder(const platform::Environment& environment, const std::string& variable, const fs::path& fallback) {
    if (auto value = platform::nonEmpty(environment, variable)) return fs::path(*value);
    return fallback;
}

bool isExecutableFile(const fs::path& path) {
    std::error_code ec;
    if (!fs::is_regular_file(path, ec)) return false;
    return access(path.c_str(), X_OK) == 0;
}

std::optional<fs::path> find(const std::string& program, const std::vector<fs::path>& searchPath) {
    for (const auto& folder : searchPath) {
        fs::path candidate = folder / program;
        if (isExecutableFile(candidate)) return candidate;
    }
    return std::nullopt;
}

// "~" and "~/..." name the home folder, "~user/..." that user's.
std::string expandingTilde(std::string_view path) {
    if (path.empty() || path.front() != '~') return std::string(path);
    auto slash = path.find('/');
    std::string_view user = path.substr(1, slash == std::string_view::npos ? std::string_view::npos : slash - 1);
    std::optional<std::string> home;
    if (user.empty()) {
        if (const char* value = std::getenv("HOME"); value && *value) {
            home = value;
        } else {
            home = passwordHome(getuid());
        }
    } else if (auto* entry = getpwnam(std::string(user).c_str()); entry && entry->pw_dir) {
        home = entry->pw_dir;
    }
    if (!home) return std::string(path);
    return *home + std::string(slash == std::string_view::npos ? std::string_view() : path.substr(slash));
}

// Absolute, symbolic links resolved as far as the path exists, no "." or
// "..", no trailing slash; composed so that canonically equivalent spellings
// come out the same.
std::string canonicalSpelling(const fs::path& path) {
    std::error_code ec;
    fs::path resolved = fs::weakly_canonical(path, ec);
    if (ec) resolved = fs::absolute(path, ec).lexically_normal();
    std::string spelled = resolved.string();
    while (spelled.size() > 1 && spelled.back() == '/') spelled.pop_back();
    return text::normalized(spelled);
}

}  // namespace

fs::path homeFolder(const platform::Environment& environment) {
    if (auto value = platform::nonEmpty(environment, "HOME")) return fs::path(*value);
    return fs::path(passwordHome(getuid()).value_or("/"));
}

std::vector<Agent> detect(const platform::Environment& environment) {
    fs::path home = homeFolder(environment);

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
        auto executable = find(program, searchPath);
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

bool samePath(std::string_view path, const fs::path& file) {
    return canonicalSpelling(fs::path(expandingTilde(path))) == canonicalSpelling(file);
}

bool launches(const std::optional<std::vector<std::string>>& command, const fs::path& bridge) {
    if (!command || command->size() != 1) return false;
    return samePath(command->front(), bridge);
}

}  // namespace BridgeInstaller
