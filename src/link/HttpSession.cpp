#include "link/HttpSession.h"

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/error.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>
#include <boost/system/system_error.hpp>
#include <algorithm>
#include <cerrno>
#include <map>
#include <optional>

#include "link/BlockingWork.h"
#include "link/UploadFile.h"

using peer::URL;

namespace studiolink {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using boost::system::error_code;

namespace {

constexpr uint64_t stringBodyLimit = 1ull << 30;
constexpr size_t idlePerHost = 16;

struct Connection {
    explicit Connection(std::unique_ptr<ByteStream> stream) : stream(std::move(stream)) {}
    std::unique_ptr<ByteStream> stream;
    beast::flat_buffer buffer;
    // Set when the request could not be sent whole: the answer may be read,
    // but the connection is good for nothing else.
    bool spoiled = false;
};

const boost::system::error_category& httpCategory() {
    return make_error_code(http::error::bad_version).category();
}

// A sentence like the ones agents know from other HTTP clients.
[[noreturn]] void throwTransport(error_code ec) {
    if (ec == asio::error::operation_aborted) throw boost::system::system_error(ec);
    if (ec == beast::error::timeout) throw TransportError("The request to Vantoric Studio timed out.");
    if (ec == asio::error::connection_refused)
        throw TransportError("Could not connect to Vantoric Studio: the connection was refused.");
    if (ec == asio::error::eof || ec == http::error::end_of_stream || ec == asio::error::connection_reset ||
        ec == http::error::partial_message || ec == asio::error::broken_pipe)
        throw TransportError("The connection to Vantoric Studio was lost.");
    if (ec.category() == httpCategory())
        throw TransportError("Vantoric Studio sent a malformed HTTP answer (" + ec.message() + ").");
    throw TransportError("The connection to Vantoric Studio failed: " + ec.message() + ".");
}

template <class Body>
void prepare(http::request<Body>& message, const HttpRequest& request) {
    message.method_string(request.method);
    message.target(request.url.target());
    message.version(11);
    message.set(http::field::host, request.url.authority());
    for (const auto& [name, value] : request.headers) message.set(name, value);
}

}  // namespace

struct HttpSession::Pool {
    Pool(asio::any_io_executor executor, std::chrono::steady_clock::duration timeout,
         std::shared_ptr<LoopbackNetwork> network)
        : executor(std::move(executor)), timeout(timeout), network(std::move(network)) {}

    asio::any_io_executor executor;
    std::chrono::steady_clock::duration timeout;
    std::shared_ptr<LoopbackNetwork> network;
    std::map<std::string, std::vector<std::unique_ptr<Connection>>> idle;

    asio::awaitable<std::unique_ptr<Connection>> acquire(const URL& url) {
        auto& spare = idle[url.authority()];
        while (!spare.empty()) {
            auto connection = std::move(spare.back());
            spare.pop_back();
            // Studio closes an idle connection when it likes; data nobody
            // asked for spoils one as well.
            if (connection->stream->idleAndOpen()) co_return connection;
        }
        error_code ec;
        auto address = asio::ip::make_address(url.host.value_or(""), ec);
        if (ec || !url.port) throw TransportError("Vantoric Studio's address " + url.absoluteString() + " cannot be reached.");
        auto connecting = network->connect(executor, address, *url.port, timeout);
        auto connected = co_await std::move(connecting);
        if (connected.error) throwTransport(connected.error);
        co_return std::make_unique<Connection>(std::move(connected.stream));
    }

    void release(const URL& url, std::unique_ptr<Connection> connection) {
        if (connection->spoiled) return;
        auto& spare = idle[url.authority()];
        if (spare.size() < idlePerHost) spare.push_back(std::move(connection));
    }

    // The rest of an answer whose header has arrived; the connection is kept
    // for the next exchange when the server allows it.
    asio::awaitable<HttpResponse> finish(const URL& url, std::unique_ptr<Connection> connection,
                                         http::response_parser<http::string_body>& parser) {
        connection->stream->expiresAfter(timeout);
        auto [ec, n] = co_await http::async_read(*connection->stream, connection->buffer, parser,
                                                 asio::as_tuple(asio::use_awaitable));
        if (ec) throwTransport(ec);
        auto response = parser.release();
        // Bytes behind the answer belong to no request of ours: a
        // connection holding them would hand them to the next call.
        if (response.keep_alive() && connection->buffer.size() == 0) release(url, std::move(connection));
        co_return HttpResponse{static_cast<int>(response.result_int()), std::move(response.body())};
    }

