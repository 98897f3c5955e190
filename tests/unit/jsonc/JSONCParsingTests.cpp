// Building documents: what is accepted, what is refused, and the offsets and
// decoded texts the tree records.
#include <gtest/gtest.h>

#include <locale.h>

#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>

#include "support/TempDir.h"
#include "jsonc/JSONCDocument.h"

namespace {

using Kind = JSONCDocument::Node::Kind;
using Range = JSONCDocument::Range;

bool accepts(std::string_view text) { return JSONCDocument::parse(text).has_value(); }

void expectVerdicts(std::initializer_list<std::pair<std::string_view, bool>> cases) {
    for (auto [text, accepted] : cases) EXPECT_EQ(accepts(text), accepted) << text;
}

std::string_view sourceOf(const JSONCDocument& document, const JSONCDocument::Node& node) {
    return document.bytes().substr(node.range().lowerBound, node.range().size());
}

// The decoded text of the one string in an array, as ["..."] spells it.
std::optional<std::string> decodedString(const std::string& literal) {
    auto document = JSONCDocument::parse("[" + literal + "]");
    if (!document || document->root().elements().size() != 1) return std::nullopt;
    return std::string(document->root().elements()[0].string());
}

std::string nested(int depth, std::string_view open = "[", std::string_view close = "]") {
    std::string text;
    for (int i = 0; i < depth; ++i) text += open;
    for (int i = 0; i < depth; ++i) text += close;
    return text;
}

TEST(JSONCByteOffsets, EmptyObjectSpansItsBraces) {
    auto document = JSONCDocument::parse("{}");
    ASSERT_TRUE(document);
    EXPECT_EQ(document->root().kind(), Kind::object);
    EXPECT_TRUE(document->root().members().empty());
    EXPECT_EQ(document->root().range(), (Range{0, 2}));
}

TEST(JSONCByteOffsets, ByteOrderMarkStaysInBytesAndShiftsOffsets) {
    auto document = JSONCDocument::parse("\xEF\xBB\xBF{}");
    ASSERT_TRUE(document);
    EXPECT_EQ(document->bytes(), "\xEF\xBB\xBF{}");
    EXPECT_EQ(document->root().range(), (Range{3, 5}));
    expectVerdicts({{" \xEF\xBB\xBF{}", false}, {"\xEF\xBB{}", false}, {"\xEF\xBB\xBF", false}});
}

TEST(JSONCByteOffsets, MemberRecordsKeyStartAndTrailingComma) {
    auto document = JSONCDocument::parse("{ \"a\": 1, }");
    ASSERT_TRUE(document);
    auto members = document->root().members();
    ASSERT_EQ(members.size(), 1u);
    EXPECT_EQ(members[0].key(), "a");
    EXPECT_EQ(members[0].keyStart(), 2u);
    EXPECT_EQ(members[0].comma(), 8u);
    EXPECT_EQ(members[0].value().range(), (Range{7, 8}));
}

TEST(JSONCByteOffsets, CommaIsFoundPastCommentsAndLastMemberHasNone) {
    std::string text = "{\"a\": \"x\" /* c */ , \"b\": [1, {\"c\": null}] // end\n}";
    auto document = JSONCDocument::parse(text);
    ASSERT_TRUE(document);
    auto members = document->root().members();
    ASSERT_EQ(members.size(), 2u);
    EXPECT_EQ(members[0].comma(), text.find(','));
    EXPECT_EQ(sourceOf(*document, members[0].value()), "\"x\"");
    EXPECT_EQ(members[1].keyStart(), text.find("\"b\""));
    EXPECT_FALSE(members[1].comma());
    EXPECT_EQ(sourceOf(*document, members[1].value()), "[1, {\"c\": null}]");
    auto inner = members[1].value().elements()[1];
    EXPECT_EQ(sourceOf(*document, inner), "{\"c\": null}");
    EXPECT_EQ(sourceOf(*document, inner.members()[0].value()), "null");
}

TEST(JSONCByteOffsets, RangesExcludeSurroundingTrivia) {
    std::string text = "\r\n /* a */ [ 12.5e3 , \"s\" ] // b\r\n";
    auto document = JSONCDocument::parse(text);
    ASSERT_TRUE(document);
    EXPECT_EQ(sourceOf(*document, document->root()), "[ 12.5e3 , \"s\" ]");
    EXPECT_EQ(sourceOf(*document, document->root().elements()[0]), "12.5e3");
    EXPECT_EQ(sourceOf(*document, document->root().elements()[1]), "\"s\"");
}

TEST(JSONCByteOffsets, OffsetsCountBytesNotCharacters) {
    std::string text = "{\"é\": \"日本\", \"k\": 1}";
    auto document = JSONCDocument::parse(text);
    ASSERT_TRUE(document);
    auto members = document->root().members();
    EXPECT_EQ(members[1].keyStart(), text.find("\"k\""));
    EXPECT_EQ(members[0].value().range(), (Range{text.find("\"日"), text.find(",")}));
}

TEST(JSONCTrivia, CommentsEndWhereTheyShould) {
    expectVerdicts({
        {"// settings\n{}", true},
        {"{} // no final line feed", true},
        {"{}//", true},
        {"// only a comment", false},
        {"{ // c\r\"a\": 1}", false},  // a carriage return does not end it
        {"{ // c\r\n\"a\": 1}", true},
        {"/**/{}", true},
        {"/* a\n * b **/{}/***/", true},
        {"{} /* unclosed", false},
        {"{} /*", false},
        {"{\"a\": /* unclosed 1}", false},
        {"{} /*/", false},  // "*/" may not reuse the opening star
        {"{} /*/ */", true},
        {"/* a /* b */ c */ {}", false},  // no nesting
    });
}

TEST(JSONCTrivia, CommentsMayStandBetweenEveryToken) {
    auto document = JSONCDocument::parse(
        "/*0*/{/*1*/\"a\"/*2*/:/*3*/[/*4*/1/*5*/,/*6*/2/*7*/,/*8*/]/*9*/,//10\n\"b\"//11\n://12\n3//13\n}/*14*/");
    ASSERT_TRUE(document);
    auto members = document->root().members();
    ASSERT_EQ(members.size(), 2u);
    EXPECT_EQ(members[0].value().elements().size(), 2u);
    EXPECT_EQ(sourceOf(*document, members[1].value()), "3");
}

TEST(JSONCTrivia, LoneSlashAndOtherBytesAreNotTrivia) {
    expectVerdicts({
        {"{} /", false},
        {"{\"a\": / 1}", false},
        {"/ {}", false},
        {" \t\r\n{ \t\r\n} \t\r\n", true},
        {"\f{}", false},
        {"{}\v", false},
        {"{\xC2\xA0}", false},
    });
    EXPECT_FALSE(accepts(std::string_view("{}\0", 3)));
}

TEST(JSONCContainers, OneTrailingCommaIsAccepted) {
    auto document = JSONCDocument::parse("[1, 2,]");
    ASSERT_TRUE(document);
    EXPECT_EQ(document->root().elements().size(), 2u);
    expectVerdicts({
        {"{\"a\": 1,}", true},
        {"[]", true},
        {"{}", true},
        {"[1, 2,,]", false},
        {"{\"a\": 1,,}", false},
        {"[1,,2]", false},
        {"[,]", false},
        {"{,}", false},
        {"[,1]", false},
    });
}

TEST(JSONCContainers, MalformedContainersFail) {
    expectVerdicts({
        {"[1 2]", false},
        {"{\"a\": 1 \"b\": 2}", false},
        {"{\"a\" 1}", false},
        {"{\"a\":}", false},
        {"{\"a\"}", false},
        {"{a: 1}", false},
        {"{'a': 1}", false},
        {"{1: 1}", false},
        {"{", false},
        {"[1,", false},
        {"[1", false},
        {"{\"a\": 1", false},
        {"[}", false},
        {"{]", false},
    });
}

TEST(JSONCContainers, DuplicateKeysAreKeptInTextOrder) {
    auto document = JSONCDocument::parse("{\"a\": 1, \"b\": 2, \"a\": 3}");
    ASSERT_TRUE(document);
    auto members = document->root().members();
    ASSERT_EQ(members.size(), 3u);
    EXPECT_EQ(members[0].key(), "a");
    EXPECT_EQ(members[2].key(), "a");
    EXPECT_EQ(sourceOf(*document, members[2].value()), "3");
}

TEST(JSONCContainers, AnyValueMayBeTheRoot) {
    EXPECT_EQ(JSONCDocument::parse(" \"s\" ")->root().kind(), Kind::string);
    EXPECT_EQ(JSONCDocument::parse("42")->root().kind(), Kind::scalar);
    EXPECT_EQ(JSONCDocument::parse("[]")->root().kind(), Kind::array);
}

TEST(JSONCDocumentEnd, OneValueAndNothingButTriviaAfterIt) {
    expectVerdicts({
        {"{ \"a\": 1 } x", false},
        {"{}{}", false},
        {"{},", false},
        {"1 2", false},
        {"", false},
        {"   ", false},
        {"/* */", false},
    });
}

TEST(JSONCNestingLimit, AtMostTwoHundredFiftyFiveOpenContainers) {
    EXPECT_TRUE(accepts(nested(255)));
    EXPECT_FALSE(accepts(nested(256)));
    EXPECT_TRUE(accepts(nested(254).insert(254, "{}")));
    EXPECT_FALSE(accepts(nested(255).insert(255, "{}")));
    std::string objects;
    for (int i = 0; i < 255; ++i) objects += "{\"k\":";
    objects += "0" + std::string(255, '}');
    EXPECT_TRUE(accepts(objects));
    EXPECT_FALSE(accepts("[" + objects + "]"));
    // Only containers still open count.
    std::string inner = nested(254);
    EXPECT_TRUE(accepts("[" + inner + "," + inner + "," + inner + "]"));
}

TEST(JSONCScalars, LiteralsAreLowerCaseOnly) {
    expectVerdicts({{"[true, false, null]", true}, {"[True]", false}, {"[NULL]", false}, {"[truex]", false}});
}

TEST(JSONCScalars, NumbersBeyondJSONAreAccepted) {
    for (const char* text : {"+1", ".5", "5.", "007", "-0", "1e5", "1E+5", "2.5e-3", "+.5e1", "Infinity",
                             "-inf", "INF", "infinity", "NaN", "nan", "-NAN", "0x10p0", "0X1.8P1", "0xAbC",
                             "0x.8", "1.e3", "1e400", "-1e-400"}) {
        auto document = JSONCDocument::parse(std::string("{\"v\": ") + text + "}");
        ASSERT_TRUE(document) << text;
        auto value = document->value({"v"});
        EXPECT_EQ(value->kind(), Kind::scalar) << text;
        EXPECT_EQ(sourceOf(*document, *value), text);
    }
}

TEST(JSONCScalars, RunsTheConversionRefusesFail) {
    for (const char* text : {"1..2", "abc", "1e", "1e+", "-", "+", ".", "0x", "0xp1", "infinit", "in", "1e5x",
                             "--1", "1-", "nan1", "0x1p", "e5", ".e5"}) {
        EXPECT_FALSE(accepts(std::string("[") + text + "]")) << text;
    }
}

TEST(JSONCScalars, RunStopsAtTheFirstByteOutsideIt) {
    auto document = JSONCDocument::parse("[nan/**/,1//c\n,-2]");
    ASSERT_TRUE(document);
    auto elements = document->root().elements();
    ASSERT_EQ(elements.size(), 3u);
    EXPECT_EQ(sourceOf(*document, elements[0]), "nan");
    EXPECT_EQ(sourceOf(*document, elements[1]), "1");
    EXPECT_EQ(sourceOf(*document, elements[2]), "-2");
    EXPECT_FALSE(accepts("[nan(1)]"));
    EXPECT_FALSE(accepts("[1_000]"));
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
        std::size_t length = 1 + random() % 8;
        for (std::size_t i = 0; i < length; ++i) run += alphabet[random() % alphabet.size()];
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
    bool hexadecimal = accepts("[0x1.8p1]"), decimal = accepts("[-1.5e3]"), word = accepts("[Infinity]");
    bool commaNumber = accepts("[0x1,8p1]");
    setlocale(LC_NUMERIC, saved.c_str());
    ASSERT_TRUE(commaRadix);
    EXPECT_TRUE(hexadecimal);
    EXPECT_TRUE(decimal);
    EXPECT_TRUE(word);
    EXPECT_FALSE(commaNumber);
}

TEST(JSONCStrings, SimpleEscapesDecode) {
    EXPECT_EQ(decodedString(R"("a\"b\\c\/d\be\ff\ng\rh\ti")"), "a\"b\\c/d\be\ff\ng\rh\ti");
    EXPECT_FALSE(decodedString(R"("\x")"));
    EXPECT_FALSE(decodedString(R"("\')"));
    EXPECT_FALSE(decodedString("\"\\"));
    EXPECT_FALSE(accepts("\"\\"));
}

TEST(JSONCStrings, UnicodeEscapesEncodeAsUTF8) {
    EXPECT_EQ(decodedString(R"("\u0041\u00e9\u20AC")"), "A\xC3\xA9\xE2\x82\xAC");
    EXPECT_EQ(decodedString(R"("\u0000")"), std::string(1, '\0'));
    EXPECT_EQ(decodedString(R"("\uFFFF")"), "\xEF\xBF\xBF");
}

TEST(JSONCStrings, UnicodeEscapeDigitsFollowTheIntegerParser) {
    EXPECT_EQ(decodedString(R"("\u+04A")"), "J");
    EXPECT_EQ(decodedString(R"("\u-000")"), std::string(1, '\0'));
    EXPECT_FALSE(decodedString(R"("\u-001")"));
    EXPECT_FALSE(decodedString(R"("\u+")"));
    EXPECT_FALSE(decodedString(R"("\u00g0")"));
    EXPECT_FALSE(decodedString(R"("\u 041")"));
    EXPECT_FALSE(decodedString(R"("\u004")"));
    EXPECT_FALSE(accepts("\"\\u00"));
}

TEST(JSONCStrings, SurrogatePairsCombine) {
    EXPECT_EQ(decodedString(R"("\ud83d\ude00")"), "\xF0\x9F\x98\x80");
    EXPECT_EQ(decodedString(R"("\uDBFF\uDFFF")"), "\xF4\x8F\xBF\xBF");
}

TEST(JSONCStrings, UnpairedSurrogatesBecomeReplacementCharacters) {
    const std::string fffd = "\xEF\xBF\xBD";
    EXPECT_EQ(decodedString(R"("\ud83d")"), fffd);
    EXPECT_EQ(decodedString(R"("\ude00")"), fffd);
    EXPECT_EQ(decodedString(R"("\ud83d\ud83d\ude00")"), fffd + "\xF0\x9F\x98\x80");
    EXPECT_EQ(decodedString(R"("\ud83dx\ude00")"), fffd + "x" + fffd);
    EXPECT_EQ(decodedString(R"("\ud83d\n")"), fffd + "\n");
    EXPECT_EQ(decodedString(R"("\ud83d\u0041")"), fffd + "A");
    EXPECT_EQ(decodedString(R"("\ude00\ud83d")"), fffd + fffd);
}

TEST(JSONCStrings, RawBytesAreCopiedExceptLineBreaks) {
    EXPECT_EQ(decodedString("\"a\tb\x01\x7F\""), "a\tb\x01\x7F");
    EXPECT_EQ(decodedString("\"caf\xC3\xA9 \xF0\x9F\x98\x80\""), "caf\xC3\xA9 \xF0\x9F\x98\x80");
    EXPECT_FALSE(accepts("[\"a\nb\"]"));
    EXPECT_FALSE(accepts("[\"a\rb\"]"));
    EXPECT_FALSE(accepts("[\"abc"));
}

TEST(JSONCStrings, IllFormedUTF8IsReplacedPerMaximalSubpart) {
    const std::string fffd = "\xEF\xBF\xBD";
    EXPECT_EQ(decodedString("\"\xC3(\""), fffd + "(");
    EXPECT_EQ(decodedString("\"\xE2\x82\""), fffd);
    EXPECT_EQ(decodedString("\"\xF0\x9F\x98\""), fffd);
    EXPECT_EQ(decodedString("\"\x80\xBF\""), fffd + fffd);
    EXPECT_EQ(decodedString("\"\xED\xA0\x80\""), fffd + fffd + fffd);
    EXPECT_EQ(decodedString("\"\xC0\xAF\""), fffd + fffd);
    EXPECT_EQ(decodedString("\"\xF4\x90\x80\x80\""), fffd + fffd + fffd + fffd);
    EXPECT_EQ(decodedString("\"\xFF\""), fffd);
    EXPECT_EQ(decodedString("\"\xE0\x80\x80\""), fffd + fffd + fffd);
    EXPECT_EQ(decodedString("\"\xE0\xA0\x80\xF0\x90\x80\x80\""), "\xE0\xA0\x80\xF0\x90\x80\x80");
    EXPECT_EQ(decodedString("\"\xF0\x80\x80\x80\""), fffd + fffd + fffd + fffd);
    EXPECT_EQ(decodedString("\"\xE2\x82\\u00AC\""), fffd + "\xC2\xAC");
    EXPECT_EQ(decodedString("\"\\n\xC3\""), "\n" + fffd);
}

TEST(JSONCStrings, KeysDecodeLikeValues) {
    auto document = JSONCDocument::parse(R"({"\u006Dcp": {"caf\u00e9": 1, "\ud83d": 2}})");
    ASSERT_TRUE(document);
    EXPECT_TRUE(document->member({"mcp", "caf\xC3\xA9"}));
    EXPECT_TRUE(document->member({"mcp", "\xEF\xBF\xBD"}));
}

TEST(JSONCStrings, DecodedTextSurvivesTheOriginalDocument) {
    std::optional<JSONCDocument> copy;
    JSONCDocument::Node node;
    {
        auto document = JSONCDocument::parse(R"({"a": "x\ty", "b": "plain"})");
        ASSERT_TRUE(document);
        copy = *document;
        node = *document->value({"a"});
    }
    EXPECT_EQ(node.string(), "x\ty");
    EXPECT_EQ(copy->value({"b"})->string(), "plain");
}

TEST(JSONCMemberLookup, EmptyPathFindsNothing) {
    auto document = JSONCDocument::parse(R"({"a": 1})");
    EXPECT_FALSE(document->member({}));
    EXPECT_FALSE(document->value({}));
    EXPECT_FALSE(document->strings({}));
}

TEST(JSONCMemberLookup, LastDuplicateWins) {
    auto document = JSONCDocument::parse(R"({"a": 1, "b": {"c": 2}, "a": 3})");
    ASSERT_TRUE(document);
    auto found = document->member({"a"});
    ASSERT_TRUE(found);
    EXPECT_EQ(found->index, 2u);
    EXPECT_EQ(found->siblings.size(), 3u);
    EXPECT_EQ(sourceOf(*document, *document->value({"a"})), "3");
}

TEST(JSONCMemberLookup, PathDescendsThroughObjectsOnly) {
    auto document = JSONCDocument::parse(R"({"a": [{"b": 1}], "m": {"s": {"n": "x"}}, "t": "s"})");
    ASSERT_TRUE(document);
    EXPECT_FALSE(document->member({"a", "b"}));
    EXPECT_FALSE(document->member({"t", "x"}));
    EXPECT_FALSE(document->member({"m", "x"}));
    auto found = document->member({"m", "s", "n"});
    ASSERT_TRUE(found);
    EXPECT_EQ(found->siblings.size(), 1u);
    EXPECT_EQ(found->member().key(), "n");
    EXPECT_FALSE(JSONCDocument::parse("[1]")->member({"0"}));
}

TEST(JSONCMemberLookup, KeysCompareExactly) {
    auto document = JSONCDocument::parse(R"({"Mcp": 1, "caf\u00e9": 2})");
    EXPECT_FALSE(document->member({"mcp"}));
    EXPECT_FALSE(document->member({"cafe\xCC\x81"}));  // the same word, decomposed
    EXPECT_TRUE(document->member({"caf\xC3\xA9"}));
}

TEST(JSONCMemberLookup, DuplicateParentLeadsThroughTheLastOne) {
    auto document = JSONCDocument::parse(R"({"m": {"x": 1}, "m": {"y": 2}})");
    EXPECT_FALSE(document->member({"m", "x"}));
    EXPECT_TRUE(document->member({"m", "y"}));
}

TEST(JSONCStringList, ArrayOfStringsDecodes) {
    auto document = JSONCDocument::parse(R"({"c": ["/usr/bin/x", "a\u0020b", ], "e": [], "m": ["a", 1], "s": "a"})");
    ASSERT_TRUE(document);
    EXPECT_EQ(document->strings({"c"}), (std::vector<std::string>{"/usr/bin/x", "a b"}));
    EXPECT_EQ(document->strings({"e"}), std::vector<std::string>{});
    EXPECT_FALSE(document->strings({"m"}));
    EXPECT_FALSE(document->strings({"s"}));
    EXPECT_FALSE(document->strings({"absent"}));
}

}  // namespace
