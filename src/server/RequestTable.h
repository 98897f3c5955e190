// The requests being answered, filed under their request key (Framing::key)
// so that "notifications/cancelled" and the shutdown find them. A request is
// filed before its task can run and leaves when its task ends; a later
// request under the same key takes the key over, and the earlier one runs
// on without being reachable by id. Cancelling sets the flag the task looks
// at before it replies and aborts whatever asynchronous wait it is in
// (Asio's operation_aborted, the only cancellation there is). Used on the
// bridge's strand only.
#pragma once
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/cancellation_signal.hpp>

#include "server/ProtocolEra.h"

namespace server {

class RequestTable {
public:
    struct Call {
        boost::asio::cancellation_signal signal;
        bool cancelled = false;
        // Decided from the request alone when its line is read.
        ProtocolEra::Era era = ProtocolEra::Era::handshake;
        // In arrival order, so that the hand-over can tell which waiting
        // tool call came first.
        std::uint64_t order = 0;
        // Set while a tool call runs; `agent` is the name a stateless
        // request gave for itself.
        bool toolCall = false;
        std::optional<std::string> agent;

        void cancel();
    };

    std::shared_ptr<Call> add(const std::string& key, ProtocolEra::Era era);
    // The request's task has ended: its entry leaves, unless a later request
    // has taken its key.
    void finish(const std::string& key, const std::shared_ptr<Call>& call);
    // "notifications/cancelled": the request leaves at once and is cancelled.
    void cancel(const std::string& key);
    void cancelAll();
    bool empty() const { return calls_.empty(); }

    // The tool call that has waited longest, or nothing.
    const Call* firstToolCall() const;

    // Waits until every request has left or `within` has passed, looking
    // every `poll`.
    boost::asio::awaitable<void, boost::asio::any_io_executor> settled(std::chrono::steady_clock::duration within,
                                                                       std::chrono::milliseconds poll) const;

private:
    std::map<std::string, std::shared_ptr<Call>> calls_;
    std::uint64_t received_ = 0;
};

}  // namespace server
