// The desktop session's message bus (D-Bus), reached through sd-bus. One
// connection per object, opened on first use and opened again after it
// broke. Every call is synchronous and safe from any thread (a lock
// serialises the connection), and everything, connecting and authenticating
// included, has the one deadline: a bus that cannot be reached, or that
// accepts and never answers, is a SystemError within it, never a longer
// wait. Being synchronous, it is called off the I/O thread.
#pragma once
#include <sys/types.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/Environment.h"
#include "platform/SystemError.h"

struct sd_bus;

namespace platform {

// The session bus an environment leads to: DBUS_SESSION_BUS_ADDRESS, else
// $XDG_RUNTIME_DIR/bus where sd-bus looks, else /run/user/<uid>/bus, the
// standard place on a desktop (agents may start the bridge without the
// desktop's variables); "" when none is there.
std::string sessionBusAddress(const Environment& environment);
// What tells two addresses of one bus apart from another bus's: the first
// transport's kind and path, without the server's guid.
std::string busIdentity(const std::string& address);

class LinuxSessionBus {
public:
    // `address` as sessionBusAddress() gives it.
    LinuxSessionBus(std::chrono::milliseconds deadline, std::string address);
    ~LinuxSessionBus();
    LinuxSessionBus(const LinuxSessionBus&) = delete;
    LinuxSessionBus& operator=(const LinuxSessionBus&) = delete;

    // A broadcast signal with two string arguments, flushed before returning.
    std::optional<SystemError> emitSignal(const std::string& path, const std::string& interface,
                                          const std::string& member, const std::string& first,
                                          const std::string& second);

    // Whether some connection owns the well-known name; a SystemError when the
    // bus cannot be asked.
    struct Ownership {
        bool owned = false;
        std::optional<SystemError> error;
    };
    Ownership hasOwner(const std::string& name);

    // The process of the connection that owns the well-known name.
    std::optional<pid_t> ownerProcess(const std::string& name);

    const std::string& address() const { return address_; }

    // A property holding a list of strings ("as"); nothing when the bus or
    // the service cannot be asked or has no such property.
    std::optional<std::vector<std::string>> stringsProperty(const std::string& service, const std::string& path,
                                                            const std::string& interface,
                                                            const std::string& property);

    // org.freedesktop.Application.Open(uris, {}) on the name's object.
    std::optional<SystemError> openURIs(const std::string& name, const std::string& objectPath,
                                        const std::vector<std::string>& uris);

private:
    std::optional<SystemError> connectLocked();
    std::optional<SystemError> tryConnectLocked();
    void dropLocked();

    std::mutex mutex_;
    sd_bus* bus_ = nullptr;
    std::chrono::milliseconds deadline_;
    std::string address_;
    // A failed connection is not tried again for a while: one establishment
    // asks the bus several times, and each must not wait out the deadline.
    std::optional<SystemError> lastFailure_;
    std::chrono::steady_clock::time_point failedAt_;
};

// The process-wide connection used by the real services below, never
// destroyed: work still running on a pool thread may use it while the
// process exits.
// It joins the bus of processEnvironment().
LinuxSessionBus& systemSessionBus();

}  // namespace platform
