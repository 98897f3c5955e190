#include <algorithm>

#include "BridgeHarness.h"

using namespace testsupport;

TEST(ReceivingLines, LinesThatAreNotWholeJSONAreParseErrors) {
    const std::string ping = request(1, "ping");
    const std::vector<std::string> lines = {
        // Nesting beyond the reader's depth: refused before any tree is built.
        R"({"jsonrpc":"2.0","id":1,"method":"ping","params":{"deep":)" + std::string(100000, '[') +
            std::string(100000, ']') + "}}",
        // A NUL ends the text for the parser, which would answer the ping.
        ping + std::string(1, '\0') + "trailing",
        ping.substr(0, ping.size() - 1) + std::string(1, '\0') + "}",
    };
    for (const auto& line : lines) {
        BridgeHarness harness;
        harness.receive(line);
        EXPECT_EQ(harness.reply()["error"]["code"], -32700) << line.substr(0, 60);
    }
}

TEST(ReceivingLines, AnObjectOfAnyWidthIsReadInOneLinearPass) {
    // Members found by linear search made this line take minutes, holding
    // the ping behind it.
    std::string wide = R"({"jsonrpc":"2.0","id":1,"method":"ping","params":{)";
    for (int i = 0; i < 200000; ++i) wide += (i ? ",\"m" : "\"m") + std::to_string(i) + "\":" + std::to_string(i);
    wide += R"(,"m7":"again"}})";
    BridgeHarness harness;
    harness.receive({wide, request(2, "ping")});
    auto replies = harness.replies();
    ASSERT_EQ(replies.size(), 2u);
    EXPECT_EQ(replies[0]["result"], Json::object());
    EXPECT_EQ(replies[1]["id"], 2);
    auto members = Json::parse(wide)["params"];
    EXPECT_EQ(members.size(), 200000u);
    EXPECT_EQ(members["m7"], "again");  // a repeated member: the last one holds
    EXPECT_EQ(members.begin().key(), "m0");
    EXPECT_EQ(members["m199999"], 199999);
}

TEST(ReceivingLines, BatchElementsAreAnsweredOneLineEach) {
    BridgeHarness harness;
    harness.receive("[" + request(1, "ping") + R"(,{"jsonrpc":"2.0","method":"notifications/initialized"},)" +
                    request(2, "ping") + R"(,5,"x",null,[],{"id":9},{"id":10,"method":3}])");
    auto replies = harness.replies();
    ASSERT_EQ(replies.size(), 2u);
    EXPECT_EQ(replies[0], Json::parse(R"({"jsonrpc":"2.0","id":1,"result":{}})"));
    EXPECT_EQ(replies[1], Json::parse(R"({"jsonrpc":"2.0","id":2,"result":{}})"));
    EXPECT_TRUE(harness.bridge->calls.empty());
}

TEST(ReceivingLines, EmptyBatchRepliesAndNotificationsYieldNothing) {
    BridgeHarness harness;
    harness.receive({"[]", R"({"jsonrpc":"2.0","id":5,"result":{}})", R"({"jsonrpc":"2.0","id":null,"method":"ping"})",
                     R"({"jsonrpc":"2.0","method":"ping"})", R"({"jsonrpc":"2.0","method":"notifications/initialized"})"});
    EXPECT_TRUE(harness.written.empty());
}

TEST(ReceivingLines, IdComesBackAsReceived) {
    BridgeHarness harness;
    harness.receive({request("abc/def", "ping"), request(-3, "ping"), request(2.5, "ping"),
                     request(18446744073709551615ull, "ping"), request(Json::object({{"k", 1}}), "ping")});
    auto replies = harness.replies();
    ASSERT_EQ(replies.size(), 5u);
    EXPECT_EQ(replies[0]["id"], "abc/def");
    EXPECT_EQ(replies[1]["id"], -3);
    EXPECT_EQ(replies[2]["id"], 2.5);
    EXPECT_EQ(replies[3]["id"], 18446744073709551615ull);
    EXPECT_EQ(replies[4]["id"], Json::object({{"k", 1}}));
    // Output keeps "/" as it is.
    EXPECT_NE(harness.written[0].find("\"abc/def\""), std::string::npos);
}

