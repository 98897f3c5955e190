#include <gtest/gtest.h>

#include "ServerHarness.h"
#include "server/SessionSetup.h"

using namespace testsupport;
namespace SessionSetup = server::SessionSetup;

namespace {

const std::string subject(StudioLocation::subjectIdentifier);
const std::string notFound =
    "Vantoric Studio could not be found on this Mac. Install it from vantoric.studio, then restart this MCP server.";

Json initialize(const Json& params, std::optional<std::string> catalog = studioCatalog(),
                std::optional<std::filesystem::path> app = fakeStudio, const std::string& identifier = release) {
    FakeBundles bundles;
    bundles.add(fakeStudio, identifier, "3.2.1");
    bundles.add("/Applications/Unversioned.app", identifier);
    return SessionSetup::initializeResult(params, app, catalog, identifier, bundles);
}

}  // namespace

TEST(AgreeingAProtocol, KnownVersionsAreEchoedEverythingElseGetsTheNewest) {
    // The agents ask for 2025-11-25; the stateless revision is never agreed
    // by a handshake.
    const std::vector<std::pair<Json, std::string>> cases = {
        {"2025-11-25", "2025-11-25"}, {"2025-06-18", "2025-06-18"}, {"2025-03-26", "2025-03-26"},
        {"2024-11-05", "2024-11-05"}, {"2026-07-28", "2025-11-25"}, {"2099-01-01", "2025-11-25"},
        {"2025-03-26 ", "2025-11-25"}, {20250326, "2025-11-25"},      {nullptr, "2025-11-25"}};
    for (const auto& [asked, agreed] : cases) {
        Json params = asked.is_null() ? Json::object() : Json{{"protocolVersion", asked}};
        EXPECT_EQ(initialize(params)["protocolVersion"], agreed) << asked.dump();
    }
}

TEST(AgreeingAProtocol, ResultHasExactlyTheAnnouncedMembers) {
    auto result = initialize(Json::object());
    std::vector<std::string> members;
    for (auto& item : result.items()) members.push_back(item.key());
    EXPECT_EQ(members, (std::vector<std::string>{"protocolVersion", "capabilities", "serverInfo", "instructions"}));
    EXPECT_EQ(result["capabilities"], Json::parse(R"({"tools":{"listChanged":false},"prompts":{"listChanged":false}})"));
    EXPECT_EQ(result["serverInfo"], Json::parse(R"({"name":"vantoric-studio","title":"Vantoric Studio","version":"3.2.1"})"));
    EXPECT_EQ(result["instructions"], Json::parse(studioCatalog())["instructions"]);
}

TEST(NamingTheAgent, TitleThenNameAndEmptyKeepsTheOld) {
    auto name = [](const Json& info) { return SessionSetup::clientNameIn({{"clientInfo", info}}); };
    EXPECT_EQ(name({{"name", "claude-code"}, {"title", "Claude Code"}}), "Claude Code");
    EXPECT_EQ(name({{"name", "codex"}}), "codex");
    EXPECT_EQ(name({{"name", "codex"}, {"title", 3}}), "codex");
    for (const Json& none : {Json{{"name", "codex"}, {"title", ""}}, Json{{"name", ""}}, Json("claude")})
        EXPECT_EQ(name(none), std::nullopt) << none.dump();
    EXPECT_EQ(SessionSetup::clientNameIn(Json::object()), std::nullopt);
}

TEST(WithoutStudio, CompleteAnswerWithVersionZeroOrTheNotFoundInstructions) {
    auto result = initialize({{"protocolVersion", "2025-03-26"}}, std::nullopt, std::nullopt);
    EXPECT_EQ(result["protocolVersion"], "2025-03-26");
    EXPECT_EQ(result["serverInfo"], Json::parse(R"({"name":"vantoric-studio","title":"Vantoric Studio","version":"0"})"));
    EXPECT_EQ(result["instructions"], notFound);
    // The bundle cannot tell its version.
    for (const char* app : {"/Applications/Missing.app", "/Applications/Unversioned.app"})
        EXPECT_EQ(initialize({}, studioCatalog(), app)["serverInfo"]["version"], "0") << app;
    // Only a top-level instructions string counts, and the last one wins.
    for (std::string catalog : {R"([{"instructions":"x"}])", R"({"instructions":5})", "not json", R"({"tools":[]})",
                                R"({"tools":[{"instructions":"nested"}]})", R"({"instructions":"first","instructions":5})",
                                R"({"instructions":"fine"} trailing)"})
        EXPECT_EQ(initialize({}, catalog)["instructions"], notFound) << catalog;
    EXPECT_EQ(initialize({}, R"({"instructions":{"a":"b"},"instructions":"last"})")["instructions"], "last");
}

TEST(SubjectBuild, NameTitleAndAdaptedInstructions) {
    std::string catalog = R"({"instructions":"Use the \"vantoric-studio\" server (not vantoric-studio-beta); \"vantoric-studio\" again, \"vantoric-studio-x\" stays."})";
    auto result = initialize({}, catalog, fakeStudio, subject);
    EXPECT_EQ(result["serverInfo"], Json::parse(R"j({"name":"studio-subject","title":"Vantoric Studio (subject build)","version":"3.2.1"})j"));
    EXPECT_EQ(result["instructions"],
              R"(Use the "studio-subject" server (not vantoric-studio-beta); "studio-subject" again, "vantoric-studio-x" stays.)");
    // The release build passes the text on untouched.
    EXPECT_EQ(initialize({}, catalog)["instructions"], Json::parse(catalog)["instructions"]);
}
