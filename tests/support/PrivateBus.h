// A private session bus: a real dbus-daemon started for one test (or one
// suite) on a socket in its own folder, stopped when the object goes away.
// Point the bridge and the simulator at it through environment().
#pragma once
#include <signal.h>

#include <stdexcept>
#include <string>

#include "support/ChildProcess.h"
#include "support/TempDir.h"

namespace testsupport {

class PrivateBus {
public:
    PrivateBus()
        : daemon_({.argv = {"dbus-daemon", "--session", "--nofork", "--nopidfile", "--print-address=1",
                            "--address=unix:path=" + (dir_.path() / "bus").string()}}),
          address_(daemon_.readLine().value_or("")) {
        if (address_.empty()) throw std::runtime_error("dbus-daemon did not start: " + daemon_.stderrText());
    }
    ~PrivateBus() {
        daemon_.kill(SIGTERM);
        daemon_.wait(std::chrono::seconds(5));
    }

    const std::string& address() const { return address_; }
    // The given environment with DBUS_SESSION_BUS_ADDRESS set to this bus.
    Environment environment(Environment base = currentEnvironment()) const {
        base["DBUS_SESSION_BUS_ADDRESS"] = address_;
        return base;
    }

private:
    TempDir dir_;
    ChildProcess daemon_;
    std::string address_;
};

}  // namespace testsupport
