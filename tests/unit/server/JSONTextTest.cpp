#include <gtest/gtest.h>

#include "link/BridgeError.h"
#include "server/JSONText.h"
#include "server/Transport.h"

TEST(ReadingJSON, OnlyObjectsAndArraysAtTheTop) {
    EXPECT_TRUE(parseJSON(R"({"a":1})"));
    EXPECT_TRUE(parseJSON("[1,2]"));
    EXPECT_TRUE(parseJSON(" \t{\"a\":1}\r"));
    for (const char* text : {"42", "\"s\"", "true", "null", "", "{", "{\"a\":1}x", "[1,]"}) EXPECT_FALSE(parseJSON(text)) << text;
    EXPECT_FALSE(parseObject("[1]"));
    EXPECT_TRUE(parseObject("{}"));
}

TEST(ReadingJSON, InvalidUnicodeDoesNotParse) {
    EXPECT_FALSE(parseJSON("{\"a\":\"\xc3\x28\"}"));
    EXPECT_FALSE(parseJSON("{\"a\":\"\xed\xa0\x80\"}"));  // an encoded surrogate
    EXPECT_FALSE(parseJSON(R"({"a":"\ud800"})"));        // a lone surrogate escape
    EXPECT_TRUE(parseJSON("{\"a\":\"\xe2\x82\xac \\ud83d\\ude00\"}"));
}

TEST(ReadingJSON, DepthIsLimitedButBracketsInStringsDoNotCount) {
    std::string deep = std::string(maximumDepth, '[') + std::string(maximumDepth, ']');
    EXPECT_TRUE(parseJSON(deep));
    EXPECT_FALSE(parseJSON("[" + deep + "]"));
    std::string brackets = "{\"a\":\"" + std::string(10000, '[') + "\\\"{{\"}";
    EXPECT_TRUE(parseJSON(brackets));
}

TEST(WritingJSON, CompactWithSlashesAndOrderKept) {
    Json value = Json::parse(R"({"z":"a/b","a":[1,2.5,{"q":null}]})");
    EXPECT_EQ(compactJSON(value), R"({"z":"a/b","a":[1,2.5,{"q":null}]})");
    EXPECT_EQ(Transport::messageLine(value), R"({"z":"a/b","a":[1,2.5,{"q":null}]})" "\n");
}

TEST(WritingJSON, InvalidUTF8IsReplacedNotThrown) {
    Json value = {{"text", std::string("ok \xff\xfe end")}};
    EXPECT_EQ(compactJSON(value), "{\"text\":\"ok \xef\xbf\xbd\xef\xbf\xbd end\"}");
    EXPECT_TRUE(Transport::messageLine(value));
}

TEST(WritingJSON, ValueWithoutJSONFormIsRefused) {
    Json value = {{"x", Json(Json::value_t::discarded)}};
    EXPECT_THROW(
        {
            try {
                compactJSON(value);
            } catch (const BridgeError& e) {
                EXPECT_STREQ(e.what(), "Not a JSON value.");
                throw;
            }
        },
        BridgeError);
    EXPECT_FALSE(Transport::messageLine(value));
}

TEST(RequestKeys, NumbersAndStringsNeverMeet) {
    EXPECT_EQ(Transport::key(7), "n:7");
    EXPECT_EQ(Transport::key("7"), "s:7");
    EXPECT_EQ(Transport::key(2.5), "n:2.5");
    EXPECT_EQ(Transport::key(7.0), "n:7");
    EXPECT_EQ(Transport::key(-1), "n:-1");
    EXPECT_EQ(Transport::key(true), "n:1");
    EXPECT_EQ(Transport::key(18446744073709551615ull), "n:18446744073709551615");
    EXPECT_EQ(Transport::key("abc"), "s:abc");
    EXPECT_EQ(Transport::key(""), "s:");
    EXPECT_NE(Transport::key(Json::array({1})), Transport::key(1));
}
