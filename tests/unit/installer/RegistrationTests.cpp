// Reading Claude Code's and Codex's answers, and the install, uninstall and
// status steps built on them, against the agent doubles.
#include <gtest/gtest.h>

#include "Machine.h"
#include "installer/Registration.h"

using namespace installertest;
using BridgeInstaller::Registration;

namespace {

std::string claudeAnswer(const std::string& command, const std::string& args) {
    return "vantoric-studio:\n"
           "  Scope: User config (available in all your projects)\n"
           "  Status: \u2718 Failed to connect\n"
           "  Type: stdio\n"
           "  Command: " + command + "\n"
           "  Args:" + (args.empty() ? "" : " " + args) + "\n"
           "  Environment:\n"
           "\n"
           "To remove this server, run: claude mcp remove vantoric-studio -s user\n";
}

}  // namespace

TEST(ClaudeAnswer, MissingServerIsAbsentAndOtherFailuresUnknown) {
    using BridgeInstaller::claudeRegistration;
    fs::path bridge = "/opt/bridge";
    EXPECT_EQ(claudeRegistration(1, "No MCP server named \"vantoric-studio\". Run `claude mcp add` to add one.\n", bridge),
              Registration::absent());
    EXPECT_EQ(claudeRegistration(1, "No MCP server named \"vantoric-studio\". Configured servers: a, b\n", bridge),
              Registration::absent());
    EXPECT_EQ(claudeRegistration(-1, "Could not start claude: Permission denied.", bridge),
              Registration::unknown("Could not start claude: Permission denied."));
    EXPECT_EQ(claudeRegistration(1, "no mcp server here", bridge), Registration::unknown("no mcp server here"));
}

TEST(ClaudeAnswer, CommandWithoutArgumentsIsCurrentOnlyWhenItIsTheBridge) {
    testsupport::TempDir dir;
    fs::path bridge = dir.write("real/vantoric-studio-mcp", "");
    fs::create_directory_symlink(dir.path() / "real", dir.path() / "linked");
    std::string throughLink = (dir.path() / "linked" / "vantoric-studio-mcp").string();

    EXPECT_EQ(BridgeInstaller::claudeRegistration(0, claudeAnswer(throughLink, ""), bridge), Registration::current());
    EXPECT_EQ(BridgeInstaller::claudeRegistration(0, claudeAnswer("/opt/old/vantoric-studio-mcp", ""), bridge),
              Registration::other("/opt/old/vantoric-studio-mcp"));
    EXPECT_EQ(BridgeInstaller::claudeRegistration(0, claudeAnswer(bridge.string(), "--verbose"), bridge),
              Registration::other(bridge.string() + " --verbose"));
}

TEST(ClaudeAnswer, HttpEntryIsOtherWithItsUrlAndNoEntryLinesIsUnknown) {
    std::string http = "web:\n  Scope: User config\n  Type: http\n  URL: http://localhost:9/mcp\n\nTo remove...\n";
    EXPECT_EQ(BridgeInstaller::claudeRegistration(0, http, "/opt/bridge"), Registration::other("http://localhost:9/mcp"));
    EXPECT_EQ(BridgeInstaller::claudeRegistration(0, "\n\n", "/opt/bridge"), Registration::unknown("\n\n"));
    // The prefixes are case-sensitive and must start the trimmed line.
    EXPECT_EQ(BridgeInstaller::claudeRegistration(0, "  command: /opt/bridge\n  The Command: x\n", "/opt/bridge"),
              Registration::unknown("  command: /opt/bridge\n  The Command: x\n"));
}

TEST(ClaudeAnswer, LaterLinesReplaceEarlierOnesAndCrLfIsOneBreak) {
    std::string answer = "x:\r\n\tCommand: /a\r\n  Command:   /opt/bridge  \r\n  Args: \t\r\n";
    EXPECT_EQ(BridgeInstaller::claudeRegistration(0, answer, "/opt/bridge"), Registration::current());
}

