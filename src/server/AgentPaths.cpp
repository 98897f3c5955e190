#include "server/AgentPaths.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

#include "base/BridgeError.h"
#include "json/Json.h"

namespace fs = std::filesystem;

namespace server {

namespace {

std::optional<std::string> homeOf(const std::string& user) {
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd* found = nullptr;
    int rc = user.empty() ? getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found)
                          : getpwnam_r(user.c_str(), &entry, buffer.data(), buffer.size(), &found);
    if (rc != 0 || !found || !found->pw_dir) return std::nullopt;
    return std::string(found->pw_dir);
}

std::string expandingTilde(std::string_view path, const std::optional<std::string>& home) {
    if (path.empty() || path.front() != '~') return std::string(path);
    size_t slash = path.find('/');
    std::string_view user = path.substr(1, slash == std::string_view::npos ? std::string_view::npos : slash - 1);
    std::optional<std::string> folder = user.empty() ? home : homeOf(std::string(user));
    if (!folder) return std::string(path);
    return *folder + std::string(slash == std::string_view::npos ? std::string_view() : path.substr(slash));
}

bool holdsNul(const fs::path& path) { return path.native().find('\0') != std::string::npos; }

}  // namespace

AgentPaths::AgentPaths(fs::path workingDirectory, std::optional<std::string> home)
    : workingDirectory_(std::move(workingDirectory)), home_(std::move(home)) {}

std::optional<std::string> AgentPaths::homeIn(const platform::Environment& environment) {
    if (auto home = environment.find("HOME"); home != environment.end() && !home->second.empty())
        return home->second;
    return homeOf("");
}

fs::path AgentPaths::resolve(std::string_view path) const {
    std::string expanded = expandingTilde(path, home_);
    fs::path full = !expanded.empty() && expanded.front() == '/' ? fs::path(expanded) : workingDirectory_ / expanded;
    std::string text = full.lexically_normal().string();
    while (text.size() > 1 && text.back() == '/') text.pop_back();
    return fs::path(text);
}

fs::path AgentPaths::existingFile(std::string_view path) const {
    fs::path url = resolve(path);
    struct stat info {};
    // A NUL would end the path early for the system and name another file.
    if (holdsNul(url)) throw BridgeError("No file at " + displayable(url.native()) + ".");
    if (::stat(url.c_str(), &info) != 0 || S_ISDIR(info.st_mode)) throw BridgeError("No file at " + url.string() + ".");
    if (!S_ISREG(info.st_mode)) throw BridgeError("Cannot read " + url.string() + ".");
    // Opening is the one true test of readability (permissions, ACLs, a
    // file system that refuses); O_NONBLOCK keeps a pipe swapped in from
    // holding us.
    int fd = ::open(url.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) throw BridgeError("Cannot read " + url.string() + ".");
    ::close(fd);
    return url;
}

bool AgentPaths::isFolder(const fs::path& path) {
    struct stat info {};
    return !holdsNul(path) && ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool AgentPaths::occupied(const fs::path& path) {
    struct stat info {};
    return ::lstat(path.c_str(), &info) == 0;
}

bool AgentPaths::isMP4(const fs::path& path) {
    std::string extension = path.extension().string();
    if (extension.size() != 4) return false;
    for (auto& c : extension) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    return extension == ".mp4";
}

}  // namespace server
