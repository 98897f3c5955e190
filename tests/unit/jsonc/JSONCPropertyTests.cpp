// Properties over generated documents: every document parses to the tree it
// was generated from, and both edits, applied to every member path, change
// exactly the bytes they must. Documents come from a seeded generator:
// VSM_JSONC_SEED picks another series, and a failure names the seed that
// reproduces it.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "JSONCChecks.h"
#include "jsonc/JSONCDocument.h"

namespace {

using Kind = JSONCDocument::Node::Kind;

constexpr int documentsPerRun = 3000;

// What a generated value is, independently of the parser.
struct Model {
    Kind kind = Kind::scalar;
    std::string source;             // its exact text
    std::string decoded;            // strings: the text the escapes spell
    std::vector<std::string> keys;  // objects: decoded keys, in order
    std::vector<bool> commas;       // objects: whether each member has a comma
    std::vector<Model> children;    // member values or elements
};

class DocumentGenerator {
public:
    explicit DocumentGenerator(std::uint64_t seed) : random_(seed) {
        newline_ = chance(30) ? "\r\n" : "\n";
        maxDepth_ = 1 + static_cast<int>(below(5));
    }

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
        std::size_t pick = below(10);
        if (depth < maxDepth_ && pick < 3) return object(depth);
        if (depth < maxDepth_ && pick < 5) return array(depth);
        if (pick < 8) return string();
        return scalar();
    }

private:
    bool chance(int percent) { return below(100) < static_cast<std::size_t>(percent); }
    std::size_t below(std::size_t n) { return random_() % n; }
    template <class T>
    const T& pickFrom(const std::vector<T>& choices) { return choices[below(choices.size())]; }

    // Comments hold whatever bytes the user typed, UTF-8 or not.
    std::string word() { return pickFrom<std::string>({"note", "TODO", "x", "é", "r\xE9sum\xE9", "servers", "*", "/"}); }

    std::string indent(int depth) { return std::string(2 * depth, ' '); }

    // Trivia for a free layout: anything the grammar allows between tokens.
    std::string gap(int depth) {
        switch (below(12)) {
        case 0: return newline_ + indent(depth);
        case 1: return " /* " + word() + " */ ";
        case 2: return " // " + word() + newline_ + indent(depth);
        case 3: return "/*" + newline_ + word() + "*/";
        case 4: return "\t";
        case 5:
        case 6: return " ";
        default: return "";
        }
    }

    Model object(int depth) {
        Model model;
        model.kind = Kind::object;
        std::size_t count = below(depth == 0 ? 9 : 6);
        bool lines = chance(60);
        bool trailing = count > 0 && chance(25);
        std::string& out = model.source;
        out += "{";
        for (std::size_t i = 0; i < count; ++i) {
            auto [keySource, key] = keyLiteral();
            Model member = value(depth + 1);
            bool comma = i + 1 < count || trailing;
            if (lines) {
                out += newline_ + indent(depth + 1);
                if (chance(15)) out += "// " + word() + newline_ + indent(depth + 1);
                out += keySource + (chance(10) ? " /* k */" : "") + ": " + (chance(10) ? "/* v */ " : "");
                out += member.source;
                if (comma) out += chance(10) ? " /* c */," : ",";
                if (chance(15)) out += " // " + word();
                if (chance(10)) out += newline_;  // a blank line
            } else {
                out += gap(depth + 1) + keySource + gap(depth + 1) + ":" + gap(depth + 1) + member.source;
                out += gap(depth + 1);
                if (comma) out += "," + gap(depth + 1);
            }
            model.keys.push_back(key);
            model.commas.push_back(comma);
            model.children.push_back(std::move(member));
        }
        if (lines && count > 0) out += newline_ + indent(depth);
        else if (!lines) out += gap(depth);
        out += "}";
        return model;
    }

    Model array(int depth) {
        Model model;
        model.kind = Kind::array;
        std::size_t count = below(5);
        std::string& out = model.source;
        out += "[";
        for (std::size_t i = 0; i < count; ++i) {
            Model element = value(depth + 1);
            out += gap(depth + 1) + element.source + gap(depth + 1);
            if (i + 1 < count || chance(25)) out += ",";
            model.children.push_back(std::move(element));
        }
        out += gap(depth) + "]";
        return model;
    }

