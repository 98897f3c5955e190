// The link's unit tests run on one io_context turned by the test's own
// thread, over in-memory connections: a connection is a pair of Beast test
// streams, one end of which can fail at a chosen operation. Studio's services
// are a FakeHttp served in memory; hand-over listeners are dialled by the
// test. Only the blocking pool and the listener's judges have threads.
#pragma once
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/use_future.hpp>
#include <boost/beast/_experimental/test/stream.hpp>
#include <boost/beast/core/error.hpp>
#include <deque>
#include <future>
#include <unistd.h>

#include "base/BridgeError.h"
#include "link/BlockingWork.h"
#include "link/HttpSession.h"
#include "link/LoopbackNetwork.h"
#include "link/StudioConnection.h"
#include "support/FakeHttp.h"
#include "support/PlatformDoubles.h"
#include "support/TempDir.h"

namespace linktest {

using namespace std::chrono_literals;
namespace asio = boost::asio;
namespace fs = std::filesystem;
using boost::system::error_code;
using tcp = asio::ip::tcp;
using peer::StudioPeer;
using peer::URL;
using studiolink::ByteStream;
using studiolink::HandshakeListener;
using studiolink::HttpSession;
using studiolink::Link;
using studiolink::LinkDurations;
using studiolink::LoopbackAcceptor;
using studiolink::LoopbackNetwork;
using studiolink::StudioConnection;
using studiolink::TransportError;
using testsupport::FakeHttp;
namespace blocking = studiolink::blocking;

// One end of a connection. It knows when either end closed, so that an idle
// connection the far end dropped reads as ended, as a socket's does.
class MemoryStream final : public ByteStream {
public:
    using Closed = std::array<bool, 2>;
    MemoryStream(boost::beast::test::stream stream, std::shared_ptr<Closed> closed, int side)
        : stream_(std::move(stream)), closed_(std::move(closed)), side_(side) {}
    ~MemoryStream() override { (*closed_)[side_] = *expired_ = true; }

    // The two ends; the first fails as `fails` says.
    static std::pair<std::unique_ptr<MemoryStream>, std::unique_ptr<MemoryStream>> pair(
        asio::io_context& io, boost::beast::test::fail_count* fails = nullptr) {
        auto closed = std::make_shared<Closed>();
        auto near = fails ? boost::beast::test::stream(io, *fails) : boost::beast::test::stream(io);
        boost::beast::test::stream far(io);
        near.connect(far);
        return {std::make_unique<MemoryStream>(std::move(near), closed, 0),
                std::make_unique<MemoryStream>(std::move(far), closed, 1)};
    }

    void send(const std::string& bytes) {
        error_code ignored;
        stream_.write_some(asio::buffer(bytes), ignored);
    }
    std::string received() const { return std::string(stream_.str()); }
    bool farClosed() const { return (*closed_)[1 - side_]; }
    // Whether a file's bytes go out here as the kernel would send them
    // (straight from the file), or through the bridge's own pieces.
    bool zeroCopy = true;

