#include "support/PrivateBus.h"

#include <signal.h>

#include <stdexcept>

namespace testsupport {

PrivateBus::PrivateBus() {
    daemon_ = std::make_unique<ChildProcess>(ChildProcess::Options{
        .argv = {"dbus-daemon", "--session", "--nofork", "--nopidfile", "--print-address=1",
                 "--address=unix:path=" + (dir_.path() / "bus").string()},
    });
    auto line = daemon_->readLine(std::chrono::seconds(10));
    if (!line || line->empty())
        throw std::runtime_error("dbus-daemon did not start: " + daemon_->stderrText());
    address_ = *line;
}

PrivateBus::~PrivateBus() {
    daemon_->kill(SIGTERM);
    daemon_->wait(std::chrono::seconds(5));
}

Environment PrivateBus::environment(Environment base) const {
    base["DBUS_SESSION_BUS_ADDRESS"] = address_;
    return base;
}

}  // namespace testsupport
