#include "server/InputLoop.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <semaphore>
#include <system_error>

#include <boost/asio/post.hpp>

#include "platform/Log.h"
#include "server/StudioMCPBridge.h"

namespace server {

void LineSplitter::feed(std::string_view bytes, std::vector<std::string_view>& lines) {
    joined_.clear();
    size_t end = bytes.find('\n');
    if (!buffer_.empty() && end != std::string_view::npos) {
        joined_.swap(buffer_);
        joined_.append(bytes.substr(0, end));
        lines.push_back(joined_);
        bytes.remove_prefix(end + 1);
        end = bytes.find('\n');
    }
    while (end != std::string_view::npos) {
        if (end > 0) lines.push_back(bytes.substr(0, end));
        bytes.remove_prefix(end + 1);
        end = bytes.find('\n');
    }
    buffer_.append(bytes);
}

std::optional<std::string> LineSplitter::finish() {
    if (buffer_.empty()) return std::nullopt;
    std::string last = std::move(buffer_);
    buffer_.clear();
    return last;
}

namespace {

// Hands the lines to the strand and waits until every one was received.
void deliver(const std::shared_ptr<StudioMCPBridge>& bridge, std::vector<std::string_view>& lines) {
    if (lines.empty()) return;
    std::binary_semaphore received(0);
    boost::asio::post(bridge->strand(), [&] {
        for (const auto& line : lines) {
            try {
                bridge->receive(line);
            } catch (const std::exception& failure) {
                platform::log(std::string("could not handle a message: ") + failure.what());
            }
        }
        received.release();
    });
    received.acquire();
    lines.clear();
}

// Blocking read that also copes with a descriptor left non-blocking by
// whoever started us. The number of bytes, 0 at the end, or -1 with errno.
ssize_t readSome(int fd, char* buffer, size_t size) {
    for (;;) {
        ssize_t n = ::read(fd, buffer, size);
        if (n >= 0) return n;
        if (errno == EINTR) continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            pollfd wanted{fd, POLLIN, 0};
            ::poll(&wanted, 1, -1);
            continue;
        }
        return -1;
    }
}

}  // namespace

std::thread startInputLoop(int fd, std::shared_ptr<StudioMCPBridge> bridge, std::function<void()> finished) {
    return std::thread([fd, bridge = std::move(bridge), finished = std::move(finished)]() mutable {
        LineSplitter splitter;
        std::vector<std::string_view> lines;
        std::optional<std::string> last;
        // Not zeroed: a short message touches one page of it, not sixteen.
        constexpr size_t chunkSize = 1 << 16;
        std::unique_ptr<char[]> chunk(new char[chunkSize]);
        for (;;) {
            ssize_t n = readSome(fd, chunk.get(), chunkSize);
            if (n < 0) {
                platform::log("Cannot read standard input: " + std::system_category().message(errno) + ".");
                splitter.discard();
                break;
            }
            if (n == 0) {
                last = splitter.finish();
                if (last) lines.push_back(*last);
                deliver(bridge, lines);
                break;
            }
            splitter.feed(std::string_view(chunk.get(), static_cast<size_t>(n)), lines);
            deliver(bridge, lines);
        }
        finished();
    });
}

}  // namespace server
