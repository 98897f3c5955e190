// The HTTP/1.1 client for Studio's loopback services. Connections are kept
// alive between exchanges, one pool per host and port; a pooled connection
// is reused only when it still reads as open and holds no unread byte, and
// one whose answer left bytes behind is closed. No request is ever sent
// twice: calls and uploads are not idempotent, so a failure after the first
// byte went out is the caller's. Interim 1xx answers are read past. Every
// wait has a deadline (600 seconds unless told otherwise).
// Bodies can come from a file and go to a sink, so nothing large sits in
// memory; a file that is sent is opened off the I/O thread, without
// blocking, and only when it is a regular file.
//
// The exchanges run over the loopback network given at construction (TCP
// unless told otherwise), so they can be tested over in-memory streams.
//
// Owned by the bridge and used only from its strand (the executor given at
// construction); several exchanges may be in flight at once. Transport
// failures are thrown as TransportError with a sentence for the agent, a
// file that cannot be read while it is sent as BridgeError, cancellation as
// Asio's operation_aborted.
#pragma once
#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/BridgeError.h"
#include "link/LoopbackNetwork.h"
#include "peer/URL.h"

namespace studiolink {

struct HttpRequest {
    std::string method;  // "GET", "POST", "PUT"
    peer::URL url;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
};

struct HttpResponse {
    int status = 0;
    std::string body;
};

// The exchange could not begin or broke off; Studio may or may not have
// acted on the request. Told apart from Studio's own refusals where a copy
// cut short by it reads as stopped rather than failed.
class TransportError : public BridgeError {
public:
    using BridgeError::BridgeError;
};

class HttpSession {
public:
    static constexpr std::chrono::seconds defaultTimeout{600};

    explicit HttpSession(boost::asio::any_io_executor executor,
                         std::chrono::steady_clock::duration timeout = defaultTimeout,
                         std::shared_ptr<LoopbackNetwork> network = nullptr);
    ~HttpSession();
    HttpSession(const HttpSession&) = delete;
    HttpSession& operator=(const HttpSession&) = delete;

    // The request with its string body; the whole answer.
    boost::asio::awaitable<HttpResponse> send(HttpRequest request);
    // Called on the strand as a file's bytes go out: bytes sent so far, and
    // the file's size when the sending began.
    using Sent = std::function<void(uint64_t sent, uint64_t total)>;

    // The request with the file's bytes as its body, read in large pieces as
    // they are sent (never the whole file in memory). The body is as long as
    // the file was when the sending began; a file that shrinks or cannot be
    // read meanwhile fails the exchange with a BridgeError and its
    // connection, which Studio then sees cut short.
    boost::asio::awaitable<HttpResponse> sendFile(HttpRequest request, std::filesystem::path file, Sent sent = {});
    // Where a received body goes, in order: `open` once the status is the
    // wanted one, then `write` for each piece as it arrives (the piece's
    // bytes stay valid until `write` has returned).
    struct FileSink {
        virtual ~FileSink() = default;
        virtual boost::asio::awaitable<void> open() = 0;
        virtual boost::asio::awaitable<void> write(const char* data, std::size_t size) = 0;
    };
    // The request; when the status is `wanted`, the body goes to `sink` as
    // it arrives. Returns the status either way; any other status leaves
    // the sink unopened and the body unread.
    boost::asio::awaitable<int> receiveFile(HttpRequest request, int wanted, FileSink& sink);

private:
    struct Pool;
    std::unique_ptr<Pool> pool_;
};

}  // namespace studiolink
