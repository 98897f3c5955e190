#include "server/AgentPaths.h"


#include "base/BridgeError.h"
#include "json/Json.h"

namespace fs = std::filesystem;

namespace server {

namespace {

std::string expandingTilde(std::string_view path, const std::optional<std::string>& home,
                           const platform::Users& users) {
    if (path.empty() || path.front() != '~') return std::string(path);
    size_t slash = path.find('/');
    std::string_view user = path.substr(1, slash == std::string_view::npos ? std::string_view::npos : slash - 1);
    std::optional<std::string> folder = user.empty() ? home : users.homeOf(std::string(user));
    if (!folder) return std::string(path);
    return *folder + std::string(slash == std::string_view::npos ? std::string_view() : path.substr(slash));
}

bool holdsNul(const fs::path& path) { return path.native().find('\0') != std::string::npos; }

}  // namespace

AgentPaths::AgentPaths(fs::path workingDirectory, std::optional<std::string> home, const platform::Users& users,
                       const platform::Files& files)
    : workingDirectory_(std::move(workingDirectory)), home_(std::move(home)), users_(users), files_(files) {}

fs::path AgentPaths::resolve(std::string_view path) const {
    std::string expanded = expandingTilde(path, home_, users_);
    fs::path full = !expanded.empty() && expanded.front() == '/' ? fs::path(expanded) : workingDirectory_ / expanded;
    std::string text = full.lexically_normal().string();
    while (text.size() > 1 && text.back() == '/') text.pop_back();
    return fs::path(text);
}

fs::path AgentPaths::existingFile(std::string_view path) const {
    fs::path url = resolve(path);
    // A NUL would end the path early for the system and name another file.
    if (holdsNul(url)) throw BridgeError("No file at " + displayable(url.native()) + ".");
    auto kind = files_.status(url).kind;
    if (kind == platform::FileKind::missing || kind == platform::FileKind::unknown || kind == platform::FileKind::folder)
        throw BridgeError("No file at " + url.string() + ".");
    if (kind != platform::FileKind::file) throw BridgeError("Cannot read " + url.string() + ".");
    if (!files_.readable(url)) throw BridgeError("Cannot read " + url.string() + ".");
    return url;
}

bool AgentPaths::isFolder(const fs::path& path) const {
    return !holdsNul(path) && files_.status(path).kind == platform::FileKind::folder;
}

bool AgentPaths::occupied(const fs::path& path) const { return files_.linkStatus(path).exists(); }

bool AgentPaths::isMP4(const fs::path& path) {
    std::string extension = path.extension().string();
    if (extension.size() != 4) return false;
    for (auto& c : extension) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    return extension == ".mp4";
}

}  // namespace server
