// A tiny HTTP/1.1 server on loopback playing Studio's services in unit
// tests: it records every request and answers each with what the test's
// handler says, on threads of its own (one per connection), so the code
// under test can run its own event loop meanwhile. Keep-alive, Content-Length
// bodies only.
#pragma once
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

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
    int connections() const;
    // Closes every connection that is waiting for its next request.
    void closeIdleConnections();

private:
    void serve(int fd);

    int listener_ = -1;
    uint16_t port_ = 0;
    std::thread acceptor_;
    mutable std::mutex mutex_;
    std::function<Response(const Request&)> handler_;
    std::optional<Response> refusal_;
    std::vector<Request> requests_;
    std::vector<int> idle_;
    std::vector<std::thread> workers_;
    int connections_ = 0;
    bool stopping_ = false;
};

}  // namespace testsupport
