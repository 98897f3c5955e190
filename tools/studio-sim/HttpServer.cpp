#include "HttpServer.h"

#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/core/file.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <variant>

#include "ProjectModel.h"
#include "SimConfig.h"
#include "SimLog.h"
#include "UrlText.h"

namespace studiosim {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using asio::ip::tcp;
using namespace std::chrono_literals;

namespace {

constexpr auto tupled = asio::as_tuple(asio::use_awaitable);
constexpr std::uint64_t kMaxMcpBody = 64u << 20;
constexpr std::size_t kMaxHeader = 64 * 1024;
constexpr std::size_t kSendfileChunk = 16u << 20;
constexpr std::size_t kReadBuffer = 1u << 20;
constexpr auto kPollInterval = 20ms;
constexpr const char* kServer = "Vantoric Studio (studio-sim)";

using HeadParser = http::request_parser<http::empty_body>;

bool startsWithBearer(std::string_view value) {
    if (value.size() < 7) return false;
    std::string scheme(value.substr(0, 7));
    std::transform(scheme.begin(), scheme.end(), scheme.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return scheme == "bearer ";
}

}  // namespace

struct HttpServer::Impl : std::enable_shared_from_this<Impl> {
    asio::io_context& io;
    const SimConfig& config;
    ProjectModel& model;
    SimLog& log;
    TokenCheck isLiveToken;
    tcp::acceptor acceptor;

    Impl(asio::io_context& io, const SimConfig& config, ProjectModel& model, SimLog& log, TokenCheck check)
        : io(io), config(config), model(model), log(log), isLiveToken(std::move(check)), acceptor(io) {}

    asio::awaitable<void> pause(std::chrono::steady_clock::duration duration) {
        asio::steady_timer timer(io, duration);
        co_await timer.async_wait(tupled);
    }

    asio::awaitable<void> accept() {
        auto self = shared_from_this();
        for (;;) {
            auto [ec, socket] = co_await acceptor.async_accept(tupled);
            if (ec == asio::error::operation_aborted || !acceptor.is_open()) co_return;
            if (ec) continue;
            asio::co_spawn(io, session(std::move(socket)), asio::detached);
        }
    }

    asio::awaitable<void> session(tcp::socket socket) {
        auto self = shared_from_this();
        boost::system::error_code ignored;
        socket.set_option(tcp::no_delay(true), ignored);
        beast::flat_buffer buffer;
        // Beast reads at most the buffer's free capacity at a time; a buffer
        // sized for headers alone would stream an upload in 512-byte reads.
        buffer.reserve(kReadBuffer);
        for (;;) {
            HeadParser head;
            head.header_limit(kMaxHeader);
            head.body_limit(boost::none);  // each route sets its own
            auto [ec, n] = co_await http::async_read_header(socket, buffer, head, tupled);
            if (ec) break;
            if (!co_await handle(socket, buffer, head)) break;
        }
        socket.shutdown(tcp::socket::shutdown_send, ignored);
        socket.close(ignored);
    }

    // ---- answering --------------------------------------------------------

    asio::awaitable<bool> send(tcp::socket& socket, unsigned status, const std::string& body, const char* contentType, bool keepAlive,
                               bool challenge = false) {
        http::response<http::string_body> res;
        res.version(11);
        res.result(status);
        res.set(http::field::server, kServer);
        res.set(http::field::content_type, contentType);
        if (challenge) res.set(http::field::www_authenticate, "Bearer");
        res.keep_alive(keepAlive);
        res.body() = body;
        res.prepare_payload();
        auto [ec, n] = co_await http::async_write(socket, res, tupled);
        co_return !ec && keepAlive;
    }

    asio::awaitable<bool> sendJson(tcp::socket& socket, unsigned status, const Json& body, bool keepAlive, bool challenge = false) {
        std::string text = body.dump(-1, ' ', false, Json::error_handler_t::replace);
        bool again = co_await send(socket, status, text, "application/json", keepAlive, challenge);
        co_return again;
    }

    static Json errorBody(const std::string& message) { return Json{{"error", message}}; }

    // Reads and throws away what is left of a request's body, so the
    // connection can carry the next request; false when the connection broke.
    asio::awaitable<bool> drain(tcp::socket& socket, beast::flat_buffer& buffer, HeadParser& head) {
        if (head.is_done()) co_return true;
        http::request_parser<http::buffer_body> parser(std::move(head));
        std::vector<char> scratch(64 * 1024);
        while (!parser.is_done()) {
            parser.get().body().data = scratch.data();
            parser.get().body().size = scratch.size();
            auto [ec, n] = co_await http::async_read(socket, buffer, parser, tupled);
            if (ec == http::error::need_buffer) continue;
            if (ec) co_return false;
        }
        co_return true;
    }

