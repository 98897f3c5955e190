// Where a request goes: each method to its handler, and each tool call,
// by its tool and its "action", to the bridge's own handler for it. A tool
// call that no route names goes to Studio as the agent sent it. The bridge
// builds its table once (StudioMCPBridge::routes) and only reads it after;
// handlers run on the bridge's strand.
#pragma once
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>

#include "server/Progress.h"
#include "server/ProtocolEra.h"
#include "server/RequestTable.h"

namespace server {

template <typename T>
using Task = boost::asio::awaitable<T, boost::asio::any_io_executor>;

// One request as a handler sees it.
struct Request {
    std::string method;
    // Always an object: {} when the request had none, or not an object.
    Json params;
    std::shared_ptr<RequestTable::Call> call;
    // What a stateless request said about its client; nothing for a
    // handshake request.
    std::optional<ProtocolEra::Envelope> envelope;
};

// A handler's answer: the result, or a JSON-RPC error.
using Answer = std::variant<Json, ProtocolEra::Refusal>;

class Routes {
public:
    using MethodHandler = std::function<Task<Answer>(Request&)>;
    using ToolHandler = std::function<Task<Json>(Json arguments, Progress progress)>;

    void method(std::string name, MethodHandler handler);
    // A method answered at once.
    void method(std::string name, std::function<Answer(Request&)> handler);

    // `action`: the call's "action" string; "" for a call without one (or
    // with one that is not a string), "*" for any.
    void tool(std::string name, std::string action, ToolHandler handler);

    const MethodHandler* forMethod(std::string_view name) const;
    // The handler of a tool call, or nothing: then Studio carries it out.
    const ToolHandler* forTool(std::string_view name, const Json& arguments) const;

private:
    std::map<std::string, MethodHandler, std::less<>> methods_;
    std::map<std::pair<std::string, std::string>, ToolHandler, std::less<>> tools_;
};

}  // namespace server
