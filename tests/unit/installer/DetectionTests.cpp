// Finding agents on the search path, their folders, and telling whether a
// configured command is this bridge.
#include <gtest/gtest.h>

#include <cstdlib>

#include "installer/Detection.h"
#include "support/TempDir.h"

using namespace BridgeInstaller;
namespace fs = std::filesystem;

namespace {

fs::path executable(const testsupport::TempDir& dir, const std::string& relative) {
    auto file = dir.write(relative, "#!/bin/sh\n");
    fs::permissions(file, fs::perms::owner_all);
    return file;
}

const Agent* find(const std::vector<Agent>& agents, const std::string& id) {
    for (const auto& agent : agents) {
        if (agent.id == id) return &agent;
    }
    return nullptr;
}

}  // namespace

TEST(AgentDetection, SearchesThePathInOrderSkippingWhatCannotRun) {
    testsupport::TempDir dir;
    executable(dir, "first/codex");
    fs::permissions(dir / "first/codex", fs::perms::owner_read | fs::perms::owner_write);  // not executable
    executable(dir, "second/codex");
    fs::create_directories(dir / "second/claude");  // a folder is no program
    executable(dir, "third/claude");
    std::string path = ":" + (dir / "first").string() + "::" + (dir / "second").string() + ":" + (dir / "third").string() + ":";

    auto agents = detect({{"HOME", (dir / "home").string()}, {"PATH", path}});
    ASSERT_NE(find(agents, "claude"), nullptr);
    ASSERT_NE(find(agents, "codex"), nullptr);
    EXPECT_EQ(find(agents, "claude")->executable, dir / "third/claude");
    EXPECT_EQ(find(agents, "codex")->executable, dir / "second/codex");
    EXPECT_EQ(agents.front().id, "claude");
    EXPECT_EQ(find(agents, "codex")->title, "Codex");
}

TEST(AgentDetection, LooksInLocalBinBelowHomeAfterThePath) {
    testsupport::TempDir dir;
    executable(dir, "home/.local/bin/opencode");
    auto agents = detect({{"HOME", (dir / "home").string()}});
    ASSERT_NE(find(agents, "opencode"), nullptr);
    EXPECT_EQ(find(agents, "opencode")->executable, dir / "home/.local/bin/opencode");
}

TEST(AgentDetection, FoldersFollowHomeAndTheAgentsVariables) {
    testsupport::TempDir dir;
    for (auto id : {"claude", "codex", "opencode"}) executable(dir, std::string("bin/") + id);
    platform::Environment environment{{"HOME", (dir / "home").string()}, {"PATH", (dir / "bin").string()}};

    auto plain = detect(environment);
    ASSERT_EQ(plain.size(), 3u);
    EXPECT_EQ(plain[0].skillsFolder, dir / "home/.claude/skills");
    EXPECT_EQ(plain[1].skillsFolder, dir / "home/.codex/skills");
    EXPECT_EQ(plain[2].skillsFolder, dir / "home/.config/opencode/skills");
    EXPECT_EQ(plain[2].configFolder, dir / "home/.config/opencode");
    EXPECT_FALSE(plain[0].configFolder);
    EXPECT_FALSE(plain[1].configFolder);

    environment["CLAUDE_CONFIG_DIR"] = "/nowhere/claude";
    environment["CODEX_HOME"] = "~/codex";  // taken as it stands
    environment["XDG_CONFIG_HOME"] = "/xdg";
    auto moved = detect(environment);
    EXPECT_EQ(moved[0].skillsFolder, fs::path("/nowhere/claude/skills"));
    EXPECT_EQ(moved[1].skillsFolder, fs::path("~/codex/skills"));
    EXPECT_EQ(moved[2].skillsFolder, fs::path("/xdg/opencode/skills"));
    EXPECT_EQ(moved[2].configFolder, fs::path("/xdg/opencode"));
}

TEST(BridgePathComparison, TildeLinksDotsAndUnicodeSpellings) {
    testsupport::TempDir dir;
    auto bridge = executable(dir, "home/Caf\xC3\xA9/vantoric-studio-mcp");
    fs::create_directory_symlink(dir / "home/Caf\xC3\xA9", dir / "home/link");
    // "~" names this process's home.
    std::string savedHome = std::getenv("HOME") ? std::getenv("HOME") : "";
    ::setenv("HOME", (dir / "home").c_str(), 1);

    EXPECT_TRUE(samePath("~/Caf\xC3\xA9/vantoric-studio-mcp", bridge));
    EXPECT_TRUE(samePath((dir / "home/link/vantoric-studio-mcp").string(), bridge));
    EXPECT_TRUE(samePath((dir / "home/link/../link/./vantoric-studio-mcp").string(), bridge));
    EXPECT_TRUE(samePath((dir / "home/Cafe\xCC\x81/vantoric-studio-mcp").string(), bridge));  // decomposed é
    EXPECT_FALSE(samePath((dir / "home/Cafe/vantoric-studio-mcp").string(), bridge));
    EXPECT_TRUE(samePath("/nonexistent/a/../b", "/nonexistent/b"));
    if (savedHome.empty()) ::unsetenv("HOME");
    else ::setenv("HOME", savedHome.c_str(), 1);
}

TEST(BridgePathComparison, LaunchesOnlyWithTheBridgeAsTheOneWord) {
    fs::path bridge = "/opt/studio/vantoric-studio-mcp";
    using Words = std::vector<std::string>;
    EXPECT_TRUE(launches(Words{"/opt/studio/vantoric-studio-mcp"}, bridge));
    for (const Words& words : {Words{"/opt/studio/vantoric-studio-mcp", "--stdio"},
                               Words{"/usr/bin/env", "/opt/studio/vantoric-studio-mcp"}, Words{}})
        EXPECT_FALSE(launches(words, bridge)) << testing::PrintToString(words);
    EXPECT_FALSE(launches(std::nullopt, bridge));
}
