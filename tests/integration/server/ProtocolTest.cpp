#include "BridgeSession.h"

using namespace testsupport;

TEST(BadInput, EveryKindGetsAClearAnswerAndTheServerCarriesOn) {
    BridgeSession session;
    session.send("hello\n");
    EXPECT_EQ(session.next(), Json::parse(parseError));
    session.send("42\n\"text\"\nnull\n");
    for (int i = 0; i < 3; ++i) EXPECT_EQ(session.next(), Json::parse(parseError));
    session.send("{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"ping\",\"params\":{\"x\":\"\xc3\x28\xff\"}}\n");
    EXPECT_EQ(session.next(), Json::parse(parseError));
    session.send(std::string(1, '\0') + "\x80\x81\n");
    EXPECT_EQ(session.next(), Json::parse(parseError));
    session.send(std::string(2000000, '[') + "\n");
    EXPECT_EQ(session.next(), Json::parse(parseError));
    session.send(request(2, "ping"));
    EXPECT_EQ(session.next()["id"], 2);
    int status = -1;
    EXPECT_EQ(session.finish(&status), "");
    EXPECT_EQ(status, 0);
}

TEST(BadInput, IdsOfEveryKind) {
    BridgeSession session;
    session.send(request("x", "ping") + request(12, "ping") + request(0.5, "ping") + request(nullptr, "ping") +
                 R"({"jsonrpc":"2.0","method":"ping"})" "\n" + request(true, "ping"));
    auto replies = session.next(4);
    ASSERT_EQ(replies.size(), 4u);
    EXPECT_TRUE(replies.count("\"x\""));
    EXPECT_TRUE(replies.count("12"));
    EXPECT_TRUE(replies.count("0.5"));
    EXPECT_TRUE(replies.count("true"));
    EXPECT_EQ(session.finish(), "");
}

TEST(BadInput, TwentyMegabyteLines) {
    BridgeSession session;
    std::string big(20 << 20, 'a');
    session.send(request(1, "ping", {{"padding", big}}));
    EXPECT_EQ(session.next(), Json::parse(R"({"jsonrpc":"2.0","id":1,"result":{}})"));
    session.send(big + "\n");
    EXPECT_EQ(session.next(), Json::parse(parseError));
    EXPECT_EQ(session.finish(), "");
}

TEST(Methods, UnknownMethodIsNamed) {
    BridgeSession session;
    session.send(request(1, "resources/read"));
    EXPECT_EQ(session.next(), Json::parse(R"({"jsonrpc":"2.0","id":1,"error":{"code":-32601,"message":"Method not found: resources/read"}})"));
    EXPECT_EQ(session.finish(), "");
}

TEST(Methods, ToolCallWithoutANameIsInvalidParams) {
    BridgeSession session;
    session.send(request(1, "tools/call", {{"arguments", Json::object()}}));
    EXPECT_EQ(session.next(), Json::parse(R"({"jsonrpc":"2.0","id":1,"error":{"code":-32602,"message":"tools/call needs a name."}})"));
    EXPECT_EQ(session.finish(), "");
}

TEST(Methods, ToolCallsThatNeedStudioFailAsToolResults) {
    BridgeSession session;
    session.send(toolCall(1, "timeline", {{"action", "list"}}) +
                 toolCall(2, "export_video", {{"action", "status"}, {"path", "out.mov"}}));
    auto replies = session.next(2);
    EXPECT_EQ(replies["1"]["result"]["isError"], true);
    EXPECT_FALSE(replies["1"].contains("error"));
    EXPECT_EQ(toolText(replies["2"]), "path must end in .mp4.");
    EXPECT_EQ(session.finish(), "");
}

TEST(Cancellation, NumberSevenIsNotStringSeven) {
    BridgeSession session;
    // Each write arrives in one read, so the cancellation is handled before
    // the request it names has run.
    session.send(toolCall(7, "timeline", Json::object()) + cancelled("7"));
    EXPECT_EQ(session.next()["id"], 7);
    session.send(toolCall(8, "timeline", Json::object()) + cancelled(8) + request(9, "ping"));
    EXPECT_EQ(session.next()["id"], 9);
    session.send(toolCall("10", "timeline", Json::object()) + cancelled(10) + toolCall("11", "timeline", Json::object()) +
                 cancelled("11"));
    EXPECT_EQ(session.next()["id"], "10");
    EXPECT_EQ(session.finish(), "");
}

