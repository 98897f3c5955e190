#include "server/Catalog.h"

#include <utf8proc.h>

#include <algorithm>
#include <cstdlib>

#include "base/BridgeError.h"
#include "platform/Files.h"

namespace fs = std::filesystem;

namespace server {

namespace {

std::optional<std::string> readWholeFile(const fs::path& path) { return platform::systemFiles().read(path).bytes; }

// ---- names as user-perceived characters ----

using Character = std::u32string;  // one grapheme cluster, NFC

std::u32string decode(std::string_view text) {
    std::u32string out;
    auto bytes = reinterpret_cast<const utf8proc_uint8_t*>(text.data());
    utf8proc_ssize_t left = static_cast<utf8proc_ssize_t>(text.size());
    while (left > 0) {
        utf8proc_int32_t cp = 0;
        utf8proc_ssize_t n = utf8proc_iterate(bytes, left, &cp);
        if (n <= 0) {  // not UTF-8: one replacement character per bad byte
            cp = 0xFFFD;
            n = 1;
        }
        out.push_back(static_cast<char32_t>(cp));
        bytes += n;
        left -= n;
    }
    return out;
}

std::string encode(const std::u32string& codepoints) {
    std::string out;
    utf8proc_uint8_t buffer[4];
    for (char32_t cp : codepoints) {
        auto n = utf8proc_encode_char(static_cast<utf8proc_int32_t>(cp), buffer);
        out.append(reinterpret_cast<const char*>(buffer), static_cast<size_t>(n));
    }
    return out;
}

std::u32string composed(const std::u32string& codepoints) {
    std::string utf8 = encode(codepoints);
    utf8proc_uint8_t* mapped = nullptr;
    utf8proc_ssize_t n = utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(utf8.data()),
                                      static_cast<utf8proc_ssize_t>(utf8.size()), &mapped,
                                      static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_COMPOSE));
    if (n < 0 || !mapped) return codepoints;
    std::u32string out = decode(std::string_view(reinterpret_cast<const char*>(mapped), static_cast<size_t>(n)));
    std::free(mapped);
    return out;
}

std::vector<Character> characters(const std::u32string& codepoints) {
    std::vector<Character> out;
    utf8proc_int32_t state = 0;
    for (size_t i = 0; i < codepoints.size(); ++i) {
        auto cp = static_cast<utf8proc_int32_t>(codepoints[i]);
        if (i == 0 || utf8proc_grapheme_break_stateful(static_cast<utf8proc_int32_t>(codepoints[i - 1]), cp, &state))
            out.emplace_back();
        out.back().push_back(codepoints[i]);
    }
    return out;
}

bool isLetterOrNumber(const Character& c) {
    switch (utf8proc_category(static_cast<utf8proc_int32_t>(c.front()))) {
    case UTF8PROC_CATEGORY_LU:
    case UTF8PROC_CATEGORY_LL:
    case UTF8PROC_CATEGORY_LT:
    case UTF8PROC_CATEGORY_LM:
    case UTF8PROC_CATEGORY_LO:
    case UTF8PROC_CATEGORY_ND:
    case UTF8PROC_CATEGORY_NL:
    case UTF8PROC_CATEGORY_NO:
        return true;
    default:
        return false;
    }
}

// The name lower-cased, reduced to its letters and numbers.
std::vector<Character> letters(std::string_view name) {
    std::u32string codepoints = decode(name);
    for (auto& cp : codepoints) cp = static_cast<char32_t>(utf8proc_tolower(static_cast<utf8proc_int32_t>(cp)));
    std::vector<Character> out;
    for (auto& c : characters(composed(codepoints)))
        if (isLetterOrNumber(c)) out.push_back(std::move(c));
    return out;
}

size_t characterCount(std::string_view name) { return characters(decode(name)).size(); }

// Levenshtein distance over two rows.
size_t editDistance(const std::vector<Character>& a, const std::vector<Character>& b) {
    std::vector<size_t> previous(b.size() + 1), current(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j) previous[j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        current[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            size_t substitution = previous[j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
            current[j] = std::min({previous[j] + 1, current[j - 1] + 1, substitution});
        }
        std::swap(previous, current);
    }
    return previous[b.size()];
}

std::string joined(const std::vector<std::string>& pieces, std::string_view separator) {
    std::string out;
    for (size_t i = 0; i < pieces.size(); ++i) {
        if (i) out += separator;
        out += pieces[i];
    }
    return out;
}

bool isBlank(const std::string& text) {
    return text.find_first_not_of(" \t") == std::string::npos;
}

}  // namespace

