// The users of this machine as far as paths need them: each user's home
// folder from the password database, and the home folder and "~" spellings
// that paths typed by a person or written in a configuration file use. An
// interface so that tests can hand in any users; the Linux implementation
// asks the database afresh each time (reentrant calls), so any thread may
// call it.
#pragma once
#include <optional>
#include <string>
#include <string_view>

#include "platform/Environment.h"

namespace platform {

class Users {
public:
    virtual ~Users() = default;
    // The home folder the password database gives the named user, or this
    // process's own user (its real uid) when the name is empty.
    virtual std::optional<std::string> homeOf(const std::string& user) const = 0;
};

class LinuxUsers final : public Users {
public:
    std::optional<std::string> homeOf(const std::string& user) const override;
};

// The process-wide real instance.
const Users& systemUsers();

// HOME when set and not empty, else this process's user's home folder.
std::optional<std::string> homeFolder(const Environment& environment, const Users& users);

// "~" and "~/..." name the home folder (as homeFolder gives it), "~user/..."
// that user's; any other path, or one naming a user without a home, is
// returned as it is.
std::string expandingTilde(std::string_view path, const Environment& environment, const Users& users);

}  // namespace platform
