// The applications running now, looked up by bundle identifier: the stand-in
// for the workspace's list of running applications. Each call looks afresh;
// any thread may call it.
#pragma once
#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace platform {

class Bundles;
class LinuxSessionBus;

struct RunningApplication {
    pid_t processIdentifier = 0;
    std::optional<std::filesystem::path> bundleURL;  // the X.app folder, when known
};

class RunningApplications {
public:
    virtual ~RunningApplications() = default;
    // The copies running in this session.
    virtual std::vector<RunningApplication> withBundleIdentifier(const std::string& identifier) const = 0;
    // Every process of this user, in any session, running the main
    // executable of the bundle at `app` itself: the only processes that may
    // be the Studio this bridge serves. Cheap enough to ask per connection.
    virtual std::vector<pid_t> runningFrom(const std::filesystem::path& app) const = 0;
};

// Every process of this user (real uid), by ascending pid, whose
// /proc/PID/exe is the main executable of a bundle X.app
// (X.app/Contents/MacOS/<CFBundleExecutable>) whose CFBundleIdentifier
// matches, and that belongs to this session: it owns the identifier as a
// name on this session's bus, or the bus its environment names is this
// session's. A copy in another login session cannot hear this session's
// notifications, so it must neither stop a launch nor be waited for. Helper
// programs shipped beside the main executable, the bridge itself among them,
// are not applications. A process running from a replaced executable still
// counts: it runs from that bundle. Processes that cannot be read (other
// users, gone meanwhile) are skipped.
class LinuxRunningApplications final : public RunningApplications {
public:
    LinuxRunningApplications(const Bundles& bundles, LinuxSessionBus& bus, std::filesystem::path proc = "/proc");
    std::vector<RunningApplication> withBundleIdentifier(const std::string& identifier) const override;
    std::vector<pid_t> runningFrom(const std::filesystem::path& app) const override;

private:
    const Bundles& bundles_;
    LinuxSessionBus& bus_;
    std::filesystem::path proc_;
};

// The process's own, never destroyed: work still running on a pool thread
// may use it while the process exits.
const RunningApplications& systemRunningApplications();

// The bundle whose main executable is this path (" (deleted)" removed), if
// the path has the shape X.app/Contents/MacOS/<name> and the bundle names
// <name> as its executable. Shared by the real services that map a process
// to its application.
struct ExecutableBundle {
    std::filesystem::path app;
    std::optional<std::string> identifier;
    bool replaced = false;  // the kernel marks the executable " (deleted)"
};
std::optional<ExecutableBundle> bundleOfExecutable(const std::string& exeLink, const Bundles& bundles);

// What /proc/PID/status says of a process that matters to who it is: its
// real uid, and whether it is stopped or traced (then whatever runs in it
// may not be its own code); nothing when it cannot be read.
struct ProcessStatus {
    uid_t realUid = 0;
    bool stoppedOrTraced = false;
};
std::optional<ProcessStatus> processStatus(const std::filesystem::path& proc, pid_t pid);

}  // namespace platform