std::optional<std::string> Catalog::catalogData(const std::optional<fs::path>& app,
                                                const platform::Environment& environment) {
    if (auto named = platform::nonEmpty(environment, "VANTORIC_STUDIO_CATALOG")) return readWholeFile(*named);
    if (!app) return std::nullopt;
    fs::path resources = *app / "Contents" / "Resources";
    if (auto bytes = readWholeFile(resources / "AgentLink" / "studio-agent-mcp.json")) return bytes;
    return readWholeFile(resources / "studio-agent-mcp.json");
}

std::optional<Json> Catalog::catalogObject(const std::optional<std::string>& catalog) {
    if (!catalog) return std::nullopt;
    return parseObject(*catalog);
}

namespace {

// Follows the parse event by event, keeping only the top-level
// "instructions" value. A repeated member counts as the parser's tree would
// keep it: the last one.
class InstructionsReader final : public nlohmann::json_sax<Json> {
public:
    bool topIsObject = false;
    std::optional<std::string> instructions;

    bool null() override { return value(); }
    bool boolean(bool) override { return value(); }
    bool number_integer(number_integer_t) override { return value(); }
    bool number_unsigned(number_unsigned_t) override { return value(); }
    bool number_float(number_float_t, const string_t&) override { return value(); }
    bool binary(binary_t&) override { return value(); }
    bool string(string_t& text) override {
        if (expecting_) instructions = std::move(text);
        return value();
    }
    bool start_object(std::size_t) override {
        if (depth_ == 0) topIsObject = true;
        return open();
    }
    bool start_array(std::size_t) override { return open(); }
    bool end_object() override { return close(); }
    bool end_array() override { return close(); }
    bool key(string_t& name) override {
        expecting_ = depth_ == 1 && name == "instructions";
        if (expecting_) instructions.reset();
        return true;
    }
    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override { return false; }

private:
    bool value() {
        expecting_ = false;
        return true;
    }
    bool open() {
        ++depth_;
        return value();
    }
    bool close() {
        --depth_;
        return true;
    }

    std::size_t depth_ = 0;
    bool expecting_ = false;
};

}  // namespace

std::optional<std::string> Catalog::instructionsIn(const std::optional<std::string>& catalog) {
    if (!catalog || !nestsWithinReadingDepth(*catalog)) return std::nullopt;
    InstructionsReader reader;
    if (!Json::sax_parse(*catalog, &reader, nlohmann::detail::input_format_t::json, true) || !reader.topIsObject)
        return std::nullopt;
    return std::move(reader.instructions);
}

Json Catalog::placeholderTools() {
    Json schema = Json::object();
    schema["type"] = "object";
    schema["properties"] = Json::object();
    Json tool = Json::object();
    tool["name"] = "studio_status";
    tool["description"] = "Vantoric Studio is not installed or could not be found.";
    tool["inputSchema"] = std::move(schema);
    return Json::array({std::move(tool)});
}

Json Catalog::toolsIn(const std::optional<std::string>& catalog) {
    if (auto object = catalogObject(catalog)) {
        auto tools = object->find("tools");
        if (tools != object->end() && tools->is_array()) return std::move(*tools);
    }
    return placeholderTools();
}

Json Catalog::promptsIn(const std::optional<std::string>& catalog) {
    if (auto object = catalogObject(catalog)) {
        auto prompts = object->find("prompts");
        if (prompts != object->end() && prompts->is_array() &&
            std::all_of(prompts->begin(), prompts->end(), [](const Json& p) { return p.is_object(); }))
            return std::move(*prompts);
    }
    return Json::array();
}

Json Catalog::listedPromptsIn(const std::optional<std::string>& catalog) {
    Json prompts = promptsIn(catalog);
    for (auto& prompt : prompts) prompt.erase("template");
    return prompts;
}

