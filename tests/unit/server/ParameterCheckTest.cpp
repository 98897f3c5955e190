#include <gtest/gtest.h>

#include "server/Catalog.h"

namespace Catalog = server::Catalog;

namespace {

Json toolWith(const std::string& name, std::vector<std::string> properties) {
    Json props = Json::object();
    for (auto& p : properties) props[p] = {{"type", "string"}};
    return {{"name", name}, {"inputSchema", {{"type", "object"}, {"properties", props}}}};
}

Json arguments(std::vector<std::string> names) {
    Json out = Json::object();
    for (auto& n : names) out[n] = 1;
    return out;
}

const Json exportTools = Json::array({toolWith("export_video", {"path", "overwrite", "action"})});

std::optional<std::string> check(const std::string& tool, std::vector<std::string> names, const Json& tools = exportTools) {
    return Catalog::unknownParameters(tool, arguments(std::move(names)), tools);
}

}  // namespace

TEST(CheckingParameters, OneNearMissEndsAfterTheSuggestion) {
    EXPECT_EQ(check("export_video", {"action", "pathh"}),
              R"(export_video has no parameter "pathh" (did you mean "path"?). Nothing was done.)");
}

TEST(CheckingParameters, SeveralUnknownNamesAreSortedAndTheParametersListed) {
    EXPECT_EQ(check("export_video", {"pathh", "action", "force"}),
              R"(export_video has no parameter "force", "pathh" (did you mean "path"?). Nothing was done. Its parameters: action, overwrite, path.)");
}

TEST(CheckingParameters, NoSuggestionListsTheParameters) {
    EXPECT_EQ(check("export_video", {"action", "pth"}),
              R"(export_video has no parameter "pth". Nothing was done. Its parameters: action, overwrite, path.)");
}

TEST(CheckingParameters, ToolWithoutParameters) {
    Json tools = Json::array({toolWith("studio_status", {})});
    EXPECT_EQ(check("studio_status", {"x"}, tools), R"(studio_status has no parameter "x". Nothing was done. It takes no parameters.)");
    EXPECT_EQ(check("studio_status", {}, tools), std::nullopt);
}

TEST(CheckingParameters, CallsThatCannotBeCheckedGoOn) {
    Json tools = Json::parse(R"([
        "not an object",
        {"name":"no_schema"},
        {"name":"no_properties","inputSchema":{"type":"object"}},
        {"name":"properties_array","inputSchema":{"properties":["a"]}},
        {"name":"export_video","inputSchema":{"properties":{"path":{}}}}])");
    EXPECT_EQ(check("no_schema", {"anything"}, tools), std::nullopt);
    EXPECT_EQ(check("no_properties", {"anything"}, tools), std::nullopt);
    EXPECT_EQ(check("properties_array", {"anything"}, tools), std::nullopt);
    EXPECT_EQ(check("not_in_catalog", {"anything"}, tools), std::nullopt);
    EXPECT_EQ(check("export_video", {"path"}, tools), std::nullopt);
    EXPECT_EQ(Catalog::unknownParameters("export_video", "not an object", tools), std::nullopt);
    // The first tool of a name decides.
    Json twice = Json::array({toolWith("t", {"a"}), toolWith("t", {"b"})});
    EXPECT_TRUE(check("t", {"b"}, twice));
}

TEST(Suggestions, CaseAndSeparatorsDoNotCount) {
    EXPECT_EQ(Catalog::closest("filePath", {"file_path", "overwrite"}), "file_path");
    EXPECT_EQ(check("t", {"filePath"}, Json::array({toolWith("t", {"file_path", "name"})})),
              R"(t has no parameter "filePath" (did you mean "file_path"?). Nothing was done.)");
    EXPECT_EQ(Catalog::closest("ID", {"id"}), "id");
}

TEST(Suggestions, EqualDistanceGoesToTheShorterName) {
    EXPECT_EQ(Catalog::closest("mode", {"model", "mods"}), "mods");
    EXPECT_EQ(Catalog::closest("mode", {"mods", "modx"}), "mods");
}

TEST(Suggestions, ToleranceGrowsWithTheLengthOfTheName) {
    EXPECT_EQ(Catalog::closest("pat", {"path"}), std::nullopt);   // 3 letters: exact only
    EXPECT_EQ(Catalog::closest("paht", {"path"}), std::nullopt);  // 4 letters, 2 edits
    EXPECT_EQ(Catalog::closest("pathh", {"path"}), "path");       // 5 letters, 1 edit
    EXPECT_EQ(Catalog::closest("overwrit", {"overwrite"}), "overwrite");
    EXPECT_EQ(Catalog::closest("ovrwrt", {"overwrite"}), std::nullopt);  // 6 letters, 3 edits
    EXPECT_EQ(Catalog::closest("ovrwrte", {"overwrite"}), "overwrite");  // 7 letters, 2 edits
}

TEST(Suggestions, NoLettersOrNoCandidatesNoSuggestion) {
    EXPECT_EQ(Catalog::closest("__", {"a_b"}), std::nullopt);
    EXPECT_EQ(Catalog::closest("", {""}), std::nullopt);
    EXPECT_EQ(Catalog::closest("path", {}), std::nullopt);
}

TEST(Suggestions, LettersBeyondASCII) {
    // ß and ö are letters; "Größe" lower-cases to the candidate exactly.
    EXPECT_EQ(Catalog::closest("Größe", {"farbe", "größe"}), "größe");
    EXPECT_EQ(Catalog::closest("grösse", {"größe"}), "größe");
    EXPECT_EQ(Catalog::closest("ÉCRAN", {"écran"}), "écran");
    // Composed and decomposed forms are one character.
    EXPECT_EQ(Catalog::closest("caf\xc3\xa9", {"cafe\xcc\x81"}), "cafe\xcc\x81");
    EXPECT_EQ(Catalog::closest("名前", {"名前_", "名"}), "名前_");
    // Symbols are not letters.
    EXPECT_EQ(Catalog::closest("path🙂", {"path"}), "path");
    EXPECT_EQ(check("t", {"Größe"}, Json::array({toolWith("t", {"größe", "farbe"})})),
              R"(t has no parameter "Größe" (did you mean "größe"?). Nothing was done.)");
}

TEST(Suggestions, CharacterCountOfTheFullNameBreaksTies) {
    // Both one edit from "abcd". The later candidate wins only by having
    // fewer characters, though it has as many bytes or more.
    EXPECT_EQ(Catalog::closest("abcd", {"abcx__", "abc\xc3\xa9_"}), "abc\xc3\xa9_");
    EXPECT_EQ(Catalog::closest("abcd", {"abcx__", "abce\xcc\x81_"}), "abce\xcc\x81_");
    EXPECT_EQ(Catalog::closest("abcd", {"abcx_", "abcy"}), "abcy");
}
