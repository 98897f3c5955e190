// Measures the link against a running Studio simulator:
//   link_bench handover <count>
//       time from asking for a link to having it, with a Studio that allows
//       at once (a fresh hand-over each time);
//   link_bench direct <calls> <tool> <arguments>
//       a keep-alive HTTP client of its own posting tools/call straight to
//       Studio's endpoint (the hand-over done once beforehand): per-call
//       latency one at a time, then calls per second with 8 in flight;
//   link_bench bridge <bridge> <calls> <tool> <arguments>
//       the same calls through the bridge over stdio, as an agent sends them;
//   link_bench rejection <count>
//       the peer check of a connection that is not Studio's: alone (each
//       takes its own look at the processes), and within a burst of <count>
//       accepted together (one look shared);
//   link_bench flood <count> <per-second>
//       hand-over time while connections that are not Studio's arrive at
//       <per-second> on the announced port.
// VANTORIC_STUDIO_APP names the simulator's bundle and
// DBUS_SESSION_BUS_ADDRESS its bus. Output: one line of JSON per measure.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/connect.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/use_future.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <map>
#include <mutex>
#include "json/Json.h"
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>

#include "link/StudioConnection.h"
#include "peer/StudioPeer.h"
#include "platform/NotificationCenter.h"
#include "base/StudioLocation.h"
#include "platform/Environment.h"
#include "platform/Executable.h"
#include "support/IoThread.h"

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using json = Json;
using Clock = std::chrono::steady_clock;
using peer::StudioPeer;
using studiolink::Link;
using studiolink::StudioConnection;

extern char** environ;

