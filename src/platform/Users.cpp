#include "platform/Users.h"

namespace platform {

std::optional<std::string> homeFolder(const Environment& environment, const Users& users) {
    if (auto home = nonEmpty(environment, "HOME")) return home;
    return users.homeOf("");
}

std::string expandingTilde(std::string_view path, const Environment& environment, const Users& users) {
    if (path.empty() || path.front() != '~') return std::string(path);
    auto slash = path.find('/');
    std::string_view user = path.substr(1, slash == std::string_view::npos ? std::string_view::npos : slash - 1);
    auto home = user.empty() ? homeFolder(environment, users) : users.homeOf(std::string(user));
    if (!home) return std::string(path);
    return *home + std::string(slash == std::string_view::npos ? std::string_view() : path.substr(slash));
}

}  // namespace platform
