#include <gtest/gtest.h>

#include "server/ToolResults.h"

namespace ToolResults = server::ToolResults;

namespace {
Json textItem(const std::string& text) { return {{"type", "text"}, {"text", text}}; }
Json withContent(Json content, bool isError = false) { return {{"content", std::move(content)}, {"isError", isError}}; }
}  // namespace

TEST(BuildingToolResults, ErrorAndResultShapes) {
    EXPECT_EQ(ToolResults::toolError("No file at /x."),
              Json::parse(R"({"content":[{"type":"text","text":"No file at /x."}],"isError":true})"));
    EXPECT_EQ(ToolResults::result({{"savedTo", "/a/b.mp4"}, {"n", 12.5}}),
              Json::parse(R"({"content":[{"type":"text","text":"{\"savedTo\":\"/a/b.mp4\",\"n\":12.5}"}],"isError":false})"));
    EXPECT_EQ(ToolResults::result({{"x", Json(Json::value_t::discarded)}})["content"][0]["text"], "{}");
}

TEST(ReadingPayloads, TheLastTextItemCarriesTheObject) {
    auto result = withContent({textItem(R"({"phase":"running"})"), {{"type", "image"}}, textItem(R"({"phase":"completed"})")});
    EXPECT_EQ(ToolResults::payload(result), Json::parse(R"({"phase":"completed"})"));
    // Round trip with what the bridge builds itself.
    EXPECT_EQ(ToolResults::payload(ToolResults::result({{"a", 1}})), Json::parse(R"({"a":1})"));
}

TEST(ReadingPayloads, OnlyTheLastTextItemIsTried) {
    EXPECT_FALSE(ToolResults::payload(withContent({textItem(R"({"phase":"completed"})"), textItem("not JSON")})));
    EXPECT_FALSE(ToolResults::payload(withContent({textItem(R"({"a":1})"), {{"type", "text"}, {"text", 5}}})));
    EXPECT_FALSE(ToolResults::payload(withContent({textItem("[1,2]")})));
}

TEST(ReadingPayloads, ErrorsAndMalformedContentHaveNone) {
    EXPECT_FALSE(ToolResults::payload(withContent({textItem("{}")}, true)));
    EXPECT_TRUE(ToolResults::payload({{"content", {textItem("{}")}}, {"isError", "true"}}));
    EXPECT_FALSE(ToolResults::payload({{"content", textItem("{}")}}));
    EXPECT_FALSE(ToolResults::payload(withContent({textItem("{}"), "loose string"})));
    EXPECT_FALSE(ToolResults::payload(withContent(Json::array())));
    EXPECT_FALSE(ToolResults::payload(Json::array()));
}