namespace {

double ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

json summary(const std::string& what, std::vector<double> samples) {
    std::sort(samples.begin(), samples.end());
    auto at = [&](double q) { return samples[std::min(samples.size() - 1, static_cast<size_t>(q * samples.size()))]; };
    return {{"measure", what}, {"count", samples.size()}, {"median_ms", at(0.5)}, {"p99_ms", at(0.99)}};
}

using bench::Io;

std::shared_ptr<StudioConnection> newConnection(Io& io) {
    auto env = platform::captureEnvironment();
    auto app = StudioLocation::locateApp(platform::ownExecutable(), env);
    return StudioConnection::create(io.strand, io.io.get_executor(), app, [] { return std::string("link_bench"); },
                                    StudioConnection::Services::system(StudioLocation::studioIdentifier(app)));
}

Link obtain(Io& io, const std::shared_ptr<StudioConnection>& connection) {
    return asio::co_spawn(io.strand, connection->connect(), asio::use_future).get();
}

int handover(int count) {
    Io io;
    std::vector<double> samples;
    for (int i = 0; i < count; ++i) {
        auto connection = newConnection(io);
        auto start = Clock::now();
        obtain(io, connection);
        samples.push_back(ms(Clock::now() - start));
        asio::post(io.strand, [connection] { connection->stop(); });
    }
    std::cout << summary("handover", samples).dump() << "\n";
    return 0;
}

std::string requestBody(int id, const std::string& tool, const json& arguments) {
    return json{{"jsonrpc", "2.0"}, {"id", id}, {"method", "tools/call"},
                {"params", {{"name", tool}, {"arguments", arguments}}}}
        .dump();
}

// One keep-alive connection posting calls one after another.
struct DirectClient {
    DirectClient(asio::io_context& io, const Link& link) : stream(io), link(link) {
        asio::ip::tcp::endpoint endpoint(asio::ip::make_address(*link.endpoint.host), *link.endpoint.port);
        stream.connect(endpoint);
        stream.socket().set_option(asio::ip::tcp::no_delay(true));
    }
    void call(int id, const std::string& tool, const json& arguments) {
        http::request<http::string_body> request{http::verb::post, link.endpoint.target(), 11};
        request.set(http::field::host, link.endpoint.authority());
        request.set(http::field::authorization, "Bearer " + link.token);
        request.set(http::field::content_type, "application/json");
        request.set(http::field::accept, "application/json, text/event-stream");
        request.body() = requestBody(id, tool, arguments);
        request.prepare_payload();
        http::write(stream, request);
        http::response<http::string_body> response;
        http::read(stream, buffer, response);
        if (response.result_int() != 200) throw std::runtime_error("HTTP " + std::to_string(response.result_int()));
    }
    beast::tcp_stream stream;
    beast::flat_buffer buffer;
    Link link;
};

int direct(int calls, const std::string& tool, const json& arguments) {
    Io io;
    auto connection = newConnection(io);
    Link link = obtain(io, connection);
    asio::io_context clientIo;
    {
        DirectClient client(clientIo, link);
        std::vector<double> samples;
        for (int i = 0; i < calls; ++i) {
            auto start = Clock::now();
            client.call(i + 1, tool, arguments);
            samples.push_back(ms(Clock::now() - start));
        }
        std::cout << summary("direct_sequential", samples).dump() << "\n";
    }
    std::vector<std::thread> workers;
    auto start = Clock::now();
    for (int w = 0; w < 8; ++w) {
        workers.emplace_back([&, w] {
            asio::io_context own;
            DirectClient client(own, link);
            for (int i = w; i < calls; i += 8) client.call(i + 1, tool, arguments);
        });
    }
    for (auto& t : workers) t.join();
    double seconds = ms(Clock::now() - start) / 1000;
    std::cout << json{{"measure", "direct_parallel8"}, {"count", calls}, {"calls_per_second", calls / seconds}}.dump()
              << "\n";
    asio::post(io.strand, [connection] { connection->stop(); });
    return 0;
}

// The bridge as a child over pipes, driven the way an agent drives it.
class Bridge {
public:
    explicit Bridge(const std::string& binary) {
        signal(SIGPIPE, SIG_IGN);
        int in[2], out[2];
        if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in[0], 0);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        std::vector<char*> argv{const_cast<char*>(binary.c_str()), nullptr};
        if (posix_spawn(&pid_, binary.c_str(), &actions, nullptr, argv.data(), environ) != 0)
            throw std::runtime_error("could not start " + binary);
        posix_spawn_file_actions_destroy(&actions);
        close(in[0]);
        close(out[1]);
        in_ = in[1];
        out_ = out[0];
    }
    ~Bridge() {
        close(in_);
        int status;
        waitpid(pid_, &status, 0);
        close(out_);
    }
    void send(const std::string& line) {
        std::string bytes = line + "\n";
        if (write(in_, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
            throw std::runtime_error("write to the bridge failed");
    }
    json receive() {
        for (;;) {
            auto newline = buffer_.find('\n');
            if (newline != std::string::npos) {
                auto line = buffer_.substr(0, newline);
                buffer_.erase(0, newline + 1);
                return json::parse(line);
            }
            char chunk[65536];
            ssize_t n = read(out_, chunk, sizeof chunk);
            if (n <= 0) throw std::runtime_error("the bridge ended its output");
            buffer_.append(chunk, static_cast<size_t>(n));
        }
    }

private:
    pid_t pid_ = -1;
    int in_ = -1, out_ = -1;
    std::string buffer_;
};

std::string callLine(int id, const std::string& tool, const json& arguments) { return requestBody(id, tool, arguments); }

int bridge(const std::string& binary, int calls, const std::string& tool, const json& arguments) {
    Bridge bridge(binary);
    bridge.send(R"({"jsonrpc":"2.0","id":0,"method":"initialize","params":{"protocolVersion":"2025-06-18","capabilities":{},"clientInfo":{"name":"link_bench","version":"1"}}})");
    bridge.receive();
    bridge.send(R"({"jsonrpc":"2.0","method":"notifications/initialized"})");

    auto first = Clock::now();
    bridge.send(callLine(1, tool, arguments));
    auto answer = bridge.receive();
    if (answer["result"].value("isError", false)) throw std::runtime_error("first call failed: " + answer.dump());
    std::cout << json{{"measure", "bridge_first_call"}, {"ms", ms(Clock::now() - first)}}.dump() << "\n";

    std::vector<double> samples;
    for (int i = 0; i < calls; ++i) {
        auto start = Clock::now();
        bridge.send(callLine(i + 2, tool, arguments));
        bridge.receive();
        samples.push_back(ms(Clock::now() - start));
    }
    std::cout << summary("bridge_sequential", samples).dump() << "\n";

    int next = calls + 2, done = 0, sent = 0;
    auto start = Clock::now();
    for (; sent < std::min(8, calls); ++sent) bridge.send(callLine(next++, tool, arguments));
    while (done < calls) {
        bridge.receive();
        ++done;
        if (sent < calls) {
            bridge.send(callLine(next++, tool, arguments));
            ++sent;
        }
    }
    double seconds = ms(Clock::now() - start) / 1000;
    std::cout << json{{"measure", "bridge_parallel8"}, {"count", calls}, {"calls_per_second", calls / seconds}}.dump()
              << "\n";
    return 0;
}

// A loopback listener and connections to it from this process.
struct Loopback {
    Loopback() {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address);
        listen(listener, 4096);
        socklen_t length = sizeof address;
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
        port = ntohs(address.sin_port);
    }
    ~Loopback() { close(listener); }
    // The peer port of a new connection, accepted.
    std::pair<uint16_t, std::pair<int, int>> connectOne() {
        int client = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address);
        int accepted = accept(listener, nullptr, nullptr);
        socklen_t length = sizeof address;
        getsockname(client, reinterpret_cast<sockaddr*>(&address), &length);
        return {ntohs(address.sin_port), {client, accepted}};
    }
    int listener = socket(AF_INET, SOCK_STREAM, 0);
    uint16_t port = 0;
};

