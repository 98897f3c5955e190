// A tiny HTTP/1.1 server playing Studio's services in unit tests: it records
// every request and answers each with what the test's handler says. It
// listens on loopback and serves there on a thread of its own, so the code
// under test can run its own event loop meanwhile; it also serves any other
// connection it is handed (an in-memory one, say) on that connection's
// executor. Keep-alive; bodies of any framing are read, answers carry a
// Content-Length.
#pragma once
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace studiolink {
class ByteStream;
}  // namespace studiolink

namespace testsupport {

class FakeHttp {
public:
    struct Request {
        std::string method;
        std::string target;
        std::map<std::string, std::string> headers;
        std::string body;
    };
    struct Response {
        int status = 200;
        std::string body;
        std::string contentType = "application/json";
        bool close = false;             // close the connection after answering
        size_t truncateBodyAt = SIZE_MAX;  // announce the full length, then close after this many bytes
        std::chrono::milliseconds delay{0};
        std::string before = {};  // raw bytes ahead of the answer (an interim 1xx)
        std::string after = {};   // raw bytes behind the body, which no request asked for
        bool hangUp = false;  // read the request, act on it, close without a word
    };

    FakeHttp();
    ~FakeHttp();
    uint16_t port() const { return port_; }
    std::string base() const { return "http://127.0.0.1:" + std::to_string(port_); }

    // From now on, requests with a body are answered with this as soon as
    // their header is read, and the connection is closed with the body
    // unread (a server refusing an upload early).
    void refuseBodies(Response response);
    void setHandler(std::function<Response(const Request&)> handler);
    std::vector<Request> requests() const;
    int connections() const { return connections_; }
    // Closes every connection that is waiting for its next request.
    void closeIdleConnections();
    // Serves Studio's end of a connection made elsewhere, on its executor.
    void serve(std::unique_ptr<studiolink::ByteStream> stream);

private:
    struct Server;
    template <class Stream>
    void serve(std::shared_ptr<Stream> stream);
    std::unique_ptr<Server> server_;
    uint16_t port_ = 0;
    mutable std::mutex mutex_;
    std::function<Response(const Request&)> handler_;
    std::optional<Response> refusal_;
    std::vector<Request> requests_;
    std::map<int, std::function<void()>> idle_;  // closers of the connections waiting for a request
    std::atomic<int> connections_ = 0;
};

}  // namespace testsupport
