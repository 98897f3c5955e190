// The link notification as Studio sees it on the session bus: hearing the
// bridge's next announcement, and posting one of one's own, as any client of
// the same bus can.
#pragma once
#include <systemd/sd-bus.h>

#include <chrono>
#include <cstdlib>
#include <future>
#include <memory>
#include <string>

namespace linkattack {

using namespace std::chrono_literals;

inline sd_bus* openBus(const std::string& address) {
    sd_bus* bus = nullptr;
    sd_bus_new(&bus);
    sd_bus_set_address(bus, address.c_str());
    sd_bus_set_bus_client(bus, 1);
    sd_bus_start(bus);
    // Waits for the greeting, so that what follows reaches the daemon.
    const char* unique;
    sd_bus_get_unique_name(bus, &unique);
    return bus;
}

// The port of the next link notification on the bus.
inline std::future<int> nextAnnouncedPort(const std::string& address) {
    auto ready = std::make_shared<std::promise<void>>();
    auto listening = ready->get_future();
    auto port = std::async(std::launch::async, [address, ready]() -> int {
        sd_bus* bus = openBus(address);
        int found = 0;
        sd_bus_match_signal(
            bus, nullptr, nullptr, "/com/lumenfold/DistributedNotification", "com.lumenfold.DistributedNotification",
            "Posted",
            [](sd_bus_message* m, void* data, sd_bus_error*) {
                const char *name = nullptr, *object = nullptr;
                if (sd_bus_message_read(m, "ss", &name, &object) >= 0 && !*static_cast<int*>(data))
                    *static_cast<int*>(data) = std::atoi(object + 5);  // "port=<n>&..."
                return 0;
            },
            &found);
        const char* unique;
        sd_bus_get_unique_name(bus, &unique);
        ready->set_value();
        auto deadline = std::chrono::steady_clock::now() + 20s;
        while (!found && std::chrono::steady_clock::now() < deadline) {
            if (sd_bus_process(bus, nullptr) == 0) sd_bus_wait(bus, 20'000);
        }
        sd_bus_flush_close_unref(bus);
        return found;
    });
    listening.wait();
    return port;
}

// A link notification of our own, the way the bridge posts it.
inline void postAnnouncement(sd_bus* bus, const std::string& name, const std::string& object) {
    sd_bus_emit_signal(bus, "/com/lumenfold/DistributedNotification", "com.lumenfold.DistributedNotification",
                       "Posted", "ss", name.c_str(), object.c_str());
    sd_bus_flush(bus);
}

}  // namespace linkattack
