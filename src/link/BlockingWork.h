// Work that may block for long runs on a small pool of its own, never on the
// I/O thread: the session bus and /proc of the hand-over, and opening,
// writing, syncing and moving files the agent named (which can sit on a
// slow disk or a network share, or be a device). The calling coroutine waits
// for the result and the bridge's strand goes on serving, pings included.
//
// The work cannot be interrupted: it runs to its end (each has its own
// deadline, or is bounded by the file system) and the result or exception
// comes back on the caller's executor, where a cancelled caller then sees
// its cancellation. Asio's co_spawn is not used: it forwards a cancellation
// to a child that may already have finished and been freed.
#pragma once
#include <atomic>
#include <exception>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

#include <boost/asio/associated_executor.hpp>
#include <boost/asio/async_result.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/use_awaitable.hpp>

namespace studiolink::blocking {

// Two threads for the whole process (a bus call of up to five seconds must
// not hold a download's writes), never joined: a process that exits while a
// write hangs on a dead share must not wait for it.
boost::asio::thread_pool& workers();

// Jobs posted to the pool and not yet wholly finished, their closures
// included. For whoever destroys an executor that jobs answer to (a test's
// io_context): settle() waits until none is left.
std::atomic<int>& pending();
void settle();

namespace detail {
// Counts a job from its posting until everything it held is gone.
struct Pending {
    Pending() { pending().fetch_add(1); }
    Pending(Pending&& other) noexcept : live(std::exchange(other.live, false)) {}
    Pending(const Pending&) = delete;
    ~Pending() { done(); }
    void done() {
        if (std::exchange(live, false)) pending().fetch_sub(1);
    }
    bool live = true;
};
}  // namespace detail

// work() on the pool; its value, or its exception rethrown, in the caller.
template <class Work>
auto run(Work work) {
    using Result = std::invoke_result_t<Work&>;
    auto initiation = [work = std::move(work)](auto handler) mutable {
        auto guard = boost::asio::make_work_guard(boost::asio::get_associated_executor(handler));
        // The count drops once the job holds nothing but moved-from shells.
        boost::asio::post(workers(), [counted = detail::Pending(), work = std::move(work), handler = std::move(handler),
                                      guard = std::move(guard)]() mutable {
            struct Done {
                detail::Pending& counted;
                ~Done() { counted.done(); }
            } last{counted};
            auto executor = guard.get_executor();
            std::exception_ptr failure;
            // The work, and whatever it holds, is gone before the result is
            // posted, and the executor's work count goes with the result:
            // once the caller has its answer, nothing here may touch what its
            // executor owns, since that executor may have ended.
            std::optional<Work> owned(std::move(work));
            if constexpr (std::is_void_v<Result>) {
                try {
                    (*owned)();
                } catch (...) {
                    failure = std::current_exception();
                }
                owned.reset();
                boost::asio::post(executor, [handler = std::move(handler), failure, guard = std::move(guard)]() mutable {
                    std::move(handler)(failure);
                });
            } else {
                std::optional<Result> result;
                try {
                    result.emplace((*owned)());
                } catch (...) {
                    failure = std::current_exception();
                }
                owned.reset();
                boost::asio::post(executor, [handler = std::move(handler), failure, result = std::move(result),
                                             guard = std::move(guard)]() mutable {
                    std::move(handler)(failure, result ? std::move(*result) : Result{});
                });
            }
        });
    };
    if constexpr (std::is_void_v<Result>)
        return boost::asio::async_initiate<const boost::asio::use_awaitable_t<>&, void(std::exception_ptr)>(
            std::move(initiation), boost::asio::use_awaitable);
    else
        return boost::asio::async_initiate<const boost::asio::use_awaitable_t<>&, void(std::exception_ptr, Result)>(
            std::move(initiation), boost::asio::use_awaitable);
}

// Destroys the object on the pool; for owners whose destructor removes files.
template <class T>
void discard(std::unique_ptr<T> object) {
    if (object)
        boost::asio::post(workers(), [counted = detail::Pending(), doomed = std::shared_ptr<T>(std::move(object))]() mutable {
            doomed.reset();
        });
}

}  // namespace studiolink::blocking
