#include <gtest/gtest.h>

#include "base/BridgeError.h"
#include "server/Catalog.h"
#include "support/TempDir.h"

using testsupport::TempDir;
namespace Catalog = server::Catalog;

namespace {

std::string messageOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const BridgeError& e) {
        return e.what();
    }
    return "(nothing thrown)";
}

const std::string prompts = R"({"prompts":[
  {"name":"plain","template":"Just text."},
  {"name":"cut","description":{"rich":true},"arguments":[{"name":"topic"}],"template":"About {{topic|rain}}."},
  {"name":"broken","description":"no template"},
  {"name":"cut","template":"second of the same name"},
  {"name":"nulldesc","description":null,"template":"x"}]})";

}  // namespace

TEST(CatalogSources, EnvironmentFileComesFirst) {
    TempDir dir;
    auto file = dir.write("elsewhere.json", "from the environment");
    dir.write("S.app/Contents/Resources/AgentLink/studio-agent-mcp.json", "from the bundle");
    EXPECT_EQ(Catalog::catalogData(dir / "S.app", {{"VANTORIC_STUDIO_CATALOG", file.string()}}), "from the environment");
}

TEST(CatalogSources, UnreadableEnvironmentFileMeansNoCatalogAtAll) {
    TempDir dir;
    dir.write("S.app/Contents/Resources/AgentLink/studio-agent-mcp.json", "from the bundle");
    EXPECT_FALSE(Catalog::catalogData(dir / "S.app", {{"VANTORIC_STUDIO_CATALOG", (dir / "missing.json").string()}}));
    EXPECT_FALSE(Catalog::catalogData(dir / "S.app", {{"VANTORIC_STUDIO_CATALOG", dir.path().string()}}));
}

TEST(CatalogSources, BundleAgentLinkFolderThenResources) {
    TempDir dir;
    dir.write("S.app/Contents/Resources/studio-agent-mcp.json", "resources");
    EXPECT_EQ(Catalog::catalogData(dir / "S.app", {{"VANTORIC_STUDIO_CATALOG", ""}}), "resources");
    dir.write("S.app/Contents/Resources/AgentLink/studio-agent-mcp.json", "agent link");
    EXPECT_EQ(Catalog::catalogData(dir / "S.app", {}), "agent link");
}

TEST(CatalogSources, NoBundleNoCatalog) {
    TempDir dir;
    EXPECT_FALSE(Catalog::catalogData(std::nullopt, {}));
    EXPECT_FALSE(Catalog::catalogData(dir / "Empty.app", {}));
}

TEST(ToolList, CatalogToolsPassUnchanged) {
    std::string catalog = R"({"tools":[{"name":"b","x-extra":[1,"/"],"inputSchema":{"type":"object"}},"odd"]})";
    EXPECT_EQ(Catalog::toolsIn(catalog), Json::parse(catalog)["tools"]);
}

TEST(ToolList, PlaceholderWhenThereIsNoToolsArray) {
    auto placeholder = Json::parse(R"([{"name":"studio_status","description":"Vantoric Studio is not installed or could not be found.","inputSchema":{"type":"object","properties":{}}}])");
    for (std::optional<std::string> catalog : std::vector<std::optional<std::string>>{
             std::nullopt, "", "not json", R"([{"tools":[]}])", R"({"tools":{"a":1}})", R"({"tools":"x"})", R"({})"})
        EXPECT_EQ(Catalog::toolsIn(catalog), placeholder) << catalog.value_or("(none)");
    EXPECT_EQ(Catalog::toolsIn(R"({"tools":[]})"), Json::array());
}

TEST(PromptList, OnlyAnArrayOfObjectsCounts) {
    EXPECT_EQ(Catalog::promptsIn(R"({"prompts":[{"name":"a"},"b"]})"), Json::array());
    EXPECT_EQ(Catalog::promptsIn(R"({"prompts":{"name":"a"}})"), Json::array());
    EXPECT_EQ(Catalog::promptsIn(std::nullopt), Json::array());
    EXPECT_EQ(Catalog::promptsIn(prompts).size(), 5u);
}

TEST(PromptList, ListingDropsOnlyTheTemplate) {
    auto listed = Catalog::listedPromptsIn(prompts);
    ASSERT_EQ(listed.size(), 5u);
    EXPECT_EQ(listed[1], Json::parse(R"({"name":"cut","description":{"rich":true},"arguments":[{"name":"topic"}]})"));
    EXPECT_EQ(listed[0], Json::parse(R"({"name":"plain"})"));
}

