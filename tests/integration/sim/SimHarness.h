// The bridge's side of the system, played by hand for the simulator's own
// tests: a private session bus, the simulator started from its bundle, the
// link notification and Open sent with sd-bus, a raw hand-over listener, an
// HTTP/1.1 client over one keep-alive connection, and a reader for the
// simulator's JSON-lines log. Everything waits with a deadline; one thread.
#pragma once
#include <chrono>
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
using Env = std::map<std::string, std::string>;
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
    // org.freedesktop.Application.Open of one file on the application's object; false when the call fails.
    bool open(const std::string& identifier, const std::string& uri);
    bool hasOwner(const std::string& name);

private:
    sd_bus* bus_ = nullptr;
};

// A connected TCP socket with line reading.
class Socket {
public:
    explicit Socket(int fd = -1) : fd_(fd) {}
    Socket(Socket&& other) noexcept { *this = std::move(other); }
    Socket& operator=(Socket&& other) noexcept;
    ~Socket() { close(); }
    bool valid() const { return fd_ >= 0; }
    void send(const std::string& bytes);
    std::optional<std::string> readLine(std::chrono::milliseconds timeout = 5s);
    // Bytes received within the time (buffered ones first), "" when none.
    std::string readSome(std::chrono::milliseconds timeout);
    // True when the peer closed within the time with nothing arriving first.
    bool closedWithin(std::chrono::milliseconds timeout);
    void close();

private:
    std::string receive(std::chrono::milliseconds timeout);  // from the socket only
    int fd_ = -1;
    std::string buffer_;
};

// The bridge's hand-over listener on 127.0.0.1, with its own nonce.
class HandOverListener {
public:
    HandOverListener();
    ~HandOverListener();
    uint16_t port() const { return port_; }
    const std::string& nonce() const { return nonce_; }
    // The notification's object: port=..&challenge=..&client=..
    std::string query(const std::string& client = "Test Agent", std::optional<std::string> challenge = {}) const;
    Socket accept(std::chrono::milliseconds timeout = 5s);
    std::string greeting() const;

private:
    int fd_ = -1;
    uint16_t port_ = 0;
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
    explicit HttpClient(uint16_t port);
    HttpResponse request(const std::string& method, const std::string& target,
                         const std::map<std::string, std::string>& headers, const std::string& body = "");
    bool isOpen() const { return socket_.valid(); }

private:
    uint16_t port_;
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

// What a hand-over gives the bridge.
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
    const SimLogFile& log() const { return log_; }
    uint16_t httpPort() const { return httpPort_; }
    const testsupport::TempDir& scratch() const { return scratch_; }

    // Posts the link notification for the listener under this identifier's name.
    void announce(const HandOverListener& listener, const std::string& identifier = kRelease,
                  const std::string& client = "Test Agent");
    // Announces, accepts and greets; the listener's connection and reply.
    Socket greeted(HandOverListener& listener);
    // A whole hand-over; throws when a step fails.
    LinkReply link(const std::string& client = "Test Agent");

    // A tools/call over the client; the whole JSON-RPC answer.
    Json call(HttpClient& http, const std::string& token, const std::string& tool,
              const Json& arguments = Json::object(), int id = 1);
    // The payload of a successful tool result (its last text parsed), or the text of an error result.
    static Json payload(const Json& rpcAnswer);
    static bool isToolError(const Json& rpcAnswer);

private:
    testsupport::TempDir scratch_;
    std::unique_ptr<testsupport::PrivateBus> bus_;
    std::unique_ptr<BusClient> client_;
    std::filesystem::path home_;
    SimLogFile log_;
    std::unique_ptr<testsupport::ChildProcess> process_;
    uint16_t httpPort_ = 0;
};

// A simulator with one link and a client on its HTTP port.
struct Linked {
    SimSession sim;
    LinkReply link;
    std::unique_ptr<HttpClient> http;

    explicit Linked(std::map<std::string, std::string> environment = {}, std::vector<std::string> arguments = {});
    Json call(const std::string& tool, const Json& arguments = Json::object(), int id = 1);
    // The payload of a call that must succeed.
    Json payload(const std::string& tool, const Json& arguments = Json::object());
    HttpResponse request(const std::string& method, const std::string& target, const std::string& body = "");
    // "-" stands for this link's token.
    HttpResponse upload(const std::string& name, const std::string& bytes, const std::string& token = "-");
    Json exportStatus(double waitSeconds) { return payload("export_video", {{"action", "status"}, {"wait_seconds", waitSeconds}}); }
    Json exportUntilSettled();
};

}  // namespace simtest
