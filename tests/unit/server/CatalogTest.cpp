// The catalog's pure rules: where it is read from, the lists and prompts it
// yields, template filling, the check of a call's parameter names with its
// suggestion, and the tool results built from and read out of Studio's.
#include <gtest/gtest.h>

#include "base/BridgeError.h"
#include "server/Catalog.h"
#include "server/ToolResults.h"
#include "support/TempDir.h"

using testsupport::TempDir;
namespace Catalog = server::Catalog;
namespace ToolResults = server::ToolResults;

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

Json toolWith(const std::string& name, std::vector<std::string> properties) {
    Json props = Json::object();
    for (auto& p : properties) props[p] = {{"type", "string"}};
    return {{"name", name}, {"inputSchema", {{"type", "object"}, {"properties", props}}}};
}

const Json exportTools = Json::array({toolWith("export_video", {"path", "overwrite", "action"})});

std::optional<std::string> check(const std::string& tool, std::vector<std::string> names, const Json& tools = exportTools) {
    Json arguments = Json::object();
    for (auto& n : names) arguments[n] = 1;
    return Catalog::unknownParameters(tool, arguments, tools);
}

Json textItem(const std::string& text) { return {{"type", "text"}, {"text", text}}; }
Json withContent(Json content, bool isError = false) { return {{"content", std::move(content)}, {"isError", isError}}; }

}  // namespace

TEST(CatalogSources, EnvironmentFileThenAgentLinkThenResourcesAndAnUnreadableOneMeansNone) {
    TempDir dir;
    auto app = dir / "S.app";
    auto from = [&](const std::string& file) { return Catalog::catalogData(app, {{"VANTORIC_STUDIO_CATALOG", file}}); };
    EXPECT_FALSE(Catalog::catalogData(std::nullopt, {}));
    EXPECT_FALSE(Catalog::catalogData(app, {}));
    dir.write("S.app/Contents/Resources/studio-agent-mcp.json", "resources");
    EXPECT_EQ(from(""), "resources");
    dir.write("S.app/Contents/Resources/AgentLink/studio-agent-mcp.json", "agent link");
    EXPECT_EQ(Catalog::catalogData(app, {}), "agent link");
    EXPECT_EQ(from(dir.write("elsewhere.json", "from the environment").string()), "from the environment");
    EXPECT_FALSE(from((dir / "missing.json").string()));
    EXPECT_FALSE(from(dir.path().string()));
}

TEST(ToolList, CatalogToolsPassUnchangedAndAPlaceholderStandsInForNoToolsArray) {
    std::string catalog = R"({"tools":[{"name":"b","x-extra":[1,"/"],"inputSchema":{"type":"object"}},"odd"]})";
    EXPECT_EQ(Catalog::toolsIn(catalog), Json::parse(catalog)["tools"]);
    EXPECT_EQ(Catalog::toolsIn(R"({"tools":[]})"), Json::array());
    auto placeholder = Json::parse(R"([{"name":"studio_status","description":"Vantoric Studio is not installed or could not be found.","inputSchema":{"type":"object","properties":{}}}])");
    for (std::optional<std::string> catalog : std::vector<std::optional<std::string>>{
             std::nullopt, "", "not json", R"([{"tools":[]}])", R"({"tools":{"a":1}})", R"({"tools":"x"})", R"({})"})
        EXPECT_EQ(Catalog::toolsIn(catalog), placeholder) << catalog.value_or("(none)");
}

TEST(PromptList, OnlyAnArrayOfObjectsCountsAndListingDropsOnlyTheTemplate) {
    EXPECT_EQ(Catalog::promptsIn(R"({"prompts":[{"name":"a"},"b"]})"), Json::array());
    EXPECT_EQ(Catalog::promptsIn(R"({"prompts":{"name":"a"}})"), Json::array());
    EXPECT_EQ(Catalog::promptsIn(std::nullopt), Json::array());
    EXPECT_EQ(Catalog::promptsIn(prompts).size(), 5u);
    auto listed = Catalog::listedPromptsIn(prompts);
    ASSERT_EQ(listed.size(), 5u);
    EXPECT_EQ(listed[1], Json::parse(R"({"name":"cut","description":{"rich":true},"arguments":[{"name":"topic"}]})"));
    EXPECT_EQ(listed[0], Json::parse(R"({"name":"plain"})"));
}

