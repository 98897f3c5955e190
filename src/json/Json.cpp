#include "json/Json.h"

namespace {

// Counting brackets outside strings is exact for valid JSON, and invalid
// JSON is refused by the parser anyway; the count runs before the parser so
// that no deep tree is ever built.
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

bool nestsWithinReadingDepth(std::string_view text) { return nestsWithin(text, maximumDepth); }

std::optional<Json> parseJSON(std::string_view text) {
    // The parser takes a NUL for the end of its input and would accept the
    // text before it; JSON never holds a raw NUL.
    if (text.find('\0') != std::string_view::npos) return std::nullopt;
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
