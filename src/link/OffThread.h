// Blocking platform calls (the session bus, /proc, starting a process) run
// on a small pool of their own, never on the I/O thread: the calling
// coroutine waits for the result and the bridge's strand goes on serving,
// pings included, however long the call takes within its own deadline.
//
// The wait cannot be cancelled: the call runs to its end (each has its own
// deadline) and the result comes back to the caller's executor, where a
// cancelled caller then sees its cancellation. Asio's co_spawn is not used
// here: it forwards a cancellation to a child that may already have finished
// and been freed.
#pragma once
#include <boost/asio/associated_executor.hpp>
#include <boost/asio/async_result.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <type_traits>

namespace offthread {

inline boost::asio::thread_pool& pool() {
    static boost::asio::thread_pool threads(2);
    return threads;
}

// f() on the pool, resumed on the caller's executor. `f` must return a value
// and must not throw.
template <class F>
auto run(F f) {
    using Result = std::invoke_result_t<F&>;
    auto initiation = [f = std::move(f)](auto handler) mutable {
        auto work = boost::asio::make_work_guard(boost::asio::get_associated_executor(handler));
        boost::asio::post(pool(), [f = std::move(f), handler = std::move(handler), work = std::move(work)]() mutable {
            Result result = f();
            auto executor = work.get_executor();
            boost::asio::post(executor, [handler = std::move(handler), result = std::move(result)]() mutable {
                std::move(handler)(std::move(result));
            });
        });
    };
    return boost::asio::async_initiate<const boost::asio::use_awaitable_t<>&, void(Result)>(std::move(initiation),
                                                                                           boost::asio::use_awaitable);
}

}  // namespace offthread
