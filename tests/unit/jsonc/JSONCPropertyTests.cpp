// Properties over generated documents: every document parses to the tree it
// was generated from, and both edits, applied to every member path, change
// exactly the bytes they must. Documents come from a seeded generator:
// VSM_JSONC_SEED picks another series, and a failure names the seed that
// reproduces it.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <random>

#include "JSONCChecks.h"

namespace {

using jsonc::JSONCDocument;
using Kind = JSONCDocument::Node::Kind;

constexpr int documentsPerRun = 3000;

// What a generated value is, independently of the parser.
struct Model {
    Model(Kind kind = Kind::scalar, std::string source = {}) : kind(kind), source(std::move(source)) {}
    Kind kind;
    std::string source;             // its exact text
    std::string decoded;            // strings: the text the escapes spell
    std::vector<std::string> keys;  // objects: decoded keys, in order
    std::vector<bool> commas;       // objects: whether each member has a comma
    std::vector<Model> children;    // member values or elements
};

class DocumentGenerator {
public:
    explicit DocumentGenerator(std::uint64_t seed) : random_(seed) {}

    std::string document(Model& root) {
        std::string text;
        if (chance(15)) text += "\xEF\xBB\xBF";
        if (chance(30)) text += "// " + word() + newline_;
        if (chance(20)) text += "/* " + word() + newline_ + " */" + newline_;
        root = object(0);
        text += root.source;
        if (chance(30)) text += " // " + word();
        else if (chance(30)) text += newline_;
        if (chance(10)) text += "/**/";
        return text;
    }

    Model value(int depth) {
        std::size_t roll = below(10);
        if (depth < maxDepth_ && roll < 3) return object(depth);
        if (depth < maxDepth_ && roll < 5) return array(depth);
        if (roll < 8) return string();
        Model scalar(Kind::scalar, pick("0", "1", "-12.5e3", "+1", ".5", "5.", "007", "0x1p3", "Infinity", "-inf", "NaN",
                                        "true", "false", "null", "1E+2"));
        if (chance(30)) scalar.source = std::to_string(static_cast<std::int64_t>(random_() >> 20) - (1ll << 42));
        return scalar;
    }

private:
    bool chance(int percent) { return below(100) < static_cast<std::size_t>(percent); }
    std::size_t below(std::size_t n) { return random_() % n; }
    std::string pick(auto... choices) { std::string all[] = {choices...}; return all[below(sizeof...(choices))]; }
    // Comments hold whatever bytes the user typed, UTF-8 or not.
    std::string word() { return pick("note", "TODO", "x", "é", "r\xE9sum\xE9", "servers", "*", "/"); }
    std::string indent(int depth) { return std::string(2 * depth, ' '); }

    // Trivia for a free layout: anything the grammar allows between tokens.
    std::string gap(int depth) {
        switch (below(12)) {
        case 0: return newline_ + indent(depth);
        case 1: return " /* " + word() + " */ ";
        case 2: return " // " + word() + newline_ + indent(depth);
        case 3: return "/*" + newline_ + word() + "*/";
        case 4: return "\t";
        case 5: case 6: return " ";
        default: return "";
        }
    }

