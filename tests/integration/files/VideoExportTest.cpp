// Exports end to end: the copy to the agent's path survives whatever comes in
// its way, and a bridge that is stopped leaves no part of it behind.
#include <signal.h>

#include <cstring>
#include <functional>
#include <thread>

#include "integration/server/BridgeSession.h"

using namespace testsupport;

namespace {

// Download requests as Studio logged them on arrival (their outcome comes only once sent).
size_t downloadRequests(const BridgeSession& session) {
    return std::ranges::count_if(session.studioEvents("http"), [](const json& event) {
        return event["method"] == "GET" && event["target"].get<std::string>().starts_with("/downloads/");
    });
}

// The partial downloads named after `file` anywhere below the working folder.
std::vector<fs::path> partials(const BridgeSession& session, const std::string& file) {
    std::vector<fs::path> found;
    for (auto& entry : fs::recursive_directory_iterator(session.home()))
        if (entry.path().filename().string().starts_with("." + file + ".download-")) found.push_back(entry.path());
    return found;
}

bool eventually(const std::function<bool()>& condition) {
    for (auto deadline = std::chrono::steady_clock::now() + 20s; !condition(); std::this_thread::sleep_for(2ms))
        if (std::chrono::steady_clock::now() > deadline) return false;
    return true;
}

}  // namespace

// An export that outlasts the start call is saved by a later status, and no
// bad moment loses it: a copy that cannot be made (a folder in the way), or
// that the agent cuts off (OpenCode gives up on calls after a minute), is made
// by the next status; a status that comes meanwhile waits for the running
// copy rather than starting another, and once saved nothing is copied again.
TEST(ExportingVideo, ALaterStatusSavesItWhateverCameInTheWayAndNeverTwice) {
    // Still queued when the start call stops waiting; 40 MB at 20 MB a second: two seconds of copying.
    BridgeSession session({{"STUDIO_SIM_EXPORT_SECONDS", "2"}, {"STUDIO_SIM_MAX_WAIT", "0.1"}, {"VSM_TEST_EXPORT_WAIT_MS", "300"},
                           {"STUDIO_SIM_EXPORT_BYTES", "41943040"}, {"STUDIO_SIM_DOWNLOAD_RATE", "20000000"}});
    session.start();
    const fs::path saved = session.home() / "renders/cut.MP4";
    auto started = BridgeSession::payload(session.call(1, "export_video", {{"path", "renders/cut.MP4"}}));
    EXPECT_EQ(started["phase"], "queued") << started.dump();
    EXPECT_TRUE(started.contains("note")) << started.dump();
    fs::create_directories(saved);
    json failed = json::object();
    for (int id = 2; id < 200 && !BridgeSession::isError(failed); ++id)
        failed = session.call(id, "export_video", {{"action", "status"}, {"wait_seconds", 40}});
    EXPECT_EQ(BridgeSession::text(failed), saved.string() + " is a folder: name a file to export to.");
    EXPECT_TRUE(fs::is_empty(saved));
    fs::remove(saved);

    auto copying = [&] { return !partials(session, "cut.MP4").empty(); };
    session.send(toolCall(300, "export_video", {{"action", "status"}}));
    ASSERT_TRUE(eventually(copying));
    session.send(json({{"jsonrpc", "2.0"}, {"method", "notifications/cancelled"}, {"params", {{"requestId", 300}}}}));
    ASSERT_TRUE(eventually([&] { return !copying(); }));
    EXPECT_FALSE(fs::exists(saved));

    session.send(toolCall(301, "export_video", {{"action", "status"}}));
    ASSERT_TRUE(eventually(copying));
    session.send(toolCall(302, "export_video", {{"action", "status"}, {"wait_seconds", 40}}));
    for (int id : {301, 302}) {
        auto reply = session.reply(id, 30s);
        ASSERT_TRUE(reply) << id;
        auto file = BridgeSession::payload((*reply)["result"])["file"];
        EXPECT_EQ(file["savedTo"], saved.string()) << id;
        EXPECT_FALSE(file.contains("downloadId")) << id;
    }
    EXPECT_EQ(fs::file_size(saved), 41943040u);
    EXPECT_EQ(fs::status(saved).permissions(), fs::perms(0644));
    EXPECT_EQ(namesIn(saved.parent_path()), std::vector<std::string>{"cut.MP4"});  // the partial went with the rename
    EXPECT_FALSE(BridgeSession::payload(session.call(303, "export_video", {{"action", "status"}}))["file"].contains("savedTo"));
    EXPECT_EQ(downloadRequests(session), 3u);  // into the folder's way, cut off, arrived
    for (auto& arguments : session.forwarded("export_video")) EXPECT_FALSE(arguments.contains("path"));
    EXPECT_TRUE(session.takeNotifications().empty());  // none asked for
}

// Agents stop the bridge by closing its input or with a signal (Claude Code
// SIGINT, Codex and OpenCode SIGTERM), often in the middle of a long copy; a
// second signal must not wait for the drain. A SIGKILL leaves the temporary
// file, which the next download into the folder clears away.
TEST(ExportingVideo, AStoppedBridgeLeavesNoPartOfADownloadBehind) {
    const std::pair<std::vector<int>, int> cases[] = {  // the signals (none: the end of input), and the exit status
        {{}, 0}, {{SIGTERM}, 0}, {{SIGINT}, 0}, {{SIGHUP, SIGTERM}, -1 /* either's */}, {{SIGKILL}, 128 + SIGKILL}};
    for (const auto& [signals, expected] : cases) {
        SCOPED_TRACE(signals.empty() ? "end of input" : signals.size() == 1 ? strsignal(signals[0]) : "a second signal");
        // 1 GB at 50 MB a second: far from done when the signal comes.
        BridgeSession session({{"STUDIO_SIM_EXPORT_SECONDS", "0.1"}, {"STUDIO_SIM_EXPORT_BYTES", "1073741824"}, {"STUDIO_SIM_DOWNLOAD_RATE", "50000000"}});
        session.start();
        session.send(toolCall(1, "export_video", {{"path", "cuts/final/out.mp4"}}));
        ASSERT_TRUE(eventually([&] { return !partials(session, "out.mp4").empty(); }));
        std::this_thread::sleep_for(200ms);  // bytes are arriving
        if (signals.empty()) session.bridge().closeStdin();
        for (int signal : signals) session.bridge().kill(signal);
        auto status = session.bridge().wait(8s);
        // A second signal ends it at once, in that signal's name (whichever Asio hands over second).
        EXPECT_TRUE(expected >= 0 ? status == expected : status == 128 + SIGHUP || status == 128 + SIGTERM) << status.value_or(-1);
        EXPECT_FALSE(fs::exists(session.home() / "cuts"));
        if (expected != 128 + SIGKILL) {
            EXPECT_TRUE(partials(session, "out.mp4").empty());
            continue;
        }
        // The next download into that folder removes what the killed one
        // left as soon as it starts, and leaves its own file alone.
        ASSERT_EQ(partials(session, "out.mp4").size(), 1u);
        fs::path left = partials(session, "out.mp4")[0];
        session.startBridge();
        session.send(toolCall(2, "export_video", {{"path", "out.mp4"}}));
        EXPECT_TRUE(eventually([&] { return !fs::exists(left) && partials(session, "out.mp4").size() == 1; }));
    }
}
