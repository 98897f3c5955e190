#include "LinkTestSupport.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <sstream>
#include <stdexcept>

namespace linktest {

namespace {

void writeAll(int fd, const std::string& bytes) {
    for (size_t done = 0; done < bytes.size();) {
        ssize_t n = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n <= 0) return;
        done += static_cast<size_t>(n);
    }
}

sockaddr_in loopback(uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

uint16_t localPortOf(int fd) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

// Reads into `buffer` until `enough` holds; false when the peer closes first.
bool readUntil(int fd, std::string& buffer, const std::function<bool()>& enough) {
    while (!enough()) {
        char chunk[65536];
        ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
        if (n <= 0) return false;
        buffer.append(chunk, static_cast<size_t>(n));
    }
    return true;
}

}  // namespace

Client::Client(uint16_t port) {
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    auto address = loopback(port);
    if (::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        throw std::runtime_error(std::string("connect: ") + strerror(errno));
}

void Client::close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

uint16_t Client::localPort() const { return localPortOf(fd_); }

void Client::send(const std::string& bytes) { writeAll(fd_, bytes); }

bool Client::receive(std::chrono::steady_clock::time_point deadline) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    pollfd p{fd_, POLLIN, 0};
    if (ended_ || left.count() <= 0 || poll(&p, 1, static_cast<int>(left.count())) <= 0) return false;
    char chunk[4096];
    ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
    if (n <= 0) return !(ended_ = true);
    buffer_.append(chunk, static_cast<size_t>(n));
    return true;
}

std::optional<std::string> Client::readLine(std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    size_t newline;
    while ((newline = buffer_.find('\n')) == std::string::npos)
        if (!receive(deadline)) return std::nullopt;
    std::string line = buffer_.substr(0, newline);
    buffer_.erase(0, newline + 1);
    return line;
}

bool Client::closedByPeer(std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (receive(deadline)) {
    }
    return ended_;
}

FakeHttp::FakeHttp() {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    auto address = loopback(0);
    if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || ::listen(listener_, 64) != 0)
        throw std::runtime_error("fake HTTP server could not listen");
    port_ = localPortOf(listener_);
    handler_ = [](const Request&) { return Response{200, "{}"}; };
    acceptor_ = std::thread([this] {
        for (int fd; (fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
            std::lock_guard lock(mutex_);
            if (stopping_) return (void)::close(fd);
            ++connections_;
            workers_.emplace_back([this, fd] { serve(fd); });
        }
    });
}

FakeHttp::~FakeHttp() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    closeIdleConnections();
    ::shutdown(listener_, SHUT_RDWR);
    ::close(listener_);
    acceptor_.join();
    for (auto& w : workers_) w.join();
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
    auto setIdle = [&](bool idle) {
        std::lock_guard lock(mutex_);
        if (idle) idle_.push_back(fd);
        else idle_.erase(std::remove(idle_.begin(), idle_.end(), fd), idle_.end());
    };
    for (;;) {
        setIdle(buffer.empty());
        bool headed = readUntil(fd, buffer, [&] {
            if (!buffer.empty()) setIdle(false);
            return buffer.find("\r\n\r\n") != std::string::npos;
        });
        setIdle(false);
        if (!headed) return (void)::close(fd);
        size_t headerEnd = buffer.find("\r\n\r\n");
        Request request;
        std::istringstream head(buffer.substr(0, headerEnd));
        std::string line;
        std::getline(head, line);
        std::istringstream(line) >> request.method >> request.target;
        while (std::getline(head, line)) {
            if (!line.empty() && line.back() == '\r') line.pop_back();
            auto colon = line.find(':');
            if (colon == std::string::npos) continue;
            std::string name = line.substr(0, colon);
            std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
            auto value = line.find_first_not_of(' ', colon + 1);
            request.headers[name] = value == std::string::npos ? "" : line.substr(value);
        }
        buffer.erase(0, headerEnd + 4);
        size_t length = request.headers.count("content-length") ? std::stoul(request.headers["content-length"]) : 0;
        if (!readUntil(fd, buffer, [&] { return buffer.size() >= length; })) return (void)::close(fd);
        request.body = buffer.substr(0, length);
        buffer.erase(0, length);

        std::function<Response(const Request&)> handler;
        {
            std::lock_guard lock(mutex_);
            requests_.push_back(request);
            handler = handler_;
        }
        Response response = handler(request);
        std::ostringstream out;
        out << "HTTP/1.1 " << response.status << " Status\r\nContent-Type: " << response.contentType
            << "\r\nContent-Length: " << response.body.size() << "\r\n"
            << (response.close ? "Connection: close\r\n" : "") << "\r\n"
            << response.body.substr(0, std::min(response.truncateBodyAt, response.body.size()));
        writeAll(fd, out.str());
        if (response.close || response.truncateBodyAt < response.body.size()) return (void)::close(fd);
    }
}

}  // namespace linktest
