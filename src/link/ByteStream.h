// The bytes of one connection as the link's protocol code reads and writes
// them, whatever carries them: a loopback TCP connection in the bridge (see
// LoopbackNetwork), an in-memory stream in the tests, which can fail at a
// chosen operation. It is an asynchronous read and write stream for Asio and
// Beast, so that the HTTP exchanges and the hand-over are written once.
//
// A read fills the first non-empty buffer it is given; a write gathers up to
// `gatherLimit` buffers, and what is left waits for the next write, as
// write_some allows. Completions run on the stream's executor, which must be
// where its user runs; a cancellation reaches the operation under way. Owned
// by one connection and used from that one executor.
#pragma once
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <utility>

#include <boost/asio/any_completion_handler.hpp>
#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/async_result.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/buffer.hpp>
#include <boost/system/error_code.hpp>

namespace studiolink {

class ByteStream {
public:
    using executor_type = boost::asio::any_io_executor;
    using error_code = boost::system::error_code;
    using Completion = boost::asio::any_completion_handler<void(error_code, std::size_t)>;
    static constexpr std::size_t gatherLimit = 16;

    // The buffers of one write, kept by value for as long as it runs.
    struct Gathered {
        std::array<boost::asio::const_buffer, gatherLimit> items;
        std::size_t count = 0;
        const boost::asio::const_buffer* begin() const { return items.data(); }
        const boost::asio::const_buffer* end() const { return items.data() + count; }
    };

    // What writing straight from a file did: bytes sent, or the errno that
    // stopped it (EAGAIN: wait until writable; ENOSYS: the transport cannot
    // send from a file at all). Nothing sent and no error: the file ended.
    struct FileSent {
        std::size_t bytes = 0;
        int error = 0;
    };

    virtual ~ByteStream() = default;
    virtual executor_type get_executor() = 0;

    template <class MutableBuffers, class Token>
    auto async_read_some(const MutableBuffers& buffers, Token&& token) {
        boost::asio::mutable_buffer first;
        for (auto it = boost::asio::buffer_sequence_begin(buffers); it != boost::asio::buffer_sequence_end(buffers);
             ++it) {
            if (boost::asio::mutable_buffer(*it).size() > 0) {
                first = *it;
                break;
            }
        }
        return boost::asio::async_initiate<Token, void(error_code, std::size_t)>(
            [this](auto handler, boost::asio::mutable_buffer into) { readSome(into, std::move(handler)); }, token,
            first);
    }

    template <class ConstBuffers, class Token>
    auto async_write_some(const ConstBuffers& buffers, Token&& token) {
        Gathered gathered;
        for (auto it = boost::asio::buffer_sequence_begin(buffers);
             it != boost::asio::buffer_sequence_end(buffers) && gathered.count < gatherLimit; ++it) {
            if (boost::asio::const_buffer(*it).size() > 0) gathered.items[gathered.count++] = *it;
        }
        return boost::asio::async_initiate<Token, void(error_code, std::size_t)>(
            [this](auto handler, const Gathered& from) { writeSome(from, std::move(handler)); }, token, gathered);
    }

    // Reads and writes begun from now on fail with beast::error::timeout,
    // and the connection closes, once `timeout` has passed.
    virtual void expiresAfter(std::chrono::steady_clock::duration timeout) = 0;
    // Open, and not a byte waiting to be read; told without waiting. A
    // connection the far end closed while it sat idle reads as ended.
    virtual bool idleAndOpen() = 0;
    virtual void close() = 0;

    // Up to `most` bytes of the open file `fd` from `offset`, sent without
    // waiting and, where the transport can, without passing through this
    // process.
    virtual FileSent sendFromFile(int fd, uint64_t offset, std::size_t most) = 0;
    // Until more bytes can be written, or `timeout` passes (a timeout error).
    virtual boost::asio::awaitable<error_code> writable(std::chrono::steady_clock::duration timeout) = 0;

protected:
    virtual void readSome(boost::asio::mutable_buffer into, Completion done) = 0;
    virtual void writeSome(const Gathered& from, Completion done) = 0;
};

}  // namespace studiolink
