// What the simulated Studio does with the tool calls the bridge relies on:
// export phases over time, waiting for a change, project folders that need a
// grant, and the editing tools' refusals.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "SimHarness.h"

namespace simtest {
namespace {

using Env = std::map<std::string, std::string>;

// A simulator with one link and a client on its HTTP port.
struct Studio {
    SimSession sim;
    LinkReply link;
    std::unique_ptr<HttpClient> http;

    explicit Studio(std::map<std::string, std::string> environment = {}, std::vector<std::string> arguments = {}) {
        sim.start({.environment = std::move(environment), .arguments = std::move(arguments)});
        link = sim.link();
        http = std::make_unique<HttpClient>(sim.httpPort());
    }
    Json call(const std::string& tool, const Json& arguments = Json::object()) { return sim.call(*http, link.token, tool, arguments); }
    Json payload(const std::string& tool, const Json& arguments = Json::object()) {
        Json answer = call(tool, arguments);
        if (SimSession::isToolError(answer)) throw std::runtime_error(tool + " failed: " + answer.dump());
        return SimSession::payload(answer);
    }
    Json status(double waitSeconds) { return payload("export_video", {{"action", "status"}, {"wait_seconds", waitSeconds}}); }
};

TEST(ExportPhases, QueuedThenRenderingWithALevelThenCompletedWithADownload) {
    Studio studio(Env{{"STUDIO_SIM_EXPORT_SECONDS", "1.2"}, {"STUDIO_SIM_MAX_WAIT", "5"}});
    studio.payload("project", {{"action", "create"}, {"name", "Trip"}});
    EXPECT_EQ(studio.payload("export_video")["phase"], "queued") << "no action means start";

    // Each wait returns at the next phase change.
    Json rendering = studio.status(15);
    ASSERT_EQ(rendering["phase"], "rendering");
    double level = rendering["file"]["level"];
    EXPECT_GE(level, 0.0);
    EXPECT_LT(level, 1.0);
    EXPECT_FALSE(rendering["file"].contains("downloadId"));
    Json completed = studio.status(15);
    ASSERT_EQ(completed["phase"], "completed");
    EXPECT_TRUE(completed["file"]["downloadId"].is_string());
    EXPECT_EQ(completed["file"]["name"], "Trip.mp4");
    EXPECT_TRUE(std::filesystem::exists(studio.sim.home() / "Projects/Trip.vantoric/exports/Trip.mp4"));
    // A settled export answers at once, and the next export gets a file name of its own.
    EXPECT_EQ(studio.status(15)["phase"], "completed");
    studio.payload("export_video", {{"action", "start"}});
    Json second = studio.status(15);
    while (second["phase"] != "completed") second = studio.status(15);
    EXPECT_EQ(second["file"]["name"], "Trip 2.mp4");
    EXPECT_NE(second["file"]["downloadId"], completed["file"]["downloadId"]);
}

TEST(ExportPhases, WaitsNoLongerThanTheCap) {
    Studio studio(Env{{"STUDIO_SIM_EXPORT_SECONDS", "60"}, {"STUDIO_SIM_MAX_WAIT", "0.3"}});
    studio.payload("project", {{"action", "create"}, {"name", "Long"}});
    studio.payload("export_video", {{"action", "start"}});
    EXPECT_EQ(studio.status(40)["phase"], "queued");
    EXPECT_EQ(studio.payload("studio_status")["export"]["phase"], "queued");
}

TEST(ExportPhases, FailsWithoutAFileWhenToldTo) {
    Studio studio(Env{{"STUDIO_SIM_EXPORT_SECONDS", "0"}, {"STUDIO_SIM_EXPORT_FAIL", "1"}});
    studio.payload("project", {{"action", "create"}, {"name", "Trip"}});
    studio.payload("export_video", {{"action", "start"}, {"include_ai_label", true}});
    Json failed = studio.status(0);
    EXPECT_EQ(failed["phase"], "failed");
    EXPECT_FALSE(failed.contains("file"));
    EXPECT_TRUE(failed["error"].is_string());
    EXPECT_EQ(failed["includeAiLabel"], true);
    EXPECT_TRUE(std::filesystem::is_empty(studio.sim.home() / "Projects/Trip.vantoric/exports"));
}

TEST(ExportPhases, CancelEndsARunningExport) {
    Studio studio(Env{{"STUDIO_SIM_EXPORT_SECONDS", "30"}});
    studio.payload("project", {{"action", "create"}, {"name", "Trip"}});
    studio.payload("export_video", {{"action", "start"}});
    EXPECT_TRUE(SimSession::isToolError(studio.call("export_video", {{"action", "start"}}))) << "one export at a time";
    EXPECT_EQ(studio.payload("export_video", {{"action", "cancel"}})["phase"], "cancelled");
    Json after = studio.status(1);
    EXPECT_EQ(after["phase"], "cancelled");
    EXPECT_FALSE(after.contains("file"));
    EXPECT_TRUE(SimSession::isToolError(studio.call("export_video", {{"action", "cancel"}})));
}

TEST(ExportPhases, NeedsAnOpenProjectAndNeverTakesAPath) {
    Studio studio;
    EXPECT_EQ(studio.payload("export_video", {{"action", "status"}})["phase"], "none");
    EXPECT_TRUE(SimSession::isToolError(studio.call("export_video", {{"action", "start"}})));
    studio.payload("project", {{"action", "create"}, {"name", "Trip"}});
    EXPECT_TRUE(SimSession::isToolError(studio.call("export_video", {{"action", "start"}, {"path", "/tmp/out.mp4"}})));
}

TEST(ExportFile, LargeExportsAreSparseWithA64BitMediaBox) {
    // Over 4 GiB: the media box needs its 64-bit size, and nothing like that much is written.
    constexpr std::uint64_t size = (5ull << 30) + 17;
    Studio studio(Env{{"STUDIO_SIM_EXPORT_SECONDS", "0"}, {"STUDIO_SIM_EXPORT_BYTES", std::to_string(size)}});
    studio.payload("project", {{"action", "create"}, {"name", "Big"}});
    studio.payload("export_video", {{"action", "start"}});
    Json done = studio.status(0);
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
    Studio studio;
    auto folder = studio.sim.scratch().path() / "Work/Trip.vantoric";
    std::filesystem::create_directories(folder);
    Json asked = studio.payload("project", {{"action", "open"}, {"path", folder.string()}});
    EXPECT_EQ(asked["needsGrant"], true);
    EXPECT_EQ(asked["path"], folder.string());
    EXPECT_TRUE(studio.payload("studio_status")["project"].is_null());

    // Opening the parent folder grants everything below it.
    ASSERT_TRUE(studio.sim.busClient().open(kRelease, {"file://" + (studio.sim.scratch().path() / "Work").string()}));
    Json opened = studio.payload("project", {{"action", "open"}, {"path", folder.string()}, {"await_open", true}});
    EXPECT_EQ(opened["opened"], true);
    EXPECT_EQ(opened["project"]["path"], folder.string());
    auto open = studio.sim.log().waitFor("open");
    ASSERT_TRUE(open);
    EXPECT_EQ((*open)["via"], "bus");
}

TEST(ProjectGrants, AwaitOpenWaitsForTheGrantToArrive) {
    Studio studio(Env{{"STUDIO_SIM_MAX_WAIT", "10"}});
    auto folder = studio.sim.scratch().path() / "My Film.vantoric";
    std::filesystem::create_directories(folder);
    std::thread grant([&] {
        std::this_thread::sleep_for(300ms);
        BusClient bus(studio.sim.bus().address());
        std::string uri = "file://";
        for (auto& part : folder) uri += part == "/" ? "" : "/" + percentEncode(part.string());
        bus.open(kRelease, {uri});
    });
    Json opened = studio.payload("project", {{"action", "open"}, {"path", folder.string()}, {"await_open", true}});
    grant.join();
    EXPECT_EQ(opened["opened"], true) << opened.dump();
}

TEST(ProjectGrants, AwaitOpenWithoutAGrantStillNeedsOne) {
    Studio studio(Env{{"STUDIO_SIM_MAX_WAIT", "0.2"}});
    auto folder = studio.sim.scratch().path() / "Else.vantoric";
    std::filesystem::create_directories(folder);
    EXPECT_EQ(studio.payload("project", {{"action", "open"}, {"path", folder.string()}, {"await_open", true}})["needsGrant"], true);
}

TEST(ProjectGrants, PathsGivenAtLaunchAreGranted) {
    testsupport::TempDir elsewhere;
    auto folder = elsewhere.path() / "Launch.vantoric";
    std::filesystem::create_directories(folder);
    Studio studio(Env{}, {folder.string()});
    EXPECT_EQ(studio.payload("project", {{"action", "open"}, {"path", folder.string()}})["opened"], true);
    auto open = studio.sim.log().waitFor("open");
    ASSERT_TRUE(open);
    EXPECT_EQ((*open)["via"], "argv");
}

TEST(ProjectGrants, RefusesWhatIsNotAProjectFolder) {
    Studio studio;
    auto file = studio.sim.scratch().write("notes.vantoric", "x");
    auto plain = studio.sim.scratch().path() / "Plain";
    std::filesystem::create_directories(plain);
    EXPECT_TRUE(SimSession::isToolError(studio.call("project", {{"action", "open"}, {"path", file.string()}})));
    EXPECT_TRUE(SimSession::isToolError(studio.call("project", {{"action", "open"}, {"path", plain.string()}})));
    EXPECT_TRUE(SimSession::isToolError(studio.call("project", {{"action", "open"}, {"path", "p9"}})));
}

TEST(Projects, CreateListSaveAndOpenById) {
    Studio studio;
    Json created = studio.payload("project", {{"action", "create"}, {"name", "Trip"}});
    std::string id = created["project"]["id"];
    EXPECT_TRUE(std::filesystem::is_directory(studio.sim.home() / "Projects/Trip.vantoric/exports"));
    EXPECT_TRUE(SimSession::isToolError(studio.call("project", {{"action", "create"}, {"name", "Trip"}})));
    EXPECT_TRUE(SimSession::isToolError(studio.call("project", {{"action", "create"}, {"name", "a/b"}})));
    studio.payload("add_title", {{"text", "Day one"}});
    EXPECT_EQ(studio.payload("project", {{"action", "save"}})["saved"], true);
    std::ifstream saved(studio.sim.home() / "Projects/Trip.vantoric/project.json");
    EXPECT_EQ(Json::parse(saved)["titles"][0]["text"], "Day one");
    EXPECT_EQ(studio.payload("project", {{"action", "close"}})["closed"], true);
    EXPECT_TRUE(SimSession::isToolError(studio.call("timeline", {{"action", "list"}})));
    EXPECT_EQ(studio.payload("project", {{"action", "open"}, {"path", id}})["project"]["open"], true);
    EXPECT_EQ(studio.payload("project", {{"action", "list"}})["projects"].size(), 1u);
}

TEST(Editing, TimelineTitlesAndLooksCheckTheirArguments) {
    Studio studio;
    studio.payload("project", {{"action", "create"}, {"name", "Cut"}});
    HttpResponse up = studio.http->request("PUT", "/uploads?name=a.mov", {{"Authorization", "Bearer " + studio.link.token}}, "aaaa");
    std::string uploadId = up.json()["uploadId"];
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
    EXPECT_TRUE(SimSession::isToolError(studio.call("timeline", {{"action", "trim"}, {"clip_id", first}, {"out_seconds", 99}})));
    EXPECT_TRUE(SimSession::isToolError(studio.call("timeline", {{"action", "add"}, {"media_id", "m99"}})));
    EXPECT_EQ(studio.payload("timeline", {{"action", "remove"}, {"clip_id", second}})["clips"].size(), 1u);
    EXPECT_EQ(studio.payload("color_grade", {{"look", "warm"}, {"clip_id", first}})["graded"], first);
    EXPECT_TRUE(SimSession::isToolError(studio.call("color_grade", {{"look", "sepia"}})));
    EXPECT_TRUE(SimSession::isToolError(studio.call("add_title", {{"text", "x"}, {"duration_seconds", 0.1}})));
    EXPECT_TRUE(SimSession::isToolError(studio.call("import_media", {{"paths", {"/tmp/a.mov"}}})));
}

}  // namespace
}  // namespace simtest
