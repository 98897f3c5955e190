// The agent's paths end to end: files uploaded and Studio handed the uploads
// instead, paths that name no regular file or are not UTF-8, project folders
// opened by Studio or handed over on the bus, and the progress meanwhile.
#include <sys/stat.h>

#include "integration/server/BridgeSession.h"

using namespace testsupport;

TEST(AgentPaths, FilesAreUploadedAndStudioSeesOnlyTheUploads) {
    BridgeSession session;
    session.start();
    const fs::path work = session.home();
    writeFile(work / "media/clip.mov", "relative");
    writeFile(session.user() / "Movies/trip.mov", "in the home folder");
    writeFile(work / "other/take.mov", "dotted");
    auto result = session.call(1, "import_media", {{"paths", {"media/clip.mov", "~/Movies/trip.mov", (work / "media/../other/./take.mov").string()}},
                                                   {"add_to_timeline", false}});
    EXPECT_EQ(BridgeSession::payload(result)["addedToTimeline"], false) << result.dump();
    json uploads = json::array(), sizes = json::array();
    for (auto& event : session.studioEvents("upload")) {
        uploads.push_back(json{{"uploadId", event["uploadId"]}, {"name", event["name"]}});
        sizes.push_back(json{event["name"], event["bytes"]});
    }
    EXPECT_EQ(sizes, json::parse(R"([["clip.mov",8],["trip.mov",18],["take.mov",6]])"));
    EXPECT_EQ(session.forwarded("import_media"), std::vector<json>{json({{"uploads", uploads}, {"add_to_timeline", false}})});

    // Every path is checked before anything is uploaded, and up to twenty at once.
    auto missing = session.call(2, "import_media", {{"paths", {"media/clip.mov", "media/../gone/./x.mov"}}});
    EXPECT_EQ(BridgeSession::text(missing), "No file at " + (work / "gone/x.mov").string() + ".");
    json many = json::array();
    for (int i = 0; i < 21; ++i) many.push_back(writeFile(work / "many" / (std::to_string(i) + ".mov"), std::string(100 + i, 'm')).string());
    for (const json& paths : {many, json("a.mov"), json::array(), json::array({7})})
        EXPECT_EQ(BridgeSession::text(session.call(3, "import_media", {{"paths", paths}})), "Pass paths: 1 to 20 files on this Mac.");
    EXPECT_EQ(session.studioEvents("upload").size(), 3u);
    many.erase(many.size() - 1);
    auto twenty = BridgeSession::payload(session.call(4, "import_media", {{"paths", many}}))["imported"];
    EXPECT_EQ(twenty.back(), json::parse(R"({"id":"m23","name":"19.mov","kind":"video","bytes":119,"duration":10.0})")) << twenty.size();
    EXPECT_EQ(session.forwarded("import_media").size(), 2u);

    // A series import sends the upload in place of the path, and nothing else of "from".
    std::string series = BridgeSession::payload(session.call(5, "series", {{"operation", "seriesCreate"}, {"params", {{"name", "Trips"}}}}))["series"]["id"];
    writeFile(session.user() / "intro.mov", "intro");
    auto intro = session.call(6, "series", {{"operation", "seriesMediaImport"},
                                            {"params", {{"seriesId", series}, {"from", {{"path", "~/intro.mov"}, {"trim", 3}}}}}});
    EXPECT_EQ(BridgeSession::payload(intro)["media"]["name"], "intro.mov") << intro.dump();
    std::string id = session.studioEvents("upload").back()["uploadId"];
    EXPECT_EQ(session.forwarded("series").back(), json({{"operation", "seriesMediaImport"},
                                                        {"params", {{"seriesId", series}, {"from", {{"uploadId", id}}}}}}));

    // Progress only for a call that asks for it: the bytes uploaded, rising to the whole.
    EXPECT_TRUE(session.takeNotifications().empty());
    writeFile(work / "big.mov", std::string(8 << 20, 'b'));
    session.send(toolCall(7, "import_media", {{"paths", {"big.mov"}}}, {{"progressToken", "import-7"}}));
    ASSERT_TRUE(session.reply(7, 30s));
    auto told = session.takeNotifications();
    ASSERT_GE(told.size(), 2u);
    for (size_t i = 0; i < told.size(); ++i) {
        EXPECT_EQ(told[i]["method"], "notifications/progress");
        EXPECT_EQ(told[i]["params"]["progressToken"], "import-7");
        EXPECT_EQ(told[i]["params"]["total"], 8 << 20);
        EXPECT_EQ(told[i]["params"]["message"], "Uploading big.mov (1 of 1)");
        if (i > 0) { EXPECT_GT(told[i]["params"]["progress"], told[i - 1]["params"]["progress"]); }
    }
    EXPECT_EQ(told.back()["params"]["progress"], 8 << 20);
}