TEST(CodexAnswer, ReadsTheTransportAfterWarnings) {
    using BridgeInstaller::codexRegistration;
    std::string object = R"({
  "name": "vantoric-studio",
  "transport": {"type": "stdio", "command": "/opt/bridge", "args": [], "env": null}
})";
    std::string warned = "WARNING: proceeding, even though we could not create PATH aliases: x\n" + object + "\n";
    EXPECT_EQ(codexRegistration(0, object, "/opt/bridge"), Registration::current());
    EXPECT_EQ(codexRegistration(0, warned, "/opt/bridge"), Registration::current());
    EXPECT_EQ(codexRegistration(1, "WARNING: x\nError: No MCP server named 'vantoric-studio' found.\n", "/opt/bridge"),
              Registration::absent());
}

TEST(CodexAnswer, ArgumentsUrlsAndOddTransports) {
    using BridgeInstaller::codexRegistration;
    fs::path bridge = "/opt/bridge";
    EXPECT_EQ(codexRegistration(0, R"({"transport":{"command":"/opt/bridge","args":["a","b"]}})", bridge),
              Registration::other("/opt/bridge a b"));
    // Arguments that are not all strings count as none.
    EXPECT_EQ(codexRegistration(0, R"({"transport":{"command":"/opt/bridge","args":["a",1]}})", bridge),
              Registration::current());
    EXPECT_EQ(codexRegistration(0, R"({"transport":{"type":"streamable_http","url":"http://h/mcp"}})", bridge),
              Registration::other("http://h/mcp"));
    std::string numeric = R"({"transport":{"command":7}})";
    EXPECT_EQ(codexRegistration(0, numeric, bridge), Registration::unknown(numeric));
    EXPECT_EQ(codexRegistration(0, R"({"transport":[]})", bridge), Registration::unknown(R"({"transport":[]})"));
    EXPECT_EQ(codexRegistration(0, "[1]", bridge), Registration::unknown("[1]"));
}

TEST(CodexAnswer, JsonObjectIsStrictAndTakesTheFirstBraceThatStartsALine) {
    using BridgeInstaller::jsonObject;
    EXPECT_TRUE(jsonObject(" {\"a\": 1} \n"));
    EXPECT_FALSE(jsonObject("{\"a\": 1,}"));
    EXPECT_FALSE(jsonObject("{\"a\": 1} // done"));
    EXPECT_FALSE(jsonObject("note: {\"a\": 1}"));
    EXPECT_EQ((*jsonObject("warn {x}\n{\"a\": 2}"))["a"], 2);
    // Only the first line-starting brace is tried.
    EXPECT_FALSE(jsonObject("w\n{broken\n{\"a\": 3}"));
}

class ClaudeAndCodexSteps : public ::testing::TestWithParam<std::string> {
protected:
    void SetUp() override {
        machine.installAgent(GetParam());
        id = GetParam();
        title = id == "claude" ? "Claude Code" : "Codex";
    }
    std::vector<std::string> expectedCalls(const std::vector<std::string>& kinds) const {
        std::vector<std::string> calls;
        std::string bridge = machine.bridge().string();
        for (const auto& kind : kinds) {
            if (kind == "get") calls.push_back(id == "claude" ? "mcp get vantoric-studio" : "mcp get vantoric-studio --json");
            if (kind == "add") {
                calls.push_back(id == "claude" ? "mcp add --scope user vantoric-studio -- " + bridge
                                               : "mcp add vantoric-studio -- " + bridge);
            }
            if (kind == "remove") {
                calls.push_back(id == "claude" ? "mcp remove vantoric-studio --scope user" : "mcp remove vantoric-studio");
            }
        }
        return calls;
    }
    Machine machine;
    std::string id, title;
};

TEST_P(ClaudeAndCodexSteps, InstallAddsAMissingEntryThenFindsItCurrent) {
    auto first = machine.run({"install", id});
    EXPECT_EQ(first.status, 0);
    EXPECT_EQ(first.output.substr(0, first.output.find('\n')), title + ": Studio's MCP server added, skill installed.");
    EXPECT_EQ(machine.calls(id), expectedCalls({"get", "add"}));
    EXPECT_EQ(machine.servers(id), stdioEntry("vantoric-studio", machine.bridge().string()));

    auto second = machine.run({"install", id});
    EXPECT_EQ(second.output.substr(0, second.output.find('\n')),
              title + ": Studio's MCP server already set up, skill installed.");
    auto status = machine.run({"status", id});
    EXPECT_EQ(status.output, title + ": MCP server added, skill installed.\n");
    EXPECT_EQ(status.status, 0);
}

TEST_P(ClaudeAndCodexSteps, InstallReplacesAnEntryThatRunsSomethingElse) {
    machine.setServers(id, stdioEntry("vantoric-studio", machine.bridge().string(), "--old"));
    auto result = machine.run({"install", id});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output.substr(0, result.output.find('\n')),
              title + ": Studio's MCP server updated (it ran " + machine.bridge().string() +
                  " --old), skill installed.");
    EXPECT_EQ(machine.calls(id), expectedCalls({"get", "remove", "add"}));
    EXPECT_EQ(machine.servers(id), stdioEntry("vantoric-studio", machine.bridge().string()));
}

