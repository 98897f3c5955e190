#include "SimHarness.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/evp.h>
#include <poll.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <random>
#include <stdexcept>
#include <thread>

namespace simtest {

namespace {

const char* hexDigits = "0123456789abcdef";

std::string lower(std::string text) {
    for (auto& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

sockaddr_in loopback(uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

bool readable(int fd, std::chrono::milliseconds timeout) {
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, static_cast<int>(std::max<int64_t>(timeout.count(), 0))) > 0;
}

}  // namespace

std::string sha256Hex(const std::string& text) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(text.data(), text.size(), digest, &length, EVP_sha256(), nullptr);
    std::string out;
    for (unsigned i = 0; i < length; ++i) out += {hexDigits[digest[i] >> 4], hexDigits[digest[i] & 0xF]};
    return out;
}

std::string percentEncode(const std::string& text) {
    static const char* upper = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : text) {
        if (std::isalnum(c) || std::strchr("-._~", c)) out += static_cast<char>(c);
        else out += {'%', upper[c >> 4], upper[c & 0xF]};
    }
    return out;
}

BusClient::BusClient(const std::string& address) {
    if (sd_bus_new(&bus_) < 0 || sd_bus_set_address(bus_, address.c_str()) < 0 || sd_bus_set_bus_client(bus_, 1) < 0 ||
        sd_bus_start(bus_) < 0)
        throw std::runtime_error("cannot connect to the private bus");
}

BusClient::~BusClient() { sd_bus_flush_close_unref(bus_); }

void BusClient::post(const std::string& name, const std::string& object) {
    if (sd_bus_emit_signal(bus_, "/com/lumenfold/DistributedNotification", "com.lumenfold.DistributedNotification",
                           "Posted", "ss", name.c_str(), object.c_str()) < 0)
        throw std::runtime_error("cannot post the notification");
    sd_bus_flush(bus_);
}

bool BusClient::open(const std::string& identifier, const std::string& uri) {
    std::string path = "/" + identifier;
    std::replace(path.begin(), path.end(), '.', '/');
    sd_bus_error error = SD_BUS_ERROR_NULL;
    bool ok = sd_bus_call_method(bus_, identifier.c_str(), path.c_str(), "org.freedesktop.Application", "Open", &error,
                                 nullptr, "asa{sv}", 1, uri.c_str(), 0) >= 0;
    sd_bus_error_free(&error);
    return ok;
}

bool BusClient::hasOwner(const std::string& name) {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    int has = 0;
    if (sd_bus_call_method(bus_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                           "NameHasOwner", &error, &reply, "s", name.c_str()) >= 0)
        sd_bus_message_read(reply, "b", &has);
    sd_bus_error_free(&error);
    sd_bus_message_unref(reply);
    return has != 0;
}

Socket& Socket::operator=(Socket&& other) noexcept {
    if (this != &other) {
        close();
        fd_ = std::exchange(other.fd_, -1);
        buffer_ = std::move(other.buffer_);
    }
    return *this;
}

void Socket::close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

void Socket::send(const std::string& bytes) {
    for (size_t done = 0; done < bytes.size();) {
        ssize_t n = ::send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) throw std::runtime_error(std::string("send: ") + std::strerror(errno));
        done += static_cast<size_t>(n);
    }
}

std::optional<std::string> Socket::readLine(std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    size_t nl;
    while ((nl = buffer_.find('\n')) == std::string::npos) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        std::string chunk = receive(left);
        if (chunk.empty()) return std::nullopt;
        buffer_ += chunk;
    }
    std::string line = buffer_.substr(0, nl);
    buffer_.erase(0, nl + 1);
    return line;
}

std::string Socket::readSome(std::chrono::milliseconds timeout) {
    return buffer_.empty() ? receive(timeout) : std::exchange(buffer_, {});
}

std::string Socket::receive(std::chrono::milliseconds timeout) {
    if (!readable(fd_, timeout)) return "";
    char chunk[65536];
    ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
    return n > 0 ? std::string(chunk, static_cast<size_t>(n)) : "";
}

bool Socket::closedWithin(std::chrono::milliseconds timeout) {
    char byte;
    return buffer_.empty() && readable(fd_, timeout) && ::recv(fd_, &byte, 1, MSG_PEEK) <= 0;
}

