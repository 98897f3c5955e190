#include "link/LoopbackNetwork.h"

#include <sys/sendfile.h>
#include <sys/socket.h>

#include <cerrno>

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/core/error.hpp>
#include <boost/beast/core/tcp_stream.hpp>

namespace studiolink {

namespace asio = boost::asio;
namespace beast = boost::beast;
using boost::system::error_code;
using tcp = asio::ip::tcp;

namespace {

// Completes on the stream's executor, where its user runs, and passes the
// user's cancellation on to the socket. (Asio 1.26 cannot post to the
// type-erased executor of an erased handler, so none is bound.)
auto relay(ByteStream::Completion done) {
    auto slot = asio::get_associated_cancellation_slot(done);
    return asio::bind_cancellation_slot(slot, [done = std::move(done)](error_code ec, std::size_t n) mutable {
        std::move(done)(ec, n);
    });
}

class TcpStream final : public ByteStream {
public:
    explicit TcpStream(tcp::socket socket) : stream_(std::move(socket)) {}
    explicit TcpStream(asio::any_io_executor executor) : stream_(std::move(executor)) {}

    beast::tcp_stream& stream() { return stream_; }

    executor_type get_executor() override { return stream_.get_executor(); }
    void expiresAfter(std::chrono::steady_clock::duration timeout) override { stream_.expires_after(timeout); }

    bool idleAndOpen() override {
        char byte;
        ssize_t n = ::recv(stream_.socket().native_handle(), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
        return n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
    }

    void close() override {
        error_code ignored;
        stream_.socket().close(ignored);
    }

    FileSent sendFromFile(int fd, uint64_t offset, std::size_t most) override {
        error_code ignored;
        stream_.socket().native_non_blocking(true, ignored);
        for (;;) {
            off_t at = static_cast<off_t>(offset);
            ssize_t put = ::sendfile(stream_.socket().native_handle(), fd, &at, most);
            if (put >= 0) return {static_cast<std::size_t>(put), 0};
            if (errno != EINTR) return {0, errno};
        }
    }

    asio::awaitable<error_code> writable(std::chrono::steady_clock::duration timeout) override {
        auto& socket = stream_.socket();
        asio::steady_timer deadline(socket.get_executor(), timeout);
        bool expired = false;
        deadline.async_wait([&socket, &expired](error_code ec) {
            if (ec) return;
            expired = true;
            socket.cancel(ec);
        });
        auto [ec] = co_await socket.async_wait(tcp::socket::wait_write, asio::as_tuple(asio::use_awaitable));
        deadline.cancel();
        if (expired) co_return error_code(beast::error::timeout);
        co_return ec;
    }

protected:
    void readSome(asio::mutable_buffer into, Completion done) override {
        stream_.async_read_some(into, relay(std::move(done)));
    }
    void writeSome(const Gathered& from, Completion done) override {
        stream_.async_write_some(from, relay(std::move(done)));
    }

private:
    beast::tcp_stream stream_;
};

class TcpAcceptor final : public LoopbackAcceptor {
public:
    explicit TcpAcceptor(asio::any_io_executor executor) : acceptor_(executor), executor_(std::move(executor)) {
        acceptor_.open(tcp::v4());
        acceptor_.bind({asio::ip::address_v4::loopback(), 0});
        acceptor_.listen();
    }

    uint16_t port() const override { return acceptor_.local_endpoint().port(); }
    bool isOpen() const override { return acceptor_.is_open(); }
    void close() override {
        error_code ignored;
        acceptor_.close(ignored);
    }

    void accept(Accepted handler) override {
        acceptor_.async_accept(executor_, [handler = std::move(handler)](error_code ec, tcp::socket socket) {
            if (ec) return handler(ec, nullptr, {});
            error_code unknown;
            auto from = socket.remote_endpoint(unknown);
            handler(ec, std::make_shared<TcpStream>(std::move(socket)), from);
        });
    }

private:
    tcp::acceptor acceptor_;
    asio::any_io_executor executor_;
};

class TcpLoopback final : public LoopbackNetwork {
public:
    asio::awaitable<Connected> connect(asio::any_io_executor executor, asio::ip::address address, uint16_t port,
                                       std::chrono::steady_clock::duration timeout) override {
        auto stream = std::make_unique<TcpStream>(std::move(executor));
        stream->expiresAfter(timeout);
        auto [ec] = co_await stream->stream().async_connect(tcp::endpoint(address, port),
                                                            asio::as_tuple(asio::use_awaitable));
        if (ec) co_return Connected{ec, nullptr};
        stream->stream().socket().set_option(tcp::no_delay(true), ec);
        co_return Connected{{}, std::move(stream)};
    }

    std::unique_ptr<LoopbackAcceptor> listen(asio::any_io_executor executor) override {
        return std::make_unique<TcpAcceptor>(std::move(executor));
    }
};

}  // namespace

std::shared_ptr<LoopbackNetwork> systemLoopback() {
    static const auto network = std::make_shared<TcpLoopback>();
    return network;
}

}  // namespace studiolink
