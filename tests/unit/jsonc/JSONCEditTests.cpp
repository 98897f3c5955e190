// The two edits, on the layouts people write by hand.
#include <gtest/gtest.h>

#include <string>

#include "jsonc/JSONCDocument.h"

namespace {

std::optional<std::string> removing(const JSONCDocument::Path& path, const std::string& text) {
    return JSONCDocument::removingMember(path, text);
}

std::optional<std::string> replacing(const JSONCDocument::Path& path, const std::string& with,
                                     const std::string& text) {
    return JSONCDocument::replacingValue(path, with, text);
}

const std::string config =
    "{\n"
    "  \"$schema\": \"https://example.invalid/config.json\",\n"
    "  // servers the agent may start\n"
    "  \"mcp\": {\n"
    "    \"first\": { \"command\": [\"a\"] },\n"
    "    \"vantoric-studio\": {\n"
    "      \"type\": \"local\",\n"
    "      \"command\": /* old */ [\"/old/bridge\"]\n"
    "    },\n"
    "    \"last\": true\n"
    "  }\n"
    "}\n";

TEST(JSONCRemovingMember, MiddleMemberTakesItsWholeLine) {
    std::string text = "{\n  \"a\": 1,\n  \"b\": 2,\n  \"c\": 3\n}\n";
    EXPECT_EQ(removing({"b"}, text), "{\n  \"a\": 1,\n  \"c\": 3\n}\n");
}

TEST(JSONCRemovingMember, FirstMemberTakesItsWholeLine) {
    std::string text = "{\n  \"a\": 1,\n  \"b\": 2\n}";
    EXPECT_EQ(removing({"a"}, text), "{\n  \"b\": 2\n}");
}

TEST(JSONCRemovingMember, LastMemberTakesPreviousComma) {
    std::string text = "{\n  \"a\": 1,\n  \"b\": 2,\n  \"c\": 3\n}\n";
    EXPECT_EQ(removing({"c"}, text), "{\n  \"a\": 1,\n  \"b\": 2\n}\n");
}

TEST(JSONCRemovingMember, LastMemberWithTrailingCommaLeavesPreviousComma) {
    std::string text = "{\n  \"a\": 1,\n  \"b\": 2,\n}\n";
    EXPECT_EQ(removing({"b"}, text), "{\n  \"a\": 1,\n}\n");
}

TEST(JSONCRemovingMember, OnlyMemberOnOneLineLeavesBothSpaces) {
    EXPECT_EQ(removing({"a"}, "{ \"a\": 1 }"), "{  }");
}

TEST(JSONCRemovingMember, TrailingCommentKeepsItsLineAndIndentation) {
    std::string text = "{\n  \"a\": 1, // the first\n  \"b\": 2\n}";
    EXPECT_EQ(removing({"a"}, text), "{\n   // the first\n  \"b\": 2\n}");
}

TEST(JSONCRemovingMember, NeighbourOnTheSameLineStays) {
    std::string text = "{\n  \"a\": 1, \"b\": 2,\n  \"c\": 3\n}";
    EXPECT_EQ(removing({"a"}, text), "{\n   \"b\": 2,\n  \"c\": 3\n}");
    EXPECT_EQ(removing({"b"}, text), "{\n  \"a\": 1, \n  \"c\": 3\n}");
}

TEST(JSONCRemovingMember, CompactObjectsLoseOnlyTheMember) {
    EXPECT_EQ(removing({"b"}, R"({"a":1,"b":2,"c":3})"), R"({"a":1,"c":3})");
    EXPECT_EQ(removing({"c"}, R"({"a":1,"b":2,"c":3})"), R"({"a":1,"b":2})");
    EXPECT_EQ(removing({"a"}, R"({"a":1})"), R"({})");
}

TEST(JSONCRemovingMember, CarriageReturnLineFeedLinesGoWhole) {
    std::string text = "{\r\n  \"a\": 1,\r\n  \"b\": 2,\r\n  \"c\": 3\r\n}\r\n";
    EXPECT_EQ(removing({"b"}, text), "{\r\n  \"a\": 1,\r\n  \"c\": 3\r\n}\r\n");
    EXPECT_EQ(removing({"c"}, text), "{\r\n  \"a\": 1,\r\n  \"b\": 2\r\n}\r\n");
}

TEST(JSONCRemovingMember, MultiLineValueGoesWithAllItsLines) {
    EXPECT_EQ(removing({"mcp", "vantoric-studio"}, config),
              "{\n"
              "  \"$schema\": \"https://example.invalid/config.json\",\n"
              "  // servers the agent may start\n"
              "  \"mcp\": {\n"
              "    \"first\": { \"command\": [\"a\"] },\n"
              "    \"last\": true\n"
              "  }\n"
              "}\n");
}

TEST(JSONCRemovingMember, CommentsBetweenValueAndCommaGoWithTheMember) {
    std::string text = "{\n  \"a\": 1 /* one */ ,\n  \"b\": 2\n}";
    EXPECT_EQ(removing({"a"}, text), "{\n  \"b\": 2\n}");
}

TEST(JSONCRemovingMember, EveryDuplicateGoes) {
    std::string text = "{\n  \"a\": 1,\n  \"x\": 0,\n  \"a\": 2,\n  \"a\": 3\n}";
    EXPECT_EQ(removing({"a"}, text), "{\n  \"x\": 0\n}");
}

TEST(JSONCRemovingMember, DuplicatesElsewhereInTheTreeStay) {
    std::string text = R"({"m": {"a": 1}, "a": 2, "n": {"a": 3}})";
    EXPECT_EQ(removing({"a"}, text), R"({"m": {"a": 1},  "n": {"a": 3}})");
    EXPECT_EQ(removing({"n", "a"}, text), R"({"m": {"a": 1}, "a": 2, "n": {}})");
}

TEST(JSONCRemovingMember, ByteOrderMarkSurvives) {
    std::string text = "\xEF\xBB\xBF{\n  \"a\": 1,\n  \"b\": 2\n}";
    EXPECT_EQ(removing({"a"}, text), "\xEF\xBB\xBF{\n  \"b\": 2\n}");
}

TEST(JSONCRemovingMember, NothingWhenThereIsNothingToRemove) {
    EXPECT_FALSE(removing({"z"}, config));
    EXPECT_FALSE(removing({}, config));
    EXPECT_FALSE(removing({"mcp", "last", "x"}, config));
    EXPECT_FALSE(removing({"a"}, "[{\"a\": 1}]"));
    EXPECT_FALSE(removing({"a"}, "{\"a\": 1"));
    EXPECT_FALSE(removing({"a"}, ""));
}

TEST(JSONCReplacingValue, OnlyTheValueChanges) {
    auto edited = replacing({"mcp", "vantoric-studio", "command"}, R"(["/new/bridge", "--x"])", config);
    std::string expected = config;
    expected.replace(expected.find(R"(["/old/bridge"])"), std::string(R"(["/old/bridge"])").size(),
                     R"(["/new/bridge", "--x"])");
    EXPECT_EQ(edited, expected);
    EXPECT_NE(edited->find("\"command\": /* old */ [\"/new"), std::string::npos);
}

TEST(JSONCReplacingValue, NewTextIsInsertedAsGiven) {
    EXPECT_EQ(replacing({"a"}, "[ 1 /* c */ ,\n 2 ]", R"({"a": null})"), "{\"a\": [ 1 /* c */ ,\n 2 ]}");
    EXPECT_EQ(replacing({"a"}, "\"new\"", R"({"a": {"deep": [1, 2]}, "b": 0})"), R"({"a": "new", "b": 0})");
    EXPECT_EQ(replacing({"a"}, " 7 ", R"({"a":1})"), R"({"a": 7 })");
}

TEST(JSONCReplacingValue, LastDuplicateIsTheOneReplaced) {
    EXPECT_EQ(replacing({"a"}, "9", R"({"a": 1, "a": 2})"), R"({"a": 1, "a": 9})");
}

TEST(JSONCReplacingValue, TextThatIsNotOneValueGivesNothing) {
    EXPECT_FALSE(replacing({"a"}, "1, 2", R"({"a": 0})"));
    EXPECT_FALSE(replacing({"a"}, "", R"({"a": 0})"));
    EXPECT_FALSE(replacing({"a"}, "[1", R"({"a": 0})"));
    EXPECT_FALSE(replacing({"a"}, "1 // c", R"({"a": 0})"));
    EXPECT_FALSE(replacing({"a"}, "'x'", R"({"a": 0})"));
}

TEST(JSONCReplacingValue, ResultThatLosesThePathGivesNothing) {
    // Parses, but the last "a" now holds no "b".
    EXPECT_FALSE(replacing({"a", "b"}, R"(1}, "a": {"c": 2)", R"({"a": {"b": 1}})"));
}

TEST(JSONCReplacingValue, ResultBeyondTheNestingLimitGivesNothing) {
    std::string text;
    JSONCDocument::Path path;
    for (int i = 0; i < 254; ++i) text += "{\"k\": ", path.push_back("k");
    text += "{\"a\": 0}" + std::string(254, '}');
    path.push_back("a");
    EXPECT_TRUE(replacing(path, "1", text).has_value());
    EXPECT_FALSE(replacing(path, "[]", text));
}

TEST(JSONCReplacingValue, NothingWhenTheInputOrPathFails) {
    EXPECT_FALSE(replacing({"a"}, "1", "{\"a\": 0,,}"));
    EXPECT_FALSE(replacing({"b"}, "1", R"({"a": 0})"));
    EXPECT_FALSE(replacing({}, "1", R"({"a": 0})"));
}

TEST(JSONCReplacingValue, ByteOrderMarkAndLineEndingsSurvive) {
    std::string text = "\xEF\xBB\xBF{\r\n  \"a\": 1, // one\r\n  \"b\": 2\r\n}\r\n";
    EXPECT_EQ(replacing({"b"}, "[\"x\"]", text), "\xEF\xBB\xBF{\r\n  \"a\": 1, // one\r\n  \"b\": [\"x\"]\r\n}\r\n");
}

}  // namespace