    // Keys come from a small set, some spelled in more than one way, so that
    // objects often hold duplicates.
    std::pair<std::string, std::string> keyLiteral() {
        static const std::vector<std::pair<std::string, std::string>> keys = {
            {"\"a\"", "a"},
            {"\"\\u0061\"", "a"},
            {"\"b\"", "b"},
            {"\"mcp\"", "mcp"},
            {"\"servers\"", "servers"},
            {"\"command\"", "command"},
            {"\"vantoric-studio\"", "vantoric-studio"},
            {"\"cl\xC3\xA9\"", "cl\xC3\xA9"},
            {"\"cl\\u00e9\"", "cl\xC3\xA9"},
            {"\"\xF0\x9F\x98\x80\"", "\xF0\x9F\x98\x80"},
            {"\"\\ud83d\\uDE00\"", "\xF0\x9F\x98\x80"},
            {"\"\"", ""},
            {"\"tab\\there\"", "tab\there"},
        };
        return pickFrom(keys);
    }

    Model string() {
        Model model;
        model.kind = Kind::string;
        model.source = "\"";
        bool heldHigh = false;  // the last piece was an unpaired high surrogate
        for (std::size_t pieces = below(6); pieces > 0; --pieces) {
            std::string source, decoded;
            switch (below(9)) {
            case 0:
                source = decoded = pickFrom<std::string>({"abc", "/usr/bin/x", "a b", "{\"}", "//", "/*"});
                if (decoded == "{\"}") source = "{\\\"}";
                break;
            case 1: source = decoded = pickFrom<std::string>({"\xC3\xA9", "\xE6\x97\xA5\xE6\x9C\xAC", "\xF0\x9F\x98\x80", "\t"}); break;
            case 2: {
                static const std::vector<std::pair<std::string, std::string>> escapes = {
                    {"\\\"", "\""}, {"\\\\", "\\"}, {"\\/", "/"}, {"\\b", "\b"},
                    {"\\f", "\f"},  {"\\n", "\n"},  {"\\r", "\r"}, {"\\t", "\t"}};
                std::tie(source, decoded) = pickFrom(escapes);
                break;
            }
            case 3: {  // a code unit outside the surrogates
                std::uint32_t unit;
                do unit = below(3) == 0 ? below(0x80) : below(0x10000);
                while (unit >= 0xD800 && unit <= 0xDFFF);
                char digits[8];
                std::snprintf(digits, sizeof digits, chance(50) ? "%04x" : "%04X", unit);
                source = std::string("\\u") + digits;
                decoded = encode(unit);
                break;
            }
            case 4: {  // a pair
                std::uint32_t scalar = 0x10000 + below(0x100000);
                char digits[16];
                std::snprintf(digits, sizeof digits, "\\u%04X\\u%04x", 0xD800 + ((scalar - 0x10000) >> 10),
                              0xDC00 + ((scalar - 0x10000) & 0x3FF));
                source = digits;
                decoded = encode(scalar);
                break;
            }
            case 5:
                source = "\\ud800";
                decoded = "";  // decided by what follows
                break;
            case 6:
                if (heldHigh) continue;  // it would pair up
                source = "\\uDC00";
                decoded = "\xEF\xBF\xBD";
                break;
            case 7: source = "\\u+04A", decoded = "J"; break;
            default: source = decoded = "x"; break;
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

    Model scalar() {
        Model model;
        model.source = pickFrom<std::string>({"0", "1", "-12.5e3", "+1", ".5", "5.", "007", "0x1p3", "Infinity",
                                              "-inf", "NaN", "true", "false", "null", "1E+2"});
        if (chance(30)) model.source = std::to_string(static_cast<std::int64_t>(random_() >> 20) - (1ll << 42));
        return model;
    }

    static std::string encode(std::uint32_t scalar) {
        std::string out;
        if (scalar < 0x80) {
            out += char(scalar);
        } else if (scalar < 0x800) {
            out += char(0xC0 | scalar >> 6), out += char(0x80 | (scalar & 0x3F));
        } else if (scalar < 0x10000) {
            out += char(0xE0 | scalar >> 12), out += char(0x80 | (scalar >> 6 & 0x3F));
            out += char(0x80 | (scalar & 0x3F));
        } else {
            out += char(0xF0 | scalar >> 18), out += char(0x80 | (scalar >> 12 & 0x3F));
            out += char(0x80 | (scalar >> 6 & 0x3F)), out += char(0x80 | (scalar & 0x3F));
        }
        return out;
    }

    std::mt19937_64 random_;
    std::string newline_;
    int maxDepth_;
};

std::uint64_t baseSeed() {
    const char* text = std::getenv("VSM_JSONC_SEED");
    return text ? std::strtoull(text, nullptr, 10) : 0x6a736f6e63ull;
}

struct Generated {
    std::uint64_t seed;
    std::string text;
    Model model;
};

template <class Check>
void forEachDocument(Check check) {
    std::uint64_t base = baseSeed();
    for (int i = 0; i < documentsPerRun; ++i) {
        Generated generated{base + i, {}, {}};
        generated.text = DocumentGenerator(generated.seed).document(generated.model);
        SCOPED_TRACE("VSM_JSONC_SEED=" + std::to_string(generated.seed) + " document:\n" + generated.text);
        auto document = JSONCDocument::parse(generated.text);
        ASSERT_TRUE(document);
        check(generated, *document);
        if (testing::Test::HasFatalFailure()) return;
    }
}

void expectMatches(const JSONCDocument& document, const JSONCDocument::Node& node, const Model& model) {
    std::string_view bytes = document.bytes();
    ASSERT_EQ(node.kind(), model.kind) << model.source;
    ASSERT_EQ(bytes.substr(node.range().lowerBound, node.range().size()), model.source);
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

TEST(JSONCGeneratedDocuments, ParseToTheTreeTheyWereGeneratedFrom) {
    forEachDocument([](const Generated& generated, const JSONCDocument& document) {
        EXPECT_EQ(document.bytes(), generated.text);
        EXPECT_EQ(jsonccheck::brokenInvariant(document), "");
        expectMatches(document, document.root(), generated.model);
    });
}

TEST(JSONCGeneratedDocuments, RemovingDeletesExactlyTheMembersRanges) {
    std::size_t removals = 0;
    forEachDocument([&](const Generated& generated, const JSONCDocument& document) {
        for (const auto& path : jsonccheck::memberPaths(document)) {
            bool resolves = document.member(path).has_value();
            auto removed = JSONCDocument::removingMember(path, generated.text);
            ASSERT_EQ(removed.has_value(), resolves) << testing::PrintToString(path);
            if (!removed) continue;
            ++removals;
            auto after = JSONCDocument::parse(*removed);
            ASSERT_TRUE(after) << *removed;
            EXPECT_FALSE(after->member(path)) << *removed;
            EXPECT_EQ(removed, jsonccheck::expectedRemoval(generated.text, path))
                << testing::PrintToString(path);
        }
    });
    EXPECT_GT(removals, static_cast<std::size_t>(documentsPerRun));
}

TEST(JSONCGeneratedDocuments, ReplacingChangesOnlyTheValuesBytes) {
    std::size_t replacements = 0;
    forEachDocument([&](const Generated& generated, const JSONCDocument& document) {
        DocumentGenerator values(generated.seed ^ 0x5eed);
        for (const auto& path : jsonccheck::memberPaths(document)) {
            auto found = document.member(path);
            Model replacement = values.value(1);
            auto replaced = JSONCDocument::replacingValue(path, replacement.source, generated.text);
            ASSERT_EQ(replaced.has_value(), found.has_value()) << testing::PrintToString(path);
            if (!replaced) continue;
            ++replacements;
            JSONCDocument::Range range = found->member().value().range();
            EXPECT_EQ(*replaced, jsonccheck::splicing(generated.text, range, replacement.source));
            auto after = JSONCDocument::parse(*replaced);
            ASSERT_TRUE(after);
            auto value = after->value(path);
            ASSERT_TRUE(value);
            EXPECT_EQ(value->range().lowerBound, range.lowerBound);
            expectMatches(*after, *value, replacement);
        }
    });
    EXPECT_GT(replacements, static_cast<std::size_t>(documentsPerRun));
}

}  // namespace