    Model object(int depth) {
        Model model(Kind::object, "{");
        std::size_t count = below(depth == 0 ? 9 : 6);
        bool lines = chance(60), trailing = count > 0 && chance(25);
        std::string& out = model.source;
        for (std::size_t i = 0; i < count; ++i) {
            // Keys come from a small set, some spelled in more than one way,
            // so that objects often hold duplicates.
            static const std::vector<std::pair<std::string, std::string>> keys = {
                {"\"a\"", "a"}, {"\"\\u0061\"", "a"}, {"\"b\"", "b"}, {"\"mcp\"", "mcp"}, {"\"servers\"", "servers"},
                {"\"command\"", "command"}, {"\"vantoric-studio\"", "vantoric-studio"}, {"\"cl\xC3\xA9\"", "cl\xC3\xA9"},
                {"\"cl\\u00e9\"", "cl\xC3\xA9"}, {"\"\xF0\x9F\x98\x80\"", "\xF0\x9F\x98\x80"},
                {"\"\\ud83d\\uDE00\"", "\xF0\x9F\x98\x80"}, {"\"\"", ""}, {"\"tab\\there\"", "tab\there"}};
            auto [keySource, key] = keys[below(keys.size())];
            Model member = value(depth + 1);
            bool comma = i + 1 < count || trailing;
            if (lines) {
                out += newline_ + indent(depth + 1);
                if (chance(15)) out += "// " + word() + newline_ + indent(depth + 1);
                out += keySource + (chance(10) ? " /* k */" : "") + ": " + (chance(10) ? "/* v */ " : "") + member.source;
                if (comma) out += chance(10) ? " /* c */," : ",";
                if (chance(15)) out += " // " + word();
                if (chance(10)) out += newline_;  // a blank line
            } else {
                out += gap(depth + 1) + keySource + gap(depth + 1) + ":" + gap(depth + 1) + member.source + gap(depth + 1);
                if (comma) out += "," + gap(depth + 1);
            }
            model.keys.push_back(key);
            model.commas.push_back(comma);
            model.children.push_back(std::move(member));
        }
        out += lines && count > 0 ? newline_ + indent(depth) : lines ? "" : gap(depth);
        out += "}";
        return model;
    }

    Model array(int depth) {
        Model model(Kind::array, "[");
        for (std::size_t i = 0, count = below(5); i < count; ++i) {
            Model element = value(depth + 1);
            model.source += gap(depth + 1) + element.source + gap(depth + 1);
            if (i + 1 < count || chance(25)) model.source += ",";
            model.children.push_back(std::move(element));
        }
        model.source += gap(depth) + "]";
        return model;
    }

    Model string() {
        Model model(Kind::string, "\"");
        bool heldHigh = false;  // the last piece was an unpaired high surrogate
        for (std::size_t pieces = below(6); pieces > 0; --pieces) {
            static const std::vector<std::pair<std::string, std::string>> fixed = {
                {"abc", "abc"}, {"/usr/bin/x", "/usr/bin/x"}, {"a b", "a b"}, {"{\\\"}", "{\"}"}, {"//", "//"},
                {"/*", "/*"}, {"\xC3\xA9", "\xC3\xA9"}, {"\xE6\x97\xA5\xE6\x9C\xAC", "\xE6\x97\xA5\xE6\x9C\xAC"},
                {"\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80"}, {"\t", "\t"}, {"\\\"", "\""}, {"\\\\", "\\"}, {"\\/", "/"},
                {"\\b", "\b"}, {"\\f", "\f"}, {"\\n", "\n"}, {"\\r", "\r"}, {"\\t", "\t"}, {"\\u+04A", "J"}, {"x", "x"}};
            auto [source, decoded] = fixed[below(fixed.size())];
            char digits[16];
            switch (below(5)) {
            case 0: {  // a code unit outside the surrogates
                std::uint32_t unit;
                do unit = below(3) == 0 ? below(0x80) : below(0x10000);
                while (unit >= 0xD800 && unit <= 0xDFFF);
                std::snprintf(digits, sizeof digits, chance(50) ? "\\u%04x" : "\\u%04X", unit);
                source = digits, decoded.clear();
                jsonc::utf8::append(decoded, unit);
                break;
            }
            case 1: {  // a pair
                std::uint32_t scalar = 0x10000 + below(0x100000);
                std::snprintf(digits, sizeof digits, "\\u%04X\\u%04x", 0xD800 + ((scalar - 0x10000) >> 10),
                              0xDC00 + ((scalar - 0x10000) & 0x3FF));
                source = digits, decoded.clear();
                jsonc::utf8::append(decoded, scalar);
                break;
            }
            case 2: source = "\\ud800", decoded = ""; break;  // decided by what follows
            case 3:
                if (heldHigh) continue;  // it would pair up
                source = "\\uDC00", decoded = "\xEF\xBF\xBD";
                break;
            }
            if (heldHigh) model.decoded += "\xEF\xBF\xBD";
            heldHigh = source == "\\ud800";
            model.source += source;
            model.decoded += decoded;
        }
        if (heldHigh) model.decoded += "\xEF\xBF\xBD";
        model.source += "\"";
        return model;
    }