    executor_type get_executor() override { return stream_.get_executor(); }
    bool idleAndOpen() override { return !(*closed_)[0] && !(*closed_)[1] && stream_.str().empty(); }
    void close() override {
        (*closed_)[side_] = true;
        stream_.close();
    }
    // As a socket's deadline: the connection closes, and what waited fails
    // with a timeout.
    void expiresAfter(std::chrono::steady_clock::duration timeout) override {
        deadline_.expires_after(timeout);
        deadline_.async_wait([this, expired = expired_](error_code ec) {
            if (ec || *expired) return;  // the stream itself may be gone
            *expired = true;
            close();
        });
    }
    FileSent sendFromFile(int fd, uint64_t offset, std::size_t most) override {
        if (!zeroCopy) return {0, ENOSYS};
        char piece[65536];
        ssize_t got = ::pread(fd, piece, std::min(most, sizeof piece), static_cast<off_t>(offset));
        if (got <= 0) return {0, got < 0 ? errno : 0};
        error_code ec;
        std::size_t put = stream_.write_some(asio::buffer(piece, static_cast<std::size_t>(got)), ec);
        return ec ? FileSent{0, EPIPE} : FileSent{put, 0};
    }
    asio::awaitable<error_code> writable(std::chrono::steady_clock::duration) override { co_return error_code(); }

protected:
    auto timed(Completion done) {
        return [expired = expired_, done = std::move(done)](error_code ec, std::size_t n) mutable {
            std::move(done)(*expired ? error_code(boost::beast::error::timeout) : ec, n);
        };
    }
    void readSome(asio::mutable_buffer into, Completion done) override { stream_.async_read_some(into, timed(std::move(done))); }
    void writeSome(const Gathered& from, Completion done) override { stream_.async_write_some(from, timed(std::move(done))); }

private:
    boost::beast::test::stream stream_;
    std::shared_ptr<Closed> closed_;
    int side_;
    std::shared_ptr<bool> expired_ = std::make_shared<bool>(false);
    asio::steady_timer deadline_{stream_.get_executor()};
};

// Connections to 127.0.0.1:8080 reach `studio`; other ports refuse.
// Listeners get ports from 50000 up, and connections the test dials.
class MemoryNetwork final : public LoopbackNetwork {
public:
    MemoryNetwork(asio::io_context& io, FakeHttp& studio) : io_(io), studio_(studio) {}

    // The bridge's end of the next connection fails at its n-th operation.
    void failNextAt(std::size_t operation, error_code failure = boost::beast::test::error::test_failure) {
        fails_.emplace_back(operation, failure);
        failNext_ = &fails_.back();
    }
    bool zeroCopy = true;

    asio::awaitable<Connected> connect(asio::any_io_executor, asio::ip::address, uint16_t port,
                                       std::chrono::steady_clock::duration) override {
        if (port != 8080) co_return Connected{asio::error::connection_refused, nullptr};
        auto [bridge, studio] = MemoryStream::pair(io_, std::exchange(failNext_, nullptr));
        bridge->zeroCopy = zeroCopy;
        studio_.serve(std::move(studio));
        co_return Connected{{}, std::move(bridge)};
    }

