// What the simulated Studio does with the tool calls the bridge relies on:
// export phases over time, waiting for a change, project folders that need a
// grant, and the editing tools' refusals.
#include <gtest/gtest.h>

#include <fstream>
#include <thread>

#include "SimHarness.h"

namespace simtest {
namespace {

namespace fs = std::filesystem;

bool fails(Linked& studio, const std::string& tool, const Json& arguments) {
    return SimSession::isToolError(studio.call(tool, arguments));
}

TEST(ExportPhases, QueuedThenRenderingWithALevelThenCompletedWithADownload) {
    Linked studio(Env{{"STUDIO_SIM_EXPORT_SECONDS", "1.2"}, {"STUDIO_SIM_MAX_WAIT", "5"}});
    EXPECT_EQ(studio.payload("export_video", {{"action", "status"}})["phase"], "none");
    EXPECT_TRUE(fails(studio, "export_video", {{"action", "start"}})) << "no project is open";
    studio.payload("project", {{"action", "create"}, {"name", "Trip"}});
    EXPECT_TRUE(fails(studio, "export_video", {{"action", "start"}, {"path", "/tmp/out.mp4"}}));
    EXPECT_EQ(studio.payload("export_video")["phase"], "queued") << "no action means start";

    // Each wait returns at the next phase change.
    Json rendering = studio.exportStatus(15);
    ASSERT_EQ(rendering["phase"], "rendering");
    EXPECT_GE(rendering["file"]["level"], 0.0);
    EXPECT_LT(rendering["file"]["level"], 1.0);
    EXPECT_FALSE(rendering["file"].contains("downloadId"));
    Json completed = studio.exportStatus(15);
    ASSERT_EQ(completed["phase"], "completed");
    EXPECT_TRUE(completed["file"]["downloadId"].is_string());
    EXPECT_EQ(completed["file"]["name"], "Trip.mp4");
    EXPECT_TRUE(fs::exists(studio.sim.home() / "Projects/Trip.vantoric/exports/Trip.mp4"));
    // A settled export answers at once; the next export gets a file name of its own.
    EXPECT_EQ(studio.exportStatus(15)["phase"], "completed");
    studio.payload("export_video", {{"action", "start"}});
    Json second = studio.exportUntilSettled();
    EXPECT_EQ(second["file"]["name"], "Trip 2.mp4");
    EXPECT_NE(second["file"]["downloadId"], completed["file"]["downloadId"]);
}

TEST(ExportPhases, WaitsNoLongerThanTheCapAndCancelEndsIt) {
    Linked studio(Env{{"STUDIO_SIM_EXPORT_SECONDS", "60"}, {"STUDIO_SIM_MAX_WAIT", "0.3"}});
    studio.payload("project", {{"action", "create"}, {"name", "Long"}});
    studio.payload("export_video", {{"action", "start"}});
    EXPECT_EQ(studio.exportStatus(40)["phase"], "queued");
    EXPECT_EQ(studio.payload("studio_status")["export"]["phase"], "queued");
    EXPECT_TRUE(fails(studio, "export_video", {{"action", "start"}})) << "one export at a time";
    EXPECT_EQ(studio.payload("export_video", {{"action", "cancel"}})["phase"], "cancelled");
    Json after = studio.exportStatus(1);
    EXPECT_EQ(after["phase"], "cancelled");
    EXPECT_FALSE(after.contains("file"));
    EXPECT_TRUE(fails(studio, "export_video", {{"action", "cancel"}}));
}

TEST(ExportPhases, FailsWithoutAFileWhenToldTo) {
    Linked studio(Env{{"STUDIO_SIM_EXPORT_SECONDS", "0"}, {"STUDIO_SIM_EXPORT_FAIL", "1"}});
    studio.payload("project", {{"action", "create"}, {"name", "Trip"}});
    studio.payload("export_video", {{"action", "start"}, {"include_ai_label", true}});
    Json failed = studio.exportStatus(0);
    EXPECT_EQ(failed["phase"], "failed");
    EXPECT_FALSE(failed.contains("file"));
    EXPECT_TRUE(failed["error"].is_string());
    EXPECT_EQ(failed["includeAiLabel"], true);
    EXPECT_TRUE(fs::is_empty(studio.sim.home() / "Projects/Trip.vantoric/exports"));
}

TEST(ExportFile, LargeExportsAreSparseWithA64BitMediaBox) {
    constexpr std::uint64_t size = (5ull << 30) + 17;  // over 4 GiB
    Linked studio(Env{{"STUDIO_SIM_EXPORT_SECONDS", "0"}, {"STUDIO_SIM_EXPORT_BYTES", std::to_string(size)}});
    studio.payload("project", {{"action", "create"}, {"name", "Big"}});
    studio.payload("export_video", {{"action", "start"}});
    Json done = studio.exportStatus(0);
    ASSERT_EQ(done["phase"], "completed");
    EXPECT_EQ(done["file"]["bytes"], size);
    std::ifstream in(done["file"]["path"].get<std::string>(), std::ios::binary);
    char head[48];
    in.read(head, sizeof head);
    EXPECT_EQ(std::string(head + 4, 8), "ftypisom");
    EXPECT_EQ(std::string(head + 36, 4), "mdat");
    EXPECT_EQ(head[35], 1) << "a 64-bit box size is announced by size 1";
    std::uint64_t boxSize = 0;
    for (int i = 40; i < 48; ++i) boxSize = boxSize << 8 | static_cast<unsigned char>(head[i]);
    EXPECT_EQ(boxSize, size - 32);
}

TEST(ProjectGrants, AFolderOutsideStudioNeedsAGrantUntilOpenedThroughTheBus) {
    Linked studio;
    auto folder = studio.sim.scratch().path() / "Work/Trip.vantoric";
    fs::create_directories(folder);
    Json asked = studio.payload("project", {{"action", "open"}, {"path", folder.string()}});
    EXPECT_EQ(asked["needsGrant"], true);
    EXPECT_EQ(asked["path"], folder.string());
    EXPECT_TRUE(studio.payload("studio_status")["project"].is_null());

    // Opening the parent folder grants everything below it.
    ASSERT_TRUE(studio.sim.busClient().open(kRelease, "file://" + (studio.sim.scratch().path() / "Work").string()));
    Json opened = studio.payload("project", {{"action", "open"}, {"path", folder.string()}, {"await_open", true}});
    EXPECT_EQ(opened["opened"], true);
    EXPECT_EQ(opened["project"]["path"], folder.string());
    auto open = studio.sim.log().waitFor("open");
    ASSERT_TRUE(open);
    EXPECT_EQ((*open)["via"], "bus");
}

TEST(ProjectGrants, AwaitOpenWaitsForTheGrantUpToTheCap) {
    Linked studio(Env{{"STUDIO_SIM_MAX_WAIT", "1.5"}});
    auto folder = studio.sim.scratch().path() / "My Film.vantoric";
    fs::create_directories(folder);
    fs::create_directories(studio.sim.scratch().path() / "Else.vantoric");
    auto awaitOpen = [&](const fs::path& path) {
        return studio.payload("project", {{"action", "open"}, {"path", path.string()}, {"await_open", true}});
    };
    EXPECT_EQ(awaitOpen(studio.sim.scratch().path() / "Else.vantoric")["needsGrant"], true);
    std::thread grant([&] {
        std::this_thread::sleep_for(300ms);
        std::string uri = "file://";
        for (auto& part : folder) uri += part == "/" ? "" : "/" + percentEncode(part.string());
        BusClient(studio.sim.bus().address()).open(kRelease, uri);
    });
    Json opened = awaitOpen(folder);
    grant.join();
    EXPECT_EQ(opened["opened"], true) << opened.dump();
}

TEST(ProjectGrants, PathsGivenAtLaunchAreGrantedAndOnlyProjectFoldersOpen) {
    testsupport::TempDir elsewhere;
    auto folder = elsewhere.path() / "Launch.vantoric";
    fs::create_directories(folder);
    Linked studio({}, {folder.string()});
    EXPECT_EQ(studio.payload("project", {{"action", "open"}, {"path", folder.string()}})["opened"], true);
    auto open = studio.sim.log().waitFor("open");
    ASSERT_TRUE(open);
    EXPECT_EQ((*open)["via"], "argv");

    auto file = studio.sim.scratch().write("notes.vantoric", "x");
    fs::create_directories(studio.sim.scratch().path() / "Plain");
    for (std::string path : {file.string(), (studio.sim.scratch().path() / "Plain").string(), std::string("p9")})
        EXPECT_TRUE(fails(studio, "project", {{"action", "open"}, {"path", path}})) << path;
}

TEST(Projects, CreateListSaveAndOpenById) {
    Linked studio;
    std::string id = studio.payload("project", {{"action", "create"}, {"name", "Trip"}})["project"]["id"];
    EXPECT_TRUE(fs::is_directory(studio.sim.home() / "Projects/Trip.vantoric/exports"));
    EXPECT_TRUE(fails(studio, "project", {{"action", "create"}, {"name", "Trip"}}));
    EXPECT_TRUE(fails(studio, "project", {{"action", "create"}, {"name", "a/b"}}));
    studio.payload("add_title", {{"text", "Day one"}});
    EXPECT_EQ(studio.payload("project", {{"action", "save"}})["saved"], true);
    std::ifstream saved(studio.sim.home() / "Projects/Trip.vantoric/project.json");
    EXPECT_EQ(Json::parse(saved)["titles"][0]["text"], "Day one");
    EXPECT_EQ(studio.payload("project", {{"action", "close"}})["closed"], true);
    EXPECT_TRUE(fails(studio, "timeline", {{"action", "list"}}));
    EXPECT_EQ(studio.payload("project", {{"action", "open"}, {"path", id}})["project"]["open"], true);
    EXPECT_EQ(studio.payload("project", {{"action", "list"}})["projects"].size(), 1u);
}

TEST(Editing, TimelineTitlesAndLooksCheckTheirArguments) {
    Linked studio;
    studio.payload("project", {{"action", "create"}, {"name", "Cut"}});
    std::string uploadId = studio.upload("a.mov", "aaaa").json()["uploadId"];
    Json imported = studio.payload("import_media", {{"uploads", {{{"uploadId", uploadId}, {"name", "a.mov"}}}}, {"add_to_timeline", false}});
    EXPECT_TRUE(imported["clips"].empty());
    std::string mediaId = imported["imported"][0]["id"];
    std::string first = studio.payload("timeline", {{"action", "add"}, {"media_id", mediaId}})["clip"]["id"];
    std::string second = studio.payload("timeline", {{"action", "add"}, {"media_id", mediaId}, {"position", 0}})["clip"]["id"];
    Json moved = studio.payload("timeline", {{"action", "move"}, {"clip_id", first}, {"position", 0}});
    EXPECT_EQ(moved["clips"][0]["id"], first);
    EXPECT_EQ(moved["clips"][1]["id"], second);
    Json trimmed = studio.payload("timeline", {{"action", "trim"}, {"clip_id", first}, {"in_seconds", 2}, {"out_seconds", 6.5}});
    EXPECT_EQ(trimmed["clip"]["duration"], 4.5);
    EXPECT_EQ(studio.payload("timeline", {{"action", "remove"}, {"clip_id", second}})["clips"].size(), 1u);
    EXPECT_EQ(studio.payload("color_grade", {{"look", "warm"}, {"clip_id", first}})["graded"], first);
    for (auto [tool, arguments] : std::vector<std::pair<std::string, Json>>{
             {"timeline", {{"action", "trim"}, {"clip_id", first}, {"out_seconds", 99}}},
             {"timeline", {{"action", "add"}, {"media_id", "m99"}}},
             {"color_grade", {{"look", "sepia"}}},
             {"add_title", {{"text", "x"}, {"duration_seconds", 0.1}}},
             {"import_media", {{"paths", {"/tmp/a.mov"}}}},
         })
        EXPECT_TRUE(fails(studio, tool, arguments)) << tool << " " << arguments.dump();
}

}  // namespace
}  // namespace simtest
