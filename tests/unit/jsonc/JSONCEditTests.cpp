// The two edits on layouts people write by hand; the property tests hold them
// to the removal rules and to splicing on generated documents.
#include <gtest/gtest.h>

#include "jsonc/JSONCDocument.h"

namespace {

using jsonc::JSONCDocument;

struct Edit {
    JSONCDocument::Path path;
    std::string text;
    std::optional<std::string> expected;
};

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

TEST(JSONCRemovingMember, TakesWholeLinesAndTheRightComma) {
    std::string lines = "{\n  \"a\": 1,\n  \"b\": 2,\n  \"c\": 3\n}\n";
    std::string crlf = "{\r\n  \"a\": 1,\r\n  \"b\": 2,\r\n  \"c\": 3\r\n}\r\n";
    std::string shared = "{\n  \"a\": 1, \"b\": 2,\n  \"c\": 3\n}";
    std::vector<Edit> cases = {
        {{"b"}, lines, "{\n  \"a\": 1,\n  \"c\": 3\n}\n"},
        {{"c"}, lines, "{\n  \"a\": 1,\n  \"b\": 2\n}\n"},  // the last member takes the previous comma
        {{"b"}, "{\n  \"a\": 1,\n  \"b\": 2,\n}\n", "{\n  \"a\": 1,\n}\n"},
        {{"c"}, crlf, "{\r\n  \"a\": 1,\r\n  \"b\": 2\r\n}\r\n"},
        {{"a"}, "{ \"a\": 1 }", "{  }"},
        {{"a"}, "{\n  \"a\": 1, // the first\n  \"b\": 2\n}", "{\n   // the first\n  \"b\": 2\n}"},
        {{"a"}, shared, "{\n   \"b\": 2,\n  \"c\": 3\n}"},
        {{"b"}, shared, "{\n  \"a\": 1, \n  \"c\": 3\n}"},
        {{"c"}, R"({"a":1,"b":2,"c":3})", R"({"a":1,"b":2})"},
        {{"a"}, "{\n  \"a\": 1 /* one */ ,\n  \"b\": 2\n}", "{\n  \"b\": 2\n}"},
        {{"a"}, "{\n  \"a\": 1,\n  \"x\": 0,\n  \"a\": 2,\n  \"a\": 3\n}", "{\n  \"x\": 0\n}"},  // every duplicate
        {{"n", "a"}, R"({"m": {"a": 1}, "a": 2, "n": {"a": 3}})", R"({"m": {"a": 1}, "a": 2, "n": {}})"},
        {{"a"}, "\xEF\xBB\xBF{\n  \"a\": 1,\n  \"b\": 2\n}", "\xEF\xBB\xBF{\n  \"b\": 2\n}"},
        {{"mcp", "vantoric-studio"}, config,
         "{\n  \"$schema\": \"https://example.invalid/config.json\",\n  // servers the agent may start\n"
         "  \"mcp\": {\n    \"first\": { \"command\": [\"a\"] },\n    \"last\": true\n  }\n}\n"},
        // Nothing to remove, or nothing readable.
        {{"z"}, config, std::nullopt},
        {{}, config, std::nullopt},
        {{"mcp", "last", "x"}, config, std::nullopt},
        {{"a"}, "[{\"a\": 1}]", std::nullopt},
        {{"a"}, "{\"a\": 1", std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.path) + " in " + c.text);
        EXPECT_EQ(JSONCDocument::removingMember(c.path, c.text), c.expected);
    }
}

TEST(JSONCReplacingValue, OnlyTheValueChangesToTheTextAsGiven) {
    std::string expected = config;
    expected.replace(expected.find(R"(["/old/bridge"])"), 15, R"(["/new/bridge", "--x"])");
    std::string crlf = "\xEF\xBB\xBF{\r\n  \"a\": 1, // one\r\n  \"b\": 2\r\n}\r\n";
    std::vector<std::pair<Edit, std::string>> cases = {
        {{{"mcp", "vantoric-studio", "command"}, config, expected}, R"(["/new/bridge", "--x"])"},
        {{{"a"}, R"({"a": null})", "{\"a\": [ 1 /* c */ ,\n 2 ]}"}, "[ 1 /* c */ ,\n 2 ]"},
        {{{"a"}, R"({"a": {"deep": [1, 2]}, "b": 0})", R"({"a": "new", "b": 0})"}, "\"new\""},
        {{{"a"}, R"({"a":1})", R"({"a": 7 })"}, " 7 "},
        {{{"a"}, R"({"a": 1, "a": 2})", R"({"a": 1, "a": 9})"}, "9"},
        {{{"b"}, crlf, "\xEF\xBB\xBF{\r\n  \"a\": 1, // one\r\n  \"b\": [\"x\"]\r\n}\r\n"}, "[\"x\"]"},
        // Not one value, a result that loses the path, or nothing to replace.
        {{{"a"}, R"({"a": 0})", std::nullopt}, "1, 2"},
        {{{"a"}, R"({"a": 0})", std::nullopt}, ""},
        {{{"a"}, R"({"a": 0})", std::nullopt}, "1 // c"},
        {{{"a"}, R"({"a": 0})", std::nullopt}, "'x'"},
        {{{"a", "b"}, R"({"a": {"b": 1}})", std::nullopt}, R"(1}, "a": {"c": 2)"},
        {{{"a"}, "{\"a\": 0,,}", std::nullopt}, "1"},
        {{{"b"}, R"({"a": 0})", std::nullopt}, "1"},
        {{{}, R"({"a": 0})", std::nullopt}, "1"},
    };
    for (const auto& [c, with] : cases) {
        SCOPED_TRACE(testing::PrintToString(c.path) + " = " + with + " in " + c.text);
        EXPECT_EQ(JSONCDocument::replacingValue(c.path, with, c.text), c.expected);
    }
}

TEST(JSONCReplacingValue, ResultBeyondTheNestingLimitGivesNothing) {
    std::string text;
    JSONCDocument::Path path;
    for (int i = 0; i < 254; ++i) text += "{\"k\": ", path.push_back("k");
    text += "{\"a\": 0}" + std::string(254, '}');
    path.push_back("a");
    EXPECT_TRUE(JSONCDocument::replacingValue(path, "1", text).has_value());
    EXPECT_FALSE(JSONCDocument::replacingValue(path, "[]", text));
}

}  // namespace
