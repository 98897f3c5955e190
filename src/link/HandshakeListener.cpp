#include "link/HandshakeListener.h"

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/bind_executor.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/experimental/concurrent_channel.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>

#include "link/BridgeError.h"
#include "link/Cancellation.h"
#include "platform/Log.h"

namespace asio = boost::asio;
using tcp = asio::ip::tcp;
using boost::system::error_code;

namespace {
using Socket = tcp::socket;
Socket& socketOf(const std::shared_ptr<void>& connection) { return *static_cast<Socket*>(connection.get()); }
}  // namespace

struct HandshakeListener::Network {
    explicit Network(asio::any_io_executor executor)
        : strand(asio::make_strand(executor)), acceptor(strand), replies(executor, 8) {}

    asio::strand<asio::any_io_executor> strand;
    tcp::acceptor acceptor;
    // One element per reply line; a final eof element ends them. Only ever
    // one line is delivered, so the small buffer never fills.
    asio::experimental::concurrent_channel<void(error_code, std::string)> replies;
};

std::shared_ptr<HandshakeListener> HandshakeListener::create(asio::any_io_executor executor, const std::string& nonce,
                                                             std::string_view hello, std::filesystem::path app,
                                                             VerifyPeer verifyPeer) {
    Json greeting = {{"hello", hello}, {"v", 3}, {"nonce", nonce}};
    std::string line = greeting.dump() + "\n";
    return std::shared_ptr<HandshakeListener>(
        new HandshakeListener(std::move(executor), std::move(line), std::move(app), std::move(verifyPeer)));
}

HandshakeListener::HandshakeListener(asio::any_io_executor executor, std::string greeting, std::filesystem::path app,
                                     VerifyPeer verifyPeer)
    : network_(std::make_unique<Network>(std::move(executor))),
      greeting_(std::move(greeting)),
      app_(std::move(app)),
      verifyPeer_(std::move(verifyPeer)) {}

HandshakeListener::~HandshakeListener() = default;

bool HandshakeListener::contacted() const {
    std::lock_guard guard(lock_);
    return connected_;
}

bool HandshakeListener::isAlive() const {
    std::lock_guard guard(lock_);
    return !stopped_ && lifetime_ != nullptr;
}

namespace {

// On the listener's strand. A plain function rather than a capturing lambda:
// a coroutine's parameters live in its frame, a lambda's captures do not.
asio::awaitable<uint16_t> listen(tcp::acceptor& acceptor) {
    acceptor.open(tcp::v4());
    acceptor.bind({asio::ip::address_v4::loopback(), 0});
    acceptor.listen();
    co_return acceptor.local_endpoint().port();
}

}  // namespace

asio::awaitable<uint16_t> HandshakeListener::start() {
    auto self = shared_from_this();
    {
        std::lock_guard guard(lock_);
        if (stopped_) cancellation::raise();
    }
    uint16_t port = co_await asio::co_spawn(network_->strand, listen(network_->acceptor), asio::use_awaitable);
    if (port == 0) throw BridgeError("Could not listen for Vantoric Studio.");
    {
        std::lock_guard guard(lock_);
        if (stopped_) cancellation::raise();
        port_ = port;
    }
    asio::post(network_->strand, [self] { self->acceptNext(); });
    co_return port;
}

void HandshakeListener::acceptNext() {
    std::weak_ptr<HandshakeListener> weak = weak_from_this();
    network_->acceptor.async_accept(network_->strand, [weak](error_code ec, Socket socket) {
        auto self = weak.lock();
        if (!self || !self->network_->acceptor.is_open()) return;
        if (!ec) self->serve(&socket);
        if (ec == asio::error::operation_aborted) return;
        self->acceptNext();
    });
}

