// The framing rules of the stdio transport: which key a request's "id" is
// filed under (so that "notifications/cancelled" can find it), how one
// message becomes one output line, and the JSON-RPC reply shapes. Pure
// functions; any thread. The bridge's receive, drain and message writing,
// which use them on its strand, are StudioMCPBridge.h's.
#pragma once
#include <optional>
#include <string>
#include <string_view>

#include "server/JSONText.h"

namespace server {

namespace Framing {
// The request key of an "id" value: "n:" and the number's decimal text
// for a number or a boolean (the number 7 gives n:7, 2.5 gives n:2.5,
// true gives n:1), "s:" and the plain text for anything else (the string
// 7 gives s:7), so the number 7 and the string "7" never meet.
std::string key(const Json& id);

// The message as one line: compact JSON, "/" unescaped, and one line
// feed. Nothing when the message cannot be written.
std::optional<std::string> messageLine(const Json& message);

// {"jsonrpc":"2.0","id":…,"result":…} as one line, put together without
// building the reply as a value first: every answer takes this road.
// Nothing when it cannot be written.
std::optional<std::string> successLine(const Json& id, const Json& result);
Json errorReply(const Json& id, int code, std::string_view message);
// The answer to a line that is not JSON: id null, -32700 "Parse error".
Json parseErrorReply();
}  // namespace Framing

}  // namespace server