HandOverListener::HandOverListener() {
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    auto address = loopback(0);
    socklen_t length = sizeof address;
    if (::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || ::listen(fd_, 4) != 0 ||
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        throw std::runtime_error("cannot listen");
    port_ = ntohs(address.sin_port);
    std::random_device random;
    for (int i = 0; i < 64; ++i) nonce_ += hexDigits[random() % 16];
}

HandOverListener::~HandOverListener() { ::close(fd_); }

std::string HandOverListener::query(const std::string& client, std::optional<std::string> challenge) const {
    return "port=" + std::to_string(port_) + "&challenge=" + percentEncode(challenge.value_or(sha256Hex(nonce_))) +
           "&client=" + percentEncode(client);
}

Socket HandOverListener::accept(std::chrono::milliseconds timeout) {
    return readable(fd_, timeout) ? Socket(::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC)) : Socket();
}

std::string HandOverListener::greeting() const {
    return Json{{"hello", "vantoric-studio-link"}, {"v", 3}, {"nonce", nonce_}}.dump() + "\n";
}

HttpClient::HttpClient(uint16_t port) : port_(port) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    auto address = loopback(port);
    socket_ = Socket(fd);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        throw std::runtime_error("cannot connect to the simulator's HTTP port");
    int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

HttpResponse HttpClient::request(const std::string& method, const std::string& target,
                                 const std::map<std::string, std::string>& headers, const std::string& body) {
    std::string head = method + " " + target + " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port_) + "\r\n";
    for (auto& [name, value] : headers) head += name + ": " + value + "\r\n";
    if (!body.empty() || method == "POST" || method == "PUT") head += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    socket_.send(head + "\r\n" + body);

    HttpResponse response;
    auto statusLine = socket_.readLine(30s);
    if (!statusLine) throw std::runtime_error("no HTTP answer to " + method + " " + target);
    response.status = std::stoi(statusLine->substr(9, 3));
    for (;;) {
        auto line = socket_.readLine(30s);
        if (!line) throw std::runtime_error("HTTP headers cut short");
        if (!line->empty() && line->back() == '\r') line->pop_back();
        if (line->empty()) break;
        auto colon = line->find(':');
        auto value = line->find_first_not_of(' ', colon + 1);
        response.headers[lower(line->substr(0, colon))] = value == std::string::npos ? "" : line->substr(value);
    }
    size_t length = std::stoull(response.headers.count("content-length") ? response.headers["content-length"] : "0");
    while (response.body.size() < length) {
        std::string chunk = socket_.readSome(30s);
        if (chunk.empty()) throw std::runtime_error("HTTP body cut short");
        response.body += chunk;
    }
    if (lower(response.headers["connection"]) == "close") socket_.close();
    return response;
}

std::vector<Json> SimLogFile::events(const std::string& name) const {
    std::vector<Json> list;
    std::ifstream in(path_);
    for (std::string line; std::getline(in, line);) {
        if (line.empty()) continue;
        Json event = Json::parse(line, nullptr, false);
        if (event.is_discarded()) throw std::runtime_error("a log line is not JSON: " + line);
        if (name.empty() || event.value("event", "") == name) list.push_back(std::move(event));
    }
    return list;
}

std::optional<Json> SimLogFile::waitFor(const std::string& name, const std::function<bool(const Json&)>& match,
                                        std::chrono::milliseconds timeout) const {
    for (auto deadline = std::chrono::steady_clock::now() + timeout;; std::this_thread::sleep_for(10ms)) {
        for (auto& event : events(name))
            if (!match || match(event)) return event;
        if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
    }
}

SimSession::SimSession()
    : bus_(std::make_unique<testsupport::PrivateBus>()), client_(std::make_unique<BusClient>(bus_->address())),
      home_(scratch_.path() / "home"), log_(scratch_.path() / "sim.jsonl") {}

SimSession::~SimSession() {
    if (process_) {
        process_->kill(SIGTERM);
        process_->wait(5s);
    }
}

void SimSession::stopBus() {
    client_.reset();
    bus_.reset();
}