TEST_P(ClaudeAndCodexSteps, InstallReportsFailuresWithTheAgentsWords) {
    machine.setServers(id, stdioEntry("vantoric-studio", "/opt/old"));
    machine.script(id, "remove", "Permission denied: config\n\n", 3);
    auto cannotRemove = machine.run({"install", id});
    EXPECT_EQ(cannotRemove.status, 1);
    EXPECT_EQ(cannotRemove.output, title + ": could not replace the MCP server that runs /opt/old, skill installed.\n"
                                           "    Permission denied: config\n");

    fs::remove(machine.bin() / (id + ".remove.reply"));
    machine.script(id, "add", "disk full\r\nno space\r\n", 1);
    auto cannotAdd = machine.run({"install", id});
    EXPECT_EQ(cannotAdd.status, 1);
    EXPECT_EQ(cannotAdd.output, title + ": removed the MCP server that ran /opt/old but could not add this one, "
                                        "skill installed.\n"
                                        "    disk full\n"
                                        "    no space\n");
    EXPECT_EQ(machine.servers(id), "");

    auto absentCannotAdd = machine.run({"install", id});
    EXPECT_EQ(absentCannotAdd.output, title + ": could not add Studio's MCP server, skill installed.\n"
                                              "    disk full\n"
                                              "    no space\n");
}

TEST_P(ClaudeAndCodexSteps, UnreadableAnswerChangesNothing) {
    machine.script(id, "get", "Segmentation fault\n", 139);
    auto install = machine.run({"install", id});
    EXPECT_EQ(install.status, 1);
    EXPECT_EQ(install.output, title + ": could not read its MCP servers, skill installed.\n    Segmentation fault\n");
    auto uninstall = machine.run({"uninstall", id});
    EXPECT_EQ(uninstall.status, 1);
    EXPECT_EQ(uninstall.output, title + ": could not read its MCP servers, skill removed.\n    Segmentation fault\n");
    auto status = machine.run({"status", id});
    EXPECT_EQ(status.status, 1);
    EXPECT_EQ(status.output, title + ": MCP server unknown, skill not installed.\n    Segmentation fault\n");
    EXPECT_EQ(machine.calls(id), expectedCalls({"get", "get", "get"}));
}

