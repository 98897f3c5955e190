// Helpers for the link's tests: an I/O thread to run coroutines on, a
// blocking loopback client that plays Studio's side of the hand-over, and a
// small HTTP server that plays Studio's services.
#pragma once
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/use_future.hpp>
#include <chrono>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
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

    // Starts the coroutine on the strand; the future holds its outcome.
    template <class T>
    std::future<T> start(asio::awaitable<T> task) {
        return asio::co_spawn(strand_, std::move(task), asio::use_future);
    }
    template <class T>
    T run(asio::awaitable<T> task, std::chrono::milliseconds timeout = 10s) {
        auto future = start(std::move(task));
        if (future.wait_for(timeout) != std::future_status::ready) throw std::runtime_error("coroutine did not finish");
        return future.get();
    }
    // Runs a plain function on the strand and waits for it.
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
std::string failureOf(std::future<T>& future) {
    try {
        future.get();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "";
}

// A blocking loopback TCP client with deadlines, as Studio's side.
class Client {
public:
    explicit Client(uint16_t port);
    ~Client();
    uint16_t localPort() const;
    void send(const std::string& bytes);
    // Bytes up to and without the next line feed; nothing at end or timeout.
    std::optional<std::string> readLine(std::chrono::milliseconds timeout = 5s);
    // True when the other side closed (read returns 0) within the timeout.
    bool closedByPeer(std::chrono::milliseconds timeout = 5s);
    // Bytes received before the close (for "closed without a byte").
    const std::string& received() const { return buffer_; }
    void close();

private:
    int fd_ = -1;
    std::string buffer_;
};

// A tiny HTTP/1.1 server on its own thread playing Studio's services. Each
// request is answered by `handler`; requests are recorded.
class FakeHttp {
public:
    struct Request {
        std::string method;
        std::string target;
        std::map<std::string, std::string> headers;
        std::string body;
    };
    struct Response {
        int status = 200;
        std::string body;
        std::string contentType = "application/json";
        bool close = false;             // close the connection after answering
        size_t truncateBodyAt = SIZE_MAX;  // announce the full length, then close after this many bytes
        std::chrono::milliseconds delay{0};
    };

    FakeHttp();
    ~FakeHttp();
    uint16_t port() const { return port_; }
    std::string base() const { return "http://127.0.0.1:" + std::to_string(port_); }

    void setHandler(std::function<Response(const Request&)> handler);
    std::vector<Request> requests() const;
    int connections() const;
    // Closes every connection that is waiting for its next request.
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
