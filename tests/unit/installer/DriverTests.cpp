// The installer's command line, agent selection and closing lines, driven
// through BridgeInstaller::run against the agent doubles.
#include <gtest/gtest.h>

#include "Machine.h"

using namespace installertest;

namespace {

const std::string usage =
    "Usage: vantoric-studio-mcp install | status [--json] | uninstall [claude] [codex] [opencode]\n";
const std::string advice =
    "\nStart a new session in your agent and ask it to make a demo video with Vantoric Studio.\n"
    "The first time, Studio asks you once to allow the agent.\n";

}  // namespace

TEST(InstallerCommandLine, UnknownCommandsAndAgentsPrintUsageAndTouchNothing) {
    Machine machine;
    machine.installAgent("claude");
    for (auto arguments : std::vector<std::vector<std::string>>{{}, {"Install"}, {"remove"}, {"--json"}}) {
        SCOPED_TRACE(testing::PrintToString(arguments));
        EXPECT_EQ(machine.run(arguments).status, 2);
        EXPECT_EQ(machine.run(arguments).output, usage);
    }
    auto result = machine.run({"install", "claude", "Claud"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.output, "Unknown agent \"claud\": choose claude, codex or opencode.\n" + usage);
    EXPECT_TRUE(machine.calls("claude").empty());
}

TEST(InstallerCommandLine, AgentWordsAreLowerCasedAndJsonIsIgnoredOutsideStatus) {
    Machine machine;
    machine.installAgent("claude");
    machine.installAgent("codex");
    auto result = machine.run({"install", "--json", "CLAUDE"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "Claude Code: Studio's MCP server added, skill installed.\n" + advice);
    EXPECT_TRUE(machine.calls("codex").empty());
    EXPECT_EQ(machine.run({"uninstall", "codex", "claude"}).output,
              "Claude Code: MCP server removed, skill removed.\nCodex: no MCP server to remove.\n")
        << "agents are handled in a fixed order whatever the words";
}

TEST(InstallerTemporaryLocation, InstallIsRefusedButStatusAndUninstallRun) {
    using BridgeInstaller::isTransientLocation;
    EXPECT_TRUE(isTransientLocation("/private/var/folders/x/T/AppTranslocation/1A2B/d/Vantoric Studio.app/Contents/MacOS/vantoric-studio-mcp"));
    EXPECT_TRUE(isTransientLocation("/Volumes/Vantoric Studio/Vantoric Studio.app/Contents/MacOS/vantoric-studio-mcp"));
    for (const char* path : {"/Applications/Vantoric Studio.app/Contents/MacOS/vantoric-studio-mcp", "/Volumes",
                             "/data/Volumes/Studio/vantoric-studio-mcp", "/opt/AppTranslocations/vantoric-studio-mcp"})
        EXPECT_FALSE(isTransientLocation(path)) << path;

    Machine machine;
    machine.installAgent("claude");
    fs::path translocated = machine.root() / "AppTranslocation" / "X" / "vantoric-studio-mcp";
    auto refused = machine.run({"install"}, translocated);
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.output, "This copy of Vantoric Studio runs from a temporary location:\n  " + translocated.string() +
                                  "\nMove Vantoric Studio to Applications first, then run this again.\n");
    EXPECT_TRUE(machine.calls("claude").empty());
    EXPECT_EQ(machine.run({"status"}, translocated).output, "Claude Code: MCP server not added, skill not installed.\n");
    auto uninstall = machine.run({"uninstall"}, fs::path("/Volumes/Studio/vantoric-studio-mcp"));
    EXPECT_EQ(uninstall.output, "Claude Code: no MCP server to remove.\n");
    EXPECT_EQ(uninstall.status, 0);
}

TEST(InstallerAgentSelection, MissingWantedAgentIsNamedAndFailsTheRun) {
    if (systemHasAgents()) GTEST_SKIP() << "an agent is installed where detection always looks";
    Machine machine;
    machine.installAgent("claude");
    const std::string byHand = "Add Studio by hand with this command as a stdio MCP server:\n  " + machine.bridge().string() + "\n";
    auto missing = machine.run({"install", "codex"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.output, "Codex: not found on your PATH.\n" + byHand);
    EXPECT_TRUE(machine.calls("claude").empty());

    auto both = machine.run({"install", "codex", "claude"});
    EXPECT_EQ(both.status, 1);
    EXPECT_EQ(both.output, "Codex: not found on your PATH.\nClaude Code: Studio's MCP server added, skill installed.\n" + advice);

    auto json = machine.run({"status", "codex", "--json"});
    EXPECT_EQ(json.status, 0);
    std::string escaped;
    for (char c : machine.bridge().string()) escaped += c == '/' ? std::string("\\/") : std::string(1, c);
    EXPECT_EQ(json.output, "{\"agents\":[],\"bridge\":\"" + escaped + "\"}\n");
}

TEST(InstallerClosingAdvice, OnlyAfterAtLeastOneSuccessfulInstall) {
    Machine machine;
    machine.installAgent("claude");
    machine.installAgent("codex");
    machine.script("claude", "add", "error: config is locked\n", 1);
    machine.script("codex", "get", "garbage\n", 0);
    auto failed = machine.run({"install"});
    EXPECT_EQ(failed.status, 1);
    EXPECT_EQ(failed.output,
              "Claude Code: could not add Studio's MCP server, skill installed.\n"
              "    error: config is locked\n"
              "Codex: could not read its MCP servers, skill installed.\n"
              "    garbage\n");
    EXPECT_EQ(machine.run({"status"}).output.find("Start a new session"), std::string::npos);
}
