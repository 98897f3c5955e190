// The official SDK clients (sdk_client.mjs) against the real bridge and the
// Studio simulator: the v1 handshake client, and the v2 client pinned to the
// stateless revision or probing for it. A whole session must work in each.
#include "BridgeSession.h"

using namespace testsupport;

class OfficialSdkClient : public ::testing::TestWithParam<std::string> {};

TEST_P(OfficialSdkClient, WholeSessionWithProgressAndACancelledCall) {
    const std::string mode = GetParam();
    BridgeSession session({{"STUDIO_SIM_EXPORT_SECONDS", "1"}, {"STUDIO_SIM_MAX_WAIT", "0.2"},
                           {"STUDIO_SIM_SLOW_TOOL", "timeline"}, {"STUDIO_SIM_SLOW_TOOL_MS", "1500"}});
    session.startStudio();
    ChildProcess node({{"node", VSM_SOURCE_DIR "/tests/integration/server/sdk_client.mjs", bridgeBinary().string(), VSM_NPM_DIR, mode},
                       session.environment(), session.home()});
    std::string text = node.readRest(90s);
    ASSERT_EQ(node.wait(), 0) << text << node.stderrText();
    json out = json::parse(text, nullptr, false);
    ASSERT_TRUE(out.is_object()) << text << node.stderrText();
    const json catalog = json::parse(readFile(bundle() / "Contents/Resources/AgentLink/studio-agent-mcp.json"));

    EXPECT_EQ(out["era"], mode == "v1" ? "handshake" : "modern");
    if (mode != "v1") {
        EXPECT_EQ(out["version"], "2026-07-28");
        EXPECT_EQ(out["discover"]["supportedVersions"], json::parse(R"(["2026-07-28","2025-11-25","2025-06-18","2025-03-26","2024-11-05"])"));
        // Every result on the wire was framed for the stateless revision.
        ASSERT_FALSE(out["rawResults"].empty());
        for (const auto& result : out["rawResults"]) EXPECT_EQ(result["resultType"], "complete") << result.dump();
    }
    EXPECT_EQ(out["serverVersion"], json::parse(R"({"name":"vantoric-studio","title":"Vantoric Studio","version":"3.2.1"})"));
    EXPECT_EQ(out["instructions"], catalog["instructions"]);
    json names = json::array();
    for (const auto& tool : catalog["tools"]) names.push_back(tool["name"]);
    EXPECT_EQ(out["tools"], names);
    EXPECT_EQ(out["prompt"]["messages"][0]["content"]["text"],
              "Make a rough cut from the clips in /media/clips. Keep it about 60 seconds long with a lively feel: import "
              "the clips, order them on the timeline, then export to rough-cut.mp4 in the working folder.");
    EXPECT_EQ(out["refused"]["content"][0]["text"], R"(export_video has no parameter "pathh" (did you mean "path"?). Nothing was done.)");
    EXPECT_EQ(out["project"]["isError"], false) << out["project"].dump();
    // The export told its phases on the way (the wire says which: the client
    // may hand the last one out after the result).
    EXPECT_EQ(out["exported"]["isError"], false) << out["exported"].dump();
    ASSERT_GE(out["progressOnWire"].size(), 2u) << out.dump();
    EXPECT_EQ(out["progressOnWire"].front()["message"], "Export queued");
    EXPECT_EQ(out["progressOnWire"].back()["message"], "Export completed");
    // The cancelled call was never answered, although Studio finished it.
    EXPECT_EQ(out["cancelNotice"], out["cancelledId"]) << out.dump();
    EXPECT_EQ(out["repliesToCancelled"], 0);
    EXPECT_EQ(out["after"]["isError"], false) << out["after"].dump();
    // Studio was asked on behalf of the agent that made the calls.
    EXPECT_EQ(session.studioEvents("ask").at(0)["client"], "SDK Interop");
}

INSTANTIATE_TEST_SUITE_P(Clients, OfficialSdkClient, ::testing::Values("v1", "pin", "auto"),
                         [](const auto& info) { return info.param; });