    const char* authorization(const http::request_header<>& req) const {
        auto it = req.find(http::field::authorization);
        if (it == req.end()) return "missing";
        std::string_view value(it->value().data(), it->value().size());
        if (!startsWithBearer(value)) return "wrong";
        std::string_view token = value.substr(7);
        while (!token.empty() && token.front() == ' ') token.remove_prefix(1);
        while (!token.empty() && token.back() == ' ') token.remove_suffix(1);
        return isLiveToken(token) ? "ok" : "wrong";
    }

    asio::awaitable<bool> handle(tcp::socket& socket, beast::flat_buffer& buffer, HeadParser& head) {
        auto& req = head.get();
        bool keepAlive = req.keep_alive();
        std::string target(req.target());
        auto question = target.find('?');
        std::string path = target.substr(0, question);
        std::string query = question == std::string::npos ? "" : target.substr(question + 1);
        Json fields = {{"method", std::string(req.method_string())}, {"target", target}, {"auth", authorization(req)}};

        if (fields["auth"] != "ok") {
            fields["status"] = 401;
            log.event("http", fields);
            if (!co_await drain(socket, buffer, head)) co_return false;
            Json body = errorBody("This request needs the bearer token of a live agent link.");
            bool again = co_await sendJson(socket, 401, body, keepAlive, true);
            co_return again;
        }
        if (req.method() == http::verb::post && path == "/mcp") co_return co_await mcp(socket, buffer, head, fields, keepAlive);
        if (req.method() == http::verb::put && path == "/uploads") co_return co_await upload(socket, buffer, head, query, fields, keepAlive);
        if (req.method() == http::verb::get && path.starts_with("/downloads/")) {
            std::string id = path.substr(11);
            co_return co_await download(socket, buffer, head, id, fields, keepAlive);
        }

        fields["status"] = 404;
        log.event("http", fields);
        if (!co_await drain(socket, buffer, head)) co_return false;
        Json body = errorBody("Not found.");
        bool again = co_await sendJson(socket, 404, body, keepAlive);
        co_return again;
    }

    // ---- POST /mcp --------------------------------------------------------

    asio::awaitable<bool> mcp(tcp::socket& socket, beast::flat_buffer& buffer, HeadParser& head, Json fields, bool keepAlive) {
        auto length = head.content_length();
        if (length && *length > kMaxMcpBody) {
            fields["status"] = 413;
            log.event("http", fields);
            Json body = errorBody("The request is too large.");
            co_await sendJson(socket, 413, body, false);
            co_return false;
        }
        http::request_parser<http::string_body> parser(std::move(head));
        parser.body_limit(kMaxMcpBody);
        if (!parser.is_done()) {
            auto [ec, n] = co_await http::async_read(socket, buffer, parser, tupled);
            if (ec) {
                fields["error"] = ec.message();
                log.event("http", fields);
                co_return false;
            }
        }
        auto& req = parser.get();
        fields["contentType"] = std::string(req[http::field::content_type]);
        fields["accept"] = std::string(req[http::field::accept]);
        Json body = Json::parse(req.body(), nullptr, false);
        if (body.is_discarded()) fields["bodyText"] = req.body();
        else fields["body"] = body;
        fields["status"] = config.mcpStatus.value_or(200);
        log.event("http", fields);

        if (config.callDelay.count() > 0) co_await pause(config.callDelay);
        if (config.mcpStatus) {
            Json simulated = errorBody("Simulated HTTP status.");
            bool again = co_await sendJson(socket, *config.mcpStatus, simulated, keepAlive);
            co_return again;
        }
        if (config.mcpBody) {
            bool stream = config.mcpBody->starts_with("event:") || config.mcpBody->starts_with("data:");
            bool again = co_await send(socket, 200, *config.mcpBody, stream ? "text/event-stream" : "application/json", keepAlive);
            co_return again;
        }
        Json answer = co_await rpc(body);
        bool again = co_await sendJson(socket, 200, answer, keepAlive);
        co_return again;
    }

