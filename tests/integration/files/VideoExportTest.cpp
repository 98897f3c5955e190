// Exports end to end: Studio renders, the bridge waits and copies the video
// to the agent's path, or says where it will be saved.
#include <signal.h>

#include <cstring>
#include <thread>

#include "FileSession.h"

using namespace filestest;
using Settings = LinkSession::Settings;

namespace {

// A session whose start calls give up waiting after 300 ms, with exports that
// stay queued for the first quarter of `seconds` and status calls that wait
// at most 100 ms for a change.
Settings slowExports(const std::string& seconds) {
    return {{"STUDIO_SIM_EXPORT_SECONDS", seconds}, {"STUDIO_SIM_MAX_WAIT", "0.1"}, {"VSM_TEST_EXPORT_WAIT_MS", "300"}};
}

// Status calls until the export is no longer queued or rendering; the last
// tool result.
json statusUntilSettled(FileSession& session, int firstId) {
    json result;
    for (int id = firstId; id < firstId + 200; ++id) {
        result = session.call(id, "export_video", {{"action", "status"}, {"wait_seconds", 40}});
        if (FileSession::isError(result)) return result;
        std::string phase = FileSession::payload(result).value("phase", "");
        if (phase != "queued" && phase != "rendering") return result;
    }
    return result;
}

// Download requests as Studio logged them on arrival (the outcome of a
// download is logged only once Studio has finished sending).
size_t downloadRequests(const FileSession& session) {
    size_t count = 0;
    for (auto& event : session.studioEvents("http"))
        if (event["method"] == "GET" && event["target"].get<std::string>().rfind("/downloads/", 0) == 0) ++count;
    return count;
}

}  // namespace

using ExportingVideo = FileTools;

TEST_F(ExportingVideo, CompletedWithinTheWaitIsSavedAtTheAgentsPath) {
    FileSession session({{"STUDIO_SIM_EXPORT_SECONDS", "0.3"}, {"STUDIO_SIM_EXPORT_BYTES", "3145728"}});
    session.start();
    session.write(session.work() / "taken.mp4", "keep me");
    EXPECT_EQ(LinkSession::text(session.call(1, "export_video", {{"path", "out.mov"}})), "path must end in .mp4.");
    EXPECT_EQ(LinkSession::text(session.call(2, "export_video", {{"path", "taken.mp4"}})),
              (session.work() / "taken.mp4").string() +
                  " already exists. Pass overwrite:true to replace it, or choose another path.");
    EXPECT_TRUE(session.forwarded("export_video").empty());

    auto result = session.call(3, "export_video", {{"action", "start"}, {"path", "renders/Trip.MP4"}});
    ASSERT_FALSE(FileSession::isError(result)) << result.dump();
    auto status = FileSession::payload(result);
    fs::path saved = session.work() / "renders/Trip.MP4";
    EXPECT_EQ(status["phase"], "completed");
    EXPECT_EQ(status["file"]["savedTo"], saved.string());
    EXPECT_FALSE(status["file"].contains("downloadId"));
    EXPECT_EQ(fs::file_size(saved), 3145728u);
    EXPECT_EQ(modeOf(saved), 0644u);
    EXPECT_EQ(testsupport::readFile(session.work() / "taken.mp4"), "keep me");
    // Nothing but the video in its folder: the temporary file went with the rename.
    EXPECT_EQ(std::distance(fs::directory_iterator(saved.parent_path()), fs::directory_iterator()), 1);
}

TEST_F(ExportingVideo, StillRunningAfterTheWaitGetsTheNoteAndALaterStatusSaves) {
    FileSession session(slowExports("3"));
    session.start();
    auto result = session.call(1, "export_video", {{"path", "~/late.mp4"}});
    auto status = FileSession::payload(result);
    fs::path destination = session.user() / "late.mp4";
    EXPECT_EQ(status["phase"], "queued") << status.dump();
    EXPECT_EQ(status["note"], "Still exporting. Call export_video {action:\"status\", wait_seconds:40}; the copy is "
                              "saved to " + destination.string() + " when it completes.");
    EXPECT_FALSE(fs::exists(destination));

    auto settled = statusUntilSettled(session, 2);
    auto done = FileSession::payload(settled);
    EXPECT_EQ(done["phase"], "completed");
    EXPECT_EQ(done["file"]["savedTo"], destination.string());
    EXPECT_TRUE(fs::exists(destination));
    for (auto& arguments : session.forwarded("export_video")) EXPECT_FALSE(arguments.contains("path"));
}