void SimSession::start(Options options) {
    auto environment = bus_->environment();
    std::erase_if(environment, [](const auto& entry) { return entry.first.starts_with("STUDIO_SIM_"); });
    environment["STUDIO_SIM_HOME"] = home_.string();
    environment["STUDIO_SIM_LOG"] = (scratch_.path() / "sim.jsonl").string();
    for (auto& [name, value] : options.environment) environment[name] = value;
    std::vector<std::string> argv{(std::filesystem::path(VSM_BUNDLES_DIR) / options.bundle / "Contents/MacOS/Vantoric Studio").string()};
    argv.insert(argv.end(), options.arguments.begin(), options.arguments.end());
    process_ = std::make_unique<testsupport::ChildProcess>(
        testsupport::ChildProcess::Options{.argv = argv, .environment = environment, .workingDirectory = {}});
    auto ready = process_->readLine(10s);
    if (!ready || !ready->starts_with("studio-sim ready "))
        throw std::runtime_error("the simulator did not start: " + process_->stderrText());
    httpPort_ = static_cast<uint16_t>(std::stoi(ready->substr(ready->rfind(':') + 1)));
}

void SimSession::announce(const HandOverListener& listener, const std::string& identifier, const std::string& client) {
    client_->post(identifier + ".agent-link", listener.query(client));
}

Socket SimSession::greeted(HandOverListener& listener) {
    Socket connection = listener.accept();
    if (!connection.valid()) throw std::runtime_error("the simulator did not connect");
    connection.send(listener.greeting());
    return connection;
}

LinkReply SimSession::link(const std::string& client) {
    HandOverListener listener;
    announce(listener, kRelease, client);
    LinkReply link{greeted(listener), {}, {}};
    auto line = link.connection.readLine();
    if (!line) throw std::runtime_error("the simulator did not reply");
    link.reply = Json::parse(*line);
    link.token = link.reply.value("token", "");
    return link;
}

Json SimSession::call(HttpClient& http, const std::string& token, const std::string& tool, const Json& arguments, int id) {
    Json request = {{"jsonrpc", "2.0"}, {"id", id}, {"method", "tools/call"}, {"params", {{"name", tool}, {"arguments", arguments}}}};
    auto response = http.request("POST", "/mcp",
                                 {{"Authorization", "Bearer " + token}, {"Content-Type", "application/json"},
                                  {"Accept", "application/json, text/event-stream"}},
                                 request.dump());
    if (response.status != 200) throw std::runtime_error("HTTP " + std::to_string(response.status) + " for " + tool);
    return response.json();
}

Json SimSession::payload(const Json& rpcAnswer) {
    const Json& text = rpcAnswer.at("result").at("content").back().at("text");
    return isToolError(rpcAnswer) ? text : Json::parse(text.get<std::string>());
}

bool SimSession::isToolError(const Json& rpcAnswer) { return rpcAnswer.at("result").value("isError", false); }

Linked::Linked(std::map<std::string, std::string> environment, std::vector<std::string> arguments) {
    sim.start({.environment = std::move(environment), .arguments = std::move(arguments)});
    link = sim.link();
    http = std::make_unique<HttpClient>(sim.httpPort());
}

Json Linked::call(const std::string& tool, const Json& arguments, int id) {
    return sim.call(*http, link.token, tool, arguments, id);
}

Json Linked::payload(const std::string& tool, const Json& arguments) {
    Json answer = call(tool, arguments);
    if (SimSession::isToolError(answer)) throw std::runtime_error(tool + " failed: " + answer.dump());
    return SimSession::payload(answer);
}

HttpResponse Linked::request(const std::string& method, const std::string& target, const std::string& body) {
    return http->request(method, target, {{"Authorization", "Bearer " + link.token}}, body);
}

HttpResponse Linked::upload(const std::string& name, const std::string& bytes, const std::string& token) {
    return http->request("PUT", "/uploads?name=" + percentEncode(name),
                         {{"Authorization", "Bearer " + (token == "-" ? link.token : token)},
                          {"Content-Type", "application/octet-stream"}},
                         bytes);
}

Json Linked::exportUntilSettled() {
    for (int i = 0; i < 50; ++i) {
        Json p = exportStatus(15);
        if (p["phase"] == "completed" || p["phase"] == "failed" || p["phase"] == "cancelled") return p;
    }
    throw std::runtime_error("the export never settled");
}

}  // namespace simtest
