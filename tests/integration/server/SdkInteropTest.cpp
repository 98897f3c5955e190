#include <unistd.h>

#include <cstdlib>
#include <sstream>

#include "BridgeSession.h"

using namespace testsupport;

namespace {

bool onPath(const std::string& program) {
    const char* path = std::getenv("PATH");
    std::stringstream folders(path ? path : "");
    for (std::string folder; std::getline(folders, folder, ':');)
        if (!folder.empty() && access((folder + "/" + program).c_str(), X_OK) == 0) return true;
    return false;
}

}  // namespace

TEST(OfficialSdkClient, FullSessionAgainstTheRealBridge) {
    if (!onPath("node")) GTEST_SKIP() << "node is not installed";
    TempDir home;
    Environment environment = currentEnvironment();
    environment["HOME"] = home.path().string();
    ChildProcess node({{"node", std::string(VSM_SOURCE_DIR) + "/tests/integration/server/sdk_client.mjs", VSM_BRIDGE_BINARY,
                        releaseBundle().string(), VSM_NPM_DIR},
                       environment,
                       home.path()});
    std::string out = node.readRest(std::chrono::seconds(60));
    auto status = node.wait(std::chrono::seconds(10));
    ASSERT_EQ(status, 0) << out << node.stderrText();
    auto result = Json::parse(out, nullptr, false);
    ASSERT_TRUE(result.is_object()) << out;

    auto catalog = Json::parse(readFile(releaseBundle() / "Contents/Resources/AgentLink/studio-agent-mcp.json"));
    EXPECT_EQ(result["serverVersion"], Json::parse(R"({"name":"vantoric-studio","title":"Vantoric Studio","version":"3.2.1"})"));
    EXPECT_EQ(result["capabilities"], Json::parse(R"({"tools":{"listChanged":false},"prompts":{"listChanged":false}})"));
    EXPECT_EQ(result["instructions"], catalog["instructions"]);
    ASSERT_EQ(result["tools"].size(), catalog["tools"].size());
    for (size_t i = 0; i < catalog["tools"].size(); ++i) {
        EXPECT_EQ(result["tools"][i]["name"], catalog["tools"][i]["name"]);
        EXPECT_EQ(result["tools"][i]["inputSchema"], catalog["tools"][i]["inputSchema"]);
    }
    ASSERT_EQ(result["prompts"].size(), 2u);
    EXPECT_EQ(result["prompts"][0]["arguments"], catalog["prompts"][0]["arguments"]);
    EXPECT_FALSE(result["prompts"][0].contains("template"));
    EXPECT_EQ(result["prompt"]["messages"][0]["content"]["text"],
              "Make a rough cut from the clips in /media/clips. Keep it about 60 seconds long with a lively feel: import "
              "the clips, order them on the timeline, then export to rough-cut.mp4 in the working folder.");
    EXPECT_EQ(result["call"]["isError"], true);
    EXPECT_EQ(result["call"]["content"][0]["text"],
              R"(export_video has no parameter "pathh" (did you mean "path"?). Nothing was done.)");
    EXPECT_EQ(result["ping"], Json::object());
    EXPECT_EQ(result["unknownPrompt"]["code"], -32602);
    EXPECT_NE(result["unknownPrompt"]["message"].get<std::string>().find("Unknown prompt."), std::string::npos);
}
