// Opening a project folder: resolved and checked here, opened by Studio, and
// handed to Studio through the workspace when Studio needs a grant.
#include "StudioHarness.h"

using namespace testsupport;
namespace fs = std::filesystem;

namespace {

const Json opened = Json{{"opened", true}, {"project", {{"id", "p1"}}}};
const Json grantNeeded = Json{{"needsGrant", true}, {"path", "x"}};

std::string noProject(const fs::path& path) {
    return "No project at " + path.string() + ". Pass a .vantoric folder, an id from studio_status, or create one.";
}

}  // namespace

TEST(OpeningProjects, FolderReachesStudioAsItsAbsolutePathAndItsAnswerComesBack) {
    StudioHarness studio;
    fs::create_directories(studio.home() / "Movies/Trip.vantoric");
    studio.onCall([](const Json&) { return studioResult(opened); });
    auto reply = studio.call(1, "project", {{"action", "open"}, {"path", "~/Movies/../Movies/Trip.vantoric/"}, {"name", "n"}});
    EXPECT_EQ(reply["result"], studioResult(opened));
    auto calls = studio.calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0]["name"], "project");
    EXPECT_EQ(calls[0]["arguments"],
              Json({{"action", "open"}, {"path", (studio.home() / "Movies/Trip.vantoric").string()}, {"name", "n"}}));
    EXPECT_TRUE(studio.launcher.openedFiles().empty());
}

TEST(OpeningProjects, FileOrNothingAtThePathIsRefusedWithoutAskingStudio) {
    StudioHarness studio;
    studio.file("Trip.vantoric", "a file");
    EXPECT_EQ(toolText(studio.call(1, "project", {{"action", "open"}, {"path", "Trip.vantoric"}})),
              noProject(studio.work() / "Trip.vantoric"));
    EXPECT_EQ(toolText(studio.call(2, "project", {{"action", "open"}, {"path", "Gone.vantoric"}})),
              noProject(studio.work() / "Gone.vantoric"));
    EXPECT_TRUE(studio.calls().empty());
}

TEST(OpeningProjects, PathThatIsNotAStringIsForwardedUnchanged) {
    StudioHarness studio;
    Json arguments = {{"action", "open"}, {"path", 3}};
    studio.call(1, "project", arguments);
    ASSERT_EQ(studio.calls().size(), 1u);
    EXPECT_EQ(studio.calls()[0]["arguments"], arguments);
}

TEST(OpeningProjects, AnswerWithoutATrueNeedsGrantIsReturnedAsStudioSentIt) {
    for (Json answer : {studioResult({{"needsGrant", false}}), studioResult({{"needsGrant", "true"}}),
                        studioRefusal(R"({"needsGrant":true})")}) {
        StudioHarness studio;
        fs::create_directories(studio.work() / "Trip.vantoric");
        studio.onCall([answer](const Json&) { return answer; });
        auto reply = studio.call(1, "project", {{"action", "open"}, {"path", "Trip.vantoric"}});
        EXPECT_EQ(reply["result"], answer);
        EXPECT_EQ(studio.calls().size(), 1u);
        EXPECT_TRUE(studio.launcher.openedFiles().empty());
    }
}

TEST(OpeningProjects, NeededGrantGivesOneWorkspaceOpenAndOneSecondRequest) {
    StudioHarness studio;
    fs::path folder = studio.work() / "Trip.vantoric";
    fs::create_directories(folder);
    // Studio still needs a grant the second time: that is not acted on.
    studio.onCall([](const Json&) { return studioResult(grantNeeded); });
    auto reply = studio.call(1, "project", {{"action", "open"}, {"path", "Trip.vantoric"}});
    EXPECT_EQ(reply["result"], studioResult(grantNeeded));

    auto opened = studio.launcher.openedFiles();
    ASSERT_EQ(opened.size(), 1u);
    EXPECT_EQ(opened[0].first, std::vector<fs::path>{folder});
    EXPECT_EQ(opened[0].second, fakeStudio);
    auto calls = studio.calls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[1]["arguments"], Json({{"action", "open"}, {"path", folder.string()}, {"await_open", true}}));
}

TEST(OpeningProjects, SecondAnswerIsWhatTheAgentSees) {
    StudioHarness studio;
    fs::create_directories(studio.work() / "Trip.vantoric");
    studio.onCall([](const Json& params) {
        return params["arguments"].contains("await_open") ? studioResult(opened) : studioResult(grantNeeded);
    });
    EXPECT_EQ(studio.call(1, "project", {{"action", "open"}, {"path", "Trip.vantoric"}})["result"], studioResult(opened));
}

TEST(OpeningProjects, GrantCannotBeGivenWithoutStudioOrWhenTheWorkspaceFails) {
    {
        StudioHarness studio(std::nullopt);
        fs::create_directories(studio.work() / "Trip.vantoric");
        studio.onCall([](const Json&) { return studioResult(grantNeeded); });
        auto reply = studio.call(1, "project", {{"action", "open"}, {"path", "Trip.vantoric"}});
        EXPECT_EQ(toolText(reply), "Vantoric Studio could not be found on this Mac.");
        EXPECT_EQ(studio.calls().size(), 1u);
        EXPECT_TRUE(studio.launcher.openedFiles().empty());
    }
    {
        StudioHarness studio;
        fs::create_directories(studio.work() / "Trip.vantoric");
        studio.onCall([](const Json&) { return studioResult(grantNeeded); });
        studio.launcher.failure = platform::SystemError{5, "The bus said no."};
        auto reply = studio.call(1, "project", {{"action", "open"}, {"path", "Trip.vantoric"}});
        EXPECT_EQ(toolText(reply), "The bus said no.");
        EXPECT_EQ(studio.calls().size(), 1u);
    }
}
