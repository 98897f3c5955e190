#include "server/Transport.h"

#include <cstdint>
#include <cstdio>

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>

#include "server/StudioMCPBridge.h"

std::string Transport::key(const Json& id) {
    switch (id.type()) {
    case Json::value_t::number_integer:
        return "n:" + std::to_string(id.get<std::int64_t>());
    case Json::value_t::number_unsigned:
        return "n:" + std::to_string(id.get<std::uint64_t>());
    case Json::value_t::boolean:
        return id.get<bool>() ? "n:1" : "n:0";
    case Json::value_t::number_float: {
        // Sixteen significant digits, as a number object describes a double:
        // 7.0 is n:7 like the integer 7, and 2.5 is n:2.5.
        char text[40];
        std::snprintf(text, sizeof text, "%.16g", id.get<double>());
        return std::string("n:") + text;
    }
    case Json::value_t::string:
        return "s:" + id.get_ref<const std::string&>();
    default:
        return "s:" + id.dump(-1, ' ', false, Json::error_handler_t::replace);
    }
}

std::optional<std::string> Transport::messageLine(const Json& message) {
    try {
        std::string line = compactJSON(message);
        line.push_back('\n');
        return line;
    } catch (...) {
        return std::nullopt;
    }
}

std::optional<std::string> Transport::successLine(const Json& id, const Json& result) {
    try {
        std::string line = R"({"jsonrpc":"2.0","id":)";
        line += compactJSON(id);
        line += R"(,"result":)";
        line += compactJSON(result);
        line += "}\n";
        return line;
    } catch (...) {
        return std::nullopt;
    }
}

Json Transport::errorReply(const Json& id, int code, std::string_view message) {
    Json error = Json::object();
    error["code"] = code;
    error["message"] = message;
    Json reply = Json::object();
    reply["jsonrpc"] = "2.0";
    reply["id"] = id;
    reply["error"] = std::move(error);
    return reply;
}

Json Transport::parseErrorReply() { return errorReply(nullptr, -32700, "Parse error"); }

// ---- the bridge's side: receiving lines, starting and cancelling requests,
// writing messages, shutting down ----

void StudioMCPBridge::receive(std::string_view line) {
    auto parsed = parseJSON(line);
    if (!parsed) {
        send(parseErrorReply());
        return;
    }
    // A batch is never answered as a batch: each element stands alone.
    if (parsed->is_array()) {
        for (auto& element : *parsed) handle(std::move(element));
    } else {
        handle(std::move(*parsed));
    }
}

void StudioMCPBridge::handle(Json message) {
    if (!message.is_object()) return;
    auto method = message.find("method");
    if (method == message.end() || !method->is_string()) return;  // replies from the agent land here

    auto id = message.find("id");
    if (id != message.end() && !id->is_null()) {
        static const Json noParams = Json::object();
        auto params = message.find("params");
        Era era = ProtocolEra::of(method->get_ref<const std::string&>(), params == message.end() ? noParams : *params);
        Json idValue = *id;
        start(std::move(message), idValue, era);
        return;
    }

    if (method->get_ref<const std::string&>() != "notifications/cancelled") return;
    auto params = message.find("params");
    if (params == message.end() || !params->is_object()) return;
    auto requestId = params->find("requestId");
    if (requestId == params->end()) return;
    auto entry = calls.find(key(*requestId));
    if (entry == calls.end()) return;
    auto cancelled = std::move(entry->second);
    calls.erase(entry);
    cancelled->cancel();
}

void StudioMCPBridge::start(Json request, const Json& id, Era era) {
    // Registered before its task can run, so that the task's own removal of
    // its key at the end always finds it. An earlier task under the same key
    // keeps running; it just can no longer be cancelled by id.
    auto entry = std::make_shared<Call>();
    entry->era = era;
    entry->order = ++received_;
    calls[key(id)] = entry;

    // Posted, not dispatched: the task starts only after this line has been
    // handled to its end, so a cancellation later in the same batch reaches
    // it before it replies.
    boost::asio::post(strand_, [strand = strand_, weak = weak_from_this(), request = std::move(request),
                                entry]() mutable {
        boost::asio::co_spawn(strand, run(std::move(weak), std::move(request), entry),
                              boost::asio::bind_cancellation_slot(entry->signal.slot(), boost::asio::detached));
        // A cancellation that came before the task was spawned found no
        // task to abort; pass it on now.
        if (entry->cancelled) entry->signal.emit(boost::asio::cancellation_type::terminal);
    });
}

StudioMCPBridge::Task<void> StudioMCPBridge::run(std::weak_ptr<StudioMCPBridge> bridge, Json request,
                                                 std::shared_ptr<Call> entry) {
    auto self = bridge.lock();
    if (!self) co_return;
    co_await self->answer(std::move(request), std::move(entry));
}

void StudioMCPBridge::send(const Json& message) { sendLine(messageLine(message)); }

void StudioMCPBridge::sendLine(const std::optional<std::string>& line) {
    if (line) output(*line);
}

StudioMCPBridge::Task<void> StudioMCPBridge::drain(std::chrono::steady_clock::duration within) {
    stopped = true;
    stopLink();
    for (auto& [requestKey, entry] : calls) entry->cancel();

    // Each finishing request removes its own entry.
    if (calls.empty()) co_return;
    const auto deadline = std::chrono::steady_clock::now() + within;
    boost::asio::steady_timer timer(co_await boost::asio::this_coro::executor);
    while (!calls.empty() && std::chrono::steady_clock::now() < deadline) {
        timer.expires_after(timing.drainPoll);
        co_await timer.async_wait(boost::asio::as_tuple(boost::asio::use_awaitable_t<Executor>{}));
    }
}