    asio::awaitable<Json> rpc(const Json& body) {
        Json id = body.is_object() && body.contains("id") ? body["id"] : Json();
        auto failure = [&](int code, const char* message) {
            return Json{{"jsonrpc", "2.0"}, {"id", id}, {"error", {{"code", code}, {"message", message}}}};
        };
        if (body.is_discarded()) co_return failure(-32700, "Parse error");
        if (!body.is_object() || body.value("jsonrpc", Json()) != "2.0" || !body.contains("method") || !body["method"].is_string())
            co_return failure(-32600, "Invalid Request");
        if (body["method"] != "tools/call") co_return failure(-32601, "Method not found");
        const Json params = body.value("params", Json());
        if (!params.is_object() || !params.contains("name") || !params["name"].is_string())
            co_return failure(-32602, "Invalid params: params.name must be the tool's name");
        Json arguments = params.value("arguments", Json::object());
        if (arguments.is_null()) arguments = Json::object();
        if (!arguments.is_object()) co_return failure(-32602, "Invalid params: params.arguments must be an object");
        std::string tool = params["name"];
        if (config.slowTool && *config.slowTool == tool) co_await pause(config.slowToolDelay);

        Json result;
        try {
            auto answer = model.call(tool, arguments);
            if (auto* ready = std::get_if<Json>(&answer)) {
                result = std::move(*ready);
            } else {
                auto& pending = std::get<ProjectModel::Pending>(answer);
                for (;;) {
                    auto now = std::chrono::steady_clock::now();
                    if (auto r = pending.poll(now >= pending.deadline)) {
                        result = std::move(*r);
                        break;
                    }
                    co_await pause(std::min<std::chrono::steady_clock::duration>(kPollInterval, pending.deadline - now));
                }
            }
        } catch (const std::exception& error) {
            result = toolError(std::string("Vantoric Studio could not do that: ") + error.what());
        }
        co_return Json{{"jsonrpc", "2.0"}, {"id", id}, {"result", result}};
    }

    // ---- PUT /uploads?name= ------------------------------------------------

    asio::awaitable<bool> upload(tcp::socket& socket, beast::flat_buffer& buffer, HeadParser& head, const std::string& query,
                                 Json fields, bool keepAlive) {
        auto items = parseQuery(query);
        auto name = items ? queryValue(*items, "name") : std::nullopt;
        std::string contentType(head.get()[http::field::content_type]);
        bool expectContinue = beast::iequals(head.get()[http::field::expect], "100-continue");
        unsigned refusal = 0;
        std::string reason;
        ProjectModel::UploadSlot slot;
        beast::file file;
        beast::error_code ec;
        if (!name) {
            refusal = 400;
            reason = "Name the file with the query item name.";
        } else if (config.uploadError) {
            refusal = config.uploadStatus.value_or(422);
            reason = *config.uploadError;
        } else {
            try {
                slot = model.reserveUpload(*name);
                file.open(slot.file.c_str(), beast::file_mode::write_new, ec);
                if (ec) {
                    model.discardUpload(slot);
                    refusal = 500;
                    reason = "Vantoric Studio could not store the upload: " + ec.message();
                }
            } catch (const std::invalid_argument& error) {
                refusal = 400;
                reason = error.what();
            } catch (const std::exception& error) {
                refusal = 500;
                reason = std::string("Vantoric Studio could not store the upload: ") + error.what();
            }
        }
        if (refusal != 0) {
            fields["status"] = refusal;
            log.event("http", fields);
            log.event("upload", {{"complete", false}, {"status", refusal}, {"error", reason}});
            bool drained = co_await drain(socket, buffer, head);
            if (!drained) co_return false;
            Json body = errorBody(reason);
            bool again = co_await sendJson(socket, refusal, body, keepAlive);
            co_return again;
        }
        if (expectContinue) {
            http::response<http::empty_body> proceed{http::status::continue_, 11};
            co_await http::async_write(socket, proceed, tupled);
        }

        http::request_parser<http::file_body> parser(std::move(head));
        parser.body_limit(boost::none);
        parser.get().body().reset(std::move(file), ec);
        std::uint64_t bytes = 0;
        if (!ec && !parser.is_done()) std::tie(ec, bytes) = co_await http::async_read(socket, buffer, parser, tupled);
        parser.get().body().close();
        if (ec) {
            model.discardUpload(slot);
            fields["error"] = ec.message();
            log.event("http", fields);
            log.event("upload", {{"name", *name}, {"complete", false}, {"error", ec.message()}});
            co_return false;
        }
        std::error_code sizeError;
        bytes = std::filesystem::file_size(slot.file, sizeError);
        model.commitUpload(slot, bytes);
        unsigned status = config.uploadStatus.value_or(201);
        fields["status"] = status;
        log.event("http", fields);
        log.event("upload", {{"uploadId", slot.id}, {"name", *name}, {"bytes", bytes}, {"contentType", contentType}, {"status", status}});
        Json answer = Json::object();
        answer["uploadId"] = slot.id;
        answer["name"] = *name;
        answer["bytes"] = bytes;
        bool again = co_await sendJson(socket, status, answer, keepAlive);
        co_return again;
    }

