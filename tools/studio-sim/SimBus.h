// The simulator on the session bus (sd-bus, DBUS_SESSION_BUS_ADDRESS): it
// asks for its bundle identifier as well-known name (queued behind another
// copy that already owns it), exports org.freedesktop.Application at
// "/" + identifier-with-slashes (Open records the file URIs it is handed;
// Activate and ActivateAction do nothing), and listens to the broadcast
// signal com.lumenfold.DistributedNotification.Posted (s name, s object) on
// /com/lumenfold/DistributedNotification, which is how bridges announce
// themselves.
//
// The bus connection's descriptor and timeout are driven by the io_context
// given; handlers run on that thread. When the bus goes away `lost` is
// called once and nothing more happens.
#pragma once
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace boost::asio {
class io_context;
}

namespace studiosim {

struct BundleIdentity;

class SimBus {
public:
    struct Handlers {
        std::function<void(const std::string& name, const std::string& object)> posted;
        std::function<void(const std::vector<std::string>& uris)> open;
        std::function<void(const std::string& why)> lost;
    };

    // Connects, asks for the name, exports the object and installs the signal
    // match before returning, so a notification posted afterwards is seen.
    // Throws std::runtime_error when the session bus can't be used.
    SimBus(boost::asio::io_context& io, const BundleIdentity& identity, Handlers handlers);
    ~SimBus();
    SimBus(const SimBus&) = delete;
    SimBus& operator=(const SimBus&) = delete;

    // Whether this copy owned its well-known name when it started.
    bool ownsName() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace studiosim
