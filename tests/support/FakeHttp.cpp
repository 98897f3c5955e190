#include "support/FakeHttp.h"

#include <algorithm>
#include <atomic>
#include <thread>

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>

#include "link/ByteStream.h"

namespace asio = boost::asio;
namespace http = boost::beast::http;
using boost::system::error_code;
using tcp = asio::ip::tcp;
using studiolink::ByteStream;

namespace testsupport {

namespace {

constexpr auto awaited = asio::as_tuple(asio::use_awaitable);

void hangUp(tcp::socket& socket, bool shutdown = false) {
    error_code ignored;
    if (shutdown) socket.shutdown(tcp::socket::shutdown_both, ignored);
    socket.close(ignored);
}
void hangUp(ByteStream& stream, bool = false) { stream.close(); }

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

std::string answer(const FakeHttp::Response& response, bool refusal) {
    return response.before + "HTTP/1.1 " + std::to_string(response.status) + (refusal ? " Refused" : " Status") +
           "\r\nContent-Type: " + response.contentType + (refusal || response.close ? "\r\nConnection: close" : "") +
           "\r\nContent-Length: " + std::to_string(response.body.size()) + "\r\n\r\n" +
           response.body.substr(0, std::min(response.truncateBodyAt, response.body.size())) + response.after;
}

}  // namespace

// The loopback listener and its thread; the serving, wherever it runs.
struct FakeHttp::Server {
    asio::io_context io;
    tcp::acceptor acceptor{io, {asio::ip::address_v4::loopback(), 0}};
    std::thread thread;
    std::atomic<int> nextId = 0;

    static asio::awaitable<void> accept(FakeHttp& http) {
        for (;;) {
            auto [ec, socket] = co_await http.server_->acceptor.async_accept(awaited);
            if (ec) co_return;
            http.serve(std::make_shared<tcp::socket>(std::move(socket)));
        }
    }

    template <class Stream>
    static void idle(FakeHttp& http, int id, bool waiting, const std::shared_ptr<Stream>& stream) {
        std::lock_guard lock(http.mutex_);
        if (!waiting) {
            http.idle_.erase(id);
            return;
        }
        http.idle_[id] = [weak = std::weak_ptr<Stream>(stream), executor = stream->get_executor()] {
            asio::post(executor, [weak] {
                if (auto stream = weak.lock()) hangUp(*stream, true);
            });
        };
    }

    template <class Stream>
    static asio::awaitable<void> serve(FakeHttp& http, std::shared_ptr<Stream> stream) {
        int id = http.server_->nextId++;
        boost::beast::flat_buffer buffer;
        for (;;) {
            http::request_parser<http::string_body> parser;
            parser.body_limit(boost::none);
            idle(http, id, true, stream);
            auto [read, n] = co_await http::async_read_header(*stream, buffer, parser, awaited);
            idle(http, id, false, stream);
            if (read) co_return hangUp(*stream);
            Request request{std::string(parser.get().method_string()), std::string(parser.get().target()), {}, {}};
            for (const auto& field : parser.get()) request.headers[lower(std::string(field.name_string()))] = field.value();
            std::optional<Response> refusal;
            if (parser.content_length().value_or(0) > 0) {
                std::lock_guard lock(http.mutex_);
                refusal = http.refusal_;
                if (refusal) http.requests_.push_back(request);
            }
            if (refusal) {
                co_await asio::async_write(*stream, asio::buffer(answer(*refusal, true)), awaited);
                co_return hangUp(*stream);
            }
            auto [whole, m] = co_await http::async_read(*stream, buffer, parser, awaited);
            if (whole) co_return hangUp(*stream);
            request.body = parser.get().body();
            std::function<Response(const Request&)> handler;
            {
                std::lock_guard lock(http.mutex_);
                http.requests_.push_back(request);
                handler = http.handler_;
            }
            Response response = handler(request);
            if (response.delay.count() > 0) {
                asio::steady_timer pause(stream->get_executor(), response.delay);
                co_await pause.async_wait(awaited);
            }
            if (response.hangUp) co_return hangUp(*stream);
            bool ending = response.close || response.truncateBodyAt < response.body.size();
            // Idle from the moment the answer can be read: the client may ask
            // for this connection to be closed before it is read.
            if (!ending) idle(http, id, true, stream);
            co_await asio::async_write(*stream, asio::buffer(answer(response, false)), awaited);
            if (ending) co_return hangUp(*stream);
        }
    }
};

FakeHttp::FakeHttp() : server_(std::make_unique<Server>()) {
    port_ = server_->acceptor.local_endpoint().port();
    handler_ = [](const Request&) { return Response{200, "{}"}; };
    asio::co_spawn(server_->io, Server::accept(*this), asio::detached);
    server_->thread = std::thread([this] { server_->io.run(); });
}

FakeHttp::~FakeHttp() {
    server_->io.stop();
    server_->thread.join();
}

template <class Stream>
void FakeHttp::serve(std::shared_ptr<Stream> stream) {
    ++connections_;
    auto executor = stream->get_executor();
    asio::co_spawn(executor, Server::serve(*this, std::move(stream)), asio::detached);
}

void FakeHttp::serve(std::unique_ptr<ByteStream> stream) { serve(std::shared_ptr<ByteStream>(std::move(stream))); }

void FakeHttp::refuseBodies(Response response) {
    std::lock_guard lock(mutex_);
    refusal_ = std::move(response);
}

void FakeHttp::setHandler(std::function<Response(const Request&)> handler) {
    std::lock_guard lock(mutex_);
    handler_ = std::move(handler);
}

std::vector<FakeHttp::Request> FakeHttp::requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
}

void FakeHttp::closeIdleConnections() {
    std::lock_guard lock(mutex_);
    for (auto& [id, close] : idle_) close();
}

}  // namespace testsupport
