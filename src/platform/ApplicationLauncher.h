// Starting applications the way the workspace does: in the background,
// without activation, detached from the caller. Both operations return once
// the application has been started (or has failed to start), not when it
// ends. Callable from any thread.
#pragma once
#include <filesystem>
#include <optional>
#include <vector>

#include "platform/Environment.h"
#include "platform/SystemError.h"

namespace platform {

class ApplicationLauncher {
public:
    virtual ~ApplicationLauncher() = default;
    // Starts the application at `app` with no arguments.
    virtual std::optional<SystemError> openApplication(const std::filesystem::path& app) = 0;
    // Hands files to the application at `app`, starting it when needed.
    virtual std::optional<SystemError> openURLs(const std::vector<std::filesystem::path>& files,
                                                const std::filesystem::path& app) = 0;
};

class Bundles;
class LinuxSessionBus;

// openApplication spawns the bundle's executable detached: a new session,
// standard input, output and error on /dev/null, the working folder "/", the
// launch environment below, no descriptor of ours. A failed exec comes back
// as the error (learnt through a close-on-exec pipe). The child is not ours
// to reap: it is handed to init at once.
//
// openURLs asks a running copy first: when the session bus has an owner for
// the bundle's identifier as a well-known name, it calls
// org.freedesktop.Application.Open on "/" + the identifier with dots as
// slashes, with the files' URIs and empty platform data. Otherwise (no owner,
// or no bus) it spawns the executable as above with the paths as arguments.
class LinuxApplicationLauncher final : public ApplicationLauncher {
public:
    // `environment`: the bridge's own, as main captured it.
    LinuxApplicationLauncher(const Bundles& bundles, LinuxSessionBus& bus, const Environment& environment)
        : bundles_(bundles), bus_(bus), environment_(environment) {}
    std::optional<SystemError> openApplication(const std::filesystem::path& app) override;
    std::optional<SystemError> openURLs(const std::vector<std::filesystem::path>& files,
                                        const std::filesystem::path& app) override;

    // What the application starts with: the session's variables of
    // `environment` (HOME, USER, LOGNAME, PATH, LANG, LC_*, DISPLAY,
    // WAYLAND_DISPLAY, XAUTHORITY, XDG_*, DBUS_SESSION_BUS_ADDRESS) and none
    // of the agent's. Where it has no display variable (DISPLAY,
    // WAYLAND_DISPLAY, XAUTHORITY), the ones of the user's service manager
    // (the Environment property of org.freedesktop.systemd1's Manager on
    // `bus`) when it answers.
    static Environment launchEnvironment(const Environment& environment, LinuxSessionBus& bus);

    // The pieces, exposed for their own tests. `environment` is passed whole.
    static std::optional<SystemError> spawnDetached(const std::filesystem::path& executable,
                                                    const std::vector<std::string>& arguments,
                                                    const Environment& environment);
    static std::string fileURI(const std::filesystem::path& path);
    static std::string objectPath(const std::string& identifier);

private:
    const Bundles& bundles_;
    LinuxSessionBus& bus_;
    const Environment& environment_;
};

// The process's own, never destroyed: work still running on a pool thread
// may use it while the process exits.
ApplicationLauncher& systemApplicationLauncher();

}  // namespace platform
