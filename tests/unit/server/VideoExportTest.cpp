// Video export: the destination remembered, the bounded wait for a started
// export, the copy of a completed one, and what the agent is told.
#include "ServerHarness.h"
#include "server/VideoExport.h"

using namespace testsupport;
namespace fs = std::filesystem;

namespace {

const Json queued = {{"phase", "queued"}, {"exportId", "x1"}};
const Json rendering = {{"phase", "rendering"}, {"exportId", "x1"}, {"file", {{"name", "Trip.mp4"}, {"level", 0.42}}}};
const Json completed = {{"phase", "completed"},
                        {"exportId", "x1"},
                        {"file", {{"name", "Trip.mp4"}, {"bytes", 11}, {"downloadId", "dl-1"}}}};
const Json failed = {{"phase", "failed"}, {"exportId", "x1"}, {"error", "The render failed."}};

std::string noteFor(const fs::path& path) {
    return "Still exporting. Call export_video {action:\"status\", wait_seconds:40}; the copy is saved to " +
           path.string() + " when it completes.";
}

Json payloadOf(const Json& reply) { return Json::parse(toolText(reply)); }

// Studio answers "start" with `start` and every status call with `status`.
void answerExport(StudioHarness& studio, Json start, Json status) {
    studio.onCall([start, status](const Json& params) {
        return params["arguments"].value("action", "") == "start" ? studioResult(start) : studioResult(status);
    });
}

}  // namespace

TEST(ExportPaths, AnMp4ResolvedAndNotThereUnlessOverwritingBeforeStudioIsAskedAndNeverPassedOn) {
    StudioHarness studio;
    answerExport(studio, queued, failed);
    for (std::string action : {"start", "status"})
        for (std::string path : {"out.mov", "out.MOV", "out", "renders/mp4"})
            EXPECT_EQ(toolText(studio.call(1, "export_video", {{"action", action}, {"path", path}})), "path must end in .mp4.") << path;
    studio.file("taken.mp4", "old");
    fs::create_directories(studio.work() / "folder.mp4");
    for (std::string taken : {"taken.mp4", "folder.mp4"})
        EXPECT_EQ(toolText(studio.call(1, "export_video", {{"action", "start"}, {"path", taken}, {"overwrite", "yes"}})),
                  (studio.work() / taken).string() + " already exists. Pass overwrite:true to replace it, or choose another path.");
    EXPECT_TRUE(studio.calls().empty());
    studio.call(2, "export_video", {{"path", "taken.mp4"}, {"overwrite", true}});
    studio.call(3, "export_video", {{"path", "sub/../Out.MP4"}});
    EXPECT_EQ(studio.calls().front()["arguments"], Json({{"action", "start"}}));

    // A status copies over an existing file only when asked to.
    answerExport(studio, queued, completed);
    studio.offerDownload("dl-1", "new");
    studio.file("out.MP4", "old");
    auto reply = studio.call(4, "export_video", {{"action", "status"}, {"path", "renders/../out.MP4"}, {"overwrite", "yes"}});
    EXPECT_EQ(toolText(reply), (studio.work() / "out.MP4").string() + " already exists.");
    EXPECT_EQ(readFile(studio.work() / "out.MP4"), "old");
    EXPECT_EQ(studio.calls().back()["arguments"], Json({{"action", "status"}}));
    studio.call(5, "export_video", {{"action", "status"}, {"path", "out.MP4"}, {"overwrite", true}});
    EXPECT_EQ(readFile(studio.work() / "out.MP4"), "new");
    EXPECT_EQ(fs::status(studio.work() / "out.MP4").permissions(), fs::perms(0644));
}

TEST(StartingExports, OnlyTheActionAndTheLabelChoiceReachStudio) {
    StudioHarness studio;
    answerExport(studio, failed, failed);
    studio.call(1, "export_video",
                {{"action", "start"}, {"path", "a.mp4"}, {"overwrite", false}, {"include_ai_label", "maybe"}, {"wait_seconds", 3}});
    EXPECT_EQ(studio.calls().at(0)["arguments"].dump(), R"({"action":"start","include_ai_label":"maybe"})");
}

