// The bridge as a whole process: both eras of the protocol at once, what it
// says when it finds no Studio, and the mode an argument chooses.
#include "BridgeSession.h"

using namespace testsupport;

// Without a Studio the bridge says so once, at start, and answers all the
// same; calls that need one fail alike in both eras. (Finding Studio is the
// link's part: every other test runs a bridge that found one.)
TEST(BothEras, OneProcessServesAHandshakeClientAndStatelessRequestsEvenWithoutAStudio) {
    BridgeSession session;
    session.environment().erase("VANTORIC_STUDIO_APP");
    ChildProcess& bridge = session.launch();
    const json meta = {{"io.modelcontextprotocol/protocolVersion", "2026-07-28"},
                       {"io.modelcontextprotocol/clientCapabilities", json::object()}};
    for (const json& message : {request(1, "initialize", {{"protocolVersion", "2099-01-01"}, {"clientInfo", {{"name", "codex"}}}}),
                                request("d", "server/discover", {{"_meta", meta}}), request(2, "tools/list", {{"_meta", meta}}),
                                request(3, "ping"), request(4, "ping", {{"_meta", meta}}), request(5, "tools/list"),
                                toolCall(6, "timeline", {{"action", "list"}}), toolCall(7, "timeline", {{"action", "list"}}, meta)})
        bridge.write(message.dump() + "\n");
    std::map<std::string, json> got;  // by the text of the id: replies leave in completion order
    for (int i = 0; i < 8; ++i) {
        auto reply = json::parse(bridge.readLine().value_or("{}"));
        got[reply.value("id", json()).dump()] = reply;
    }
    ASSERT_EQ(got.size(), 8u);
    EXPECT_EQ(got["1"]["result"]["protocolVersion"], "2025-11-25");
    EXPECT_EQ(got["1"]["result"]["serverInfo"], json::parse(R"({"name":"vantoric-studio","title":"Vantoric Studio","version":"0"})"));
    EXPECT_EQ(got["1"]["result"]["instructions"], "Vantoric Studio could not be found on this Mac. Install it from "
                                                  "vantoric.studio, then restart this MCP server.");
    EXPECT_EQ(got["\"d\""]["result"]["supportedVersions"][0], "2026-07-28");
    EXPECT_EQ(got["\"d\""]["result"]["_meta"]["io.modelcontextprotocol/serverInfo"]["version"], "0");
    EXPECT_EQ(got["2"]["result"]["resultType"], "complete");
    EXPECT_EQ(got["2"]["result"]["tools"], got["5"]["result"]["tools"]);
    EXPECT_FALSE(got["5"]["result"].contains("resultType"));
    EXPECT_EQ(got["3"]["result"], json::object());
    EXPECT_EQ(got["4"]["error"]["code"], -32601);
    EXPECT_EQ(got["6"]["result"]["isError"], true);
    EXPECT_EQ(got["7"]["result"]["resultType"], "complete");
    EXPECT_EQ(got["6"]["result"]["content"], got["7"]["result"]["content"]);
    EXPECT_EQ(session.finish(), "");
    EXPECT_EQ(bridge.stderrText(), "vantoric-studio-mcp: Vantoric Studio was not found; set VANTORIC_STUDIO_APP.\n");
}

// Standard input stays open: a server would wait for it, the installer does
// not read it.
TEST(ModeSelection, AnyArgumentRunsTheInstallerNotTheServer) {
    BridgeSession session;
    ChildProcess& bridge = session.launch({bridgeBinary().string(), "frobnicate"});
    EXPECT_NE(bridge.wait().value_or(0), 0);  // the usage, and no server waiting
    EXPECT_EQ(bridge.readRest().find("jsonrpc"), std::string::npos);
}
