#include <dlfcn.h>
#include <systemd/sd-bus.h>

#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "platform/Hex.h"
#include "platform/SessionBus.h"

namespace platform {

namespace {

// libsystemd is loaded on first use, not at start-up: with the libraries it
// needs in turn, loading it costs every start of the bridge a few
// milliseconds, and most runs never touch the bus.
struct SdBus {
#define VSM_SD_BUS_FUNCTIONS(X)                                                                           \
    X(sd_bus_call) X(sd_bus_call_method) X(sd_bus_emit_signal) X(sd_bus_error_free) X(sd_bus_error_is_set) \
    X(sd_bus_flush) X(sd_bus_close) X(sd_bus_unref) X(sd_bus_get_unique_name) X(sd_bus_is_open)               \
    X(sd_bus_message_append_strv) X(sd_bus_message_close_container) X(sd_bus_message_new_method_call)     \
    X(sd_bus_message_open_container) X(sd_bus_message_read) X(sd_bus_message_unref) X(sd_bus_new)         \
    X(sd_bus_set_address) X(sd_bus_set_bus_client) X(sd_bus_start) X(sd_bus_is_ready) X(sd_bus_process)   \
    X(sd_bus_wait) X(sd_bus_set_method_call_timeout) X(sd_bus_get_property_strv)
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

// Bytes outside this set are written %XX in a D-Bus address.
std::string escapedAddressValue(const std::string& value) {
    std::string out;
    for (unsigned char c : value) {
        if (std::isalnum(c) || c == '-' || c == '_' || c == '/' || c == '.' || c == '\\' || c == '*') {
            out.push_back(static_cast<char>(c));
        } else {
            out.push_back('%');
            appendHex(out, c);
        }
    }
    return out;
}

bool isSocket(const std::string& path) {
    std::error_code ec;
    return std::filesystem::is_socket(path, ec);
}

}  // namespace

std::string sessionBusAddress(const Environment& environment) {
    if (auto address = nonEmpty(environment, "DBUS_SESSION_BUS_ADDRESS")) return *address;
    if (auto runtime = nonEmpty(environment, "XDG_RUNTIME_DIR"); runtime && isSocket(*runtime + "/bus"))
        return "unix:path=" + escapedAddressValue(*runtime + "/bus");
    std::string standard = "/run/user/" + std::to_string(getuid()) + "/bus";
    if (isSocket(standard)) return "unix:path=" + standard;
    return "";
}

std::string busIdentity(const std::string& address) {
    std::string first = address.substr(0, address.find(';'));
    auto colon = first.find(':');
    if (colon == std::string::npos) return first;
    std::string identity = first.substr(0, colon + 1);
    std::string rest = first.substr(colon + 1);
    size_t start = 0;
    while (start <= rest.size()) {
        size_t end = rest.find(',', start);
        if (end == std::string::npos) end = rest.size();
        std::string pair = rest.substr(start, end - start);
        if (pair.rfind("path=", 0) == 0 || pair.rfind("abstract=", 0) == 0 || pair.rfind("host=", 0) == 0 ||
            pair.rfind("port=", 0) == 0)
            identity += pair + ",";
        start = end + 1;
    }
    return identity;
}

namespace {

std::string busName(const std::string& address) {
    if (!address.empty()) return "the session bus at " + address;
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

LinuxSessionBus::LinuxSessionBus(std::chrono::milliseconds deadline, std::string address)
    : deadline_(deadline), address_(std::move(address)) {}

LinuxSessionBus::~LinuxSessionBus() {
    std::lock_guard lock(mutex_);
    dropLocked();
}

// Closed without flushing: a flush waits for a stalled bus past any deadline.
static void closeBus(sd_bus* bus) {
    if (!bus) return;
    sd().sd_bus_close(bus);
    sd().sd_bus_unref(bus);
}

void LinuxSessionBus::dropLocked() {
    closeBus(bus_);
    bus_ = nullptr;
}

std::optional<SystemError> LinuxSessionBus::connectLocked() {
    if (bus_ && sd().sd_bus_is_open(bus_) > 0) return std::nullopt;
    dropLocked();
    if (sd().failure) return sd().failure;
    if (lastFailure_ && std::chrono::steady_clock::now() - failedAt_ < 2 * deadline_) return lastFailure_;
    lastFailure_ = tryConnectLocked();
    failedAt_ = std::chrono::steady_clock::now();
    return lastFailure_;
}

std::optional<SystemError> LinuxSessionBus::tryConnectLocked() {
    if (address_.empty())
        return SystemError{ENOENT,
                           "No session bus: DBUS_SESSION_BUS_ADDRESS is not set and neither $XDG_RUNTIME_DIR/bus nor "
                           "/run/user/" + std::to_string(getuid()) + "/bus exists"};
    const std::string failed = "Could not connect to " + busName(address_);
    sd_bus* bus = nullptr;
    int rc = sd().sd_bus_new(&bus);
    if (rc < 0) return busError(rc, failed);
    rc = sd().sd_bus_set_address(bus, address_.c_str());
    if (rc >= 0) rc = sd().sd_bus_set_bus_client(bus, 1);
    if (rc >= 0) rc = sd().sd_bus_set_method_call_timeout(bus, static_cast<uint64_t>(deadline_.count()) * 1000);
    // Starting only opens the socket; the greeting and the authentication are
    // driven here, under our deadline: sd-bus's own allows 90 seconds.
    if (rc >= 0) rc = sd().sd_bus_start(bus);
    auto deadline = std::chrono::steady_clock::now() + deadline_;
    while (rc >= 0) {
        rc = sd().sd_bus_is_ready(bus);
        if (rc != 0) break;
        auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            closeBus(bus);
            char seconds[32];
            std::snprintf(seconds, sizeof seconds, "%.1f", deadline_.count() / 1000.0);
            return SystemError{ETIMEDOUT, failed + ": it did not answer within " + seconds + " s"};
        }
        rc = sd().sd_bus_process(bus, nullptr);
        if (rc != 0) continue;
        rc = sd().sd_bus_wait(bus, static_cast<uint64_t>(left.count()));
        if (rc > 0) rc = 0;
    }
    if (rc < 0) {
        closeBus(bus);
        return busError(rc, failed);
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
        return busError(rc, "Could not send a message on " + busName(address_));
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
        return {false, busError(rc, "Could not ask " + busName(address_) + " about " + name, &error.error)};
    }
    int owned = 0;
    rc = sd().sd_bus_message_read(reply.message, "b", &owned);
    if (rc < 0) return {false, busError(rc, "Unreadable answer from " + busName(address_))};
    return {owned != 0, std::nullopt};
}

std::optional<pid_t> LinuxSessionBus::ownerProcess(const std::string& name) {
    std::lock_guard lock(mutex_);
    if (connectLocked()) return std::nullopt;
    ErrorGuard error;
    MessageGuard reply;
    int rc = sd().sd_bus_call_method(bus_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                     "GetConnectionUnixProcessID", &error.error, &reply.message, "s", name.c_str());
    if (rc < 0) {
        if (sd().sd_bus_is_open(bus_) <= 0) dropLocked();
        return std::nullopt;
    }
    uint32_t pid = 0;
    if (sd().sd_bus_message_read(reply.message, "u", &pid) < 0 || pid == 0) return std::nullopt;
    return static_cast<pid_t>(pid);
}

std::optional<std::vector<std::string>> LinuxSessionBus::stringsProperty(const std::string& service,
                                                                        const std::string& path,
                                                                        const std::string& interface,
                                                                        const std::string& property) {
    std::lock_guard lock(mutex_);
    if (connectLocked()) return std::nullopt;
    ErrorGuard error;
    char** strings = nullptr;
    int rc = sd().sd_bus_get_property_strv(bus_, service.c_str(), path.c_str(), interface.c_str(), property.c_str(),
                                           &error.error, &strings);
    if (rc < 0) {
        if (sd().sd_bus_is_open(bus_) <= 0) dropLocked();
        return std::nullopt;
    }
    std::vector<std::string> values;
    for (char** s = strings; s && *s; ++s) {
        values.emplace_back(*s);
        std::free(*s);
    }
    std::free(strings);
    return values;
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
    static auto* bus = new LinuxSessionBus(std::chrono::seconds(5), sessionBusAddress(processEnvironment()));
    return *bus;
}

}  // namespace platform
