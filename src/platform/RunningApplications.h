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

struct RunningApplication {
    pid_t processIdentifier = 0;
    std::optional<std::filesystem::path> bundleURL;  // the X.app folder, when known
};

class RunningApplications {
public:
    virtual ~RunningApplications() = default;
    virtual std::vector<RunningApplication> withBundleIdentifier(const std::string& identifier) const = 0;
};

// Every process, by ascending pid, whose /proc/PID/exe is the main executable
// of a bundle X.app (X.app/Contents/MacOS/<CFBundleExecutable>) whose
// CFBundleIdentifier matches. Helper programs shipped beside the main
// executable, the bridge itself among them, are not applications. A process
// running from a replaced executable still counts: it runs from that bundle.
// Processes that cannot be read (other users, gone meanwhile) are skipped.
class LinuxRunningApplications final : public RunningApplications {
public:
    explicit LinuxRunningApplications(const Bundles& bundles, std::filesystem::path proc = "/proc");
    std::vector<RunningApplication> withBundleIdentifier(const std::string& identifier) const override;

private:
    const Bundles& bundles_;
    std::filesystem::path proc_;
};

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

}  // namespace platform
