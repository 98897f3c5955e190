// Studio's HTTP answers as the bridge reads them. The input is every byte a
// broken or hostile Studio sends on a connection after reading a request;
// then it stops sending. A call (string body) and a download (body to a
// sink) are made against it, and each must end, with an answer or a
// TransportError, never a crash, an overrun or a wait past the end. A
// download's sink must receive its bytes in pieces no larger than it was
// given, and only after it was opened for a 200.
#include <sys/socket.h>

#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/streambuf.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>

#include "json/Json.h"
#include "link/HttpSession.h"

namespace asio = boost::asio;
using tcp = asio::ip::tcp;
using peer::URL;
using studiolink::HttpRequest;
using studiolink::HttpResponse;
using studiolink::HttpSession;
using studiolink::TransportError;

namespace {

std::string answer;  // the bytes of the current input

asio::awaitable<void> serve(tcp::socket socket) {
    asio::streambuf request;
    auto [read, n] = co_await asio::async_read_until(socket, request, "\r\n\r\n", asio::as_tuple(asio::use_awaitable));
    if (read) co_return;
    co_await asio::async_write(socket, asio::buffer(answer), asio::as_tuple(asio::use_awaitable));
    boost::system::error_code ignored;
    socket.shutdown(tcp::socket::shutdown_send, ignored);
    char sink[4096];
    for (;;) {
        auto [ec, m] = co_await socket.async_read_some(asio::buffer(sink), asio::as_tuple(asio::use_awaitable));
        if (ec) co_return;
    }
}

asio::awaitable<void> accept(tcp::acceptor& acceptor) {
    for (;;) {
        auto [ec, socket] = co_await acceptor.async_accept(asio::as_tuple(asio::use_awaitable));
        if (ec) co_return;
        asio::co_spawn(acceptor.get_executor(), serve(std::move(socket)), asio::detached);
    }
}

struct CountingSink : HttpSession::FileSink {
    bool opened = false;
    uint64_t bytes = 0;
    asio::awaitable<void> open() override {
        if (opened) std::abort();
        opened = true;
        co_return;
    }
    asio::awaitable<void> write(const char* data, std::size_t size) override {
        if (!opened || size == 0 || size > (1u << 20)) std::abort();
        bytes += size;
        co_return;
    }
};

struct Fixture {
    asio::io_context io;
    tcp::acceptor acceptor{io, tcp::endpoint(asio::ip::make_address("127.0.0.1"), 0)};
    HttpSession session{io.get_executor(), std::chrono::seconds(5)};
    URL url = *URL::parse("http://127.0.0.1:" + std::to_string(acceptor.local_endpoint().port()) + "/mcp");
    Fixture() { asio::co_spawn(io, accept(acceptor), asio::detached); }

    template <class Work>
    void run(Work work) {
        bool done = false;
        asio::co_spawn(io, std::move(work), [&](std::exception_ptr failure) {
            done = true;
            if (!failure) return;
            try {
                std::rethrow_exception(failure);
            } catch (const TransportError&) {
            } catch (...) {
                std::abort();  // anything else is not an answer the bridge can report
            }
        });
        while (!done) io.run_one();
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Fixture fixture;
    answer.assign(reinterpret_cast<const char*>(data), size);

    fixture.run([&]() -> asio::awaitable<void> {
        HttpRequest request{"POST", fixture.url, {{"Content-Type", "application/json"}}, "{}"};
        HttpResponse response = co_await fixture.session.send(std::move(request));
        if (response.status < 0 || response.status > 999) std::abort();  // three digits, as read
        // What the bridge does next with a body: bounded reading.
        if (nestsWithinReadingDepth(response.body)) (void)parseObject(response.body);
    });

    CountingSink sink;
    fixture.run([&]() -> asio::awaitable<void> {
        HttpRequest request{"GET", fixture.url, {}, {}};
        int status = co_await fixture.session.receiveFile(std::move(request), 200, sink);
        if ((status == 200) != sink.opened) std::abort();
    });
    return 0;
}