TEST_P(ClaudeAndCodexSteps, UninstallRemovesAnyEntryUnderTheName) {
    machine.setServers(id, stdioEntry("vantoric-studio", "/opt/other copy/vantoric-studio-mcp") +
                               stdioEntry("keep-me", "/usr/bin/true"));
    auto status = machine.run({"status", id});
    EXPECT_EQ(status.status, 0);
    EXPECT_EQ(status.output, title + ": MCP server added but it runs another copy, skill not installed.\n"
                                     "    It runs /opt/other copy/vantoric-studio-mcp; `vantoric-studio-mcp install` "
                                     "points it at this one.\n");

    auto removed = machine.run({"uninstall", id});
    EXPECT_EQ(removed.status, 0);
    EXPECT_EQ(removed.output, title + ": MCP server removed.\n");
    EXPECT_EQ(machine.servers(id), stdioEntry("keep-me", "/usr/bin/true"));

    auto again = machine.run({"uninstall", id});
    EXPECT_EQ(again.output, title + ": no MCP server to remove.\n");
}

TEST_P(ClaudeAndCodexSteps, UninstallReportsARemoveThatFails) {
    machine.setServers(id, stdioEntry("vantoric-studio", machine.bridge().string()));
    machine.script(id, "remove", "locked\n", 1);
    auto result = machine.run({"uninstall", id});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, title + ": could not remove the MCP server.\n    locked\n");
}

TEST_P(ClaudeAndCodexSteps, StatusJsonReportsEveryCase) {
    machine.setServers(id, stdioEntry("vantoric-studio", "/opt/x", "a"));
    auto other = machine.run({"status", "--json", id});
    EXPECT_EQ(other.status, 0);
    EXPECT_NE(other.output.find("{\"detail\":\"\\/opt\\/x a\",\"id\":\"" + id + "\",\"registration\":\"other\",\"title\":\"" +
                                title + "\"}"),
              std::string::npos)
        << other.output;
    machine.script(id, "get", "boom", 2);
    auto unknown = machine.run({"status", "--json", id});
    EXPECT_EQ(unknown.status, 0);
    EXPECT_NE(unknown.output.find("{\"detail\":\"boom\",\"id\":\"" + id + "\",\"registration\":\"unknown\""),
              std::string::npos)
        << unknown.output;
}

INSTANTIATE_TEST_SUITE_P(Agents, ClaudeAndCodexSteps, ::testing::Values("claude", "codex"));

TEST(CodexAnswerAfterWarning, InstallAndStatusReadThroughTheWarningLine) {
    Machine machine;
    machine.installAgent("codex");
    machine.write("bin/codex.warning", "WARNING: proceeding, even though we could not create PATH aliases: "
                                       "Refusing to create helper binaries under temporary dir \"/tmp\"\n");
    EXPECT_EQ(machine.run({"install", "codex"}).output.substr(0, 40), "Codex: Studio's MCP server added, skill ");
    auto status = machine.run({"status", "codex"});
    EXPECT_EQ(status.output, "Codex: MCP server added, skill installed.\n");
}

TEST(SubjectBuild, UsesItsOwnServerNameAndLeavesTheSkillAlone) {
    Machine machine;
    machine.installAgent("claude");
    auto install = machine.run({"install", "claude"}, true);
    EXPECT_EQ(install.output, "Claude Code: Studio's MCP server added.\n"
                              "\nStart a new session in your agent and ask it to make a demo video with Vantoric Studio.\n"
                              "The first time, Studio asks you once to allow the agent.\n");
    EXPECT_EQ(machine.servers("claude"), stdioEntry("studio-subject", machine.bridge().string()));
    EXPECT_FALSE(fs::exists(machine.home() / ".claude" / "skills"));

    EXPECT_EQ(machine.run({"status"}, true).output, "Claude Code: MCP server added.\n");
    machine.write("home/.claude/skills/vantoric-studio/SKILL.md", "mine");
    EXPECT_EQ(machine.run({"uninstall"}, true).output, "Claude Code: MCP server removed.\n");
    EXPECT_TRUE(fs::exists(machine.home() / ".claude/skills/vantoric-studio/SKILL.md"));
}
