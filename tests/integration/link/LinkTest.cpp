// The link end to end: the real bridge binary driven over stdio like an
// agent, the Studio simulator from the build tree, a private session bus.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <future>
#include <thread>

#include "Announcements.h"
#include "support/LinkSession.h"

using namespace testsupport;
using Settings = LinkSession::Settings;
using linkattack::nextAnnouncedPort;
namespace fs = std::filesystem;

namespace {

const std::string asking = "asking Studio for its agent endpoint (it asks the person the first time)";
const std::string unexpected = "Vantoric Studio answered with an unexpected endpoint.";

size_t count(const std::string& text, const std::string& part) {
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
    return n;
}

class Link : public ::testing::Test {
protected:
    void SetUp() override {
        if (!available()) GTEST_SKIP() << "needs the bridge binary and the simulator bundle";
    }
    static bool isError(const json& result) { return result.value("isError", false); }
};

}  // namespace

using LinkLaunch = Link;

TEST_F(LinkLaunch, StudioNotRunningIsLaunchedInTheBackgroundAndLinked) {
    LinkSession session;
    session.startBridge();
    auto result = session.call(1, "studio_status");
    EXPECT_FALSE(isError(result)) << result.dump();
    auto log = session.bridge().stderrText();
    EXPECT_NE(log.find("vantoric-studio-mcp: launching " + bundle().string() + " in the background\n"),
              std::string::npos)
        << log;
    EXPECT_NE(log.find("vantoric-studio-mcp: connected to Studio at http://127.0.0.1:"), std::string::npos) << log;
    EXPECT_EQ(session.studioProcesses().size(), 1u);
}

TEST_F(LinkLaunch, UsableCopyRunningIsNotLaunchedAgain) {
    LinkSession session;
    pid_t studio = session.startStudio();
    session.startBridge();
    EXPECT_FALSE(isError(session.call(1, "studio_status")));
    EXPECT_EQ(session.bridge().stderrText().find("launching"), std::string::npos);
    EXPECT_EQ(session.studioProcesses(), std::vector<pid_t>{studio});
}

TEST_F(LinkLaunch, CopyFromAnotherFolderGivesTheAnotherCopyMessage) {
    LinkSession session;
    fs::path copy = session.home() / "Old" / "Vantoric Studio.app";
    fs::create_directories(copy.parent_path());
    fs::copy(bundle(), copy, fs::copy_options::recursive);
    session.startStudio(copy);
    session.startBridge();
    auto result = session.call(1, "studio_status");
    EXPECT_TRUE(isError(result));
    EXPECT_EQ(LinkSession::text(result),
              "Another copy of Vantoric Studio is running (" + copy.string() +
                  ") and this agent's bridge cannot use it: it belongs to " + bundle().string() +
                  ". Quit that copy so this one can start, or add the bridge inside the running copy (its Settings "
                  "\u25B8 Agents).");
}

using LinkHandover = Link;

TEST_F(LinkHandover, ProcessThatIsNotStudioIsClosedWithoutAByteAndStudioStillLinks) {
    LinkSession session;
    session.startBridge();
    // Nothing runs yet, so the bridge launches Studio and announces at once,
    // before the new copy listens: this test connects first.
    auto port = nextAnnouncedPort(session.busAddress());
    session.send({{"jsonrpc", "2.0"}, {"id", 1}, {"method", "tools/call"},
                  {"params", {{"name", "studio_status"}, {"arguments", json::object()}}}});
    int announced = port.get();
    ASSERT_GT(announced, 0);
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(announced));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    pollfd p{fd, POLLIN, 0};
    ASSERT_EQ(poll(&p, 1, 5000), 1);
    char byte;
    EXPECT_EQ(recv(fd, &byte, 1, 0), 0) << "closed without a byte";
    close(fd);

    auto answer = session.reply(1, 30s);
    ASSERT_TRUE(answer);
    EXPECT_FALSE(isError((*answer)["result"])) << answer->dump();
    EXPECT_TRUE(session.bridge().waitForStderr(
        "vantoric-studio-mcp: closed a hand-over connection that was not Vantoric Studio\n"));
}

