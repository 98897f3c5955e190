// Work that may block for long (opening, writing, syncing and moving files
// that the agent named, which can sit on a slow disk, a network share or be
// a device) runs on a thread of its own, never on the I/O thread: pings,
// cancellations and other calls go on meanwhile. The awaiting coroutine
// resumes on its own executor with the result or the exception.
//
// The work itself cannot be interrupted; a cancelled caller sees its
// cancellation once the work has returned.
#pragma once
#include <functional>
#include <memory>
#include <type_traits>
#include <utility>

#include <boost/asio/awaitable.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/use_awaitable.hpp>

namespace blocking {

// One thread for the whole process, never joined: a process that exits
// while a write hangs on a dead share must not wait for it.
boost::asio::thread_pool& workers();

template <class Work>
boost::asio::awaitable<std::invoke_result_t<Work>> run(Work work) {
    using Result = std::invoke_result_t<Work>;
    co_return co_await boost::asio::co_spawn(
        workers().get_executor(),
        [work = std::move(work)]() mutable -> boost::asio::awaitable<Result> { co_return work(); },
        boost::asio::use_awaitable);
}

// Destroys the object on the worker thread; for owners whose destructor
// removes files.
template <class T>
void discard(std::unique_ptr<T> object) {
    if (object) boost::asio::post(workers(), [doomed = std::shared_ptr<T>(std::move(object))]() mutable { doomed.reset(); });
}

}  // namespace blocking