void HandshakeListener::serve(void* incoming) {
    Socket& socket = *static_cast<Socket*>(incoming);
    uint16_t local;
    {
        std::lock_guard guard(lock_);
        local = port_;
    }
    error_code ec;
    auto remote = socket.remote_endpoint(ec);
    // Checked before a single byte goes out; the check runs without the lock.
    if (ec || remote.address() != asio::ip::address_v4::loopback() || !verifyPeer_ ||
        !verifyPeer_(app_, remote.port(), local, std::chrono::steady_clock::now())) {
        platform::log("closed a hand-over connection that was not Vantoric Studio");
        socket.close(ec);
        return;
    }
    std::shared_ptr<void> connection;
    {
        std::lock_guard guard(lock_);
        if (!stopped_ && !lifetime_) {
            connected_ = true;
            lifetime_ = connection = std::make_shared<Socket>(std::move(socket));
        }
    }
    if (!connection) {
        socket.close(ec);
        return;
    }
    // The greeting outlives the write: it is a member and the write's
    // handler keeps the listener.
    asio::async_write(socketOf(connection), asio::buffer(greeting_),
                      [keep = shared_from_this(), connection](error_code, size_t) {});
    read(connection, std::make_shared<std::string>());
}

void HandshakeListener::read(std::shared_ptr<void> connection, std::shared_ptr<std::string> buffer) {
    std::weak_ptr<HandshakeListener> weak = weak_from_this();
    auto chunk = std::make_shared<std::array<char, chunkSize>>();
    socketOf(connection).async_read_some(
        asio::buffer(*chunk), asio::bind_executor(network_->strand, [weak, connection, buffer, chunk](
                                                                        error_code ec, size_t n) {
            auto self = weak.lock();
            if (!self) {
                error_code ignored;
                socketOf(connection).close(ignored);
                return;
            }
            buffer->append(chunk->data(), n);
            auto newline = buffer->find('\n');
            if (newline != std::string::npos) {
                error_code ignored;
                self->network_->acceptor.close(ignored);
                self->deliver(buffer->substr(0, newline));
                self->watchLifetime(connection);
            } else if (ec || buffer->size() >= maximumLine) {
                self->stop();
            } else {
                self->read(connection, buffer);
            }
        }));
}

void HandshakeListener::watchLifetime(std::shared_ptr<void> connection) {
    std::weak_ptr<HandshakeListener> weak = weak_from_this();
    auto byte = std::make_shared<char>();
    socketOf(connection).async_read_some(
        asio::buffer(byte.get(), 1),
        asio::bind_executor(network_->strand, [weak, connection, byte](error_code, size_t) {
            if (auto self = weak.lock()) self->stop();
        }));
}

void HandshakeListener::deliver(std::string line) {
    std::lock_guard guard(lock_);
    if (!repliesFinished_) network_->replies.try_send(error_code(), std::move(line));
}

void HandshakeListener::finishReplies() {
    std::lock_guard guard(lock_);
    if (repliesFinished_) return;
    repliesFinished_ = true;
    network_->replies.try_send(asio::error::eof, std::string());
}

void HandshakeListener::stop() {
    std::shared_ptr<void> taken;
    {
        std::lock_guard guard(lock_);
        if (!stopped_) {
            stopped_ = true;
            taken = std::move(lifetime_);
            lifetime_.reset();
        }
    }
    // Sockets belong to the strand; the close happens there.
    asio::post(network_->strand, [self = shared_from_this(), taken] {
        error_code ignored;
        if (taken) socketOf(taken).close(ignored);
        self->network_->acceptor.close(ignored);
    });
    finishReplies();
}

asio::awaitable<Json> HandshakeListener::reply(std::chrono::steady_clock::duration timeout) {
    auto self = shared_from_this();
    auto watchdog = std::make_shared<asio::steady_timer>(network_->strand, timeout);
    std::weak_ptr<HandshakeListener> weak = self;
    watchdog->async_wait([weak](error_code ec) {
        if (ec) return;
        if (auto listener = weak.lock()) listener->stop();
    });
    auto cancelWatchdog = [&] { asio::post(network_->strand, [watchdog] { watchdog->cancel(); }); };

    for (;;) {
        auto [ec, line] = co_await network_->replies.async_receive(asio::as_tuple(asio::use_awaitable));
        if (ec) {
            cancelWatchdog();
            if (ec == asio::error::eof)
                throw BridgeError("Vantoric Studio did not answer. Open Studio, then call this tool again.");
            cancellation::raise();
        }
        if (auto value = parseObject(line)) {
            cancelWatchdog();
            co_return std::move(*value);
        }
    }
}