TEST(MethodTable, EachMethodGetsItsResult) {
    BridgeHarness harness;
    harness.receive(request(1, "ping", {{"anything", true}}));
    harness.receive(request(2, "resources/list"));
    harness.receive(request(3, "tools/list"));
    harness.receive(request(4, "prompts/list"));
    auto replies = harness.replies();
    ASSERT_EQ(replies.size(), 4u);
    EXPECT_EQ(replies[0]["result"], Json::object());
    EXPECT_EQ(replies[1]["result"], Json::parse(R"({"resources":[]})"));
    EXPECT_EQ(replies[2]["result"]["tools"], Json::parse(studioCatalog())["tools"]);
    ASSERT_EQ(replies[3]["result"]["prompts"].size(), 2u);
    EXPECT_FALSE(replies[3]["result"]["prompts"][0].contains("template"));
}

TEST(MethodTable, PromptFailuresAreInvalidParams) {
    BridgeHarness harness;
    harness.receive(request(1, "prompts/get", {{"name", "no_such_prompt"}}));
    EXPECT_EQ(harness.reply()["error"], Json::parse(R"({"code":-32602,"message":"Unknown prompt."})"));
}

TEST(MethodTable, InitializeStoresTheAgentsName) {
    BridgeHarness harness;
    harness.receive(request(1, "initialize", {{"clientInfo", {{"name", "claude-code"}, {"title", "Claude Code"}}}}));
    EXPECT_EQ(harness.bridge->clientName, "Claude Code");
    EXPECT_EQ(harness.reply()["result"]["serverInfo"]["version"], "3.2.1");
}

TEST(ToolCalls, FailureIsAnErrorFlaggedResultNotAProtocolError) {
    BridgeHarness harness;
    harness.receive(toolCall("t", "timeline", {{"action", "list"}}));
    auto reply = harness.reply();
    EXPECT_EQ(reply["id"], "t");
    EXPECT_FALSE(reply.contains("error"));
    EXPECT_EQ(reply["result"]["isError"], true);
    EXPECT_FALSE(toolText(reply).empty());
}

TEST(ToolCalls, ArgumentsThatAreNotAnObjectCountAsEmpty) {
    BridgeHarness harness(std::nullopt);  // only the placeholder tool, which takes no parameters
    harness.receive({request(1, "tools/call", {{"name", "studio_status"}, {"arguments", "x"}}),
                     toolCall(2, "studio_status", {{"x", 1}})});
    // Replies leave in completion order: the refusal needs no Studio and
    // comes first.
    auto replies = harness.replies();
    ASSERT_EQ(replies.size(), 2u);
    std::sort(replies.begin(), replies.end(), [](const Json& a, const Json& b) { return a["id"] < b["id"]; });
    EXPECT_EQ(replies[0]["result"]["isError"], true);
    EXPECT_EQ(toolText(replies[0]), "Could not launch Vantoric Studio: No such file or directory");
    EXPECT_EQ(toolText(replies[1]), R"(studio_status has no parameter "x". Nothing was done. It takes no parameters.)");
}

TEST(ExportStatusRoute, PathMustEndInMp4AndNothingIsRemembered) {
    for (std::string path : {"out.mov", "out.MOV", "out", "/tmp/mp4"}) {
        BridgeHarness harness;
        harness.receive(toolCall(1, "export_video", {{"action", "status"}, {"path", path}}));
        EXPECT_EQ(toolText(harness.reply()), "path must end in .mp4.") << path;
        EXPECT_FALSE(harness.bridge->exportDestination) << path;
    }
}

TEST(ExportStatusRoute, Mp4PathIsRememberedResolvedBeforeStudioIsAsked) {
    BridgeHarness harness;
    harness.receive(toolCall(1, "export_video", {{"action", "status"}, {"path", "renders/../out.MP4"}, {"overwrite", true}}));
    ASSERT_TRUE(harness.bridge->exportDestination);
    EXPECT_EQ(harness.bridge->exportDestination->url, "/work/folder/out.MP4");
    EXPECT_TRUE(harness.bridge->exportDestination->overwrite);

    harness.receive(toolCall(2, "export_video", {{"action", "status"}, {"path", "/a/b.mp4"}, {"overwrite", "yes"}}));
    EXPECT_EQ(harness.bridge->exportDestination->url, "/a/b.mp4");
    EXPECT_FALSE(harness.bridge->exportDestination->overwrite);
}
