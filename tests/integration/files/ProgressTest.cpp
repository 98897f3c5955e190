// Progress notifications end to end: written only for a call that carries a
// progress token, before its reply.
#include "FileSession.h"

using namespace filestest;

namespace {

json toolCall(int id, const std::string& tool, const json& arguments, std::optional<json> token) {
    json params = {{"name", tool}, {"arguments", arguments}};
    if (token) params["_meta"] = {{"progressToken", *token}};
    return {{"jsonrpc", "2.0"}, {"id", id}, {"method", "tools/call"}, {"params", params}};
}

}  // namespace

using ReportingProgress = FileTools;

TEST_F(ReportingProgress, ImportWithATokenTellsTheBytesUploaded) {
    FileSession session;
    session.start();
    session.write(session.work() / "big.mov", std::string(8 << 20, 'b'));
    session.send(toolCall(1, "import_media", {{"paths", {"big.mov"}}}, json("import-1")));
    auto reply = session.reply(1, 30s);
    ASSERT_TRUE(reply);
    EXPECT_FALSE(FileSession::isError((*reply)["result"])) << reply->dump();
    auto told = session.takeNotifications();
    ASSERT_GE(told.size(), 2u);
    uint64_t last = 0;
    for (size_t i = 0; i < told.size(); ++i) {
        EXPECT_EQ(told[i]["method"], "notifications/progress");
        const json& params = told[i]["params"];
        EXPECT_EQ(params["progressToken"], "import-1");
        EXPECT_EQ(params["total"], 8 << 20);
        EXPECT_EQ(params["message"], "Uploading big.mov (1 of 1)");
        if (i > 0) EXPECT_GT(params["progress"].get<uint64_t>(), last);
        last = params["progress"].get<uint64_t>();
    }
    EXPECT_EQ(last, 8u << 20);
}

TEST_F(ReportingProgress, ExportWithATokenTellsItsPhases) {
    FileSession session({{"STUDIO_SIM_EXPORT_SECONDS", "1"}, {"STUDIO_SIM_MAX_WAIT", "0.2"}});
    session.start();
    session.send(toolCall(1, "export_video", json::object(), json(5)));
    auto reply = session.reply(1, 30s);
    ASSERT_TRUE(reply);
    std::vector<std::string> messages;
    for (auto& n : session.takeNotifications()) {
        EXPECT_EQ(n["params"]["progressToken"], 5);
        messages.push_back(n["params"]["message"]);
    }
    ASSERT_GE(messages.size(), 2u);
    EXPECT_EQ(messages.front(), "Export queued");
    EXPECT_EQ(messages.back(), "Export completed");
}

// A client that gives up on quiet calls (OpenCode after a minute) must hear
// that a long one still waits on Studio.
TEST_F(ReportingProgress, ALongWaitOnStudioIsToldAtEveryInterval) {
    FileSession session({{"STUDIO_SIM_SLOW_TOOL", "studio_status"},
                         {"STUDIO_SIM_SLOW_TOOL_MS", "1500"},
                         {"VSM_TEST_PROGRESS_MS", "200"}});
    session.start(false);
    session.send(toolCall(1, "studio_status", json::object(), json("s")));
    ASSERT_TRUE(session.reply(1, 30s));
    auto told = session.takeNotifications();
    ASSERT_GE(told.size(), 3u);
    double last = -1;
    for (auto& n : told) {
        EXPECT_EQ(n["params"]["message"], "Waiting for Vantoric Studio to carry out studio_status.");
        EXPECT_GT(n["params"]["progress"].get<double>(), last);
        last = n["params"]["progress"].get<double>();
    }
}

TEST_F(ReportingProgress, WithoutATokenNothingButTheReplies) {
    FileSession session({{"STUDIO_SIM_EXPORT_SECONDS", "0.5"}, {"STUDIO_SIM_MAX_WAIT", "0.2"}});
    session.start();
    session.write(session.work() / "big.mov", std::string(8 << 20, 'b'));
    session.send(toolCall(1, "import_media", {{"paths", {"big.mov"}}}, std::nullopt));
    ASSERT_TRUE(session.reply(1, 30s));
    session.send(toolCall(2, "export_video", json::object(), std::nullopt));
    ASSERT_TRUE(session.reply(2, 30s));
    EXPECT_TRUE(session.takeNotifications().empty());
    // Nothing else is waiting on the bridge's output either.
    session.send({{"jsonrpc", "2.0"}, {"id", 3}, {"method", "ping"}});
    ASSERT_TRUE(session.reply(3));
    EXPECT_TRUE(session.takeNotifications().empty());
}
