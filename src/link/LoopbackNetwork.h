// The network the link speaks over, bound to 127.0.0.1 only: connections to
// Studio's HTTP services, and the listener of a hand-over. The bridge uses
// the system's TCP (systemLoopback()); tests hand in in-memory streams, so
// that the protocol code above runs without sockets or threads.
//
// Stateless for the system; connect() and listen() may be called from any
// strand. A stream or an acceptor belongs to the executor it was made on:
// its completions run there, and only that strand touches it.
#pragma once
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/tcp.hpp>

#include "link/ByteStream.h"

namespace studiolink {

class LoopbackAcceptor {
public:
    // A connection, and where it came from (an unspecified address when the
    // far end is already gone).
    using Accepted = std::function<void(boost::system::error_code, std::shared_ptr<ByteStream>,
                                        boost::asio::ip::tcp::endpoint from)>;

    virtual ~LoopbackAcceptor() = default;
    virtual uint16_t port() const = 0;
    // The next connection, on the acceptor's executor; operation_aborted
    // once closed.
    virtual void accept(Accepted handler) = 0;
    virtual bool isOpen() const = 0;
    virtual void close() = 0;
};

class LoopbackNetwork {
public:
    struct Connected {
        boost::system::error_code error;
        std::unique_ptr<ByteStream> stream;
    };

    virtual ~LoopbackNetwork() = default;
    // A connection to address:port made on `executor` within `timeout`, or
    // the error that kept it from being made.
    virtual boost::asio::awaitable<Connected> connect(boost::asio::any_io_executor executor,
                                                      boost::asio::ip::address address, uint16_t port,
                                                      std::chrono::steady_clock::duration timeout) = 0;
    // Listening on 127.0.0.1, on a port the system chooses. Throws the
    // system's error.
    virtual std::unique_ptr<LoopbackAcceptor> listen(boost::asio::any_io_executor executor) = 0;
};

// TCP through Asio and Beast.
std::shared_ptr<LoopbackNetwork> systemLoopback();

}  // namespace studiolink
