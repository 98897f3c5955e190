// Opening a project folder when Studio answers what the simulator never
// does: no grant needed after all, a grant needed twice, no Studio to hand
// the folder to, a workspace that fails.
#include "StudioHarness.h"

using namespace testsupport;
namespace fs = std::filesystem;

namespace {

const Json grantNeeded = Json{{"needsGrant", true}, {"path", "x"}};

}  // namespace

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
