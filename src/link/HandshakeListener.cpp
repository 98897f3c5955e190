#include "link/HandshakeListener.h"

#include <algorithm>

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/bind_executor.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/experimental/concurrent_channel.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>

#include <boost/system/system_error.hpp>

#include "base/BridgeError.h"
#include "link/ByteStream.h"
#include "link/LoopbackNetwork.h"
#include "platform/Log.h"

namespace studiolink {

namespace asio = boost::asio;
using boost::system::error_code;

namespace {

[[noreturn]] void cancelled() { throw boost::system::system_error(asio::error::operation_aborted); }

// Where connections are judged: reading /proc blocks, and must neither stall
// the I/O thread nor wait behind a burst on it. Two threads, so that one slow
// judgement does not hold up the next.
asio::thread_pool& judges() {
    static asio::thread_pool pool(2);
    return pool;
}

// Verified connections greeted at once; any more wait to be closed. Only
// Studio processes get here, so this bounds nothing an attacker controls.
constexpr size_t maximumGreeted = 8;
}  // namespace

struct HandshakeListener::Network {
    Network(asio::any_io_executor executor, std::shared_ptr<LoopbackNetwork> loopback)
        : loopback(loopback ? std::move(loopback) : systemLoopback()),
          strand(asio::make_strand(executor)),
          replies(executor, 8) {}