    std::mt19937_64 random_;
    std::string newline_ = chance(30) ? "\r\n" : "\n";
    int maxDepth_ = 1 + static_cast<int>(below(5));
};

void expectMatches(const JSONCDocument& document, const JSONCDocument::Node& node, const Model& model) {
    ASSERT_EQ(node.kind(), model.kind) << model.source;
    ASSERT_EQ(document.bytes().substr(node.range().lowerBound, node.range().size()), model.source);
    if (model.kind == Kind::string) {
        EXPECT_EQ(node.string(), model.decoded) << model.source;
    }
    auto members = node.members();
    auto elements = node.elements();
    ASSERT_EQ(members.size() + elements.size(), model.children.size()) << model.source;
    for (std::size_t i = 0; i < members.size(); ++i) {
        EXPECT_EQ(members[i].key(), model.keys[i]);
        EXPECT_EQ(members[i].comma().has_value(), model.commas[i]);
        expectMatches(document, members[i].value(), model.children[i]);
    }
    for (std::size_t i = 0; i < elements.size(); ++i) expectMatches(document, elements[i], model.children[i]);
}

TEST(JSONCGeneratedDocuments, ParseToTheirTreeAndEditsChangeExactlyTheBytesTheyMust) {
    std::uint64_t base = std::getenv("VSM_JSONC_SEED") ? std::strtoull(std::getenv("VSM_JSONC_SEED"), nullptr, 10) : 0x6a736f6e63ull;
    std::size_t removals = 0, replacements = 0;
    for (std::uint64_t seed = base; seed < base + documentsPerRun; ++seed) {
        Model model;
        std::string text = DocumentGenerator(seed).document(model);
        SCOPED_TRACE("VSM_JSONC_SEED=" + std::to_string(seed) + " document:\n" + text);
        auto document = JSONCDocument::parse(text);
        ASSERT_TRUE(document);
        EXPECT_EQ(document->bytes(), text);
        EXPECT_EQ(jsonccheck::brokenInvariant(*document), "");
        expectMatches(*document, document->root(), model);

        DocumentGenerator values(seed ^ 0x5eed);
        for (const auto& path : jsonccheck::memberPaths(*document)) {
            SCOPED_TRACE(testing::PrintToString(path));
            auto found = document->member(path);
            auto removed = JSONCDocument::removingMember(path, text);
            Model replacement = values.value(1);
            auto replaced = JSONCDocument::replacingValue(path, replacement.source, text);
            ASSERT_EQ(removed.has_value(), found.has_value());
            ASSERT_EQ(replaced.has_value(), found.has_value());
            if (!found) continue;
            ++removals, ++replacements;
            auto after = JSONCDocument::parse(*removed);
            ASSERT_TRUE(after) << *removed;
            EXPECT_FALSE(after->member(path)) << *removed;
            EXPECT_EQ(removed, jsonccheck::expectedRemoval(text, path));

            JSONCDocument::Range range = found->member().value().range();
            EXPECT_EQ(*replaced, jsonccheck::splicing(text, range, replacement.source));
            after = JSONCDocument::parse(*replaced);
            ASSERT_TRUE(after);
            auto value = after->value(path);
            ASSERT_TRUE(value);
            EXPECT_EQ(value->range().lowerBound, range.lowerBound);
            expectMatches(*after, *value, replacement);
        }
        if (testing::Test::HasFatalFailure()) return;
    }
    EXPECT_GT(removals, static_cast<std::size_t>(documentsPerRun));
    EXPECT_GT(replacements, static_cast<std::size_t>(documentsPerRun));
}

}  // namespace
