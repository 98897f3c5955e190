// MCP tool results: what a "tools/call" answers, whether it worked or not.
// A failing tool call is a successful JSON-RPC reply carrying an
// error-flagged tool result; these build such results and read the JSON
// object that Studio's results carry in their text. Pure functions; any
// thread.
#pragma once
#include <optional>
#include <string_view>

#include "server/JSONText.h"

namespace server {

namespace ToolResults {
// {"content": [{"type": "text", "text": message}], "isError": true}
Json toolError(std::string_view message);

// {"content": [{"type": "text", "text": <compact JSON of object>}],
// "isError": false}; the text is "{}" when the object cannot be written.
Json result(const Json& object);

// The JSON object that the last text item of a successful tool result
// carries, or nothing (an error result, no text item, a last text item
// that is not an object's JSON).
std::optional<Json> payload(const Json& toolResult);
}  // namespace ToolResults

}  // namespace server