    // ---- GET /downloads/<id> -----------------------------------------------

    asio::awaitable<bool> download(tcp::socket& socket, beast::flat_buffer& buffer, HeadParser& head, const std::string& rawId,
                                   Json fields, bool keepAlive) {
        auto id = percentDecode(rawId);
        auto file = id && id->find('/') == std::string::npos ? model.downloadFile(*id) : std::nullopt;
        unsigned status = config.downloadStatus.value_or(file ? 200 : 404);
        int fd = -1;
        struct ::stat info = {};
        if (status == 200) {
            if (file) fd = ::open(file->c_str(), O_RDONLY | O_CLOEXEC);
            if (fd < 0 || ::fstat(fd, &info) != 0) status = 404;
        }
        fields["status"] = status;
        log.event("http", fields);
        if (!co_await drain(socket, buffer, head)) {
            if (fd >= 0) ::close(fd);
            co_return false;
        }
        if (status != 200) {
            if (fd >= 0) ::close(fd);
            log.event("download", {{"id", id.value_or(rawId)}, {"status", status}});
            Json body = errorBody("No download " + id.value_or(rawId) + ".");
            bool again = co_await sendJson(socket, status, body, keepAlive);
            co_return again;
        }

        std::uint64_t size = static_cast<std::uint64_t>(info.st_size);
        http::response<http::empty_body> res{http::status::ok, 11};
        res.set(http::field::server, kServer);
        res.set(http::field::content_type, "video/mp4");
        res.content_length(size);
        res.keep_alive(keepAlive);
        http::response_serializer<http::empty_body> serializer(res);
        auto [ec, n] = co_await http::async_write_header(socket, serializer, tupled);
        off_t offset = 0;
        if (!ec) {
            // The body goes straight from the page cache to the socket.
            socket.native_non_blocking(true, ec);
            // A rate sends a tenth of a second's bytes at a time.
            std::uint64_t most = config.downloadRate ? std::max<std::uint64_t>(*config.downloadRate / 10, 1) : kSendfileChunk;
            asio::steady_timer pace(socket.get_executor());
            while (!ec && static_cast<std::uint64_t>(offset) < size) {
                if (config.downloadRate && offset > 0) {
                    pace.expires_after(std::chrono::milliseconds(100));
                    auto [paced] = co_await pace.async_wait(tupled);
                    if (paced) break;
                }
                std::size_t chunk = static_cast<std::size_t>(std::min<std::uint64_t>(most, size - offset));
                ssize_t sent = ::sendfile(socket.native_handle(), fd, &offset, chunk);
                if (sent > 0) continue;
                if (sent < 0 && errno == EINTR) continue;
                if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
                    auto [waitError] = co_await socket.async_wait(tcp::socket::wait_write, tupled);
                    ec = waitError;
                    continue;
                }
                break;  // the file shrank, or the connection broke
            }
        }
        ::close(fd);
        bool complete = static_cast<std::uint64_t>(offset) == size;
        log.event("download", {{"id", *id}, {"status", 200}, {"bytes", static_cast<std::uint64_t>(offset)}, {"complete", complete}});
        co_return complete && keepAlive;
    }
};

HttpServer::HttpServer(asio::io_context& io, const SimConfig& config, ProjectModel& model, SimLog& log, TokenCheck isLiveToken)
    : impl_(std::make_shared<Impl>(io, config, model, log, std::move(isLiveToken))) {
    tcp::endpoint endpoint(asio::ip::address_v4::loopback(), config.httpPort);
    impl_->acceptor.open(endpoint.protocol());
    impl_->acceptor.set_option(tcp::acceptor::reuse_address(true));
    impl_->acceptor.bind(endpoint);
    impl_->acceptor.listen();
    asio::co_spawn(io, impl_->accept(), asio::detached);
}

HttpServer::~HttpServer() {
    boost::system::error_code ignored;
    impl_->acceptor.close(ignored);
}

std::uint16_t HttpServer::port() const {
    return impl_->acceptor.local_endpoint().port();
}

}  // namespace studiosim