    // Dialled connections wait in line until the listener asks for one.
    struct Acceptor final : LoopbackAcceptor {
        Acceptor(MemoryNetwork& network, asio::any_io_executor executor)
            : network(network), executor(std::move(executor)), number(network.nextPort_++) {
            network.listening_[number] = this;
        }
        ~Acceptor() override { network.listening_.erase(number); }
        uint16_t port() const override { return number; }
        bool isOpen() const override { return open; }
        void close() override {
            open = false;
            for (auto& [connection, from] : queued) connection->close();
            queued.clear();
            hand();
        }
        void accept(Accepted handler) override {
            waiting = std::move(handler);
            hand();
        }
        void hand() {
            if (!waiting || (open && queued.empty())) return;
            std::pair<std::shared_ptr<ByteStream>, tcp::endpoint> next;
            if (open) next = queued.front(), queued.pop_front();
            error_code ec = open ? error_code() : asio::error::operation_aborted;
            asio::post(executor, [handler = *std::exchange(waiting, std::nullopt), ec, next] {
                handler(ec, next.first, next.second);
            });
        }
        MemoryNetwork& network;
        asio::any_io_executor executor;
        uint16_t number;
        bool open = true;
        std::optional<Accepted> waiting;
        std::deque<std::pair<std::shared_ptr<ByteStream>, tcp::endpoint>> queued;
    };
    std::unique_ptr<LoopbackAcceptor> listen(asio::any_io_executor executor) override {
        return std::make_unique<Acceptor>(*this, std::move(executor));
    }
    // A connection from `from` to the listener on `port`: the test's end,
    // closed at once when nothing listens there.
    std::shared_ptr<MemoryStream> dial(uint16_t port, tcp::endpoint from) {
        auto [test, listener] = MemoryStream::pair(io_);
        auto found = listening_.find(port);
        if (found == listening_.end() || !found->second->open) {
            test->close();
        } else {
            found->second->queued.emplace_back(std::move(listener), from);
            found->second->hand();
        }
        return std::move(test);
    }

private:
    asio::io_context& io_;
    FakeHttp& studio_;
    std::deque<boost::beast::test::fail_count> fails_;
    boost::beast::test::fail_count* failNext_ = nullptr;
    std::map<uint16_t, Acceptor*> listening_;
    uint16_t nextPort_ = 50000;
};

inline const std::string token(40, 'k');

// What `f` throws ("" when it does not).
template <class F>
std::string thrown(F f) {
    try {
        f();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "";
}

struct Harness {
    Harness() { durations.httpTimeout = 5s; }
    ~Harness() {
        for (auto& made : connections) asio::post(strand, [made] { made->stop(); });
        io.restart();
        io.poll();
        blocking::settle();
    }

    // Studio's services at 127.0.0.1:8080, in memory.
    static Link memoryLink() {
        return {*URL::parse("http://127.0.0.1:8080/mcp"), *URL::parse("http://127.0.0.1:8080"), token, nullptr};
    }
    // Linked from the start unless `link` is empty; then `verifyPeer` judges
    // who takes part in its hand-overs.
    std::shared_ptr<StudioConnection> connection(std::optional<Link> link = memoryLink(),
                                                 HandshakeListener::VerifyPeer verifyPeer = {},
                                                 std::optional<fs::path> app = fs::path("/Apps/Studio.app")) {
        StudioConnection::Services services{notifications, running, launcher, random, peer, std::move(verifyPeer),
                                            "com.lumenfold.vantoric.studio", "n", "vantoric-studio-link",
                                            overTcp ? nullptr : network};
        connections.push_back(StudioConnection::create(strand, io.get_executor(), app,
                                                       [] { return std::string("A coding agent"); }, services,
                                                       durations, link));
        return connections.back();
    }
    void answer(int status, std::string body) {
        studio.setHandler([=](const FakeHttp::Request&) { return FakeHttp::Response{status, body}; });
    }

    template <class T>
    std::future<T> start(asio::awaitable<T> task) {
        return asio::co_spawn(strand, std::move(task), asio::use_future);
    }
    // Turns the loop until `done()` holds.
    template <class Done>
    void until(Done done) {
        for (auto deadline = std::chrono::steady_clock::now() + 20s; !done();) {
            if (std::chrono::steady_clock::now() > deadline) throw std::runtime_error("the loop never got there");
            io.restart();
            io.run_one_for(10ms);
        }
    }
    template <class T>
    T wait(std::future<T>& future) {
        until([&] { return future.wait_for(0s) == std::future_status::ready; });
        return future.get();
    }
    template <class T>
    T run(asio::awaitable<T> task) {
        auto future = start(std::move(task));
        return wait(future);
    }
    // What the task throws ("" when it does not).
    template <class T>
    std::string failure(std::future<T>& future) {
        return thrown([&] { wait(future); });
    }
    template <class T>
    std::string failure(asio::awaitable<T> task) {
        auto future = start(std::move(task));
        return failure(future);
    }

    asio::io_context io;
    asio::strand<asio::io_context::executor_type> strand = asio::make_strand(io);
    FakeHttp studio;
    std::shared_ptr<MemoryNetwork> network = std::make_shared<MemoryNetwork>(io, studio);
    testsupport::FakeNotificationCenter notifications;
    testsupport::FakeRunningApplications running;
    testsupport::FakeApplicationLauncher launcher;
    testsupport::FakeSecureRandom random;
    std::shared_ptr<const StudioPeer> peer;  // which running copies are usable
    bool overTcp = false;                     // the system's loopback TCP instead
    LinkDurations durations;
    std::vector<std::shared_ptr<StudioConnection>> connections;
};

}  // namespace linktest
