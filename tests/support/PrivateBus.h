// A private session bus: a real dbus-daemon started for one test (or one
// suite) on a socket in its own folder, stopped when the object goes away.
// Point the bridge and the simulator at it through environment().
#pragma once
#include <memory>
#include <string>

#include "support/ChildProcess.h"
#include "support/TempDir.h"

namespace testsupport {

class PrivateBus {
public:
    PrivateBus();
    ~PrivateBus();

    const std::string& address() const { return address_; }
    // The given environment with DBUS_SESSION_BUS_ADDRESS set to this bus.
    Environment environment(Environment base = currentEnvironment()) const;

private:
    TempDir dir_;
    std::unique_ptr<ChildProcess> daemon_;
    std::string address_;
};

}  // namespace testsupport
