// Blocking platform calls (the session bus, /proc, starting a process) run
// on a small pool of their own, never on the I/O thread: the calling
// coroutine waits for the result and the bridge's strand goes on serving,
// pings included, however long the call takes within its own deadline.
#pragma once
#include <boost/asio/awaitable.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <type_traits>

namespace offthread {

inline boost::asio::thread_pool& pool() {
    static boost::asio::thread_pool threads(2);
    return threads;
}

// A plain function, not a capturing lambda: a coroutine's parameters live
// in its frame, a lambda's captures do not.
template <class F>
boost::asio::awaitable<std::invoke_result_t<F&>> invoke(F f) {
    co_return f();
}

// f() on the pool, resumed on the caller's executor. `f` must return a value.
template <class F>
boost::asio::awaitable<std::invoke_result_t<F&>> run(F f) {
    co_return co_await boost::asio::co_spawn(pool(), invoke(std::move(f)), boost::asio::use_awaitable);
}

}  // namespace offthread
