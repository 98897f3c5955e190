// Reading Claude Code's and Codex's answers, and the install, uninstall and
// status steps built on them, against the agent doubles.
#include <gtest/gtest.h>

#include "Machine.h"
#include "installer/Registration.h"

using namespace installertest;
using BridgeInstaller::claudeRegistration;
using BridgeInstaller::codexRegistration;
using BridgeInstaller::Registration;

namespace {

std::string claudeAnswer(const std::string& command, const std::string& args) {
    return "vantoric-studio:\n  Scope: User config (available in all your projects)\n  Status: \u2718 Failed to connect\n"
           "  Type: stdio\n  Command: " + command + "\n  Args:" + (args.empty() ? "" : " " + args) +
           "\n  Environment:\n\nTo remove this server, run: claude mcp remove vantoric-studio -s user\n";
}

struct Answer {
    int status;
    std::string text;
    Registration expected;
};

}  // namespace

TEST(ClaudeAnswer, EntryLinesDecideTheRegistration) {
    testsupport::TempDir dir;
    fs::path bridge = dir.write("real/vantoric-studio-mcp", "");
    fs::create_directory_symlink(dir.path() / "real", dir.path() / "linked");
    std::string throughLink = (dir.path() / "linked" / "vantoric-studio-mcp").string();
    std::string lower = "  command: " + bridge.string() + "\n  The Command: x\n";  // prefixes are case-sensitive
    std::vector<Answer> cases = {
        {1, "No MCP server named \"vantoric-studio\". Run `claude mcp add` to add one.\n", Registration::absent()},
        {1, "No MCP server named \"vantoric-studio\". Configured servers: a, b\n", Registration::absent()},
        {-1, "Could not start claude: Permission denied.", Registration::unknown("Could not start claude: Permission denied.")},
        {1, "no mcp server here", Registration::unknown("no mcp server here")},
        {0, claudeAnswer(throughLink, ""), Registration::current()},
        {0, claudeAnswer("/opt/old/vantoric-studio-mcp", ""), Registration::other("/opt/old/vantoric-studio-mcp")},
        {0, claudeAnswer(bridge.string(), "--verbose"), Registration::other(bridge.string() + " --verbose")},
        {0, "web:\n  Scope: User config\n  Type: http\n  URL: http://localhost:9/mcp\n\nTo remove...\n",
         Registration::other("http://localhost:9/mcp")},
        {0, "\n\n", Registration::unknown("\n\n")},
        {0, lower, Registration::unknown(lower)},
        // Later lines replace earlier ones; CR LF is one break.
        {0, "x:\r\n\tCommand: /a\r\n  Command:   " + bridge.string() + "  \r\n  Args: \t\r\n", Registration::current()},
    };
    for (const auto& c : cases) EXPECT_EQ(claudeRegistration(c.status, c.text, bridge), c.expected) << c.text;
}

TEST(CodexAnswer, TheTransportObjectDecidesTheRegistration) {
    std::string object = R"({
  "name": "vantoric-studio",
  "transport": {"type": "stdio", "command": "/opt/bridge", "args": [], "env": null}
})";
    std::vector<Answer> cases = {
        {0, object, Registration::current()},
        {0, "WARNING: proceeding, even though we could not create PATH aliases: x\n" + object + "\n", Registration::current()},
        {1, "WARNING: x\nError: No MCP server named 'vantoric-studio' found.\n", Registration::absent()},
        {0, R"({"transport":{"command":"/opt/bridge","args":["a","b"]}})", Registration::other("/opt/bridge a b")},
        // Arguments that are not all strings count as none.
        {0, R"({"transport":{"command":"/opt/bridge","args":["a",1]}})", Registration::current()},
        {0, R"({"transport":{"type":"streamable_http","url":"http://h/mcp"}})", Registration::other("http://h/mcp")},
        {0, R"({"transport":{"command":7}})", Registration::unknown(R"({"transport":{"command":7}})")},
        {0, R"({"transport":[]})", Registration::unknown(R"({"transport":[]})")},
        {0, "[1]", Registration::unknown("[1]")},
    };
    for (const auto& c : cases) EXPECT_EQ(codexRegistration(c.status, c.text, "/opt/bridge"), c.expected) << c.text;
}

TEST(CodexAnswer, JsonObjectIsStrictAndTakesTheFirstBraceThatStartsALine) {
    using BridgeInstaller::jsonObject;
    EXPECT_TRUE(jsonObject(" {\"a\": 1} \n"));
    for (const char* text : {"{\"a\": 1,}", "{\"a\": 1} // done", "note: {\"a\": 1}", "w\n{broken\n{\"a\": 3}"})
        EXPECT_FALSE(jsonObject(text)) << text;
    EXPECT_EQ((*jsonObject("warn {x}\n{\"a\": 2}"))["a"], 2);
}