    // One request and its answer on a pooled connection. `exchange` writes
    // the request and reads the answer's header. Nothing is ever sent twice:
    // once a byte of the request may have reached Studio, Studio may have
    // acted on it, so a failure goes to the caller as it is. A pooled
    // connection is only handed out when it still reads as open and empty.
    template <class Exchange>
    asio::awaitable<std::unique_ptr<Connection>> run(const URL& url, Exchange exchange) {
        auto connection = co_await acquire(url);
        // Named, not a temporary of the co_await: GCC 12 destroys those twice.
        auto exchanging = exchange(*connection);
        error_code failed = co_await std::move(exchanging);
        if (failed) throwTransport(failed);
        co_return connection;
    }
};

HttpSession::HttpSession(asio::any_io_executor executor, std::chrono::steady_clock::duration timeout,
                         std::shared_ptr<LoopbackNetwork> network)
    : pool_(std::make_unique<Pool>(std::move(executor), timeout, network ? std::move(network) : systemLoopback())) {}

HttpSession::~HttpSession() = default;

namespace {

// The header of the final answer: interim 1xx answers (100 Continue, 102
// Processing) carry no body and are read past with a fresh parser, so that
// the real answer is never left in the buffer for the next call.
template <class Parser>
asio::awaitable<error_code> readFinalHeader(Connection& connection, std::optional<Parser>& parser,
                                            boost::optional<uint64_t> bodyLimit,
                                            std::chrono::steady_clock::duration timeout) {
    for (;;) {
        parser.emplace();
        parser->body_limit(bodyLimit);
        connection.stream->expiresAfter(timeout);
        auto [read, m] = co_await http::async_read_header(*connection.stream, connection.buffer, *parser,
                                                          asio::as_tuple(asio::use_awaitable));
        if (read) co_return read;
        unsigned status = parser->get().result_int();
        if (status < 100 || status >= 200 || status == 101) co_return read;
    }
}

// The request, then the answer's header; the first failure.
template <class Body, class Parser>
asio::awaitable<error_code> writeThenReadHeader(Connection& connection, http::request<Body>& message,
                                                std::optional<Parser>& parser, boost::optional<uint64_t> bodyLimit,
                                                std::chrono::steady_clock::duration timeout) {
    connection.stream->expiresAfter(timeout);
    auto [written, n] = co_await http::async_write(*connection.stream, message, asio::as_tuple(asio::use_awaitable));
    if (written) co_return written;
    co_return co_await readFinalHeader(connection, parser, bodyLimit, timeout);
}

}  // namespace

asio::awaitable<HttpResponse> HttpSession::send(HttpRequest request) {
    http::request<http::string_body> message;
    prepare(message, request);
    message.body() = request.body;
    message.prepare_payload();

    std::optional<http::response_parser<http::string_body>> parser;
    auto connection = co_await pool_->run(request.url, [&](Connection& c) {
        return writeThenReadHeader(c, message, parser, stringBodyLimit, pool_->timeout);
    });
    co_return co_await pool_->finish(request.url, std::move(connection), *parser);
}

namespace {

// The pieces an upload is read and sent in when the kernel cannot send the
// file itself, and the pieces a download is read in: large enough that a
// gigabyte is a few thousand system calls, small against the memory the
// bridge may use.
constexpr size_t uploadPiece = 1 << 20;
constexpr size_t downloadPiece = 1 << 20;

// Studio may refuse an upload before reading its body (too large, a bad
// name) and close: the refusal is then waiting to be read, and it is what
// the agent must hear, not the broken pipe it caused.
template <class Parser>
asio::awaitable<error_code> answeredEarly(Connection& connection, error_code failure, std::optional<Parser>& parser) {
    connection.spoiled = true;
    if (failure == asio::error::operation_aborted || failure == beast::error::timeout) co_return failure;
    auto reading = readFinalHeader(connection, parser, stringBodyLimit, std::chrono::seconds(1));
    error_code read = co_await std::move(reading);
    co_return read ? failure : error_code();
}

// The header, then the file's bytes, then the answer's header; the first
// failure. The bytes go straight from the file where the stream can send
// them so (sendfile); otherwise they are read into `piece` and written.
template <class Parser>
asio::awaitable<error_code> writeFileThenReadHeader(Connection& connection, http::request<http::empty_body>& message,
                                                    const UploadFile& source, std::vector<char>& piece,
                                                    const HttpSession::Sent& sent, std::optional<Parser>& parser,
                                                    std::chrono::steady_clock::duration timeout) {
    http::request_serializer<http::empty_body> head(message);
    connection.stream->expiresAfter(timeout);
    auto [written, n] = co_await http::async_write_header(*connection.stream, head, asio::as_tuple(asio::use_awaitable));
    if (written) co_return written;
    bool zeroCopy = true;
    for (uint64_t offset = 0; offset < source.size();) {
        if (zeroCopy) {
            size_t most = static_cast<size_t>(std::min<uint64_t>(source.size() - offset, 1u << 30));
            auto put = connection.stream->sendFromFile(source.fd(), offset, most);
            if (put.bytes > 0) {
                offset += put.bytes;
                if (sent) sent(offset, source.size());
                continue;
            }
            int error = put.error;
            if (error == 0) source.shrank();
            if (error == EAGAIN || error == EWOULDBLOCK) {
                auto waiting = connection.stream->writable(timeout);
                auto waited = co_await std::move(waiting);
                if (waited) co_return waited;
                continue;
            }
            if (error == EINVAL || error == ENOSYS || error == EOPNOTSUPP) {
                zeroCopy = false;
                continue;
            }
            if (error == EPIPE || error == ECONNRESET || error == ENOTCONN)
                co_return co_await answeredEarly(connection, error_code(error, boost::system::system_category()), parser);
            source.fail(error);
        }
        if (piece.empty()) piece.resize(uploadPiece);
        size_t got = source.read(piece.data(), piece.size(), offset);
        connection.stream->expiresAfter(timeout);
        auto [ec, m] = co_await asio::async_write(*connection.stream, asio::buffer(piece.data(), got),
                                                  asio::as_tuple(asio::use_awaitable));
        if (ec) co_return co_await answeredEarly(connection, ec, parser);
        offset += got;
        if (sent) sent(offset, source.size());
    }
    co_return co_await readFinalHeader(connection, parser, stringBodyLimit, timeout);
}

}  // namespace

asio::awaitable<HttpResponse> HttpSession::sendFile(HttpRequest request, std::filesystem::path file, Sent sent) {
    // Opened before any connection is made: a file that cannot be read
    // costs Studio nothing.
    auto source = co_await blocking::run([&file] { return UploadFile::open(file); });
    std::vector<char> piece;
    http::request<http::empty_body> message;
    std::optional<http::response_parser<http::string_body>> parser;
    auto connection = co_await pool_->run(request.url, [&](Connection& c) {
        prepare(message, request);
        message.content_length(source->size());
        return writeFileThenReadHeader(c, message, *source, piece, sent, parser, pool_->timeout);
    });
    source.reset();
    co_return co_await pool_->finish(request.url, std::move(connection), *parser);
}

asio::awaitable<int> HttpSession::receiveFile(HttpRequest request, int wanted, FileSink& sink) {
    http::request<http::empty_body> message;
    prepare(message, request);
    message.prepare_payload();

    std::optional<http::response_parser<http::empty_body>> header;
    // The length is checked against the limit as soon as the header is
    // read: a file's body has none.
    auto connection = co_await pool_->run(request.url, [&](Connection& c) {
        return writeThenReadHeader(c, message, header, boost::none, pool_->timeout);
    });
    int status = static_cast<int>(header->get().result_int());
    // Any other answer's body is of no use; the connection goes with it.
    if (status != wanted) co_return status;
    co_await sink.open();

    // The parser frames the body (a length, chunks, or up to the end of the
    // connection) into a piece of our own, which goes to the sink whole
    // before the next is read.
    http::response_parser<http::buffer_body> parser(std::move(*header));
    parser.body_limit(boost::none);
    std::vector<char> piece(downloadPiece);
    while (!parser.is_done()) {
        auto& body = parser.get().body();
        body.data = piece.data();
        body.size = piece.size();
        // A whole piece per write: the sink's writes cost a thread hop each.
        while (body.size > 0 && !parser.is_done()) {
            connection->stream->expiresAfter(pool_->timeout);
            auto [ec, n] = co_await http::async_read_some(*connection->stream, connection->buffer, parser,
                                                          asio::as_tuple(asio::use_awaitable));
            if (ec == http::error::need_buffer) ec = {};
            if (ec) throwTransport(ec);
        }
        size_t got = piece.size() - body.size;
        if (got > 0) co_await sink.write(piece.data(), got);
    }
    bool keep = parser.get().keep_alive() && connection->buffer.size() == 0;
    if (keep) pool_->release(request.url, std::move(connection));
    co_return status;
}

}  // namespace studiolink
