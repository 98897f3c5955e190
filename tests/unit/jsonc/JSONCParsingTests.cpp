// Building documents: what is accepted, what is refused, and the decoded
// texts the tree records. Ranges, commas, byte order marks and keys of
// generated documents are checked by the property tests.
#include <gtest/gtest.h>

#include <locale.h>

#include <cstdlib>
#include <random>

#include "jsonc/JSONCDocument.h"
#include "jsonc/UTF8.h"
#include "support/TempDir.h"

namespace {

using jsonc::JSONCDocument;
using Kind = JSONCDocument::Node::Kind;

bool accepts(std::string_view text) { return JSONCDocument::parse(text).has_value(); }

std::string_view sourceOf(const JSONCDocument& document, const JSONCDocument::Node& node) {
    return document.bytes().substr(node.range().lowerBound, node.range().size());
}

std::string nested(int depth) { return std::string(depth, '[') + std::string(depth, ']'); }

const std::string fffd = "\xEF\xBF\xBD";

TEST(JSONCGrammar, CommentsOneTrailingCommaAndOneValueAndNothingElse) {
    for (auto [text, accepted] : std::vector<std::pair<std::string, bool>>{
             {"// settings\n{}", true}, {"{} // no final line feed", true}, {"{}//", true}, {"// only a comment", false},
             {"{ // c\r\"a\": 1}", false},  // a carriage return does not end it
             {"{ // c\r\n\"a\": 1}", true}, {"/**/{}", true}, {"/* a\n * b **/{}/***/", true}, {"{} /* unclosed", false},
             {"{\"a\": /* unclosed 1}", false}, {"{} /*/", false},  // "*/" may not reuse the opening star
             {"{} /*/ */", true}, {"/* a /* b */ c */ {}", false},  // no nesting
             {"{} /", false}, {"{\"a\": / 1}", false}, {" \t\r\n{ \t\r\n} \t\r\n", true}, {"\f{}", false}, {"{}\v", false},
             {"{\xC2\xA0}", false}, {std::string("{}\0", 3), false},
             {"{\"a\": 1,}", true}, {"[1, 2,,]", false}, {"{\"a\": 1,,}", false}, {"[1,,2]", false}, {"[,]", false},
             {"{,}", false}, {"[,1]", false}, {"[1 2]", false}, {"{\"a\": 1 \"b\": 2}", false}, {"{\"a\" 1}", false},
             {"{\"a\":}", false}, {"{\"a\"}", false}, {"{a: 1}", false}, {"{'a': 1}", false}, {"{1: 1}", false},
             {"{", false}, {"[1,", false}, {"{\"a\": 1", false}, {"[}", false}, {"{]", false},
             {"\xEF\xBB\xBF{}", true}, {" \xEF\xBB\xBF{}", false}, {"\xEF\xBB{}", false}, {"\xEF\xBB\xBF", false},
             {"{ \"a\": 1 } x", false}, {"{}{}", false}, {"{},", false}, {"1 2", false}, {"", false}, {"   ", false},
             {"/* */", false}, {"[\"a\nb\"]", false}, {"[\"a\rb\"]", false}, {"[\"abc", false}, {"\"\\", false},
             {"\"\\u00", false}})
        EXPECT_EQ(accepts(text), accepted) << text;
    EXPECT_EQ(JSONCDocument::parse("[1, 2,]")->root().elements().size(), 2u);
    EXPECT_EQ(JSONCDocument::parse(" \"s\" ")->root().kind(), Kind::string);
    EXPECT_EQ(JSONCDocument::parse("42")->root().kind(), Kind::scalar);
}

TEST(JSONCGrammar, AtMostTwoHundredFiftyFiveOpenContainers) {
    EXPECT_TRUE(accepts(nested(255)));
    EXPECT_FALSE(accepts(nested(256)));
    EXPECT_TRUE(accepts(nested(254).insert(254, "{}")));
    EXPECT_FALSE(accepts(nested(255).insert(255, "{}")));
    std::string objects;
    for (int i = 0; i < 255; ++i) objects += "{\"k\":";
    objects += "0" + std::string(255, '}');
    EXPECT_TRUE(accepts(objects));
    EXPECT_FALSE(accepts("[" + objects + "]"));
    std::string inner = nested(254);  // only containers still open count
    EXPECT_TRUE(accepts("[" + inner + "," + inner + "," + inner + "]"));
}

TEST(JSONCScalars, RunsTheConversionTakesAndLowerCaseLiteralsUpToTheFirstByteOutsideThem) {
    for (const char* text : {"+1", ".5", "5.", "007", "-0", "1E+5", "2.5e-3", "+.5e1", "Infinity", "-inf", "INF",
                             "NaN", "-NAN", "0x10p0", "0X1.8P1", "0xAbC", "0x.8", "1.e3", "1e400", "true", "null"}) {
        auto document = JSONCDocument::parse(std::string("{\"v\": ") + text + "}");
        ASSERT_TRUE(document) << text;
        EXPECT_EQ(document->value({"v"})->kind(), Kind::scalar) << text;
        EXPECT_EQ(sourceOf(*document, *document->value({"v"})), text);
    }
    for (const char* text : {"1..2", "abc", "1e", "1e+", "-", ".", "0x", "0xp1", "infinit", "1e5x", "--1", "nan1",
                             "0x1p", ".e5", "True", "NULL", "truex", "nan(1)", "1_000"})
        EXPECT_FALSE(accepts(std::string("[") + text + "]")) << text;
    auto document = JSONCDocument::parse("[nan/**/,1//c\n,-2]");
    ASSERT_TRUE(document);
    std::vector<std::string_view> runs;
    for (const auto& element : document->root().elements()) runs.push_back(sourceOf(*document, element));
    EXPECT_EQ(runs, (std::vector<std::string_view>{"nan", "1", "-2"}));
}

// The C library's conversion, in the "C" locale, consuming the whole run.
bool conversionAccepts(const std::string& run) {
    static locale_t c = newlocale(LC_ALL_MASK, "C", locale_t{});
    char* end = nullptr;
    strtod_l(run.c_str(), &end, c);
    return !run.empty() && end == run.c_str() + run.size();
}

TEST(JSONCScalars, AgreesWithTheConversionOnRandomRuns) {
    const std::string alphabet = "0123456789+-.eExXpPaAbfFiInNtrylsuT";
    std::mt19937_64 random(20240611);
    int accepted = 0;
    for (int round = 0; round < 200000; ++round) {
        std::string run;
        for (std::size_t i = 0, length = 1 + random() % 8; i < length; ++i) run += alphabet[random() % alphabet.size()];
        bool expected = run == "true" || run == "false" || run == "null" || conversionAccepts(run);
        accepted += expected;
        ASSERT_EQ(accepts("[" + run + "]"), expected) << run;
    }
    EXPECT_GT(accepted, 1000);
}

// Switches LC_NUMERIC to a locale whose radix is a comma: an installed one,
// or one compiled from the system's locale sources into `folder`.
bool switchToDecimalCommaLocale(const std::filesystem::path& folder) {
    for (const char* name : {"de_DE.UTF-8", "de_DE.utf8", "fr_FR.UTF-8", "fr_FR.utf8"})
        if (setlocale(LC_NUMERIC, name)) return true;
    if (!std::filesystem::exists("/usr/share/i18n/locales/de_DE")) return false;
    std::string command = "localedef -i de_DE -f UTF-8 '" + (folder / "de_DE.UTF-8").string() + "' >/dev/null 2>&1";
    if (std::system(command.c_str()) != 0) return false;
    setenv("LOCPATH", folder.c_str(), 1);
    bool switched = setlocale(LC_NUMERIC, "de_DE.UTF-8") != nullptr;
    unsetenv("LOCPATH");
    return switched;
}

TEST(JSONCScalars, ProcessLocaleDoesNotMatter) {
    testsupport::TempDir folder;
    std::string saved = setlocale(LC_NUMERIC, nullptr);
    if (!switchToDecimalCommaLocale(folder.path())) GTEST_SKIP() << "no locale with a decimal comma";
    bool commaRadix = std::string(localeconv()->decimal_point) == ",";
    bool dotNumbers = accepts("[0x1.8p1, -1.5e3, Infinity]"), commaNumber = accepts("[0x1,8p1]");
    setlocale(LC_NUMERIC, saved.c_str());
    ASSERT_TRUE(commaRadix);
    EXPECT_TRUE(dotNumbers);
    EXPECT_FALSE(commaNumber);
}

TEST(JSONCStrings, EscapesSurrogatesAndRawBytesDecodeToWellFormedText) {
    // Each string literal and its decoded text; nothing when it is refused.
    for (auto& [literal, decoded] : std::vector<std::pair<std::string, std::optional<std::string>>>{
             {R"("a\"b\\c\/d\be\ff\ng\rh\ti")", "a\"b\\c/d\be\ff\ng\rh\ti"}, {R"("\x")", std::nullopt}, {R"("\')", std::nullopt},
             {R"("\u0041\u00e9\u20AC")", "A\xC3\xA9\xE2\x82\xAC"}, {R"("\u0000")", std::string(1, '\0')}, {R"("\uFFFF")", "\xEF\xBF\xBF"},
             // The four digits are read as the integer parser reads them.
             {R"("\u+04A")", "J"}, {R"("\u-000")", std::string(1, '\0')}, {R"("\u-001")", std::nullopt},
             {R"("\u00g0")", std::nullopt}, {R"("\u 041")", std::nullopt}, {R"("\u004")", std::nullopt},
             // Surrogates pair up or become replacement characters.
             {R"("\ud83d\ude00")", "\xF0\x9F\x98\x80"}, {R"("\uDBFF\uDFFF")", "\xF4\x8F\xBF\xBF"}, {R"("\ud83d")", fffd},
             {R"("\ude00")", fffd}, {R"("\ud83d\ud83d\ude00")", fffd + "\xF0\x9F\x98\x80"}, {R"("\ud83dx\ude00")", fffd + "x" + fffd},
             {R"("\ud83d\n")", fffd + "\n"}, {R"("\ude00\ud83d")", fffd + fffd},
             // Raw bytes are copied; one replacement per maximal ill-formed subpart.
             {"\"a\tb\x01\x7F\"", "a\tb\x01\x7F"}, {"\"caf\xC3\xA9 \xF0\x9F\x98\x80\"", "caf\xC3\xA9 \xF0\x9F\x98\x80"},
             {"\"\xC3(\"", fffd + "("}, {"\"\xE2\x82\"", fffd}, {"\"\xF0\x9F\x98\"", fffd}, {"\"\x80\xBF\"", fffd + fffd},
             {"\"\xED\xA0\x80\"", fffd + fffd + fffd}, {"\"\xC0\xAF\"", fffd + fffd}, {"\"\xF4\x90\x80\x80\"", fffd + fffd + fffd + fffd},
             {"\"\xFF\"", fffd}, {"\"\xE0\xA0\x80\xF0\x90\x80\x80\"", "\xE0\xA0\x80\xF0\x90\x80\x80"}, {"\"\xE2\x82\\u00AC\"", fffd + "\xC2\xAC"}}) {
        auto document = JSONCDocument::parse("[" + literal + "]");
        std::optional<std::string> got;
        if (document && document->root().elements().size() == 1) got = std::string(document->root().elements()[0].string());
        EXPECT_EQ(got, decoded) << literal;
    }
    for (const char* illFormed : {"\xC3(", "\xE2\x82", "\xF0\x9F\x98", "\x80", "\xED\xA0\x80", "\xC0\xAF", "\xF4\x90\x80\x80", "\xFF"})
        EXPECT_FALSE(jsonc::utf8::isWellFormed(illFormed)) << illFormed;
    // The decoded text outlives the document it came from.
    std::optional<JSONCDocument> copy;
    JSONCDocument::Node node;
    {
        auto document = JSONCDocument::parse(R"({"a": "x\ty", "b": "plain"})");
        copy = *document;
        node = *document->value({"a"});
    }
    EXPECT_EQ(node.string(), "x\ty");
    EXPECT_EQ(copy->value({"b"})->string(), "plain");
}

TEST(JSONCMemberLookup, LastDuplicateWinsKeysDecodeAndPathsDescendThroughObjectsOnly) {
    auto document = JSONCDocument::parse(
        R"({"a": 0, "l": [{"b": 1}], "m": {"s": {"n": "x"}}, "t": "s", "d": {"x": 1}, "d": {"y": 2}, "a": 3,)"
        R"( "\u006Dcp": {"caf\u00e9": 1, "\ud83d": 2}, "Mcp": 3, "c": ["/usr/bin/x", "a\u0020b", ], "e": [], "z": ["a", 1]})");
    ASSERT_TRUE(document);
    auto found = document->member({"a"});
    ASSERT_TRUE(found);
    EXPECT_EQ(found->index, 6u);
    EXPECT_EQ(found->siblings.size(), 12u);
    EXPECT_EQ(sourceOf(*document, *document->value({"a"})), "3");
    EXPECT_EQ(document->member({"m", "s", "n"})->member().key(), "n");
    for (JSONCDocument::Path path : std::vector<JSONCDocument::Path>{{"d", "y"}, {"mcp", "caf\xC3\xA9"}, {"mcp", fffd}})
        EXPECT_TRUE(document->member(path)) << testing::PrintToString(path);
    for (JSONCDocument::Path path : std::vector<JSONCDocument::Path>{
             {}, {"l", "b"}, {"t", "x"}, {"m", "x"}, {"d", "x"}, {"mcp", "cafe\xCC\x81"} /* decomposed */, {"MCP"}})
        EXPECT_FALSE(document->member(path)) << testing::PrintToString(path);
    EXPECT_FALSE(document->value({}));
    EXPECT_FALSE(JSONCDocument::parse("[1]")->member({"0"}));
    EXPECT_EQ(document->strings({"c"}), (std::vector<std::string>{"/usr/bin/x", "a b"}));
    EXPECT_EQ(document->strings({"e"}), std::vector<std::string>{});
    for (const char* path : {"z", "t", "absent"}) EXPECT_FALSE(document->strings({path})) << path;
    EXPECT_FALSE(document->strings({}));
}

}  // namespace
