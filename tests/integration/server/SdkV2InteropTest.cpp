// The official SDK v2 client against the real bridge and the Studio
// simulator, pinned to the stateless revision and in its probing mode: both
// must end up stateless, and a session (lists, a prompt, a tool call with
// progress through Studio, a cancelled call) must work in either.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "support/LinkSession.h"

using namespace testsupport;

namespace {

bool nodeAvailable() {
    const char* path = std::getenv("PATH");
    std::stringstream folders(path ? path : "");
    for (std::string folder; std::getline(folders, folder, ':');)
        if (!folder.empty() && access((folder + "/node").c_str(), X_OK) == 0) return true;
    return false;
}

json runClient(LinkSession& session, const std::string& mode) {
    ChildProcess node({{"node", std::string(VSM_SOURCE_DIR) + "/tests/integration/server/sdk_client_v2.mjs",
                        bridgeBinary().string(), VSM_NPM_DIR, mode},
                       session.environment(),
                       session.home()});
    std::string out = node.readRest(std::chrono::seconds(90));
    auto status = node.wait(std::chrono::seconds(10));
    EXPECT_EQ(status, 0) << out << node.stderrText();
    auto result = parseObject(out);
    EXPECT_TRUE(result) << out << node.stderrText();
    return result.value_or(json::object());
}

}  // namespace

TEST(OfficialSdkV2Client, StatelessSessionPinnedOrProbing) {
    if (!nodeAvailable()) GTEST_SKIP() << "node is not installed";
    if (!available()) GTEST_SKIP() << "needs the bridge binary and the simulator bundle";
    std::ifstream file(bundle() / "Contents/Resources/AgentLink/studio-agent-mcp.json");
    std::stringstream text;
    text << file.rdbuf();
    const json catalog = *parseObject(text.str());

    for (std::string mode : {"pin", "auto"}) {
        SCOPED_TRACE(mode);
        LinkSession session({{"STUDIO_SIM_EXPORT_SECONDS", "1"},
                             {"STUDIO_SIM_MAX_WAIT", "0.2"},
                             {"STUDIO_SIM_SLOW_TOOL", "timeline"},
                             {"STUDIO_SIM_SLOW_TOOL_MS", "1500"}});
        session.startStudio();
        json out = runClient(session, mode);
        ASSERT_TRUE(out.contains("era")) << out.dump();

        EXPECT_EQ(out["era"], "modern");
        EXPECT_EQ(out["version"], "2026-07-28");
        EXPECT_EQ(out["discover"]["supportedVersions"],
                  *parseJSON(R"(["2026-07-28","2025-11-25","2025-06-18","2025-03-26","2024-11-05"])"));
        EXPECT_EQ(out["serverVersion"]["name"], "vantoric-studio");
        EXPECT_EQ(out["serverVersion"]["version"], "3.2.1");
        EXPECT_EQ(out["instructions"], catalog["instructions"]);
        EXPECT_TRUE(out["capabilities"].contains("tools"));

        ASSERT_EQ(out["tools"].size(), catalog["tools"].size());
        for (size_t i = 0; i < catalog["tools"].size(); ++i) EXPECT_EQ(out["tools"][i]["name"], catalog["tools"][i]["name"]);
        ASSERT_EQ(out["prompts"].size(), 2u);
        EXPECT_EQ(out["prompt"]["messages"][0]["content"]["text"],
                  "Make a rough cut from the clips in /media/clips. Keep it about 60 seconds long with a lively feel: "
                  "import the clips, order them on the timeline, then export to rough-cut.mp4 in the working folder.");
        EXPECT_EQ(out["refused"]["isError"], true);
        EXPECT_EQ(out["project"]["isError"], false) << out["project"].dump();

        // The export went through Studio and told its phases on the way (the
        // client may hand the last one out after the result, so the wire
        // says which were sent).
        EXPECT_EQ(out["exported"]["isError"], false) << out["exported"].dump();
        EXPECT_FALSE(out["progress"].empty()) << out.dump();
        ASSERT_GE(out["progressOnWire"].size(), 2u) << out.dump();
        EXPECT_EQ(out["progressOnWire"].front()["message"], "Export queued");
        EXPECT_EQ(out["progressOnWire"].back()["message"], "Export completed");

        // The cancelled call: the agent said so, and the bridge never
        // answered it, although Studio finished it meanwhile.
        EXPECT_NE(out["cancelled"], "answered");
        ASSERT_FALSE(out["cancelNotice"].is_null());
        EXPECT_EQ(out["cancelNotice"]["params"]["requestId"], out["cancelledId"]);
        EXPECT_EQ(out["repliesToCancelled"], 0);
        EXPECT_EQ(out["after"]["isError"], false) << out["after"].dump();

        // Every request carried the stateless envelope, and every result on
        // the wire was framed for it.
        EXPECT_EQ(out["sentMeta"]["io.modelcontextprotocol/protocolVersion"], "2026-07-28");
        ASSERT_FALSE(out["rawResults"].empty());
        for (const auto& result : out["rawResults"]) EXPECT_EQ(result["resultType"], "complete") << result.dump();

        // Studio was asked on behalf of the agent that made the call.
        auto asked = session.studioEvents("ask");
        ASSERT_FALSE(asked.empty());
        EXPECT_EQ(asked.front()["client"], "SDK v2 Interop");
    }
}
