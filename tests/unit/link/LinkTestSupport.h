// Helpers for the link's tests: an I/O thread to run coroutines on, and a
// small HTTP server that plays Studio's services.
#pragma once
#include "link/BlockingWork.h"
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/use_future.hpp>
#include <chrono>
#include <functional>
#include <future>
#include <string>
#include <thread>

#include "support/FakeHttp.h"

namespace linktest {

using namespace std::chrono_literals;
namespace asio = boost::asio;

// An io_context run by one background thread, with a strand standing in for
// the bridge's.
class IoThread {
public:
    IoThread() : work_(io_.get_executor()), strand_(asio::make_strand(io_)), thread_([this] { io_.run(); }) {}
    ~IoThread() {
        // Jobs of the blocking pool answer to this context: none may still
        // hold a piece of it when it goes.
        blocking::settle();
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

// Studio's services, played by a small HTTP server of the test support.
using testsupport::FakeHttp;

}  // namespace linktest