TEST_F(LinkHandover, RefusalGivesStudiosTextAndTheNextCallStartsANewHandover) {
    LinkSession session(Settings{{"STUDIO_SIM_REFUSE", "The person chose Don't Allow."}});
    session.startStudio();
    session.startBridge();
    EXPECT_EQ(LinkSession::text(session.call(1, "studio_status")), "The person chose Don't Allow.");
    EXPECT_EQ(LinkSession::text(session.call(2, "studio_status")), "The person chose Don't Allow.");
    EXPECT_EQ(count(session.bridge().stderrText(), asking), 2u);
}

TEST_F(LinkHandover, MalformedRepliesAreUnexpectedEndpoints) {
    for (const char* kind : {"version2", "short-token", "localhost", "trailing-slash"}) {
        LinkSession session(Settings{{"STUDIO_SIM_MALFORMED", kind}});
        session.startStudio();
        session.startBridge();
        auto result = session.call(1, "studio_status");
        EXPECT_TRUE(isError(result)) << kind;
        EXPECT_EQ(LinkSession::text(result), unexpected) << kind;
    }
}

TEST_F(LinkHandover, SlowPermissionGivesTheWaitingMessageAndALaterCallJoins) {
    LinkSession session(Settings{{"STUDIO_SIM_ASK_DELAY_MS", "1500"}, {"VSM_TEST_LINK_WAIT_MS", "300"}});
    session.startStudio();
    session.startBridge();
    EXPECT_EQ(LinkSession::text(session.call(1, "studio_status")),
              "Waiting for permission in Vantoric Studio. Ask the person to choose Allow in Studio, then call this "
              "tool again.");
    std::this_thread::sleep_for(1500ms);
    EXPECT_FALSE(isError(session.call(2, "studio_status")));
    EXPECT_EQ(count(session.bridge().stderrText(), asking), 1u);
}

TEST_F(LinkHandover, TwoCallsAtOnceMakeOneHandover) {
    LinkSession session(Settings{{"STUDIO_SIM_ASK_DELAY_MS", "300"}});
    session.startStudio();
    session.startBridge();
    for (int id : {1, 2})
        session.send({{"jsonrpc", "2.0"}, {"id", id}, {"method", "tools/call"},
                      {"params", {{"name", "studio_status"}, {"arguments", json::object()}}}});
    for (int id : {1, 2}) {
        auto answer = session.reply(id);
        ASSERT_TRUE(answer) << id;
        EXPECT_FALSE(isError((*answer)["result"])) << answer->dump();
    }
    EXPECT_EQ(count(session.bridge().stderrText(), asking), 1u);
}

using LinkLifetime = Link;

TEST_F(LinkLifetime, StudioQuittingGivesTheClosedMessageOnceThenANewHandover) {
    LinkSession session;
    session.startStudio();
    session.startBridge();
    EXPECT_FALSE(isError(session.call(1, "studio_status")));
    session.stopStudio();
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(LinkSession::text(session.call(2, "studio_status")),
              "Studio closed this agent connection. Call again to request a new connection; no edit was retried.");
    session.startStudio();
    EXPECT_FALSE(isError(session.call(3, "studio_status")));
    EXPECT_EQ(count(session.bridge().stderrText(), asking), 2u);
}

TEST_F(LinkLifetime, ClosingInputDuringAPendingHandoverStopsTheListenerAndExits) {
    // While the reply is awaited, and at once, while the hand-over starts.
    for (bool waitForAsking : {true, false}) {
        LinkSession session(Settings{{"STUDIO_SIM_NEVER_ANSWER", "1"}});
        session.startStudio();
        session.startBridge();
        session.send({{"jsonrpc", "2.0"}, {"id", 1}, {"method", "tools/call"},
                      {"params", {{"name", "studio_status"}, {"arguments", json::object()}}}});
        if (waitForAsking) {
            ASSERT_TRUE(session.bridge().waitForStderr(asking));
            std::this_thread::sleep_for(200ms);
        }
        auto start = std::chrono::steady_clock::now();
        session.bridge().closeStdin();
        auto status = session.bridge().wait(8s);
        ASSERT_TRUE(status) << waitForAsking;
        EXPECT_EQ(*status, 0) << waitForAsking << session.bridge().stderrText();
        EXPECT_LT(std::chrono::steady_clock::now() - start, 6s);
        auto rest = session.bridge().readRest(1s);
        if (waitForAsking) EXPECT_EQ(rest, "");
    }
}