// What is not a regular file is refused before any upload, and a named pipe
// (whose opening would wait for a writer) holds nothing else up meanwhile; a
// NUL once ended a path early. A folder named in Latin-1 works, and the agent
// reads its name in a form it can be found by.
TEST(AgentPaths, NoRegularFileIsRefusedWithoutHoldingAnythingUpAndAFolderInAnotherEncodingWorks) {
    BridgeSession session(BridgeSession::Settings{{"STUDIO_SIM_EXPORT_SECONDS", "0.1"}});
    session.start();
    writeFile(session.home() / "a.mov", "a");
    ASSERT_EQ(::mkfifo((session.home() / "pipe.mov").c_str(), 0644), 0);
    const std::pair<std::string, std::string> cases[] = {
        {"pipe.mov", "Cannot read " + (session.home() / "pipe.mov").string() + "."},
        {"/dev/zero", "Cannot read /dev/zero."},
        {std::string("a.mov") + '\0' + ".txt", "No file at " + (session.home() / "a.mov\\x00.txt").string() + "."},
    };
    int id = 1;
    for (const auto& [path, message] : cases) {
        session.send(toolCall(id, "import_media", {{"paths", {path}}}));
        session.send(request("ping", "ping"));
        EXPECT_TRUE(session.reply("ping", 5s)) << path;
        EXPECT_EQ(BridgeSession::text(session.reply(id++, 5s).value_or(json::object())["result"]), message) << path;
    }
    auto series = session.call(9, "series", {{"operation", "seriesMediaImport"}, {"params", {{"seriesId", "s"}, {"from", {{"path", "pipe.mov"}}}}}});
    EXPECT_EQ(BridgeSession::text(series), cases[0].second);
    EXPECT_TRUE(session.studioEvents("upload").empty());

    fs::path folder = session.home() / "caf\xE9";
    writeFile(folder / "clip.mov", "clip");
    fs::create_directories(folder / "Trip.vantoric");
    session.bridge().closeStdin();
    ASSERT_EQ(session.bridge().wait(), 0);
    session.startBridge(folder);
    EXPECT_FALSE(BridgeSession::isError(session.call(1, "import_media", {{"paths", {"clip.mov"}}})));
    EXPECT_EQ(session.studioEvents("upload").at(0)["bytes"], 4);
    auto exported = BridgeSession::payload(session.call(2, "export_video", {{"path", "out.mp4"}}));
    EXPECT_EQ(exported["file"]["savedTo"], (session.home() / "caf\\xE9/out.mp4").string()) << exported.dump();
    EXPECT_TRUE(fs::exists(folder / "out.mp4"));
    EXPECT_EQ(BridgeSession::text(session.call(3, "project", {{"action", "open"}, {"path", "Trip.vantoric"}})),
              "This call names a path that is not valid UTF-8, which Vantoric Studio cannot read. Rename or move it, "
              "then try again.");
}

// Studio's own folders open at once; any other is handed to Studio on the
// bus once and Studio asked again to wait for it; a file is refused, a number
// is Studio's to judge. A client that gives up on quiet calls (OpenCode, after
// a minute) hears at every interval that a long one still waits on Studio.
TEST(AgentPaths, ProjectsOpenInStudioOrAreHandedOverOnTheBusAndALongWaitIsTold) {
    BridgeSession session({{"STUDIO_SIM_SLOW_TOOL", "studio_status"}, {"STUDIO_SIM_SLOW_TOOL_MS", "1500"}, {"VSM_TEST_PROGRESS_MS", "200"}});
    session.start();
    session.call(1, "project", {{"action", "close"}});
    auto own = session.call(2, "project", {{"action", "open"}, {"path", "Projects/Trip.vantoric"}});
    EXPECT_EQ(BridgeSession::payload(own)["project"]["name"], "Trip") << own.dump();
    writeFile(session.home() / "Notes.vantoric", "a file");
    EXPECT_EQ(BridgeSession::text(session.call(3, "project", {{"action", "open"}, {"path", "Notes.vantoric"}})),
              "No project at " + (session.home() / "Notes.vantoric").string() +
                  ". Pass a .vantoric folder, an id from studio_status, or create one.");
    session.call(4, "project", {{"action", "open"}, {"path", 7}});
    EXPECT_TRUE(session.studioEvents("open").empty());

    fs::path folder = session.user() / "Elsewhere/Away.vantoric";
    fs::create_directories(folder);
    auto away = session.call(5, "project", {{"action", "open"}, {"path", "~/Elsewhere/../Elsewhere/Away.vantoric"}});
    EXPECT_EQ(BridgeSession::payload(away)["opened"], true) << away.dump();
    auto opens = session.studioEvents("open");
    ASSERT_EQ(opens.size(), 1u);
    EXPECT_EQ(opens[0]["via"], "bus");
    EXPECT_EQ(opens[0]["granted"], json::array({folder.string()}));
    auto asked = session.forwarded("project");
    ASSERT_EQ(asked.size(), 6u);  // after the creation and the closing
    EXPECT_EQ(asked[2], json({{"action", "open"}, {"path", (session.home() / "Projects/Trip.vantoric").string()}}));
    EXPECT_EQ(asked[3], json({{"action", "open"}, {"path", 7}}));
    EXPECT_EQ(asked[4], json({{"action", "open"}, {"path", folder.string()}}));
    EXPECT_EQ(asked[5], json({{"action", "open"}, {"path", folder.string()}, {"await_open", true}}));
    EXPECT_TRUE(session.bridge().waitForStderr("vantoric-studio-mcp: " + folder.string() +
                                               " is outside Studio's sandbox; opening it with Studio through Launch Services\n"));

    EXPECT_TRUE(session.takeNotifications().empty());
    session.send(toolCall(6, "studio_status", json::object(), {{"progressToken", "s"}}));
    ASSERT_TRUE(session.reply(6, 30s));
    auto told = session.takeNotifications();
    ASSERT_GE(told.size(), 3u);
    for (size_t i = 0; i < told.size(); ++i) {
        EXPECT_EQ(told[i]["params"]["message"], "Waiting for Vantoric Studio to carry out studio_status.");
        if (i > 0) { EXPECT_GT(told[i]["params"]["progress"], told[i - 1]["params"]["progress"]); }
    }
    session.call(7, "studio_status");
    EXPECT_TRUE(session.takeNotifications().empty());
}