int rejection(int count) {
    auto env = platform::captureEnvironment();
    auto app = StudioLocation::locateApp(platform::ownExecutable(), env);
    if (!app) throw std::runtime_error("no Studio bundle");
    StudioPeer peer(StudioLocation::studioIdentifier(app));
    Loopback loopback;
    std::vector<double> alone;
    for (int i = 0; i < count; ++i) {
        auto [peerPort, fds] = loopback.connectOne();
        auto start = Clock::now();
        if (peer.studio(*app, peerPort, loopback.port, start)) throw std::runtime_error("taken for Studio");
        alone.push_back(ms(Clock::now() - start));
        close(fds.first);
        close(fds.second);
    }
    std::cout << summary("rejection_alone", alone).dump() << "\n";
    std::vector<std::pair<uint16_t, std::pair<int, int>>> burst;
    for (int i = 0; i < count; ++i) burst.push_back(loopback.connectOne());
    auto acceptedAt = Clock::now();
    std::vector<double> shared;
    for (auto& [peerPort, fds] : burst) {
        auto start = Clock::now();
        if (peer.studio(*app, peerPort, loopback.port, acceptedAt)) throw std::runtime_error("taken for Studio");
        shared.push_back(ms(Clock::now() - start));
        close(fds.first);
        close(fds.second);
    }
    std::cout << summary("rejection_in_burst", shared).dump() << "\n";
    return 0;
}

// Forwards to the real centre and tells the flood where to aim.
class PortSpy final : public platform::NotificationCenter {
public:
    std::optional<platform::SystemError> post(const std::string& name, const std::string& object) override {
        port = std::atoi(object.c_str() + 5);  // "port=<n>&..."
        return platform::systemNotificationCenter().post(name, object);
    }
    std::atomic<int> port{0};
};

int flood(int count, int perSecond) {
    std::vector<double> samples;
    for (int i = 0; i < count; ++i) {
        Io io;
        PortSpy spy;
        auto env = platform::captureEnvironment();
        auto app = StudioLocation::locateApp(platform::ownExecutable(), env);
        auto services = StudioConnection::Services::system(StudioLocation::studioIdentifier(app));
        StudioConnection::Services spied{spy,           services.running,          services.launcher,
                                         services.random, services.peer,          services.verifyPeer,
                                         services.bundleIdentifier, services.notificationName, services.hello};
        auto connection = StudioConnection::create(io.strand, io.io.get_executor(), app,
                                                   [] { return std::string("link_bench"); }, std::move(spied));
        std::atomic<bool> done{false};
        std::vector<int> hostile;
        std::thread flooder([&] {
            auto next = Clock::now();
            while (!done) {
                if (int port = spy.port) {
                    int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
                    sockaddr_in address{};
                    address.sin_family = AF_INET;
                    address.sin_port = htons(static_cast<uint16_t>(port));
                    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
                    connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
                    hostile.push_back(fd);
                }
                next += std::chrono::microseconds(1'000'000 / perSecond);
                std::this_thread::sleep_until(next);
            }
        });
        auto start = Clock::now();
        try {
            obtain(io, connection);
        } catch (...) {
            done = true;
            flooder.join();
            throw;
        }
        samples.push_back(ms(Clock::now() - start));
        done = true;
        flooder.join();
        for (int fd : hostile) close(fd);
        asio::post(io.strand, [connection] { connection->stop(); });
    }
    std::cout << summary("handover_under_flood", samples).dump() << "\n";
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        std::string mode = argc > 1 ? argv[1] : "";
        if (mode == "handover" && argc == 3) return handover(std::stoi(argv[2]));
        if (mode == "direct" && argc == 5) return direct(std::stoi(argv[2]), argv[3], json::parse(argv[4]));
        if (mode == "rejection" && argc == 3) return rejection(std::stoi(argv[2]));
        if (mode == "flood" && argc == 4) return flood(std::stoi(argv[2]), std::stoi(argv[3]));
        if (mode == "bridge" && argc == 6) return bridge(argv[2], std::stoi(argv[3]), argv[4], json::parse(argv[5]));
    } catch (const std::exception& e) {
        std::cerr << "link_bench: " << e.what() << "\n";
        return 1;
    }
    std::cerr << "usage: link_bench handover <count> | direct <calls> <tool> <arguments> | "
                 "bridge <bridge> <calls> <tool> <arguments> | rejection <count> | flood <count> <per-second>\n";
    return 2;
}
