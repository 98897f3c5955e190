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

TEST(InstallerCommandLine, NoArgumentOrUnknownCommandPrintsUsage) {
    Machine machine;
    machine.installAgent("claude");
    for (auto arguments : std::vector<std::vector<std::string>>{{}, {"Install"}, {"remove"}, {"--json"}}) {
        auto result = machine.run(arguments);
        EXPECT_EQ(result.status, 2);
        EXPECT_EQ(result.output, usage);
    }
    EXPECT_TRUE(machine.calls("claude").empty());
}

TEST(InstallerCommandLine, UnknownAgentWordIsNamedLowerCasedAboveUsage) {
    Machine machine;
    machine.installAgent("claude");
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
}

TEST(InstallerTemporaryLocation, RecognisesTranslocatedAndMountedCopies) {
    using BridgeInstaller::isTransientLocation;
    EXPECT_TRUE(isTransientLocation("/private/var/folders/x/T/AppTranslocation/1A2B/d/Vantoric Studio.app/Contents/MacOS/vantoric-studio-mcp"));
    EXPECT_TRUE(isTransientLocation("/Volumes/Vantoric Studio/Vantoric Studio.app/Contents/MacOS/vantoric-studio-mcp"));
    EXPECT_FALSE(isTransientLocation("/Applications/Vantoric Studio.app/Contents/MacOS/vantoric-studio-mcp"));
    EXPECT_FALSE(isTransientLocation("/Volumes"));
    EXPECT_FALSE(isTransientLocation("/data/Volumes/Studio/vantoric-studio-mcp"));
    EXPECT_FALSE(isTransientLocation("/opt/AppTranslocations/vantoric-studio-mcp"));
}

TEST(InstallerTemporaryLocation, InstallIsRefusedButStatusAndUninstallRun) {
    Machine machine;
    machine.installAgent("claude");
    fs::path translocated = machine.root() / "AppTranslocation" / "X" / "vantoric-studio-mcp";

    auto refused = machine.run({"install"}, translocated);
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.output, "This copy of Vantoric Studio runs from a temporary location:\n  " +
                                  translocated.string() +
                                  "\nMove Vantoric Studio to Applications first, then run this again.\n");
    EXPECT_TRUE(machine.calls("claude").empty());

    auto status = machine.run({"status"}, translocated);
    EXPECT_EQ(status.output, "Claude Code: MCP server not added, skill not installed.\n");
    auto uninstall = machine.run({"uninstall"}, fs::path("/Volumes/Studio/vantoric-studio-mcp"));
    EXPECT_EQ(uninstall.output, "Claude Code: no MCP server to remove.\n");
    EXPECT_EQ(uninstall.status, 0);
}

TEST(InstallerAgentSelection, NoAgentAtAllAsksToAddByHand) {
    if (systemHasAgents()) GTEST_SKIP() << "an agent is installed where detection always looks";
    Machine machine;
    auto result = machine.run({"install"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output,
              "No coding agent found on your PATH (looked for claude, codex and opencode).\n"
              "Add Studio by hand with this command as a stdio MCP server:\n  " +
                  machine.bridge().string() + "\n");
}

TEST(InstallerAgentSelection, MissingWantedAgentIsNamedWithoutTheNoAgentSentence) {
    if (systemHasAgents()) GTEST_SKIP() << "an agent is installed where detection always looks";
    Machine machine;
    machine.installAgent("claude");
    auto result = machine.run({"install", "codex"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output,
              "Codex: not found on your PATH.\n"
              "Add Studio by hand with this command as a stdio MCP server:\n  " +
                  machine.bridge().string() + "\n");
    EXPECT_TRUE(machine.calls("claude").empty());
}

TEST(InstallerAgentSelection, MissingAgentFailsTheRunButThePresentOneIsInstalled) {
    if (systemHasAgents()) GTEST_SKIP() << "an agent is installed where detection always looks";
    Machine machine;
    machine.installAgent("claude");
    auto result = machine.run({"install", "codex", "claude"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output,
              "Codex: not found on your PATH.\n"
              "Claude Code: Studio's MCP server added, skill installed.\n" +
                  advice);
}

TEST(InstallerAgentSelection, AgentsAreHandledInFixedOrderWhateverTheWords) {
    Machine machine;
    machine.installAgent("claude");
    machine.installAgent("codex");
    auto result = machine.run({"uninstall", "codex", "claude"});
    EXPECT_EQ(result.output, "Claude Code: no MCP server to remove.\nCodex: no MCP server to remove.\n");
}

TEST(InstallerAgentSelection, StatusJsonListsOnlyWantedAgentsAndNeverTheMissingOnes) {
    if (systemHasAgents()) GTEST_SKIP() << "an agent is installed where detection always looks";
    Machine machine;
    machine.installAgent("claude");
    auto result = machine.run({"status", "codex", "--json"});
    EXPECT_EQ(result.status, 0);
    std::string bridge = machine.bridge().string();
    std::string escaped;
    for (char c : bridge) {
        if (c == '/') escaped += '\\';
        escaped += c;
    }
    EXPECT_EQ(result.output, "{\"agents\":[],\"bridge\":\"" + escaped + "\"}\n");
    EXPECT_TRUE(machine.calls("claude").empty());
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

    auto status = machine.run({"status"});
    EXPECT_EQ(status.output.find("Start a new session"), std::string::npos);
}
