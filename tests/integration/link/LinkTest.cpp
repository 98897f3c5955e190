// The link end to end, where only real parts tell: the real bridge binary
// driven over stdio like an agent, the Studio simulator from the build tree,
// a private session bus. How the hand-over and the exchanges behave in every
// other respect is proven in memory by the link's unit tests.
#include <gtest/gtest.h>

#include <thread>

#include "support/LinkSession.h"

using namespace testsupport;
using Settings = LinkSession::Settings;
namespace fs = std::filesystem;

namespace {

bool isError(const json& result) { return result.value("isError", false); }
void ask(LinkSession& session, int id, const std::string& tool = "studio_status") {
    session.send({{"jsonrpc", "2.0"}, {"id", id}, {"method", "tools/call"},
                  {"params", {{"name", tool}, {"arguments", json::object()}}}});
}

}  // namespace

TEST(Link, StudioIsLaunchedInTheBackgroundOnlyWhenNoUsableCopyRuns) {
    for (bool running : {false, true}) {
        LinkSession session(Settings{{"STUDIO_SIM_SLOW_TOOL", "timeline"}, {"STUDIO_SIM_SLOW_TOOL_MS", "3000"}});
        if (running) session.startStudio();
        session.startBridge();
        EXPECT_FALSE(isError(session.call(1, "studio_status")));
        auto log = session.bridge().stderrText();
        EXPECT_EQ(log.find("vantoric-studio-mcp: launching " + bundle().string() + " in the background\n") ==
                      std::string::npos,
                  running)
            << log;
        EXPECT_NE(log.find("vantoric-studio-mcp: connected to Studio at http://127.0.0.1:"), std::string::npos);
        EXPECT_EQ(session.studioProcesses().size(), 1u);
        // A call Studio takes its time over holds up nothing else.
        ask(session, 2, "timeline");
        std::this_thread::sleep_for(100ms);
        session.send({{"jsonrpc", "2.0"}, {"id", 3}, {"method", "ping"}});
        EXPECT_TRUE(session.reply(3, 2s)) << "the ping waited for the slow call";
        EXPECT_TRUE(session.reply(2, 10s));
    }
}

TEST(Link, ClosingInputDuringAPendingHandoverStopsTheListenerAndExits) {
    // While the reply is awaited, and at once, while the hand-over starts.
    for (bool waitForAsking : {true, false}) {
        LinkSession session(Settings{{"STUDIO_SIM_NEVER_ANSWER", "1"}});
        session.startStudio();
        session.startBridge();
        ask(session, 1);
        if (waitForAsking) {
            ASSERT_TRUE(session.bridge().waitForStderr("asking Studio for its agent endpoint"));
            std::this_thread::sleep_for(200ms);
        }
        auto start = std::chrono::steady_clock::now();
        session.bridge().closeStdin();
        auto status = session.bridge().wait(8s);
        ASSERT_TRUE(status) << waitForAsking;
        EXPECT_EQ(*status, 0) << waitForAsking << session.bridge().stderrText();
        EXPECT_LT(std::chrono::steady_clock::now() - start, 6s);
        if (waitForAsking) {
            EXPECT_EQ(session.bridge().readRest(1s), "");
        }
    }
}

// A bus that accepts and never answers: the call waits for it within a
// deadline, the pings meanwhile do not.
TEST(Link, SilentSessionBusIsAClearErrorAndPingsGoOnMeanwhile) {
    LinkSession session;
    SilentSocket bus(session.home() / "bus");
    session.environment()["DBUS_SESSION_BUS_ADDRESS"] = "unix:path=" + (session.home() / "bus").string();
    session.startBridge();
    auto start = std::chrono::steady_clock::now();
    ask(session, 1);
    std::this_thread::sleep_for(300ms);
    session.send({{"jsonrpc", "2.0"}, {"id", 2}, {"method", "ping"}});
    EXPECT_TRUE(session.reply(2, 2s)) << "the ping waited for the bus";
    auto answer = session.reply(1, 30s);
    ASSERT_TRUE(answer);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
    EXPECT_TRUE(isError((*answer)["result"]));
    EXPECT_NE(LinkSession::text((*answer)["result"]).find("DBUS_SESSION_BUS_ADDRESS"), std::string::npos);
}
