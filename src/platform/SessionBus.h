// The desktop session's message bus (D-Bus), reached through sd-bus. One
// connection per object, opened on first use from DBUS_SESSION_BUS_ADDRESS
// (or the user's runtime folder) and opened again after it broke. Every call
// is synchronous with a short deadline and safe from any thread: a lock
// serialises the connection. A bus that cannot be reached is a SystemError,
// never a wait.
#pragma once
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/SystemError.h"

struct sd_bus;

namespace platform {

class LinuxSessionBus {
public:
    explicit LinuxSessionBus(std::chrono::milliseconds callTimeout = std::chrono::seconds(5));
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

    // org.freedesktop.Application.Open(uris, {}) on the name's object.
    std::optional<SystemError> openURIs(const std::string& name, const std::string& objectPath,
                                        const std::vector<std::string>& uris);

private:
    std::optional<SystemError> connectLocked();
    void dropLocked();

    std::mutex mutex_;
    sd_bus* bus_ = nullptr;
    std::chrono::milliseconds callTimeout_;
};

// The process-wide connection used by the real services below.
LinuxSessionBus& systemSessionBus();

}  // namespace platform