TEST_F(LinkLifetime, UnreachableOrSilentSessionBusIsAClearErrorAndPingsGoOnMeanwhile) {
    for (bool silent : {false, true}) {
        LinkSession session;
        fs::path socketPath = session.home() / "bus";
        // A socket that accepts (the kernel does, from the backlog) and never
        // says a word, or none at all.
        int listener = socket(AF_UNIX, SOCK_STREAM, 0);
        if (silent) {
            sockaddr_un address{};
            address.sun_family = AF_UNIX;
            std::snprintf(address.sun_path, sizeof address.sun_path, "%s", socketPath.c_str());
            ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
            listen(listener, 8);
        }
        session.environment()["DBUS_SESSION_BUS_ADDRESS"] = "unix:path=" + socketPath.string();
        session.startBridge();
        auto start = std::chrono::steady_clock::now();
        session.send({{"jsonrpc", "2.0"}, {"id", 1}, {"method", "tools/call"},
                      {"params", {{"name", "studio_status"}, {"arguments", json::object()}}}});
        std::this_thread::sleep_for(300ms);
        session.send({{"jsonrpc", "2.0"}, {"id", 2}, {"method", "ping"}});
        EXPECT_TRUE(session.reply(2, 2s)) << "the ping waited for the bus; silent: " << silent << "\n"
                                          << session.bridge().stderrText();
        auto answer = session.reply(1, 30s);
        ASSERT_TRUE(answer);
        EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
        EXPECT_TRUE((*answer)["result"].value("isError", false));
        EXPECT_NE(LinkSession::text((*answer)["result"]).find("DBUS_SESSION_BUS_ADDRESS"), std::string::npos)
            << answer->dump();
        close(listener);
    }
}

using LinkForwarding = Link;

TEST_F(LinkForwarding, ForwardedIdsCountFromOne) {
    LinkSession session;
    session.startStudio();
    session.startBridge();
    for (int id : {10, 11, 12}) session.call(id, "studio_status");
    std::vector<int> ids;
    for (auto& event : session.studioEvents("http"))
        if (event.contains("body")) ids.push_back(event["body"]["id"].get<int>());
    EXPECT_EQ(ids, (std::vector<int>{1, 2, 3}));
}

TEST_F(LinkForwarding, Http404AndANonJsonBodyGiveTheirMessages) {
    {
        LinkSession session(Settings{{"STUDIO_SIM_HTTP_STATUS", "404"}});
        session.startStudio();
        session.startBridge();
        EXPECT_EQ(LinkSession::text(session.call(1, "studio_status")), "Vantoric Studio answered with HTTP 404.");
    }
    {
        LinkSession session(Settings{{"STUDIO_SIM_MCP_BODY", "event: message\ndata: {}\n\n"}});
        session.startStudio();
        session.startBridge();
        EXPECT_EQ(LinkSession::text(session.call(1, "studio_status")), "Vantoric Studio answered with HTTP 200.");
    }
}

TEST_F(LinkForwarding, SlowForwardedCallDoesNotDelayAPing) {
    LinkSession session(Settings{{"STUDIO_SIM_SLOW_TOOL", "timeline"}, {"STUDIO_SIM_SLOW_TOOL_MS", "3000"}});
    session.startStudio();
    session.startBridge();
    session.call(1, "studio_status");
    session.send({{"jsonrpc", "2.0"}, {"id", 2}, {"method", "tools/call"},
                  {"params", {{"name", "timeline"}, {"arguments", json::object()}}}});
    std::this_thread::sleep_for(100ms);
    session.send({{"jsonrpc", "2.0"}, {"id", 3}, {"method", "ping"}});
    auto ping = session.reply(3, 2s);
    ASSERT_TRUE(ping) << "the ping waited for the slow call";
    EXPECT_TRUE(session.reply(2, 10s));
}