TEST(GettingPrompts, FilledTemplateAsOneUserMessage) {
    auto answer = Catalog::promptIn(prompts, {{"name", "cut"}, {"arguments", {{"topic", "snow"}}}});
    EXPECT_EQ(answer, Json::parse(R"({"description":{"rich":true},"messages":[{"role":"user","content":{"type":"text","text":"About snow."}}]})"));
}

TEST(GettingPrompts, MissingDescriptionIsEmptyAndNullStaysNull) {
    EXPECT_EQ(Catalog::promptIn(prompts, {{"name", "plain"}})["description"], "");
    EXPECT_TRUE(Catalog::promptIn(prompts, {{"name", "nulldesc"}})["description"].is_null());
}

TEST(GettingPrompts, ArgumentsThatAreNotAnObjectAreIgnored) {
    auto answer = Catalog::promptIn(prompts, {{"name", "cut"}, {"arguments", {"snow"}}});
    EXPECT_EQ(answer["messages"][0]["content"]["text"], "About rain.");
}

TEST(GettingPrompts, UnknownNamesAndMissingTemplatesAreRefused) {
    EXPECT_EQ(messageOf([] { Catalog::promptIn(prompts, {{"name", "nothing"}}); }), "Unknown prompt.");
    EXPECT_EQ(messageOf([] { Catalog::promptIn(prompts, {{"name", 3}}); }), "Unknown prompt.");
    EXPECT_EQ(messageOf([] { Catalog::promptIn(prompts, Json::object()); }), "Unknown prompt.");
    EXPECT_EQ(messageOf([] { Catalog::promptIn(prompts, {{"name", "broken"}}); }), "Unknown prompt.");
    EXPECT_EQ(messageOf([] { Catalog::promptIn(std::nullopt, {{"name", "plain"}}); }), "Unknown prompt.");
    // The first prompt of a name decides.
    EXPECT_EQ(Catalog::promptIn(prompts, {{"name", "cut"}})["messages"][0]["content"]["text"], "About rain.");
}

TEST(FillingTemplates, ArgumentsOrDefaults) {
    const std::string text = "Write {{tone|a calm}} copy about {{topic}}.";
    EXPECT_EQ(Catalog::fill(text, {{"topic", "rain"}}), "Write a calm copy about rain.");
    EXPECT_EQ(Catalog::fill(text, {{"topic", "rain"}, {"tone", "   "}}), "Write a calm copy about rain.");
    EXPECT_EQ(Catalog::fill(text, {{"topic", "rain"}, {"tone", 5}}), "Write a calm copy about rain.");
    EXPECT_EQ(Catalog::fill(text, Json::object()), "Write a calm copy about .");
    EXPECT_EQ(Catalog::fill(text, {{"topic", " rain\t"}, {"tone", "a wild"}}), "Write a wild copy about  rain\t.");
}

TEST(FillingTemplates, PipesSplitNameFromDefaultOnce) {
    EXPECT_EQ(Catalog::fill("[{{a||b}}]", Json::object()), "[|b]");
    EXPECT_EQ(Catalog::fill("[{{a||b}}]", {{"a", "A"}}), "[A]");
    EXPECT_EQ(Catalog::fill("[{{|x}}]", {{"x", "X"}}), "[X]");
    EXPECT_EQ(Catalog::fill("[{{|x}}]", Json::object()), "[]");
    EXPECT_EQ(Catalog::fill("[{{a|b|c}}]", Json::object()), "[b|c]");
    EXPECT_EQ(Catalog::fill("[{{a|}}]", Json::object()), "[]");
    EXPECT_EQ(Catalog::fill("[{{}}]", {{"", "empty name"}}), "[empty name]");
    EXPECT_EQ(Catalog::fill("[{{ spaced name |d}}]", {{" spaced name ", "S"}}), "[S]");
}

TEST(FillingTemplates, UnclosedPlaceholdersStayAndValuesAreNotRescanned) {
    EXPECT_EQ(Catalog::fill("Use {{x", {{"x", "1"}}), "Use {{x");
    EXPECT_EQ(Catalog::fill("{{a}} and {{b", {{"a", "A"}}), "A and {{b");
    EXPECT_EQ(Catalog::fill("{{a}}", {{"a", "{{b}}"}, {"b", "no"}}), "{{b}}");
    EXPECT_EQ(Catalog::fill("}} {{ }}", Json::object()), "}} ");
    EXPECT_EQ(Catalog::fill("{{{a}}}", {{"{a", "1"}}), "1}");
}
