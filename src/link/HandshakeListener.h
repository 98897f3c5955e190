// The short-lived loopback listener of one hand-over. It greets only
// connections the peer check names as Studio's, sends each the greeting with
// the nonce, and takes the first reply line that comes back; from then on it
// watches that one connection: its end, from either side, is the end of the
// link.
//
// Every connection is accepted at once and judged on a worker thread, never
// on the I/O thread, so a burst of connections from other processes neither
// stalls the bridge nor holds Studio's own connection back; those are closed
// without a byte, and the log says so at most once a second, with the count.
// A greeted connection that ends before its reply line (Studio answering a
// spoofed announcement, say) ends only itself: listening, and the
// announcements, go on for the rest of the reply window.
//
// Shared (std::shared_ptr) between the bridge's strand, which calls start(),
// reply(), isAlive(), contacted() and stop(), and the listener's own strand,
// where the network work runs; that work, the judgements and the reply
// watchdog hold the listener weakly. `port`, `stopped`, the greeted count
// and the lifetime connection are guarded by one mutex, held only to read or
// write them. stop() is safe from any thread, any number of times. Reply
// lines are buffered without bound, so a line that arrives before anyone
// waits is kept.
#pragma once
#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include "json/Json.h"
#include <string>
#include <string_view>
#include <vector>

namespace studiolink {

class ByteStream;
class LoopbackNetwork;

class HandshakeListener : public std::enable_shared_from_this<HandshakeListener> {
public:
    // Whether the connection accepted at `acceptedAt` from 127.0.0.1:peerPort
    // on the listening port comes from Studio.
    using VerifyPeer = std::function<bool(const std::filesystem::path& app, uint16_t peerPort, uint16_t localPort,
                                          std::chrono::steady_clock::time_point acceptedAt)>;

    static constexpr size_t chunkSize = 65536;
    static constexpr size_t maximumLine = 65536;

    // Nothing is bound until start(). `executor` is the I/O executor the
    // listener makes its own strand on; it listens on `network` (TCP unless
    // told otherwise).
    static std::shared_ptr<HandshakeListener> create(boost::asio::any_io_executor executor, const std::string& nonce,
                                                     std::string_view hello, std::filesystem::path app,
                                                     VerifyPeer verifyPeer,
                                                     std::shared_ptr<LoopbackNetwork> network = nullptr);
    ~HandshakeListener();

    // Listens on 127.0.0.1 on a port the system chooses and returns it.
    // Throws the network error, or cancellation when stopped first.
    boost::asio::awaitable<uint16_t> start();
    // The first reply line that is a JSON object. Stops the listener when
    // `timeout` passes first; when the replies end without one, throws
    // BridgeError "Vantoric Studio did not answer. ...".
    boost::asio::awaitable<Json> reply(std::chrono::steady_clock::duration timeout);

    // A verified Studio is connected and greeted, or linked (stays true after
    // stop() once linked).
    bool contacted() const;
    // Not stopped and the connection is open.
    bool isAlive() const;
    void stop();

    const std::string& greeting() const { return greeting_; }

private:
    struct Network;
    HandshakeListener(boost::asio::any_io_executor executor, std::string greeting, std::filesystem::path app,
                      VerifyPeer verifyPeer, std::shared_ptr<LoopbackNetwork> network);

    void acceptNext();
    void judge(std::shared_ptr<ByteStream> connection, uint16_t peerPort,
               std::chrono::steady_clock::time_point acceptedAt);
    void judged(std::shared_ptr<ByteStream> connection, bool studio);
    void greet(std::shared_ptr<ByteStream> connection);
    void ended(const std::shared_ptr<ByteStream>& connection);
    void rejected();
    void logRejections();
    void read(std::shared_ptr<ByteStream> connection, std::shared_ptr<std::string> buffer);
    void linkWith(const std::shared_ptr<ByteStream>& connection, std::string line);
    void watchLifetime(std::shared_ptr<ByteStream> connection);
    void deliver(std::string line);
    void finishReplies();

    std::unique_ptr<Network> network_;
    const std::string greeting_;
    const std::filesystem::path app_;
    const std::shared_ptr<const VerifyPeer> verifyPeer_;

    mutable std::mutex lock_;
    uint16_t port_ = 0;
    bool stopped_ = false;
    size_t greeted_ = 0;  // verified connections open, awaiting their reply
    bool linked_ = false;
    std::shared_ptr<ByteStream> lifetime_;
    bool repliesFinished_ = false;

    // On the listener's strand only.
    std::vector<std::shared_ptr<ByteStream>> open_;  // accepted, not yet linked or closed
    std::chrono::steady_clock::time_point lastRejectionLog_{};
    size_t unloggedRejections_ = 0;
    bool rejectionLogDue_ = false;
};

}  // namespace studiolink
