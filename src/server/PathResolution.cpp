#include "server/PathResolution.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

namespace fs = std::filesystem;

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

}  // namespace

fs::path PathResolution::resolve(std::string_view path, const fs::path& workingDirectory,
                                 const std::optional<std::string>& home) {
    std::string expanded = expandingTilde(path, home);
    fs::path full = !expanded.empty() && expanded.front() == '/' ? fs::path(expanded) : workingDirectory / expanded;
    fs::path normal = full.lexically_normal();
    std::string text = normal.string();
    while (text.size() > 1 && text.back() == '/') text.pop_back();
    return fs::path(text);
}

std::optional<std::string> PathResolution::homeFolder() {
    if (const char* home = std::getenv("HOME"); home && *home) return std::string(home);
    return homeOf("");
}

bool PathResolution::isMP4(const fs::path& path) {
    std::string extension = path.extension().string();
    if (extension.size() != 4) return false;
    for (auto& c : extension) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    return extension == ".mp4";
}
