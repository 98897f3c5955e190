// Helpers for the link's tests: an I/O thread to run coroutines on, a
// blocking loopback client playing Studio's side of the hand-over, and a
// small HTTP server playing Studio's services.
#pragma once
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/use_future.hpp>
#include <chrono>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace linktest {

using namespace std::chrono_literals;
namespace asio = boost::asio;

// An io_context run by one background thread, with a strand standing in for
// the bridge's.
class IoThread {
public:
    IoThread() : work_(io_.get_executor()), strand_(asio::make_strand(io_)), thread_([this] { io_.run(); }) {}
    ~IoThread() {
        work_.reset();
        io_.stop();
        thread_.join();
    }
    asio::any_io_executor io() { return io_.get_executor(); }
    asio::any_io_executor strand() { return strand_; }

    template <class T>
    std::future<T> start(asio::awaitable<T> task) {
        return asio::co_spawn(strand_, std::move(task), asio::use_future);
    }
    template <class T>
    T run(asio::awaitable<T> task) {
        auto future = start(std::move(task));
        if (future.wait_for(10s) != std::future_status::ready) throw std::runtime_error("coroutine did not finish");
        return future.get();
    }
    template <class F>
    auto onStrand(F f) {
        std::packaged_task<decltype(f())()> task(std::move(f));
        auto future = task.get_future();
        asio::post(strand_, [&task] { task(); });
        return future.get();
    }

private:
    asio::io_context io_;
    asio::executor_work_guard<asio::io_context::executor_type> work_;
    asio::strand<asio::io_context::executor_type> strand_;
    std::thread thread_;
};

// The message of whatever the future throws ("" when it does not).
template <class T>
std::string failureOf(std::future<T>&& future) {
    try {
        future.get();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "";
}
template <class T>
std::string failureOf(std::future<T>& future) { return failureOf(std::move(future)); }

// A blocking loopback TCP client with deadlines, as Studio's side.
class Client {
public:
    explicit Client(uint16_t port);
    ~Client() { close(); }
    uint16_t localPort() const;
    void send(const std::string& bytes);
    // Bytes up to the next line feed; nothing at end or timeout.
    std::optional<std::string> readLine(std::chrono::milliseconds timeout = 5s);
    // True when the other side closed within the timeout.
    bool closedByPeer(std::chrono::milliseconds timeout = 5s);
    const std::string& received() const { return buffer_; }
    void close();

private:
    bool receive(std::chrono::steady_clock::time_point deadline);  // false at end or timeout
    int fd_ = -1;
    bool ended_ = false;
    std::string buffer_;
};

// A tiny HTTP/1.1 server on its own threads playing Studio's services; each
// request is recorded and answered by the handler.
class FakeHttp {
public:
    struct Request {
        std::string method, target;
        std::map<std::string, std::string> headers;  // lower-case names
        std::string body;
    };
    struct Response {
        int status = 200;
        std::string body;
        std::string contentType = "application/json";
        bool close = false;                // close the connection after answering
        size_t truncateBodyAt = SIZE_MAX;  // announce the full length, then close after this many bytes
    };

    FakeHttp();
    ~FakeHttp();
    uint16_t port() const { return port_; }
    std::string base() const { return "http://127.0.0.1:" + std::to_string(port_); }
    void setHandler(std::function<Response(const Request&)> handler);
    std::vector<Request> requests() const;
    int connections() const;
    void closeIdleConnections();

private:
    void serve(int fd);
    int listener_ = -1;
    uint16_t port_ = 0;
    std::thread acceptor_;
    mutable std::mutex mutex_;
    std::function<Response(const Request&)> handler_;
    std::vector<Request> requests_;
    std::vector<int> idle_;
    std::vector<std::thread> workers_;
    int connections_ = 0;
    bool stopping_ = false;
};

}  // namespace linktest