    std::shared_ptr<LoopbackNetwork> loopback;
    asio::strand<asio::any_io_executor> strand;
    std::unique_ptr<LoopbackAcceptor> acceptor;  // from start() on
    asio::steady_timer rejectionLog{strand};
    asio::steady_timer acceptPause{strand};
    // One element per reply line; a final eof element ends them. Only ever
    // one line is delivered, so the small buffer never fills.
    asio::experimental::concurrent_channel<void(error_code, std::string)> replies;
};

std::shared_ptr<HandshakeListener> HandshakeListener::create(asio::any_io_executor executor, const std::string& nonce,
                                                             std::string_view hello, std::filesystem::path app,
                                                             VerifyPeer verifyPeer,
                                                             std::shared_ptr<LoopbackNetwork> network) {
    Json greeting = {{"hello", hello}, {"v", 3}, {"nonce", nonce}};
    std::string line = greeting.dump() + "\n";
    return std::shared_ptr<HandshakeListener>(new HandshakeListener(
        std::move(executor), std::move(line), std::move(app), std::move(verifyPeer), std::move(network)));
}

HandshakeListener::HandshakeListener(asio::any_io_executor executor, std::string greeting, std::filesystem::path app,
                                     VerifyPeer verifyPeer, std::shared_ptr<LoopbackNetwork> network)
    : network_(std::make_unique<Network>(std::move(executor), std::move(network))),
      greeting_(std::move(greeting)),
      app_(std::move(app)),
      verifyPeer_(std::make_shared<const VerifyPeer>(std::move(verifyPeer))) {}

HandshakeListener::~HandshakeListener() = default;

bool HandshakeListener::contacted() const {
    std::lock_guard guard(lock_);
    return greeted_ > 0 || linked_;
}

bool HandshakeListener::isAlive() const {
    std::lock_guard guard(lock_);
    return !stopped_ && lifetime_ != nullptr;
}

namespace {

// On the listener's strand, which alone touches the acceptor. A plain
// function rather than a capturing lambda: a coroutine's parameters live in
// its frame, a lambda's captures do not.
asio::awaitable<uint16_t> listen(LoopbackNetwork& network, std::unique_ptr<LoopbackAcceptor>& acceptor,
                                 asio::any_io_executor strand) {
    acceptor = network.listen(strand);
    co_return acceptor->port();
}

}  // namespace

asio::awaitable<uint16_t> HandshakeListener::start() {
    auto self = shared_from_this();
    {
        std::lock_guard guard(lock_);
        if (stopped_) cancelled();
    }
    // Not tied to the caller's cancellation: Asio's co_spawn forwards a
    // cancellation to a child that may have finished and been freed (seen as
    // a crash when the input ended while the listener started). stop() ends
    // the listening instead.
    uint16_t port = co_await asio::co_spawn(network_->strand,
                                            listen(*network_->loopback, network_->acceptor, network_->strand),
                                            asio::bind_cancellation_slot(asio::cancellation_slot(), asio::use_awaitable));
    if (port == 0) throw BridgeError("Could not listen for Vantoric Studio.");
    {
        std::lock_guard guard(lock_);
        if (stopped_) cancelled();
        port_ = port;
    }
    asio::post(network_->strand, [self] { self->acceptNext(); });
    co_return port;
}

void HandshakeListener::acceptNext() {
    std::weak_ptr<HandshakeListener> weak = weak_from_this();
    network_->acceptor->accept([weak](error_code ec, std::shared_ptr<ByteStream> connection,
                                      asio::ip::tcp::endpoint from) {
        auto self = weak.lock();
        if (!self || !self->network_->acceptor->isOpen() || ec == asio::error::operation_aborted) return;
        if (!ec) {
            self->open_.push_back(connection);
            if (from.address() == asio::ip::address_v4::loopback())
                self->judge(connection, from.port(), std::chrono::steady_clock::now());
            else
                self->judged(connection, false);
            self->acceptNext();
            return;
        }
        // Out of descriptors, most likely, under a burst: accepting again at
        // once would only spin. Judged connections free them meanwhile.
        self->network_->acceptPause.expires_after(std::chrono::milliseconds(50));
        self->network_->acceptPause.async_wait([weak](error_code ec) {
            if (auto self = weak.lock(); self && !ec) self->acceptNext();
        });
    });
}

void HandshakeListener::judge(std::shared_ptr<ByteStream> connection, uint16_t peer,
                              std::chrono::steady_clock::time_point acceptedAt) {
    uint16_t local;
    {
        std::lock_guard guard(lock_);
        local = port_;
    }
    if (!*verifyPeer_) {
        judged(connection, false);
        return;
    }
    // The judgement holds neither the listener nor the connection's use:
    // only the strand touches the connection.
    std::weak_ptr<HandshakeListener> weak = weak_from_this();
    asio::post(judges(), [weak, verify = verifyPeer_, app = app_, peer, local, acceptedAt,
                          strand = network_->strand, connection]() mutable {
        if (weak.expired()) return;
        bool studio = (*verify)(app, peer, local, acceptedAt);
        asio::post(strand, [weak, connection = std::move(connection), studio] {
            if (auto self = weak.lock()) self->judged(connection, studio);
        });
    });
}

void HandshakeListener::judged(std::shared_ptr<ByteStream> connection, bool studio) {
    auto it = std::find(open_.begin(), open_.end(), connection);
    if (it == open_.end()) return;  // closed by stop() meanwhile
    bool greet = false;
    if (studio) {
        std::lock_guard guard(lock_);
        if (!stopped_ && !linked_ && greeted_ < maximumGreeted) {
            ++greeted_;
            greet = true;
        }
    } else {
        rejected();
    }
    if (greet) {
        this->greet(connection);
        return;
    }
    open_.erase(it);
    connection->close();
}

void HandshakeListener::greet(std::shared_ptr<ByteStream> connection) {
    // The greeting outlives the write: it is a member and the write's
    // handler keeps the listener.
    asio::async_write(*connection, asio::buffer(greeting_),
                      [keep = shared_from_this(), connection](error_code, size_t) {});
    read(connection, std::make_shared<std::string>());
}

// A greeted connection closed, failed or overflowed before its reply line:
// it alone ends; the hand-over goes on.
void HandshakeListener::ended(const std::shared_ptr<ByteStream>& connection) {
    auto it = std::find(open_.begin(), open_.end(), connection);
    if (it == open_.end()) return;
    open_.erase(it);
    connection->close();
    std::lock_guard guard(lock_);
    if (greeted_ > 0) --greeted_;
}

void HandshakeListener::rejected() {
    ++unloggedRejections_;
    if (rejectionLogDue_) return;
    auto next = lastRejectionLog_ + std::chrono::seconds(1);
    if (std::chrono::steady_clock::now() >= next) {
        logRejections();
        return;
    }
    rejectionLogDue_ = true;
    std::weak_ptr<HandshakeListener> weak = weak_from_this();
    network_->rejectionLog.expires_at(next);
    network_->rejectionLog.async_wait([weak](error_code) {
        if (auto self = weak.lock()) self->logRejections();
    });
}

void HandshakeListener::logRejections() {
    rejectionLogDue_ = false;
    if (unloggedRejections_ == 0) return;
    if (unloggedRejections_ == 1)
        platform::log("closed a hand-over connection that was not Vantoric Studio");
    else
        platform::log("closed " + std::to_string(unloggedRejections_) +
                      " hand-over connections that were not Vantoric Studio");
    unloggedRejections_ = 0;
    lastRejectionLog_ = std::chrono::steady_clock::now();
}

void HandshakeListener::read(std::shared_ptr<ByteStream> connection, std::shared_ptr<std::string> buffer) {
    std::weak_ptr<HandshakeListener> weak = weak_from_this();
    auto chunk = std::make_shared<std::array<char, chunkSize>>();
    connection->async_read_some(
        asio::buffer(*chunk), asio::bind_executor(network_->strand, [weak, connection, buffer, chunk](
                                                                        error_code ec, size_t n) {
            auto self = weak.lock();
            if (!self) {
                connection->close();
                return;
            }
            buffer->append(chunk->data(), n);
            auto newline = buffer->find('\n');
            if (newline != std::string::npos) {
                self->linkWith(connection, buffer->substr(0, newline));
            } else if (ec || buffer->size() >= maximumLine) {
                self->ended(connection);
            } else {
                self->read(connection, buffer);
            }
        }));
}

// The first reply line wins: its connection is the link's lifetime, and
// everything else, listener included, is closed.
void HandshakeListener::linkWith(const std::shared_ptr<ByteStream>& connection, std::string line) {
    bool first = false;
    {
        std::lock_guard guard(lock_);
        if (!stopped_ && !linked_) {
            linked_ = first = true;
            lifetime_ = connection;
        }
    }
    if (!first) {
        ended(connection);
        return;
    }
    network_->acceptor->close();
    for (auto& other : open_)
        if (other != connection) other->close();
    open_.clear();
    deliver(std::move(line));
    watchLifetime(connection);
}

void HandshakeListener::watchLifetime(std::shared_ptr<ByteStream> connection) {
    std::weak_ptr<HandshakeListener> weak = weak_from_this();
    auto byte = std::make_shared<char>();
    connection->async_read_some(
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
    std::shared_ptr<ByteStream> taken;
    {
        std::lock_guard guard(lock_);
        if (!stopped_) {
            stopped_ = true;
            taken = std::move(lifetime_);
            lifetime_.reset();
        }
    }
    // Connections belong to the strand; the close happens there.
    asio::post(network_->strand, [self = shared_from_this(), taken] {
        if (taken) taken->close();
        for (auto& connection : self->open_) connection->close();
        self->open_.clear();
        if (self->network_->acceptor) self->network_->acceptor->close();
        self->logRejections();
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
            cancelled();
        }
        if (auto value = parseObject(line)) {
            cancelWatchdog();
            co_return std::move(*value);
        }
    }
}

}  // namespace studiolink
