// Code signing: whether a running process's code satisfies a requirement
// written in the requirement language (`identifier "X"`, optionally followed
// by a clause naming the signing team), and the team that signed this
// program. Stateless; any thread.
#pragma once
#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>

namespace platform {

class Bundles;

class CodeSigning {
public:
    virtual ~CodeSigning() = default;
    virtual bool satisfies(pid_t pid, const std::string& requirement) const = 0;
    // satisfies(), and the code running in the process now is its own, as a
    // dynamic validity check asks: for whom the process works right now.
    virtual bool validNow(pid_t pid, const std::string& requirement) const = 0;
    virtual std::optional<std::string> ownTeam() const = 0;
};

// Linux has no system code signing, so there is no team: ownTeam() is always
// absent, and the only requirement that can hold is the bare
// `identifier "X"`. It holds when the process runs as this user (real uid),
// its executable is the main executable of a bundle whose CFBundleIdentifier
// is X and has not been replaced on disk since the process started
// (/proc/PID/exe does not end in " (deleted)"). validNow() also wants it
// neither stopped nor traced: a dynamic validity check fails for code a
// debugger controls, and a stopped process's descriptors serve whoever lent
// them. The process is
// pinned with a pidfd before anything is read and must still be the same
// live process after: a pid reused meanwhile fails. Any requirement naming a
// team fails: nothing here could vouch for a certificate chain.
class LinuxCodeSigning final : public CodeSigning {
public:
    explicit LinuxCodeSigning(const Bundles& bundles, std::filesystem::path proc = "/proc")
        : bundles_(bundles), proc_(std::move(proc)) {}
    bool satisfies(pid_t pid, const std::string& requirement) const override;
    bool validNow(pid_t pid, const std::string& requirement) const override;
    std::optional<std::string> ownTeam() const override { return std::nullopt; }

private:
    bool check(pid_t pid, const std::string& requirement, bool unhindered) const;

    const Bundles& bundles_;
    std::filesystem::path proc_;
};

// The process's own, never destroyed: work still running on a pool thread
// may use it while the process exits.
const CodeSigning& systemCodeSigning();

}  // namespace platform
