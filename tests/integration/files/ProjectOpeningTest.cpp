// Opening projects end to end: a folder Studio may open at once, one it
// needs a grant for (handed over on the bus), a file, and a number.
#include "FileSession.h"

using namespace filestest;

using OpeningProjects = FileTools;

TEST_F(OpeningProjects, FolderOutsideStudioIsHandedOverOnceAndAskedForAgain) {
    FileSession session;
    session.start(false);
    fs::path folder = session.user() / "Elsewhere/Trip.vantoric";
    fs::create_directories(folder);
    auto result = session.call(1, "project", {{"action", "open"}, {"path", "~/Elsewhere/../Elsewhere/Trip.vantoric"}});
    ASSERT_FALSE(FileSession::isError(result)) << result.dump();
    EXPECT_EQ(FileSession::payload(result)["opened"], true);

    auto opens = session.studioEvents("open");
    ASSERT_EQ(opens.size(), 1u);
    EXPECT_EQ(opens[0]["via"], "bus");
    EXPECT_EQ(opens[0]["granted"], json::array({folder.string()}));
    auto asked = session.forwarded("project");
    ASSERT_EQ(asked.size(), 2u);
    EXPECT_EQ(asked[0], json({{"action", "open"}, {"path", folder.string()}}));
    EXPECT_EQ(asked[1], json({{"action", "open"}, {"path", folder.string()}, {"await_open", true}}));
    EXPECT_TRUE(session.bridge().waitForStderr("vantoric-studio-mcp: " + folder.string() +
                                               " is outside Studio's sandbox; opening it with Studio through Launch "
                                               "Services\n"));
}

TEST_F(OpeningProjects, FolderStudioMayOpenIsOpenedWithoutAHandOver) {
    FileSession session;
    session.start();
    session.call(1, "project", {{"action", "close"}});
    auto result = session.call(2, "project", {{"action", "open"}, {"path", "Projects/Trip.vantoric"}});
    ASSERT_FALSE(FileSession::isError(result)) << result.dump();
    EXPECT_EQ(FileSession::payload(result)["project"]["name"], "Trip");
    EXPECT_TRUE(session.studioEvents("open").empty());
    EXPECT_EQ(session.forwarded("project").back(),
              json({{"action", "open"}, {"path", (session.work() / "Projects/Trip.vantoric").string()}}));
}

TEST_F(OpeningProjects, FileIsRefusedHereAndANumberIsStudiosToJudge) {
    FileSession session;
    session.start(false);
    session.write(session.work() / "Notes.vantoric", "a file");
    auto file = session.call(1, "project", {{"action", "open"}, {"path", "Notes.vantoric"}});
    EXPECT_EQ(LinkSession::text(file), "No project at " + (session.work() / "Notes.vantoric").string() +
                                           ". Pass a .vantoric folder, an id from studio_status, or create one.");
    EXPECT_TRUE(session.forwarded("project").empty());

    session.call(2, "project", {{"action", "open"}, {"path", 7}});
    EXPECT_EQ(session.forwarded("project"), std::vector<json>{json({{"action", "open"}, {"path", 7}})});
    EXPECT_TRUE(session.studioEvents("open").empty());
}
