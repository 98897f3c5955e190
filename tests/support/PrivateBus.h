// A private session bus: a real dbus-daemon started for one test (or one
// suite) on a socket in its own folder, stopped when the object goes away.
// Point the bridge and the simulator at it through environment().
#pragma once
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
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

// A unix socket that accepts connections (the kernel does, from the backlog)
// and never says a word: a session bus that hangs.
struct SilentSocket {
    explicit SilentSocket(const std::filesystem::path& path) {
        sockaddr_un address{AF_UNIX, {}};
        std::snprintf(address.sun_path, sizeof address.sun_path, "%s", path.c_str());
        bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
        listen(fd, 8);
    }
    ~SilentSocket() { close(fd); }
    SilentSocket(const SilentSocket&) = delete;
    SilentSocket& operator=(const SilentSocket&) = delete;
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
};

}  // namespace testsupport
