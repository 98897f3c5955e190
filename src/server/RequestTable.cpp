#include "server/RequestTable.h"

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>

namespace server {

void RequestTable::Call::cancel() {
    cancelled = true;
    signal.emit(boost::asio::cancellation_type::terminal);
}

std::shared_ptr<RequestTable::Call> RequestTable::add(const std::string& key, ProtocolEra::Era era) {
    auto call = std::make_shared<Call>();
    call->era = era;
    call->order = ++received_;
    calls_[key] = call;
    return call;
}

void RequestTable::finish(const std::string& key, const std::shared_ptr<Call>& call) {
    if (auto entry = calls_.find(key); entry != calls_.end() && entry->second == call) calls_.erase(entry);
}

void RequestTable::cancel(const std::string& key) {
    auto entry = calls_.find(key);
    if (entry == calls_.end()) return;
    auto cancelled = std::move(entry->second);
    calls_.erase(entry);
    cancelled->cancel();
}

void RequestTable::cancelAll() {
    for (auto& [key, call] : calls_) call->cancel();
}

const RequestTable::Call* RequestTable::firstToolCall() const {
    const Call* first = nullptr;
    for (const auto& [key, call] : calls_)
        if (call->toolCall && (!first || call->order < first->order)) first = call.get();
    return first;
}

boost::asio::awaitable<void, boost::asio::any_io_executor> RequestTable::settled(
    std::chrono::steady_clock::duration within, std::chrono::milliseconds poll) const {
    if (calls_.empty()) co_return;
    const auto deadline = std::chrono::steady_clock::now() + within;
    boost::asio::steady_timer timer(co_await boost::asio::this_coro::executor);
    while (!calls_.empty() && std::chrono::steady_clock::now() < deadline) {
        timer.expires_after(poll);
        co_await timer.async_wait(
            boost::asio::as_tuple(boost::asio::use_awaitable_t<boost::asio::any_io_executor>{}));
    }
}

}  // namespace server