TEST_F(ExportingVideo, FailedExportLeavesNothingAtThePath) {
    FileSession session({{"STUDIO_SIM_EXPORT_SECONDS", "0.2"}, {"STUDIO_SIM_EXPORT_FAIL", "1"}});
    session.start();
    auto result = session.call(1, "export_video", {{"path", "out.mp4"}});
    auto status = FileSession::payload(result);
    EXPECT_EQ(status["phase"], "failed");
    EXPECT_FALSE(status.contains("note"));
    EXPECT_FALSE(status.contains("file"));
    auto again = FileSession::payload(session.call(2, "export_video", {{"action", "status"}}));
    EXPECT_EQ(again["phase"], "failed");
    EXPECT_FALSE(fs::exists(session.work() / "out.mp4"));
    EXPECT_EQ(downloadRequests(session), 0u);
}

// A copy that cannot be made is reported, and the destination stays
// remembered: the next status tries again, and succeeds once the way is
// free. Nothing is lost to one bad moment.
TEST_F(ExportingVideo, DestinationThatBecameAFolderIsReportedAndTriedAgainLater) {
    FileSession session(slowExports("2"));
    session.start();
    auto started = FileSession::payload(session.call(1, "export_video", {{"path", "out.mp4"}}));
    ASSERT_TRUE(started.contains("note")) << started.dump();
    fs::create_directories(session.work() / "out.mp4");

    auto failed = statusUntilSettled(session, 2);
    EXPECT_TRUE(FileSession::isError(failed));
    EXPECT_EQ(LinkSession::text(failed), (session.work() / "out.mp4").string() + " is a folder: name a file to export to.");
    EXPECT_TRUE(fs::is_empty(session.work() / "out.mp4"));
    EXPECT_EQ(downloadRequests(session), 1u);

    fs::remove(session.work() / "out.mp4");
    auto later = FileSession::payload(session.call(500, "export_video", {{"action", "status"}}));
    EXPECT_EQ(later["phase"], "completed");
    EXPECT_FALSE(later["file"].contains("downloadId"));
    EXPECT_EQ(later["file"]["savedTo"], (session.work() / "out.mp4").string());
    EXPECT_TRUE(fs::is_regular_file(session.work() / "out.mp4"));
    EXPECT_EQ(downloadRequests(session), 2u);

    // Copied once: a further status has nothing left to save.
    auto again = FileSession::payload(session.call(501, "export_video", {{"action", "status"}}));
    EXPECT_FALSE(again["file"].contains("savedTo"));
    EXPECT_EQ(downloadRequests(session), 2u);
}

// Agents give up on calls at their own limit (OpenCode after a minute) and
// cancel them, often during the copy. The video must still arrive: the next
// status copies it. A status that comes while the copy runs waits for that
// copy rather than starting another.
TEST_F(ExportingVideo, ACopyCutOffByTheAgentIsMadeByTheNextStatusAndNeverTwiceAtOnce) {
    // 40 MB at 20 MB a second: two seconds of copying.
    FileSession session({{"STUDIO_SIM_EXPORT_SECONDS", "0.1"},
                         {"STUDIO_SIM_EXPORT_BYTES", "41943040"},
                         {"STUDIO_SIM_DOWNLOAD_RATE", "20000000"}});
    session.start();
    auto exportCall = [&](int id, json arguments) {
        session.send({{"jsonrpc", "2.0"}, {"id", id}, {"method", "tools/call"},
                      {"params", {{"name", "export_video"}, {"arguments", std::move(arguments)}}}});
    };
    auto copying = [&] {
        for (auto& entry : fs::directory_iterator(session.work()))
            if (entry.path().filename().string().rfind(".cut.mp4.download-", 0) == 0) return true;
        return false;
    };
    auto waitFor = [](auto condition) {
        auto deadline = std::chrono::steady_clock::now() + 20s;
        while (!condition() && std::chrono::steady_clock::now() < deadline) std::this_thread::sleep_for(2ms);
        return condition();
    };

    exportCall(1, {{"path", "cut.mp4"}});
    ASSERT_TRUE(waitFor(copying));
    session.send({{"jsonrpc", "2.0"}, {"method", "notifications/cancelled"}, {"params", {{"requestId", 1}}}});
    ASSERT_TRUE(waitFor([&] { return !copying(); }));
    EXPECT_FALSE(fs::exists(session.work() / "cut.mp4"));

    exportCall(2, {{"action", "status"}});
    ASSERT_TRUE(waitFor(copying));
    exportCall(3, {{"action", "status"}, {"wait_seconds", 40}});
    for (int id : {2, 3}) {
        auto reply = session.reply(id, 30s);
        ASSERT_TRUE(reply) << id;
        auto status = FileSession::payload((*reply)["result"]);
        EXPECT_EQ(status["file"]["savedTo"], (session.work() / "cut.mp4").string()) << id;
    }
    EXPECT_EQ(fs::file_size(session.work() / "cut.mp4"), 41943040u);
    EXPECT_EQ(downloadRequests(session), 2u);  // the cut one and the one that arrived
}

