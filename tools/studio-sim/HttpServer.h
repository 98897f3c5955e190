// Studio's loopback HTTP/1.1 service for linked agents (keep-alive, on
// 127.0.0.1). Every request must carry "Authorization: Bearer <token>" of a
// live link, else 401.
//   POST /mcp              JSON-RPC 2.0 "tools/call" -> 200 {"jsonrpc","id","result": <tool result>}
//   PUT  /uploads?name=N   body streamed to disk -> 201 {"uploadId","name","bytes"}
//   GET  /downloads/<id>   the exported file (sendfile) -> 200, or 404
//   anything else          404
// Waiting calls (export status, project open with await_open) are polled
// without blocking other requests. The test controls for /mcp, uploads and
// downloads in SimConfig apply here; every request is logged.
//
// Serves on the single-threaded io_context it is given; construct and
// destroy on that thread.
#pragma once
#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>

namespace boost::asio {
class io_context;
}

namespace studiosim {

struct SimConfig;
class SimLog;
class ProjectModel;

class HttpServer {
public:
    using TokenCheck = std::function<bool(std::string_view token)>;

    // Binds 127.0.0.1:config.httpPort (0: a port of the system's choosing)
    // and starts accepting. Throws boost::system::system_error when it can't.
    HttpServer(boost::asio::io_context& io, const SimConfig& config, ProjectModel& model, SimLog& log, TokenCheck isLiveToken);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    std::uint16_t port() const;

private:
    struct Impl;
    std::shared_ptr<Impl> impl_;
};

}  // namespace studiosim
