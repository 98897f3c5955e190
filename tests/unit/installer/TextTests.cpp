// Detail lines, UTF-8 repair, character counting and the JSON texts the
// installer prints.
#include <gtest/gtest.h>

#include "installer/BridgeInstaller.h"
#include "installer/Text.h"

using namespace BridgeInstaller;

TEST(IndentedDetails, TrimsSplitsAtEveryLineBreakAndDropsEmptyLines) {
    EXPECT_EQ(indented("  first\r\nsecond\r\n\r\n\n"), (std::vector<std::string>{"    first", "    second"}));
    EXPECT_EQ(indented("a\vb\fc\rd\u0085e\u2028f\u2029g"),
              (std::vector<std::string>{"    a", "    b", "    c", "    d", "    e", "    f", "    g"}));
    EXPECT_EQ(indented("\u00a0 \t\n"), std::vector<std::string>{});
    // Inner lines keep their own white space; only the ends of the text go.
    EXPECT_EQ(indented("x\n   \n  y  "), (std::vector<std::string>{"    x", "       ", "      y"}));
}

TEST(OutcomePrinting, TitlePartsAndDetailsExactly) {
    Outcome outcome;
    outcome.parts = {"Studio's MCP server added"};
    outcome.fail("skill not installed", "\nCould not write x\n", "Do it by hand.");
    EXPECT_FALSE(outcome.succeeded);
    std::ostringstream out;
    outcome.print("Claude Code", out);
    EXPECT_EQ(out.str(), "Claude Code: Studio's MCP server added, skill not installed.\n"
                         "    Could not write x\n"
                         "    Do it by hand.\n");
    EXPECT_EQ(title("codex"), "Codex");
    EXPECT_EQ(title("opencode"), "OpenCode");
    EXPECT_EQ(title("cursor"), "cursor");
}

TEST(Utf8Repair, EachIllFormedSubpartBecomesOneReplacement) {
    EXPECT_EQ(text::decodedUTF8("ok \xC3\xA9"), "ok \xC3\xA9");
    // A truncated three-byte sequence is one maximal subpart.
    EXPECT_EQ(text::decodedUTF8("\xE2\x82" "a"), "\xEF\xBF\xBD" "a");
    // Surrogates and overlong forms: every byte on its own.
    EXPECT_EQ(text::decodedUTF8("\xED\xA0\x80"), "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD");
    EXPECT_EQ(text::decodedUTF8("\xC0\xAF"), "\xEF\xBF\xBD\xEF\xBF\xBD");
    EXPECT_EQ(text::decodedUTF8("\xF4\x90\x80\x80"), "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD");
    EXPECT_EQ(text::decodedUTF8("\xF0\x9F\x98"), "\xEF\xBF\xBD");
    EXPECT_TRUE(text::isValidUTF8("\xF0\x9F\x98\x80"));
    EXPECT_FALSE(text::isValidUTF8("\xF0\x9F\x98"));
}

TEST(Utf8Repair, CharactersAreCountedAsPeopleSeeThem) {
    std::string flag = "\U0001F1EB\U0001F1F7";  // one flag, two code points
    std::string accented = "e\u0301";           // one character, two code points
    EXPECT_EQ(text::prefixCharacters(flag + accented + "x", 2), flag + accented);
    EXPECT_EQ(text::prefixCharacters("ab\r\ncd", 3), "ab\r\n");
    EXPECT_EQ(text::prefixCharacters("abc", 10), "abc");
}

TEST(JsonTexts, JsonStringEscapesWhatJsonNeedsAndLeavesSlashes) {
    EXPECT_EQ(jsonString("/Applications/Vantoric Studio.app/x"), "\"/Applications/Vantoric Studio.app/x\"");
    EXPECT_EQ(jsonString("a\"b\\c\nd\te\x01"), "\"a\\\"b\\\\c\\nd\\te\\u0001\"");
    EXPECT_EQ(jsonString("caf\xC3\xA9"), "\"caf\xC3\xA9\"");
    // Not UTF-8: written as it is between quotes.
    EXPECT_EQ(jsonString("a\xFF"), "\"a\xFF\"");
}

TEST(JsonTexts, StatusReportIsSortedCompactAndEscapesSlashes) {
    std::vector<StatusEntry> entries = {
        {"claude", "Claude Code", Registration::current()},
        {"codex", "Codex", Registration::other("/opt/old/vantoric-studio-mcp --x")},
        {"opencode", "OpenCode", Registration::unknown("line \"one\"\nline two")},
    };
    EXPECT_EQ(statusJSON(entries, "/Applications/Vantoric Studio.app/Contents/MacOS/vantoric-studio-mcp"),
              R"({"agents":[)"
              R"({"detail":"","id":"claude","registration":"current","title":"Claude Code"},)"
              R"({"detail":"\/opt\/old\/vantoric-studio-mcp --x","id":"codex","registration":"other","title":"Codex"},)"
              R"({"detail":"line \"one\"\nline two","id":"opencode","registration":"unknown","title":"OpenCode"}],)"
              R"("bridge":"\/Applications\/Vantoric Studio.app\/Contents\/MacOS\/vantoric-studio-mcp"})");
    EXPECT_EQ(statusJSON({}, "/b"), R"({"agents":[],"bridge":"\/b"})");
}

TEST(JsonTexts, LongUnknownReasonIsCutTo400CharactersInJsonOnly) {
    std::string reason;
    for (int i = 0; i < 450; ++i) reason += "\xC3\xA9";  // é, two bytes each
    auto json = nlohmann::json::parse(statusJSON({{"claude", "Claude Code", Registration::unknown(reason)}}, "/b"));
    EXPECT_EQ(json["agents"][0]["detail"].get<std::string>(), reason.substr(0, 800));
}
