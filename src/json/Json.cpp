#include "json/Json.h"

#include "jsonc/UTF8.h"

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

const Json* memberOf(const Json& object, std::string_view name) {
    if (!object.is_object()) return nullptr;
    auto member = object.find(std::string(name));
    return member == object.end() ? nullptr : &*member;
}

Json* memberOf(Json& object, std::string_view name) {
    return const_cast<Json*>(memberOf(static_cast<const Json&>(object), name));
}

const std::string* stringMember(const Json& object, std::string_view name) {
    const Json* member = memberOf(object, name);
    return member && member->is_string() ? &member->get_ref<const std::string&>() : nullptr;
}

bool isTrue(const Json& object, std::string_view name) {
    const Json* member = memberOf(object, name);
    return member && member->is_boolean() && member->get<bool>();
}

std::optional<Json> parseObject(std::string_view text) {
    auto value = parseJSON(text);
    if (!value || !value->is_object()) return std::nullopt;
    return value;
}

std::string displayable(std::string_view bytes) {
    static constexpr char hex[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(bytes.size());
    auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
    auto* end = p + bytes.size();
    while (p < end) {
        auto sequence = jsonc::utf8::sequenceAt(p, end);
        if (sequence.wellFormed && *p != 0) {
            out.append(reinterpret_cast<const char*>(p), sequence.length);
        } else {
            for (std::size_t i = 0; i < sequence.length; ++i) {
                out += "\\x";
                out += hex[p[i] >> 4];
                out += hex[p[i] & 0xF];
            }
        }
        p += sequence.length;
    }
    return out;
}

Json displayableCopy(const Json& value) {
    switch (value.type()) {
    case Json::value_t::string:
        return displayable(value.get_ref<const std::string&>());
    case Json::value_t::array: {
        Json copy = Json::array();
        for (const auto& element : value) copy.push_back(displayableCopy(element));
        return copy;
    }
    case Json::value_t::object: {
        Json copy = Json::object();
        for (const auto& [name, member] : value.items()) copy[displayable(name)] = displayableCopy(member);
        return copy;
    }
    default:
        return value;
    }
}
