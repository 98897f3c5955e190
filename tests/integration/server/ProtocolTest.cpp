// The bridge as a whole process: both eras of the protocol at once, the mode
// an argument chooses, and standard streams that fail.
#include "BridgeSession.h"

using namespace testsupport;

// Calls that need Studio fail alike in both eras (the per-line rules are
// proved in tests/unit/server): the link is one, and here it cannot be made
// (Studio runs, but the bridge has no session bus to find it on), not even
// for a call the agent cancels at once.
TEST(BothEras, OneProcessServesAHandshakeClientAndStatelessRequests) {
    BridgeSession session;
    session.startStudio();
    session.environment()["DBUS_SESSION_BUS_ADDRESS"] = "unix:path=" + (session.home() / "no-bus").string();
    ChildProcess& bridge = session.launch();
    const json meta = {{"io.modelcontextprotocol/protocolVersion", "2026-07-28"},
                       {"io.modelcontextprotocol/clientCapabilities", json::object()}};
    for (const json& message : {request(1, "initialize", {{"protocolVersion", "2099-01-01"}, {"clientInfo", {{"name", "codex"}}}}),
                                request(2, "tools/list", {{"_meta", meta}}), request(3, "ping"), request(4, "ping", {{"_meta", meta}}),
                                toolCall(6, "timeline", {{"action", "list"}}), toolCall(7, "timeline", {{"action", "list"}}, meta)})
        bridge.write(message.dump() + "\n");
    std::map<std::string, json> got;  // by the text of the id: replies leave in completion order
    for (int i = 0; i < 6; ++i) {
        auto reply = json::parse(bridge.readLine().value_or("{}"));
        got[reply.value("id", json()).dump()] = reply;
    }
    EXPECT_EQ(got["1"]["result"]["protocolVersion"], "2025-11-25");
    EXPECT_EQ(got["2"]["result"]["resultType"], "complete");
    EXPECT_EQ(got["3"]["result"], json::object());
    EXPECT_EQ(got["4"]["error"]["code"], -32601);
    EXPECT_EQ(got["6"]["result"]["isError"], true);
    EXPECT_EQ(got["7"]["result"]["resultType"], "complete");
    EXPECT_EQ(got["6"]["result"]["content"], got["7"]["result"]["content"]);
    // The next call waits for the link the cancelled one asked for (before the
    // end of input, which would leave that work running as the process exits);
    // it fails too, though maybe otherwise: the first attempt launched a copy.
    bridge.write(toolCall(8, "timeline", json::object()).dump() + "\n" +
                 R"({"jsonrpc":"2.0","method":"notifications/cancelled","params":{"requestId":8}})" "\n" +
                 toolCall(9, "timeline", json::object()).dump() + "\n");
    EXPECT_EQ(json::parse(bridge.readLine().value_or("{}"))["result"]["isError"], true);
    EXPECT_EQ(session.finish(), "");
}

// An argument runs the installer, which does not read standard input (left
// open here: a server would wait for it). The server, finding no Studio, says
// so once at start; it serves on when standard error cannot be written (a
// dead agent's pipe, a full disk), and ends as at the end of input when
// standard input cannot be read.
TEST(WholeProcess, AnArgumentRunsTheInstallerAndTheServerCopesWithItsStandardStreams) {
    BridgeSession session;
    session.environment().erase("VANTORIC_STUDIO_APP");
    ChildProcess& installer = session.launch({bridgeBinary().string(), "frobnicate"});
    EXPECT_NE(installer.wait().value_or(0), 0);
    EXPECT_EQ(installer.readRest().find("jsonrpc"), std::string::npos);
    ChildProcess& unreadable = session.launch({"/bin/sh", "-c", "exec \"$0\" < /", bridgeBinary().string()});
    EXPECT_EQ(unreadable.wait(), 0);
    EXPECT_EQ(unreadable.stderrText(), "vantoric-studio-mcp: Vantoric Studio was not found; set VANTORIC_STUDIO_APP.\n"
                                       "vantoric-studio-mcp: Cannot read standard input: Is a directory.\n");
    ChildProcess& server = session.launch({"/bin/sh", "-c", "exec \"$0\" 2>/dev/full", bridgeBinary().string()});
    server.write(request(1, "ping").dump() + "\n");
    EXPECT_EQ(server.readLine(), R"({"jsonrpc":"2.0","id":1,"result":{}})");
    EXPECT_EQ(session.finish(), "");
}