TEST(GettingPrompts, TheFirstOfANameFilledAsOneUserMessageOrRefused) {
    EXPECT_EQ(Catalog::promptIn(prompts, {{"name", "cut"}, {"arguments", {{"topic", "snow"}}}}),
              Json::parse(R"({"description":{"rich":true},"messages":[{"role":"user","content":{"type":"text","text":"About snow."}}]})"));
    auto text = [](const Json& params) { return Catalog::promptIn(prompts, params)["messages"][0]["content"]["text"]; };
    EXPECT_EQ(text({{"name", "cut"}, {"arguments", {"snow"}}}), "About rain.");  // arguments not an object: ignored
    EXPECT_EQ(text({{"name", "cut"}}), "About rain.");
    EXPECT_EQ(Catalog::promptIn(prompts, {{"name", "plain"}})["description"], "");
    EXPECT_TRUE(Catalog::promptIn(prompts, {{"name", "nulldesc"}})["description"].is_null());
    for (const Json& params : {Json{{"name", "nothing"}}, Json{{"name", 3}}, Json::object(), Json{{"name", "broken"}}})
        EXPECT_EQ(messageOf([&] { Catalog::promptIn(prompts, params); }), "Unknown prompt.") << params.dump();
    EXPECT_EQ(messageOf([] { Catalog::promptIn(std::nullopt, {{"name", "plain"}}); }), "Unknown prompt.");
}

TEST(FillingTemplates, ArgumentsOrDefaultsPipesOnceAndNothingRescanned) {
    const std::string text = "Write {{tone|a calm}} copy about {{topic}}.", calm = "Write a calm copy about rain.";
    const std::vector<std::tuple<std::string, Json, std::string>> cases = {
        {text, {{"topic", "rain"}}, calm}, {text, {{"topic", "rain"}, {"tone", "   "}}, calm}, {text, {{"topic", "rain"}, {"tone", 5}}, calm},
        {text, Json::object(), "Write a calm copy about ."},
        {text, {{"topic", " rain\t"}, {"tone", "a wild"}}, "Write a wild copy about  rain\t."},
        {"[{{a||b}}]", Json::object(), "[|b]"}, {"[{{a||b}}]", {{"a", "A"}}, "[A]"}, {"[{{|x}}]", {{"x", "X"}}, "[X]"},
        {"[{{|x}}]", Json::object(), "[]"}, {"[{{a|b|c}}]", Json::object(), "[b|c]"}, {"[{{a|}}]", Json::object(), "[]"},
        {"[{{}}]", {{"", "empty name"}}, "[empty name]"}, {"[{{ spaced name |d}}]", {{" spaced name ", "S"}}, "[S]"},
        // Unclosed placeholders stay; inserted values are never scanned.
        {"Use {{x", {{"x", "1"}}, "Use {{x"}, {"{{a}} and {{b", {{"a", "A"}}, "A and {{b"}, {"{{a}}", {{"a", "{{b}}"}, {"b", "no"}}, "{{b}}"},
        {"}} {{ }}", Json::object(), "}} "}, {"{{{a}}}", {{"{a", "1"}}, "1}"},
    };
    for (const auto& [templ, arguments, filled] : cases) EXPECT_EQ(Catalog::fill(templ, arguments), filled) << templ;
}

TEST(CheckingParameters, UnknownNamesAreRefusedWithASuggestionOrTheParameters) {
    const Json bare = Json::array({toolWith("studio_status", {})});
    const Json unclear = Json::parse(R"(["not an object", {"name":"no_schema"}, {"name":"no_properties","inputSchema":{"type":"object"}},
        {"name":"properties_array","inputSchema":{"properties":["a"]}}, {"name":"export_video","inputSchema":{"properties":{"path":{}}}}])");
    const std::string listed = " Nothing was done. Its parameters: action, overwrite, path.";
    std::vector<std::tuple<std::string, std::vector<std::string>, Json, std::optional<std::string>>> cases = {
        {"export_video", {"action", "pathh"}, exportTools, R"(export_video has no parameter "pathh" (did you mean "path"?). Nothing was done.)"},
        {"export_video", {"pathh", "action", "force"}, exportTools, R"(export_video has no parameter "force", "pathh" (did you mean "path"?).)" + listed},
        {"export_video", {"action", "pth"}, exportTools, R"(export_video has no parameter "pth".)" + listed},
        {"studio_status", {"x"}, bare, R"(studio_status has no parameter "x". Nothing was done. It takes no parameters.)"},
        {"studio_status", {}, bare, std::nullopt},
        {"t", {"filePath"}, Json::array({toolWith("t", {"file_path", "name"})}),
         R"(t has no parameter "filePath" (did you mean "file_path"?). Nothing was done.)"},
        {"export_video", {"path"}, unclear, std::nullopt},
        // The first tool of a name decides.
        {"t", {"b"}, Json::array({toolWith("t", {"a"}), toolWith("t", {"b"})}), R"(t has no parameter "b". Nothing was done. Its parameters: a.)"},
    };
    // Calls that cannot be checked go on: Studio judges.
    for (std::string tool : {"no_schema", "no_properties", "properties_array", "not_in_catalog"})
        cases.push_back({tool, {"anything"}, unclear, std::nullopt});
    for (const auto& [tool, names, tools, refusal] : cases) EXPECT_EQ(check(tool, names, tools), refusal) << tool;
    EXPECT_EQ(Catalog::unknownParameters("export_video", "not an object", unclear), std::nullopt);
}

