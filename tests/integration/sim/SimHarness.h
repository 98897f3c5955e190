// The bridge's side of the system, played by hand for the simulator's own
// tests: a private session bus, the simulator started from its bundle, the
// link notification and Open sent with sd-bus, a raw hand-over listener, a
// small HTTP/1.1 client over one keep-alive connection, and a reader for the
// simulator's JSON-lines log. Everything waits with a deadline. One test
// thread.
#pragma once
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/ChildProcess.h"
#include "support/PrivateBus.h"
#include "support/TempDir.h"

struct sd_bus;

namespace simtest {

using Json = nlohmann::json;
using namespace std::chrono_literals;

inline constexpr const char* kRelease = "com.lumenfold.vantoric.studio";
inline constexpr const char* kSubject = "com.lumenfold.vantoric.studio.subject";

std::string sha256Hex(const std::string& text);
std::string percentEncode(const std::string& text);

// A connection to the private bus, as the bridge holds one.
class BusClient {
public:
    explicit BusClient(const std::string& address);
    ~BusClient();
    void post(const std::string& name, const std::string& object);
    // org.freedesktop.Application.Open on the application's object; false when the call fails.
    bool open(const std::string& identifier, const std::vector<std::string>& uris);
    bool hasOwner(const std::string& name);

private:
    sd_bus* bus_ = nullptr;
};

// A connected TCP socket with line reading.
class Socket {
public:
    explicit Socket(int fd = -1) : fd_(fd) {}
    ~Socket();
    Socket(Socket&& other) noexcept;
    Socket& operator=(Socket&& other) noexcept;
    bool valid() const { return fd_ >= 0; }
    int fd() const { return fd_; }
    void send(const std::string& bytes);
    std::optional<std::string> readLine(std::chrono::milliseconds timeout = 5s);
    // Bytes received within the time (after any buffered ones), "" when none.
    std::string readSome(std::chrono::milliseconds timeout);
    // True when the peer closed (EOF or reset) within the time, with nothing else arriving first.
    bool closedWithin(std::chrono::milliseconds timeout);
    void close();

private:
    int fd_ = -1;
    std::string buffer_;
};

// The bridge's hand-over listener on 127.0.0.1.
class HandOverListener {
public:
    HandOverListener();
    ~HandOverListener();
    std::uint16_t port() const { return port_; }
    const std::string& nonce() const { return nonce_; }
    std::string challenge() const { return sha256Hex(nonce_); }
    // The notification's object: port=..&challenge=..&client=..
    std::string query(const std::string& client = "Test Agent", std::optional<std::string> challenge = std::nullopt) const;
    Socket accept(std::chrono::milliseconds timeout = 5s);
    std::string greeting() const;

private:
    int fd_ = -1;
    std::uint16_t port_ = 0;
    std::string nonce_;
};

struct HttpResponse {
    int status = 0;
    std::map<std::string, std::string> headers;  // lower-case names
    std::string body;
    Json json() const { return Json::parse(body); }
};

// One keep-alive HTTP/1.1 connection to the simulator.
class HttpClient {
public:
    explicit HttpClient(std::uint16_t port);
    HttpResponse request(const std::string& method, const std::string& target, const std::map<std::string, std::string>& headers,
                         const std::string& body = "");
    bool isOpen() const { return socket_.valid(); }

private:
    std::uint16_t port_;
    Socket socket_;
};

// The simulator's JSON-lines log, read while it runs.
class SimLogFile {
public:
    explicit SimLogFile(std::filesystem::path path) : path_(std::move(path)) {}
    std::vector<Json> events(const std::string& name = "") const;
    std::optional<Json> waitFor(const std::string& name, const std::function<bool(const Json&)>& match = nullptr,
                                std::chrono::milliseconds timeout = 5s) const;

private:
    std::filesystem::path path_;
};

// What a successful hand-over gives the bridge.
struct LinkReply {
    Socket connection;
    Json reply;
    std::string token;
};

// A private bus, a home folder and one simulator process started from a bundle.
class SimSession {
public:
    struct Options {
        std::map<std::string, std::string> environment{};
        std::string bundle = "Vantoric Studio.app";
        std::vector<std::string> arguments{};
    };

    SimSession();
    ~SimSession();

    void start(Options options);
    void start() { start(Options{}); }

    testsupport::PrivateBus& bus() { return *bus_; }
    // Stops the private bus (and this side's connection to it) while the simulator runs.
    void stopBus();
    BusClient& busClient() { return *client_; }
    testsupport::ChildProcess& process() { return *process_; }
    const std::filesystem::path& home() const { return home_; }
    const SimLogFile& log() const { return *log_; }
    std::uint16_t httpPort() const { return httpPort_; }
    const testsupport::TempDir& scratch() const { return scratch_; }

    // Posts the link notification for the listener (with this identifier's name).
    void announce(const HandOverListener& listener, const std::string& identifier = kRelease);
    // Announces, accepts, greets and reads the reply; fails the test when any step does.
    LinkReply link(const std::string& client = "Test Agent");

    // A tools/call over the client; the whole JSON-RPC answer.
    Json call(HttpClient& http, const std::string& token, const std::string& tool, const Json& arguments = Json::object(), int id = 1);
    // The payload of a successful tool result (its last text item parsed), or the text of an error result.
    static Json payload(const Json& rpcAnswer);
    static bool isToolError(const Json& rpcAnswer);

private:
    testsupport::TempDir scratch_;
    std::unique_ptr<testsupport::PrivateBus> bus_;
    std::unique_ptr<BusClient> client_;
    std::filesystem::path home_;
    std::unique_ptr<SimLogFile> log_;
    std::unique_ptr<testsupport::ChildProcess> process_;
    std::uint16_t httpPort_ = 0;
};

}  // namespace simtest
