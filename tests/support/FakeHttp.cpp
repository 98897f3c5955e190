#include "support/FakeHttp.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <stdexcept>

namespace testsupport {

namespace {

void writeAll(int fd, const std::string& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n <= 0) return;
        done += static_cast<size_t>(n);
    }
}

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

}  // namespace

FakeHttp::FakeHttp() {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int yes = 1;
    setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || ::listen(listener_, 64) != 0)
        throw std::runtime_error("fake HTTP server could not listen");
    socklen_t length = sizeof address;
    getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
    handler_ = [](const Request&) { return Response{200, "{}"}; };
    acceptor_ = std::thread([this] {
        for (;;) {
            int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) return;
            std::lock_guard lock(mutex_);
            if (stopping_) {
                ::close(fd);
                return;
            }
            ++connections_;
            workers_.emplace_back([this, fd] { serve(fd); });
        }
    });
}

FakeHttp::~FakeHttp() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
        for (int fd : idle_) ::shutdown(fd, SHUT_RDWR);
    }
    ::shutdown(listener_, SHUT_RDWR);
    ::close(listener_);
    acceptor_.join();
    std::vector<std::thread> workers;
    {
        std::lock_guard lock(mutex_);
        workers.swap(workers_);
    }
    for (auto& w : workers) w.join();
}

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

int FakeHttp::connections() const {
    std::lock_guard lock(mutex_);
    return connections_;
}

void FakeHttp::closeIdleConnections() {
    std::lock_guard lock(mutex_);
    for (int fd : idle_) ::shutdown(fd, SHUT_RDWR);
}

void FakeHttp::serve(int fd) {
    std::string buffer;
    auto markIdle = [&](bool idle) {
        std::lock_guard lock(mutex_);
        if (idle) idle_.push_back(fd);
        else idle_.erase(std::remove(idle_.begin(), idle_.end(), fd), idle_.end());
        // A connection that falls idle after the server began stopping is
        // ended too, or its worker would wait for a request forever.
        if (idle && stopping_) ::shutdown(fd, SHUT_RDWR);
    };
    markIdle(true);
    for (;;) {
        size_t headerEnd;
        while ((headerEnd = buffer.find("\r\n\r\n")) == std::string::npos) {
            char chunk[65536];
            ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
            if (n <= 0) {
                markIdle(false);
                ::close(fd);
                return;
            }
            markIdle(false);
            buffer.append(chunk, static_cast<size_t>(n));
        }
        markIdle(false);
        Request request;
        std::istringstream head(buffer.substr(0, headerEnd));
        std::string line;
        std::getline(head, line);
        std::istringstream first(line);
        first >> request.method >> request.target;
        while (std::getline(head, line)) {
            if (!line.empty() && line.back() == '\r') line.pop_back();
            auto colon = line.find(':');
            if (colon == std::string::npos) continue;
            std::string value = line.substr(colon + 1);
            value.erase(0, value.find_first_not_of(' '));
            request.headers[lower(line.substr(0, colon))] = value;
        }
        buffer.erase(0, headerEnd + 4);
        size_t length = request.headers.count("content-length") ? std::stoul(request.headers["content-length"]) : 0;
        std::optional<Response> refusal;
        if (length > 0) {
            std::lock_guard lock(mutex_);
            refusal = refusal_;
            if (refusal) requests_.push_back(request);
        }
        if (refusal) {
            std::string bytes = "HTTP/1.1 " + std::to_string(refusal->status) +
                                " Refused\r\nContent-Type: application/json\r\nConnection: close\r\nContent-Length: " +
                                std::to_string(refusal->body.size()) + "\r\n\r\n" + refusal->body;
            writeAll(fd, bytes);
            ::close(fd);
            return;
        }
        while (buffer.size() < length) {
            char chunk[65536];
            ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
            if (n <= 0) {
                ::close(fd);
                return;
            }
            buffer.append(chunk, static_cast<size_t>(n));
        }
        request.body = buffer.substr(0, length);
        buffer.erase(0, length);

        std::function<Response(const Request&)> handler;
        {
            std::lock_guard lock(mutex_);
            requests_.push_back(request);
            handler = handler_;
        }
        Response response = handler(request);
        if (response.delay.count() > 0) std::this_thread::sleep_for(response.delay);
        if (response.hangUp) {
            ::close(fd);
            return;
        }
        std::ostringstream out;
        out << "HTTP/1.1 " << response.status << " Status\r\nContent-Type: " << response.contentType
            << "\r\nContent-Length: " << response.body.size() << "\r\n";
        if (response.close) out << "Connection: close\r\n";
        out << "\r\n";
        std::string bytes = response.before + out.str() +
                            response.body.substr(0, std::min(response.truncateBodyAt, response.body.size())) +
                            response.after;
        bool ending = response.close || response.truncateBodyAt < response.body.size();
        // Idle from the moment the answer can be read: the client may ask
        // for this connection to be closed before this thread runs again.
        if (!ending) markIdle(true);
        writeAll(fd, bytes);
        if (ending) {
            ::close(fd);
            return;
        }
    }
}

}  // namespace testsupport