Json Catalog::promptIn(const std::optional<std::string>& catalog, const Json& params) {
    const std::string* name = stringMember(params, "name");
    if (!name) throw BridgeError("Unknown prompt.");
    Json prompts = promptsIn(catalog);
    auto found = std::find_if(prompts.begin(), prompts.end(), [&](const Json& p) {
        const std::string* candidate = stringMember(p, "name");
        return candidate && *candidate == *name;
    });
    if (found == prompts.end()) throw BridgeError("Unknown prompt.");
    const std::string* text = stringMember(*found, "template");
    if (!text) throw BridgeError("Unknown prompt.");

    Json arguments = Json::object();
    if (auto given = params.find("arguments"); given != params.end() && given->is_object()) arguments = *given;

    Json content = Json::object();
    content["type"] = "text";
    content["text"] = fill(*text, arguments);
    Json message = Json::object();
    message["role"] = "user";
    message["content"] = std::move(content);
    Json answer = Json::object();
    auto description = found->find("description");
    answer["description"] = description != found->end() ? *description : Json("");
    answer["messages"] = Json::array({std::move(message)});
    return answer;
}

std::string Catalog::fill(std::string_view text, const Json& arguments) {
    std::string out;
    std::string_view rest = text;
    for (;;) {
        size_t open = rest.find("{{");
        if (open == std::string_view::npos) break;
        size_t close = rest.find("}}", open + 2);
        if (close == std::string_view::npos) break;
        out.append(rest.substr(0, open));
        std::string_view inside = rest.substr(open + 2, close - open - 2);

        // At most two pieces, empty ones dropped: the first non-empty
        // stretch before a "|", then everything after that "|".
        std::string_view name, fallback;
        size_t start = 0;
        bool haveName = false;
        for (size_t i = 0; i < inside.size() && !haveName; ++i) {
            if (inside[i] != '|') continue;
            if (i > start) {
                name = inside.substr(start, i - start);
                fallback = inside.substr(i + 1);
                haveName = true;
            }
            start = i + 1;
        }
        if (!haveName) name = inside.substr(std::min(start, inside.size()));

        const std::string* value = stringMember(arguments, name);
        if (value && !isBlank(*value))
            out.append(*value);
        else
            out.append(fallback);
        rest = rest.substr(close + 2);
    }
    out.append(rest);
    return out;
}

std::optional<std::string> Catalog::unknownParameters(std::string_view tool, const Json& arguments,
                                                      const Json& tools) {
    if (!tools.is_array()) return std::nullopt;
    auto entry = std::find_if(tools.begin(), tools.end(), [&](const Json& t) {
        const std::string* name = stringMember(t, "name");
        return name && *name == tool;
    });
    if (entry == tools.end()) return std::nullopt;
    auto schema = entry->find("inputSchema");
    if (schema == entry->end() || !schema->is_object()) return std::nullopt;
    auto properties = schema->find("properties");
    if (properties == schema->end() || !properties->is_object()) return std::nullopt;

    std::vector<std::string> known;
    for (const auto& property : properties->items()) known.push_back(property.key());
    std::sort(known.begin(), known.end());
    std::vector<std::string> unknown;
    if (arguments.is_object())
        for (const auto& argument : arguments.items())
            if (!std::binary_search(known.begin(), known.end(), argument.key())) unknown.push_back(argument.key());
    if (unknown.empty()) return std::nullopt;
    std::sort(unknown.begin(), unknown.end());

    std::vector<std::string> pieces;
    bool suggested = false;
    for (const auto& name : unknown) {
        std::string piece = "\"" + name + "\"";
        if (auto suggestion = closest(name, known)) {
            piece += " (did you mean \"" + *suggestion + "\"?)";
            suggested = true;
        }
        pieces.push_back(std::move(piece));
    }
    std::string message = std::string(tool) + " has no parameter " + joined(pieces, ", ") + ". Nothing was done.";
    if (unknown.size() == 1 && suggested) return message;
    if (known.empty()) return message + " It takes no parameters.";
    return message + " Its parameters: " + joined(known, ", ") + ".";
}

std::optional<std::string> Catalog::closest(std::string_view name, const std::vector<std::string>& among) {
    auto given = letters(name);
    if (given.empty() || among.empty()) return std::nullopt;
    size_t best = 0;
    size_t bestDistance = 0;
    size_t bestLength = 0;
    for (size_t i = 0; i < among.size(); ++i) {
        size_t distance = editDistance(given, letters(among[i]));
        size_t length = characterCount(among[i]);
        if (i == 0 || distance < bestDistance || (distance == bestDistance && length < bestLength)) {
            best = i;
            bestDistance = distance;
            bestLength = length;
        }
    }
    if (bestDistance == 0 || (given.size() >= 4 && bestDistance <= given.size() / 3)) return among[best];
    return std::nullopt;
}

}  // namespace server