TEST(Suggestions, LettersAndNumbersAsWholeCharactersWithAToleranceThatGrowsWithTheName) {
    const std::vector<std::tuple<std::string, std::vector<std::string>, std::optional<std::string>>> cases = {
        {"filePath", {"file_path", "overwrite"}, "file_path"}, {"ID", {"id"}, "id"},  // case and separators do not count
        {"mode", {"model", "mods"}, "mods"}, {"mode", {"mods", "modx"}, "mods"},  // equal distance: the shorter name
        // 3 letters: exact only; 4 letters, 2 edits: none; 5, 1: found; 6, 3: none; 7, 2: found.
        {"pat", {"path"}, std::nullopt}, {"paht", {"path"}, std::nullopt}, {"pathh", {"path"}, "path"},
        {"overwrit", {"overwrite"}, "overwrite"}, {"ovrwrt", {"overwrite"}, std::nullopt}, {"ovrwrte", {"overwrite"}, "overwrite"},
        {"__", {"a_b"}, std::nullopt}, {"", {""}, std::nullopt}, {"path", {}, std::nullopt},
        // ß and ö are letters; composed and decomposed forms are one
        // character; symbols are not letters.
        {"Größe", {"farbe", "größe"}, "größe"}, {"grösse", {"größe"}, "größe"}, {"ÉCRAN", {"écran"}, "écran"},
        {"caf\xc3\xa9", {"cafe\xcc\x81"}, "cafe\xcc\x81"}, {"名前", {"名前_", "名"}, "名前_"}, {"path🙂", {"path"}, "path"},
        // Both one edit away: the later wins only by having fewer
        // characters, though it has as many bytes or more.
        {"abcd", {"abcx__", "abc\xc3\xa9_"}, "abc\xc3\xa9_"}, {"abcd", {"abcx__", "abce\xcc\x81_"}, "abce\xcc\x81_"},
        {"abcd", {"abcx_", "abcy"}, "abcy"},
    };
    for (const auto& [name, among, suggested] : cases) EXPECT_EQ(Catalog::closest(name, among), suggested) << name;
    EXPECT_EQ(check("t", {"Größe"}, Json::array({toolWith("t", {"größe", "farbe"})})),
              R"(t has no parameter "Größe" (did you mean "größe"?). Nothing was done.)");
}

TEST(BuildingToolResults, ErrorAndResultShapes) {
    EXPECT_EQ(ToolResults::toolError("No file at /x."),
              Json::parse(R"({"content":[{"type":"text","text":"No file at /x."}],"isError":true})"));
    EXPECT_EQ(ToolResults::result({{"savedTo", "/a/b.mp4"}, {"n", 12.5}}),
              Json::parse(R"({"content":[{"type":"text","text":"{\"savedTo\":\"/a/b.mp4\",\"n\":12.5}"}],"isError":false})"));
    EXPECT_EQ(ToolResults::result({{"x", Json(Json::value_t::discarded)}})["content"][0]["text"], "{}");
}

TEST(ReadingPayloads, OnlyTheLastTextItemOfAResultThatIsNoErrorIsTried) {
    auto result = withContent({textItem(R"({"phase":"running"})"), {{"type", "image"}}, textItem(R"({"phase":"completed"})")});
    EXPECT_EQ(ToolResults::payload(result), Json::parse(R"({"phase":"completed"})"));
    EXPECT_EQ(ToolResults::payload(ToolResults::result({{"a", 1}})), Json::parse(R"({"a":1})"));  // what the bridge builds
    EXPECT_TRUE(ToolResults::payload({{"content", {textItem("{}")}}, {"isError", "true"}}));
    for (const Json& none : {withContent({textItem(R"({"phase":"completed"})"), textItem("not JSON")}),
                             withContent({textItem(R"({"a":1})"), {{"type", "text"}, {"text", 5}}}), withContent({textItem("[1,2]")}),
                             withContent({textItem("{}")}, true), Json{{"content", textItem("{}")}},
                             withContent({textItem("{}"), "loose string"}), withContent(Json::array()), Json::array()})
        EXPECT_FALSE(ToolResults::payload(none)) << none.dump();
}
