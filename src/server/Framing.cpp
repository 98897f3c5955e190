#include "server/Framing.h"

#include <cstdint>
#include <cstdio>

namespace server {

std::string Framing::key(const Json& id) {
    switch (id.type()) {
    case Json::value_t::number_integer:
        return "n:" + std::to_string(id.get<std::int64_t>());
    case Json::value_t::number_unsigned:
        return "n:" + std::to_string(id.get<std::uint64_t>());
    case Json::value_t::boolean:
        return id.get<bool>() ? "n:1" : "n:0";
    case Json::value_t::number_float: {
        // Sixteen significant digits, as a number object describes a double:
        // 7.0 is n:7 like the integer 7, and 2.5 is n:2.5.
        char text[40];
        std::snprintf(text, sizeof text, "%.16g", id.get<double>());
        return std::string("n:") + text;
    }
    case Json::value_t::string:
        return "s:" + id.get_ref<const std::string&>();
    default:
        return "s:" + id.dump(-1, ' ', false, Json::error_handler_t::replace);
    }
}

std::optional<std::string> Framing::messageLine(const Json& message) {
    try {
        std::string line = compactJSON(message);
        line.push_back('\n');
        return line;
    } catch (...) {
        return std::nullopt;
    }
}

std::optional<std::string> Framing::successLine(const Json& id, const Json& result) {
    try {
        std::string line = R"({"jsonrpc":"2.0","id":)";
        line += compactJSON(id);
        line += R"(,"result":)";
        line += compactJSON(result);
        line += "}\n";
        return line;
    } catch (...) {
        return std::nullopt;
    }
}

Json Framing::errorReply(const Json& id, int code, std::string_view message) {
    Json error = Json::object();
    error["code"] = code;
    error["message"] = message;
    Json reply = Json::object();
    reply["jsonrpc"] = "2.0";
    reply["id"] = id;
    reply["error"] = std::move(error);
    return reply;
}

Json Framing::parseErrorReply() { return errorReply(nullptr, -32700, "Parse error"); }

}  // namespace server
