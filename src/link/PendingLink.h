// One link establishment in progress, shared by every call that waits for
// it: its outcome once finished, the callbacks of those waiting, and the
// signal that cancels it. Touched only on the bridge's strand.
#pragma once
#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/cancellation_signal.hpp>
#include <exception>
#include <functional>
#include <optional>
#include <vector>

#include "link/Link.h"

namespace studiolink {

struct PendingLink {
    explicit PendingLink(boost::asio::any_io_executor strand) : strand(std::move(strand)) {}

    // Records the outcome and runs every callback, once.
    void finish(std::exception_ptr failure, std::optional<Link> result) {
        if (done) return;
        done = true;
        error = failure;
        link = std::move(result);
        auto callbacks = std::move(waiters);
        waiters.clear();
        for (auto& callback : callbacks) callback();
    }
    // Runs `callback` when finished; at once when already finished.
    void onFinish(std::function<void()> callback) {
        if (done) callback();
        else waiters.push_back(std::move(callback));
    }

    boost::asio::any_io_executor strand;
    bool done = false;
    std::optional<Link> link;
    std::exception_ptr error;
    std::vector<std::function<void()>> waiters;
    boost::asio::cancellation_signal cancel;
};

}  // namespace studiolink
