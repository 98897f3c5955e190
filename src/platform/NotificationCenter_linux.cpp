#include "platform/NotificationCenter.h"

#include "platform/SessionBus.h"

namespace platform {

std::optional<SystemError> LinuxNotificationCenter::post(const std::string& name, const std::string& object) {
    return bus_.emitSignal(path, interface, member, name, object);
}

NotificationCenter& systemNotificationCenter() {
    static auto* center = new LinuxNotificationCenter(systemSessionBus());
    return *center;
}

}  // namespace platform
