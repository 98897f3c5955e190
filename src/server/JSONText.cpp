#include "server/JSONText.h"

#include "link/BridgeError.h"

namespace {

bool isJSONValue(const Json& value) {
    switch (value.type()) {
    case Json::value_t::discarded:
    case Json::value_t::binary:
        return false;
    case Json::value_t::object:
    case Json::value_t::array:
        for (const auto& element : value)
            if (!isJSONValue(element)) return false;
        return true;
    default:
        return true;
    }
}

// The parser builds its tree without recursion, but copying, comparing and
// writing a tree recurse; a line of a million "[" must not take the stack
// with it. Counting brackets outside strings is exact for valid JSON, and
// invalid JSON is refused by the parser anyway.
bool nestsWithin(std::string_view text, std::size_t limit) {
    std::size_t depth = 0;
    bool inString = false;
    bool escaped = false;
    for (char c : text) {
        if (inString) {
            if (escaped)
                escaped = false;
            else if (c == '\\')
                escaped = true;
            else if (c == '"')
                inString = false;
            continue;
        }
        switch (c) {
        case '"':
            inString = true;
            break;
        case '[':
        case '{':
            if (++depth > limit) return false;
            break;
        case ']':
        case '}':
            if (depth > 0) --depth;
            break;
        default:
            break;
        }
    }
    return true;
}

}  // namespace

std::string JSONText::text() const {
    if (!isJSONValue(value)) throw BridgeError("Not a JSON value.");
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string compactJSON(const Json& object) { return JSONText{object}.text(); }

bool nestsWithinReadingDepth(std::string_view text) { return nestsWithin(text, maximumDepth); }

std::optional<Json> parseJSON(std::string_view text) {
    if (!nestsWithin(text, maximumDepth)) return std::nullopt;
    Json value = Json::parse(text.begin(), text.end(), nullptr, false);
    if (value.is_discarded() || !(value.is_object() || value.is_array())) return std::nullopt;
    return value;
}

std::optional<Json> parseObject(std::string_view text) {
    auto value = parseJSON(text);
    if (!value || !value->is_object()) return std::nullopt;
    return value;
}