TEST(ParameterChecking, SuggestionsReachTheAgent) {
    TempDir dir;
    auto catalog = dir.write("catalog.json", R"({"tools":[
        {"name":"resize","inputSchema":{"type":"object","properties":{"größe":{},"farbe":{},"file_path":{}}}},
        {"name":"export_video","inputSchema":{"type":"object","properties":{"action":{},"path":{},"overwrite":{}}}}]})");
    BridgeSession session(SessionOptions().withCatalog(catalog.string()));
    session.send(toolCall(1, "export_video", {{"action", "start"}, {"pathh", "a.mp4"}}) +
                 toolCall(2, "resize", {{"Grösse", 3}}) + toolCall(3, "resize", {{"filePath", "x"}, {"colour", "red"}}));
    auto replies = session.next(3);
    EXPECT_EQ(toolText(replies["1"]), R"(export_video has no parameter "pathh" (did you mean "path"?). Nothing was done.)");
    EXPECT_EQ(toolText(replies["2"]), R"(resize has no parameter "Grösse" (did you mean "größe"?). Nothing was done.)");
    EXPECT_EQ(toolText(replies["3"]),
              R"(resize has no parameter "colour", "filePath" (did you mean "file_path"?). Nothing was done. Its parameters: farbe, file_path, größe.)");
    for (auto& [id, reply] : replies) EXPECT_EQ(reply["result"]["isError"], true);
    EXPECT_EQ(session.finish(), "");
}

TEST(BothEras, OneProcessServesAHandshakeClientAndStatelessRequests) {
    BridgeSession session;
    const Json meta = {{"io.modelcontextprotocol/protocolVersion", "2026-07-28"},
                       {"io.modelcontextprotocol/clientCapabilities", Json::object()}};
    session.send(request(1, "initialize", {{"protocolVersion", "2099-01-01"}, {"clientInfo", {{"name", "codex"}}}}) +
                 request("d", "server/discover", {{"_meta", meta}}) + request(2, "tools/list", {{"_meta", meta}}) +
                 request(3, "ping") + request(4, "ping", {{"_meta", meta}}) + request(5, "tools/list") +
                 toolCall(6, "timeline", {{"action", "list"}}) +
                 request(7, "tools/call", {{"name", "timeline"}, {"arguments", {{"action", "list"}}}, {"_meta", meta}}));
    auto replies = session.next(8);
    ASSERT_EQ(replies.size(), 8u);
    EXPECT_EQ(replies["1"]["result"]["protocolVersion"], "2025-11-25");
    EXPECT_EQ(replies["\"d\""]["result"]["supportedVersions"],
              Json::parse(R"(["2026-07-28","2025-11-25","2025-06-18","2025-03-26","2024-11-05"])"));
    EXPECT_EQ(replies["\"d\""]["result"]["_meta"]["io.modelcontextprotocol/serverInfo"]["version"], "3.2.1");
    EXPECT_EQ(replies["2"]["result"]["resultType"], "complete");
    EXPECT_EQ(replies["2"]["result"]["tools"], replies["5"]["result"]["tools"]);
    EXPECT_EQ(replies["3"]["result"], Json::object());
    EXPECT_EQ(replies["4"]["error"]["code"], -32601);
    EXPECT_FALSE(replies["5"]["result"].contains("resultType"));
    // The link is one: both calls fail the same way (no session bus here).
    EXPECT_EQ(replies["6"]["result"]["isError"], true);
    EXPECT_EQ(replies["7"]["result"]["isError"], true);
    EXPECT_EQ(replies["7"]["result"]["resultType"], "complete");
    EXPECT_EQ(replies["6"]["result"]["content"], replies["7"]["result"]["content"]);
    EXPECT_EQ(session.finish(), "");
}
