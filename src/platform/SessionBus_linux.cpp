#include <dlfcn.h>
#include <systemd/sd-bus.h>

#include <cerrno>
#include <cstdlib>

#include "platform/SessionBus.h"

namespace platform {

namespace {

// libsystemd is loaded on first use, not at start-up: with the libraries it
// needs in turn, loading it costs every start of the bridge a few
// milliseconds, and most runs never touch the bus.
struct SdBus {
#define VSM_SD_BUS_FUNCTIONS(X)                                                                           \
    X(sd_bus_call) X(sd_bus_call_method) X(sd_bus_emit_signal) X(sd_bus_error_free) X(sd_bus_error_is_set) \
    X(sd_bus_flush) X(sd_bus_flush_close_unref) X(sd_bus_get_unique_name) X(sd_bus_is_open)               \
    X(sd_bus_message_append_strv) X(sd_bus_message_close_container) X(sd_bus_message_new_method_call)     \
    X(sd_bus_message_open_container) X(sd_bus_message_read) X(sd_bus_message_unref) X(sd_bus_open_user)   \
    X(sd_bus_set_method_call_timeout)
#define VSM_DECLARE(name) decltype(&::name) name = nullptr;
    VSM_SD_BUS_FUNCTIONS(VSM_DECLARE)
#undef VSM_DECLARE
    std::optional<SystemError> failure;

    SdBus() {
        void* library = dlopen("libsystemd.so.0", RTLD_NOW | RTLD_LOCAL);
        if (!library) {
            const char* reason = dlerror();
            failure = SystemError{ELIBACC, std::string("Could not load libsystemd.so.0: ") +
                                               (reason ? reason : "unknown reason")};
            return;
        }
#define VSM_RESOLVE(name)                                                                   \
    name = reinterpret_cast<decltype(name)>(dlsym(library, #name));                         \
    if (!name && !failure)                                                                  \
        failure = SystemError{ELIBACC, "Could not load libsystemd.so.0: no symbol " #name};
        VSM_SD_BUS_FUNCTIONS(VSM_RESOLVE)
#undef VSM_RESOLVE
    }
};
#undef VSM_SD_BUS_FUNCTIONS

// Thread-safe one-time loading; the library stays loaded for the process.
const SdBus& sd() {
    static const SdBus loaded;
    return loaded;
}

std::string busName() {
    const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    if (address && *address) return std::string("the session bus at ") + address;
    return "the session bus";
}

SystemError busError(int rc, const std::string& what, const sd_bus_error* error = nullptr) {
    if (error && sd().sd_bus_error_is_set(error) && error->message)
        return {-rc, what + ": " + error->message};
    return SystemError::fromErrno(rc < 0 ? -rc : rc, what);
}

struct ErrorGuard {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    ~ErrorGuard() { sd().sd_bus_error_free(&error); }
};

struct MessageGuard {
    sd_bus_message* message = nullptr;
    ~MessageGuard() { sd().sd_bus_message_unref(message); }
};

}  // namespace

LinuxSessionBus::LinuxSessionBus(std::chrono::milliseconds callTimeout) : callTimeout_(callTimeout) {}

LinuxSessionBus::~LinuxSessionBus() {
    std::lock_guard lock(mutex_);
    dropLocked();
}

void LinuxSessionBus::dropLocked() {
    if (bus_) sd().sd_bus_flush_close_unref(bus_);
    bus_ = nullptr;
}

std::optional<SystemError> LinuxSessionBus::connectLocked() {
    if (bus_ && sd().sd_bus_is_open(bus_) > 0) return std::nullopt;
    dropLocked();
    if (sd().failure) return sd().failure;
    sd_bus* bus = nullptr;
    int rc = sd().sd_bus_open_user(&bus);
    if (rc < 0) return busError(rc, "Could not connect to " + busName());
    sd().sd_bus_set_method_call_timeout(bus, static_cast<uint64_t>(callTimeout_.count()) * 1000);
    // Opening only starts the greeting with the daemon; asking for our own
    // unique name waits for it, so a socket nobody serves fails here.
    const char* unique = nullptr;
    rc = sd().sd_bus_get_unique_name(bus, &unique);
    if (rc < 0) {
        sd().sd_bus_flush_close_unref(bus);
        return busError(rc, "Could not connect to " + busName());
    }
    bus_ = bus;
    return std::nullopt;
}

std::optional<SystemError> LinuxSessionBus::emitSignal(const std::string& path, const std::string& interface,
                                                       const std::string& member, const std::string& first,
                                                       const std::string& second) {
    std::lock_guard lock(mutex_);
    if (auto failure = connectLocked()) return failure;
    int rc = sd().sd_bus_emit_signal(bus_, path.c_str(), interface.c_str(), member.c_str(), "ss", first.c_str(),
                                second.c_str());
    if (rc >= 0) rc = sd().sd_bus_flush(bus_);
    if (rc < 0) {
        dropLocked();
        return busError(rc, "Could not send a message on " + busName());
    }
    return std::nullopt;
}

LinuxSessionBus::Ownership LinuxSessionBus::hasOwner(const std::string& name) {
    std::lock_guard lock(mutex_);
    if (auto failure = connectLocked()) return {false, failure};
    ErrorGuard error;
    MessageGuard reply;
    int rc = sd().sd_bus_call_method(bus_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                "NameHasOwner", &error.error, &reply.message, "s", name.c_str());
    if (rc < 0) {
        if (sd().sd_bus_is_open(bus_) <= 0) dropLocked();
        return {false, busError(rc, "Could not ask " + busName() + " about " + name, &error.error)};
    }
    int owned = 0;
    rc = sd().sd_bus_message_read(reply.message, "b", &owned);
    if (rc < 0) return {false, busError(rc, "Unreadable answer from " + busName())};
    return {owned != 0, std::nullopt};
}

std::optional<SystemError> LinuxSessionBus::openURIs(const std::string& name, const std::string& objectPath,
                                                     const std::vector<std::string>& uris) {
    std::lock_guard lock(mutex_);
    if (auto failure = connectLocked()) return failure;
    MessageGuard call;
    int rc = sd().sd_bus_message_new_method_call(bus_, &call.message, name.c_str(), objectPath.c_str(),
                                            "org.freedesktop.Application", "Open");
    std::vector<char*> strv;
    for (const auto& uri : uris) strv.push_back(const_cast<char*>(uri.c_str()));
    strv.push_back(nullptr);
    if (rc >= 0) rc = sd().sd_bus_message_append_strv(call.message, strv.data());
    if (rc >= 0) rc = sd().sd_bus_message_open_container(call.message, 'a', "{sv}");
    if (rc >= 0) rc = sd().sd_bus_message_close_container(call.message);
    if (rc < 0) return busError(rc, "Could not build the request to open files with " + name);
    ErrorGuard error;
    MessageGuard reply;
    rc = sd().sd_bus_call(bus_, call.message, 0, &error.error, &reply.message);
    if (rc < 0) {
        if (sd().sd_bus_is_open(bus_) <= 0) dropLocked();
        return busError(rc, name + " did not open the files", &error.error);
    }
    return std::nullopt;
}

LinuxSessionBus& systemSessionBus() {
    static LinuxSessionBus bus;
    return bus;
}

}  // namespace platform