TEST(StartingExports, PollsNeverAskStudioToWaitPastTheDeadlineAndTheNoteSaysHowToGoOn) {
    StudioHarness studio;
    studio.callDelay = std::chrono::milliseconds(40);
    Json writing = completed;
    writing["phase"] = "none";
    writing["file"]["level"] = 1.0;  // not settled while a level is given
    answerExport(studio, rendering, writing);
    auto reply = studio.call(1, "export_video", {{"path", "a.mp4"}});
    auto calls = studio.calls();
    ASSERT_GT(calls.size(), 2u);
    // An agent that cuts calls off at its limit gets this one back in time.
    for (size_t i = 1; i < calls.size(); ++i) {
        double wait = calls[i]["arguments"]["wait_seconds"].get<double>();
        EXPECT_GT(wait, 0.0);
        EXPECT_LE(wait, 0.3);
    }
    // A file still being written is no reason to leave the agent without
    // the way on; nothing is copied.
    Json expected = writing;
    expected["file"].erase("downloadId");
    expected["note"] = noteFor(studio.work() / "a.mp4");
    EXPECT_EQ(payloadOf(reply), expected);
    EXPECT_TRUE(studio.downloads().empty());
}

TEST(StartingExports, StudiosRefusalIsReturnedAsItCameAndTheDestinationIsKeptUntilStudioStarted) {
    StudioHarness studio;
    studio.offerDownload("dl-1", "video");
    auto status = [&](int id, const Json& arguments) {
        answerExport(studio, queued, completed);
        return studio.call(id, "export_video", arguments);
    };
    answerExport(studio, queued, queued);
    studio.call(1, "export_video", {{"action", "status"}, {"path", "earlier.mp4"}});
    studio.onCall([](const Json&) { return studioRefusal("No project is open."); });
    EXPECT_EQ(studio.call(2, "export_video", {{"path", "new.mp4"}})["result"], studioRefusal("No project is open."));
    status(3, {{"action", "status"}});
    EXPECT_EQ(readFile(studio.work() / "earlier.mp4"), "video");

    // A refused poll ends the wait; the new destination stays remembered.
    studio.onCall([](const Json& params) {
        return params["arguments"]["action"] == "start" ? studioResult(queued) : studioRefusal("Studio is busy.");
    });
    EXPECT_EQ(studio.call(4, "export_video", {{"path", "new.mp4"}})["result"], studioRefusal("Studio is busy."));
    status(5, {{"action", "status"}});
    EXPECT_EQ(readFile(studio.work() / "new.mp4"), "video");

    // A start without a path forgets the earlier destination.
    answerExport(studio, queued, queued);
    studio.call(6, "export_video", {{"action", "status"}, {"path", "later.mp4"}});
    auto reply = status(7, Json::object());
    Json expected = completed;
    expected["file"].erase("downloadId");
    EXPECT_EQ(payloadOf(reply), expected);
    EXPECT_FALSE(fs::exists(studio.work() / "later.mp4"));
    EXPECT_EQ(studio.downloads().size(), 2u);
}

TEST(ExportSettling, SettledPhasesWithoutALevelEndTheWait) {
    auto settled = [](const Json& payload) { return server::VideoExport::settled(studioResult(payload)); };
    for (std::string phase : {"completed", "failed", "cancelled", "none"}) {
        EXPECT_TRUE(settled({{"phase", phase}})) << phase;
        EXPECT_TRUE(settled({{"phase", phase}, {"file", "not an object"}})) << phase;
        EXPECT_TRUE(settled({{"phase", phase}, {"file", {{"name", "a.mp4"}}}})) << phase;
        EXPECT_FALSE(settled({{"phase", phase}, {"file", {{"level", nullptr}}}})) << phase;
    }
    EXPECT_FALSE(settled({{"phase", "rendering"}}));
    EXPECT_FALSE(settled({{"phase", "Completed"}}));
    EXPECT_FALSE(settled({{"state", "completed"}}));
    EXPECT_FALSE(server::VideoExport::settled(studioRefusal(R"({"phase":"completed"})")));
}