class ClaudeAndCodexSteps : public ::testing::TestWithParam<std::string> {
protected:
    void SetUp() override { machine.installAgent(id); }
    std::vector<std::string> expectedCalls(const std::vector<std::string>& kinds) const {
        std::string bridge = machine.bridge().string();
        std::map<std::string, std::string> claude = {{"get", "mcp get vantoric-studio"},
                                                     {"add", "mcp add --scope user vantoric-studio -- " + bridge},
                                                     {"remove", "mcp remove vantoric-studio --scope user"}};
        std::map<std::string, std::string> codex = {{"get", "mcp get vantoric-studio --json"},
                                                    {"add", "mcp add vantoric-studio -- " + bridge},
                                                    {"remove", "mcp remove vantoric-studio"}};
        std::vector<std::string> calls;
        for (const auto& kind : kinds) calls.push_back((id == "claude" ? claude : codex)[kind]);
        return calls;
    }
    std::string firstLine(const std::string& output) { return output.substr(0, output.find('\n')); }

    Machine machine;
    std::string id = GetParam();
    std::string title = id == "claude" ? "Claude Code" : "Codex";
};

TEST_P(ClaudeAndCodexSteps, InstallReplacesAnotherEntryOrAddsOneThenFindsItCurrent) {
    std::string bridge = machine.bridge().string();
    machine.setServers(id, stdioEntry("vantoric-studio", bridge, "--old"));
    auto replaced = machine.run({"install", id});
    EXPECT_EQ(replaced.status, 0);
    EXPECT_EQ(firstLine(replaced.output), title + ": Studio's MCP server updated (it ran " + bridge + " --old), skill installed.");
    EXPECT_EQ(machine.calls(id), expectedCalls({"get", "remove", "add"}));
    EXPECT_EQ(machine.servers(id), stdioEntry("vantoric-studio", bridge));

    machine.setServers(id, "");
    EXPECT_EQ(firstLine(machine.run({"install", id}).output), title + ": Studio's MCP server added, skill installed.");
    EXPECT_EQ(machine.calls(id), expectedCalls({"get", "remove", "add", "get", "add"}));
    EXPECT_EQ(firstLine(machine.run({"install", id}).output), title + ": Studio's MCP server already set up, skill installed.");
    auto status = machine.run({"status", id});
    EXPECT_EQ(status.output, title + ": MCP server added, skill installed.\n");
    EXPECT_EQ(status.status, 0);
}

TEST_P(ClaudeAndCodexSteps, OnlyCodexEntriesCarryTheSessionBus) {
    // Codex drops the variable from the environment of the servers it starts.
    std::string bus = "unix:path=/run/user/1000/bus,guid=0123abcd";
    machine.variables["DBUS_SESSION_BUS_ADDRESS"] = bus;
    EXPECT_EQ(firstLine(machine.run({"install", id}).output), title + ": Studio's MCP server added, skill installed.");
    std::string add = id == "codex" ? "mcp add vantoric-studio --env DBUS_SESSION_BUS_ADDRESS=" + bus + " -- " +
                                          machine.bridge().string()
                                    : expectedCalls({"add"})[0];
    EXPECT_EQ(machine.calls(id), (std::vector<std::string>{expectedCalls({"get"})[0], add}));
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
                                        "skill installed.\n    disk full\n    no space\n");
    EXPECT_EQ(machine.servers(id), "");
    EXPECT_EQ(machine.run({"install", id}).output,
              title + ": could not add Studio's MCP server, skill installed.\n    disk full\n    no space\n");
}

TEST_P(ClaudeAndCodexSteps, UnreadableAnswerChangesNothing) {
    machine.script(id, "get", "Segmentation fault\n", 139);
    for (auto [command, words] : std::vector<std::pair<std::string, std::string>>{
             {"install", "could not read its MCP servers, skill installed."},
             {"uninstall", "could not read its MCP servers, skill removed."},
             {"status", "MCP server unknown, skill not installed."}}) {
        auto result = machine.run({command, id});
        EXPECT_EQ(result.status, 1) << command;
        EXPECT_EQ(result.output, title + ": " + words + "\n    Segmentation fault\n");
    }
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
    EXPECT_EQ(machine.run({"uninstall", id}).output, title + ": no MCP server to remove.\n");

    machine.setServers(id, stdioEntry("vantoric-studio", machine.bridge().string()));
    machine.script(id, "remove", "locked\n", 1);
    auto failed = machine.run({"uninstall", id});
    EXPECT_EQ(failed.status, 1);
    EXPECT_EQ(failed.output, title + ": could not remove the MCP server.\n    locked\n");
}

TEST_P(ClaudeAndCodexSteps, StatusJsonReportsOtherAndUnknown) {
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
