#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <system_error>

#include "platform/Bundle.h"
#include "platform/CodeSigning.h"
#include "platform/RunningApplications.h"

namespace fs = std::filesystem;

namespace platform {

namespace {

// The X of a requirement that is exactly `identifier "X"`.
std::optional<std::string> bareIdentifier(const std::string& requirement) {
    constexpr std::string_view prefix = "identifier \"";
    if (requirement.size() < prefix.size() + 1 || requirement.compare(0, prefix.size(), prefix) != 0 ||
        requirement.back() != '"')
        return std::nullopt;
    std::string identifier = requirement.substr(prefix.size(), requirement.size() - prefix.size() - 1);
    if (identifier.empty() || identifier.find('"') != std::string::npos) return std::nullopt;
    return identifier;
}

// A pidfd: while it reports the process alive, the pid names that process.
class Pin {
public:
    explicit Pin(pid_t pid) : fd_(static_cast<int>(syscall(SYS_pidfd_open, pid, 0))) {}
    ~Pin() {
        if (fd_ >= 0) close(fd_);
    }
    Pin(const Pin&) = delete;
    Pin& operator=(const Pin&) = delete;
    // Readable once the process has exited (a zombie included).
    bool alive() const {
        if (fd_ < 0) return false;
        pollfd p{fd_, POLLIN, 0};
        return poll(&p, 1, 0) == 0;
    }

private:
    int fd_;
};

bool runsAsUs(const fs::path& proc, pid_t pid, bool unhindered) {
    auto status = processStatus(proc, pid);
    return status && status->realUid == getuid() && !(unhindered && status->stoppedOrTraced);
}

}  // namespace

bool LinuxCodeSigning::satisfies(pid_t pid, const std::string& requirement) const {
    return check(pid, requirement, false);
}

bool LinuxCodeSigning::validNow(pid_t pid, const std::string& requirement) const {
    return check(pid, requirement, true);
}

bool LinuxCodeSigning::check(pid_t pid, const std::string& requirement, bool unhindered) const {
    auto identifier = bareIdentifier(requirement);
    if (!identifier) return false;
    Pin pin(pid);
    if (!pin.alive() || !runsAsUs(proc_, pid, unhindered)) return false;
    std::error_code ec;
    fs::path link = fs::read_symlink(proc_ / std::to_string(pid) / "exe", ec);
    if (ec) return false;
    auto bundle = bundleOfExecutable(link.string(), bundles_);
    if (!bundle || bundle->replaced || bundle->identifier != *identifier) return false;
    // Checked again after reading: stopped or traced meanwhile, or gone.
    return runsAsUs(proc_, pid, unhindered) && pin.alive();
}

const CodeSigning& systemCodeSigning() {
    static const auto* signing = new LinuxCodeSigning(systemBundles());
    return *signing;
}

}  // namespace platform
