#include "SimBus.h"

#include <poll.h>
#include <systemd/sd-bus.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>

#include <cstring>
#include <stdexcept>

#include "BundleIdentity.h"

namespace studiosim {

namespace asio = boost::asio;

namespace {

constexpr const char* kNotificationPath = "/com/lumenfold/DistributedNotification";
constexpr const char* kNotificationInterface = "com.lumenfold.DistributedNotification";
constexpr const char* kApplicationInterface = "org.freedesktop.Application";

std::runtime_error busError(const std::string& what, int r) {
    return std::runtime_error(what + ": " + std::strerror(-r));
}

}  // namespace

struct SimBus::Impl {
    sd_bus* bus = nullptr;
    sd_bus_slot* objectSlot = nullptr;
    sd_bus_slot* matchSlot = nullptr;
    Handlers handlers;
    asio::posix::stream_descriptor descriptor;
    asio::steady_timer timer;
    bool owns = false;
    bool gone = false;

    Impl(asio::io_context& io, Handlers h) : handlers(std::move(h)), descriptor(io), timer(io) {}

    ~Impl() {
        // The descriptor belongs to sd-bus.
        if (descriptor.is_open()) descriptor.release();
        sd_bus_slot_unref(matchSlot);
        sd_bus_slot_unref(objectSlot);
        if (bus) sd_bus_flush_close_unref(bus);
    }

    static int onPosted(sd_bus_message* m, void* userdata, sd_bus_error*) {
        auto* self = static_cast<Impl*>(userdata);
        const char* name = nullptr;
        const char* object = nullptr;
        if (sd_bus_message_read(m, "ss", &name, &object) < 0) return 0;
        if (self->handlers.posted) self->handlers.posted(name, object);
        return 0;
    }

    static int onOpen(sd_bus_message* m, void* userdata, sd_bus_error*) {
        auto* self = static_cast<Impl*>(userdata);
        char** uris = nullptr;
        int r = sd_bus_message_read_strv(m, &uris);
        if (r < 0) return r;
        std::vector<std::string> list;
        for (char** u = uris; u && *u; ++u) {
            list.emplace_back(*u);
            free(*u);
        }
        free(uris);
        if (self->handlers.open) self->handlers.open(list);
        return sd_bus_reply_method_return(m, "");
    }

    static int onIgnored(sd_bus_message* m, void*, sd_bus_error*) {
        return sd_bus_reply_method_return(m, "");
    }

    static const sd_bus_vtable* applicationVtable() {
        static const sd_bus_vtable vtable[] = {
            SD_BUS_VTABLE_START(0),
            SD_BUS_METHOD("Activate", "a{sv}", "", onIgnored, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_METHOD("Open", "asa{sv}", "", onOpen, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_METHOD("ActivateAction", "sava{sv}", "", onIgnored, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_VTABLE_END,
        };
        return vtable;
    }

    void lose(const std::string& why) {
        if (gone) return;
        gone = true;
        boost::system::error_code ignored;
        descriptor.cancel(ignored);
        timer.cancel();
        if (handlers.lost) handlers.lost(why);
    }

    // Lets sd-bus do all it can, then waits for what it asks for next.
    void pump() {
        if (gone) return;
        for (;;) {
            int r = sd_bus_process(bus, nullptr);
            if (r < 0) return lose(std::string("the session bus went away: ") + std::strerror(-r));
            if (gone) return;
            if (r == 0) break;
        }
        if (!sd_bus_is_open(bus)) return lose("the session bus went away");
        int events = sd_bus_get_events(bus);
        uint64_t until = UINT64_MAX;
        if (events < 0 || sd_bus_get_timeout(bus, &until) < 0) return lose("the session bus connection failed");
        boost::system::error_code ignored;
        descriptor.cancel(ignored);
        timer.cancel();
        auto resume = [this](boost::system::error_code ec) {
            if (ec != asio::error::operation_aborted) pump();
        };
        if (events & POLLIN) descriptor.async_wait(asio::posix::stream_descriptor::wait_read, resume);
        if (events & POLLOUT) descriptor.async_wait(asio::posix::stream_descriptor::wait_write, resume);
        if (until != UINT64_MAX) {
            // sd-bus deadlines are CLOCK_MONOTONIC, as steady_clock is here.
            timer.expires_at(std::chrono::steady_clock::time_point(std::chrono::microseconds(until)));
            timer.async_wait(resume);
        }
    }
};

SimBus::SimBus(asio::io_context& io, const BundleIdentity& identity, Handlers handlers)
    : impl_(std::make_unique<Impl>(io, std::move(handlers))) {
    Impl& b = *impl_;
    int r = sd_bus_open_user(&b.bus);
    if (r < 0) throw busError("cannot connect to the session bus", r);
    std::string path = identity.objectPath();
    r = sd_bus_add_object_vtable(b.bus, &b.objectSlot, path.c_str(), kApplicationInterface, Impl::applicationVtable(), &b);
    if (r < 0) throw busError("cannot export " + path, r);
    r = sd_bus_match_signal(b.bus, &b.matchSlot, nullptr, kNotificationPath, kNotificationInterface, "Posted", Impl::onPosted, &b);
    if (r < 0) throw busError("cannot listen for link notifications", r);
    r = sd_bus_request_name(b.bus, identity.identifier.c_str(), SD_BUS_NAME_QUEUE);
    if (r < 0) throw busError("cannot ask for the name " + identity.identifier, r);
    b.owns = r > 0;
    int fd = sd_bus_get_fd(b.bus);
    if (fd < 0) throw busError("cannot watch the session bus", fd);
    b.descriptor.assign(fd);
    b.pump();
}

SimBus::~SimBus() = default;

bool SimBus::ownsName() const {
    return impl_->owns;
}

}  // namespace studiosim
