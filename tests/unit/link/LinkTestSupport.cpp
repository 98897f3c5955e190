#include "LinkTestSupport.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace linktest {

namespace {

bool waitReadable(int fd, std::chrono::milliseconds timeout) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, static_cast<int>(timeout.count())) > 0;
}

void writeAll(int fd, const std::string& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n <= 0) return;
        done += static_cast<size_t>(n);
    }
}

}  // namespace

Client::Client(uint16_t port) {
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        throw std::runtime_error(std::string("connect: ") + strerror(errno));
}

Client::~Client() { close(); }

void Client::close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

uint16_t Client::localPort() const {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

void Client::send(const std::string& bytes) { writeAll(fd_, bytes); }

std::optional<std::string> Client::readLine(std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        auto newline = buffer_.find('\n');
        if (newline != std::string::npos) {
            std::string line = buffer_.substr(0, newline);
            buffer_.erase(0, newline + 1);
            return line;
        }
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0 || !waitReadable(fd_, left)) return std::nullopt;
        char chunk[4096];
        ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
        if (n <= 0) return std::nullopt;
        buffer_.append(chunk, static_cast<size_t>(n));
    }
}

bool Client::closedByPeer(std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0 || !waitReadable(fd_, left)) return false;
        char chunk[4096];
        ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
        if (n <= 0) return true;
        buffer_.append(chunk, static_cast<size_t>(n));
    }
}

}  // namespace linktest
