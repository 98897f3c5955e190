#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "platform/Users.h"

namespace platform {

std::optional<std::string> LinuxUsers::homeOf(const std::string& user) const {
    // The entry's strings live in the buffer; a database with long entries
    // (a directory service) asks for a larger one.
    for (std::size_t size = 16384; size <= 1024 * 1024; size *= 4) {
        std::vector<char> buffer(size);
        passwd entry{};
        passwd* found = nullptr;
        int rc = user.empty() ? getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found)
                              : getpwnam_r(user.c_str(), &entry, buffer.data(), buffer.size(), &found);
        if (rc == ERANGE) continue;
        if (rc != 0 || !found || !found->pw_dir) return std::nullopt;
        return std::string(found->pw_dir);
    }
    return std::nullopt;
}

const Users& systemUsers() {
    static const LinuxUsers users;
    return users;
}

}  // namespace platform