// Agents stop the bridge with a signal (Claude Code SIGINT, Codex and
// OpenCode SIGTERM), often in the middle of a long copy; a second signal
// must not wait for the drain. A SIGKILL leaves the temporary file, which
// the next download into the folder clears away.
TEST_F(ExportingVideo, AStoppedBridgeLeavesNoPartOfADownloadBehind) {
    struct Case {
        std::vector<int> signals;
        int status;  // -1: ended by either of two signals
    };
    const Case cases[] = {{{SIGTERM}, 0}, {{SIGINT}, 0}, {{SIGHUP, SIGTERM}, -1}, {{SIGKILL}, 128 + SIGKILL}};
    for (const auto& [signals, expected] : cases) {
        SCOPED_TRACE(signals.size() == 1 ? strsignal(signals[0]) : "a second signal");
        // 1 GB at 50 MB a second: far from done when the signal comes.
        FileSession session({{"STUDIO_SIM_EXPORT_SECONDS", "0.1"},
                             {"STUDIO_SIM_EXPORT_BYTES", "1073741824"},
                             {"STUDIO_SIM_DOWNLOAD_RATE", "50000000"}});
        session.start();
        session.send({{"jsonrpc", "2.0"}, {"id", 1}, {"method", "tools/call"},
                      {"params", {{"name", "export_video"}, {"arguments", {{"path", "cuts/final/out.mp4"}}}}}});
        auto temporaries = [&] {
            std::vector<fs::path> found;
            for (auto& entry : fs::recursive_directory_iterator(session.work()))
                if (entry.path().filename().string().rfind(".out.mp4.download-", 0) == 0) found.push_back(entry.path());
            return found;
        };
        auto deadline = std::chrono::steady_clock::now() + 20s;
        while (temporaries().empty() && std::chrono::steady_clock::now() < deadline) std::this_thread::sleep_for(2ms);
        ASSERT_EQ(temporaries().size(), 1u);
        std::this_thread::sleep_for(200ms);  // bytes are arriving

        for (int signal : signals) session.bridge().kill(signal);
        auto status = session.bridge().wait(8s);
        if (expected >= 0)
            EXPECT_EQ(status, expected);
        else  // at once, in the second signal's name (whichever Asio hands over second)
            EXPECT_TRUE(status == 128 + SIGHUP || status == 128 + SIGTERM) << status.value_or(-1);
        EXPECT_FALSE(fs::exists(session.work() / "cuts"));
        if (expected != 128 + SIGKILL) {
            EXPECT_TRUE(temporaries().empty());
            continue;
        }
        // The next download into that folder removes what the killed one
        // left, as soon as it starts, and leaves its own file alone.
        ASSERT_EQ(temporaries().size(), 1u);
        fs::path left = temporaries()[0];
        session.startBridge();
        session.send({{"jsonrpc", "2.0"}, {"id", 2}, {"method", "tools/call"},
                      {"params", {{"name", "export_video"}, {"arguments", {{"path", "out.mp4"}}}}}});
        deadline = std::chrono::steady_clock::now() + 20s;
        auto replaced = [&] { return !fs::exists(left) && temporaries().size() == 1; };
        while (!replaced() && std::chrono::steady_clock::now() < deadline) std::this_thread::sleep_for(2ms);
        EXPECT_TRUE(replaced());
    }
}
