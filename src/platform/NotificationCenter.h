// The distributed notification centre: a broadcast that any process of the
// desktop session can hear, carrying a name and one string object. Posting
// never waits for listeners. Callable from any thread; the real centre
// serialises its connection itself.
#pragma once
#include <optional>
#include <string>

#include "platform/SystemError.h"

namespace platform {

class NotificationCenter {
public:
    virtual ~NotificationCenter() = default;
    // Delivered at once; a centre that cannot be reached is an error value.
    virtual std::optional<SystemError> post(const std::string& name, const std::string& object) = 0;
};

class LinuxSessionBus;

// A signal on the session bus: path /com/lumenfold/DistributedNotification,
// interface com.lumenfold.DistributedNotification, member Posted, arguments
// (s name, s object).
class LinuxNotificationCenter final : public NotificationCenter {
public:
    static constexpr const char* path = "/com/lumenfold/DistributedNotification";
    static constexpr const char* interface = "com.lumenfold.DistributedNotification";
    static constexpr const char* member = "Posted";

    explicit LinuxNotificationCenter(LinuxSessionBus& bus) : bus_(bus) {}
    std::optional<SystemError> post(const std::string& name, const std::string& object) override;

private:
    LinuxSessionBus& bus_;
};

// The process's own, never destroyed: work still running on a pool thread
// may use it while the process exits.
NotificationCenter& systemNotificationCenter();

}  // namespace platform
