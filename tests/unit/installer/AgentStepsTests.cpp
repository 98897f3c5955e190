// Claude Code's and Codex's answers, the install, uninstall and status steps
// built on them, and the skill file every step looks after.
#include "Machine.h"
#include "installer/Registration.h"

using namespace installertest;
using BridgeInstaller::Registration;
using BridgeInstaller::SkillSource;

namespace {

struct ProgramAnswer {
    int status;
    std::string text;
    Registration expected;
};

}  // namespace

TEST(AgentAnswers, ClaudesEntryLinesAndCodexsTransportDecideTheRegistration) {
    Machine machine;
    fs::path bridge = machine.files.write(machine.home / "real/vantoric-studio-mcp", "");
    machine.files.put(machine.root / "linked", FileKind::link, "home/real");
    std::string lower = "  command: " + bridge.string() + "\n  The Command: x\n";  // prefixes are case-sensitive
    auto claude = [](const std::string& command, const std::string& args = "") { return claudeAnswer("vantoric-studio", command, args); };
    std::vector<ProgramAnswer> cases = {
        {1, "No MCP server named \"vantoric-studio\". Run `claude mcp add` to add one.\n", Registration::absent()},
        {1, "No MCP server named \"vantoric-studio\". Configured servers: a, b\n", Registration::absent()},
        {-1, "Could not start claude: Permission denied.", Registration::unknown("Could not start claude: Permission denied.")},
        {1, "no mcp server here", Registration::unknown("no mcp server here")},
        {0, claude("/m/linked/vantoric-studio-mcp"), Registration::current()},
        {0, claude("~/real/./x/../vantoric-studio-mcp/"), Registration::current()},
        {0, claude("/opt/old/vantoric-studio-mcp"), Registration::other("/opt/old/vantoric-studio-mcp")},
        {0, claude(bridge.string(), "--verbose"), Registration::other(bridge.string() + " --verbose")},
        {0, "web:\n  Type: http\n  URL: http://localhost:9/mcp\n\nTo remove...\n", Registration::other("http://localhost:9/mcp")},
        {0, "\n\n", Registration::unknown("\n\n")},
        {0, lower, Registration::unknown(lower)},
        // Later lines replace earlier ones; CR LF is one break.
        {0, "x:\r\n\tCommand: /a\r\n  Command:   " + bridge.string() + "  \r\n  Args: \t\r\n", Registration::current()},
    };
    for (const auto& c : cases)
        EXPECT_EQ(BridgeInstaller::claudeRegistration(c.status, c.text, bridge, machine.system()), c.expected) << c.text;

    std::string object = "{\n  \"name\": \"vantoric-studio\",\n  \"transport\": {\"type\": \"stdio\", \"command\": \"" +
                         bridge.string() + "\", \"args\": [], \"env\": null}\n}";
    auto transport = [](const std::string& inside) { return "{\"transport\":" + inside + "}"; };
    cases = {
        {0, object, Registration::current()},
        {0, "WARNING: proceeding, even though we could not create PATH aliases: x\n" + object + "\n", Registration::current()},
        {1, "WARNING: x\nError: No MCP server named 'vantoric-studio' found.\n", Registration::absent()},
        {0, transport(R"({"command":"/opt/bridge","args":["a","b"]})"), Registration::other("/opt/bridge a b")},
        // Arguments that are not all strings count as none.
        {0, transport(R"({"command":"~/real/vantoric-studio-mcp","args":["a",1]})"), Registration::current()},
        {0, transport(R"({"type":"streamable_http","url":"http://h/mcp"})"), Registration::other("http://h/mcp")},
        {0, transport(R"({"command":7})"), Registration::unknown(transport(R"({"command":7})"))},
        {0, transport("[]"), Registration::unknown(transport("[]"))},
        {0, "[1]", Registration::unknown("[1]")},
    };
    for (const auto& c : cases)
        EXPECT_EQ(BridgeInstaller::codexRegistration(c.status, c.text, bridge, machine.system()), c.expected) << c.text;
    using BridgeInstaller::jsonObject;
    EXPECT_TRUE(jsonObject(" {\"a\": 1} \n"));
    for (const char* text : {"{\"a\": 1,}", "{\"a\": 1} // done", "note: {\"a\": 1}", "w\n{broken\n{\"a\": 3}"})
        EXPECT_FALSE(jsonObject(text)) << text;
    EXPECT_EQ((*jsonObject("warn {x}\n{\"a\": 2}"))["a"], 2);
}

class ClaudeAndCodexSteps : public ::testing::TestWithParam<std::string> {
protected:
    void SetUp() override { machine.installAgent(id); }
    std::vector<std::string> expectedCalls(const std::string& kinds) const {
        std::string bridge = machine.bridge.string();
        std::map<char, std::string> claude = {{'g', "mcp get vantoric-studio"},
                                              {'a', "mcp add --scope user vantoric-studio -- " + bridge},
                                              {'r', "mcp remove vantoric-studio --scope user"}};
        std::map<char, std::string> codex = {{'g', "mcp get vantoric-studio --json"},
                                             {'a', "mcp add vantoric-studio -- " + bridge},
                                             {'r', "mcp remove vantoric-studio"}};
        std::vector<std::string> calls;
        for (char kind : kinds) calls.push_back((id == "claude" ? claude : codex)[kind]);
        return calls;
    }
    std::map<std::string, std::vector<std::string>>& servers() { return machine.agents.servers[id]; }

    Machine machine;
    std::string id = GetParam();
    std::string title = id == "claude" ? "Claude Code: " : "Codex: ";
};

TEST_P(ClaudeAndCodexSteps, InstallReplacesAnotherEntryOrAddsOneAndOnlyCodexsCarriesTheSessionBus) {
    std::string bridge = machine.bridge.string();
    servers()["vantoric-studio"] = {bridge, "--old"};
    machine.expect({{{"install", id}, 0, title + "Studio's MCP server updated (it ran " + bridge + " --old), skill installed.\n" + advice},
                    {{"install", id}, 0, title + "Studio's MCP server already set up, skill installed.\n" + advice}});
    EXPECT_EQ(servers()["vantoric-studio"], std::vector<std::string>{bridge});
    // Codex drops the session bus from the environment of the servers it
    // starts, so its entry carries the address.
    std::string bus = "unix:path=/run/user/1000/bus,guid=0123abcd";
    machine.variables["DBUS_SESSION_BUS_ADDRESS"] = bus;
    servers().clear();
    machine.expect({{{"install", id}, 0, title + "Studio's MCP server added, skill installed.\n" + advice}});
    auto calls = expectedCalls("grag");
    calls.push_back(expectedCalls("g")[0]);
    calls.push_back(id == "claude" ? expectedCalls("a")[0] : "mcp add vantoric-studio --env DBUS_SESSION_BUS_ADDRESS=" + bus + " -- " + bridge);
    EXPECT_EQ(machine.agents.calls[id], calls);
}

TEST_P(ClaudeAndCodexSteps, FailuresAreReportedWithTheAgentsWordsAndAnUnreadableAnswerChangesNothing) {
    servers() = {{"vantoric-studio", {"/opt/old"}}, {"keep-me", {"/usr/bin/true"}}};
    machine.expect({{{"status", id}, 0, title + "MCP server added but it runs another copy, skill not installed.\n"
                                                "    It runs /opt/old; `vantoric-studio-mcp install` points it at this one.\n"}});
    machine.agents.script(id, "remove", "Permission denied: config\n\n", 3);
    machine.expect({{{"install", id}, 1, title + "could not replace the MCP server that runs /opt/old, skill installed.\n"
                                                 "    Permission denied: config\n"},
                    {{"uninstall", id}, 1, title + "could not remove the MCP server, skill removed.\n    Permission denied: config\n"}});
    machine.agents.scripts[id].clear();
    machine.agents.script(id, "add", "disk full\r\nno space\r\n", 1);
    machine.expect({{{"install", id}, 1, title + "removed the MCP server that ran /opt/old but could not add this one, "
                                                 "skill installed.\n    disk full\n    no space\n"},
                    {{"install", id}, 1, title + "could not add Studio's MCP server, skill installed.\n    disk full\n    no space\n"}});
    EXPECT_EQ(servers().size(), 1u) << "only the entry named after the bridge goes";

    machine.agents.calls.clear();
    machine.agents.script(id, "get", "Segmentation fault\n", 139);
    machine.expect({{{"install", id}, 1, title + "could not read its MCP servers, skill installed.\n    Segmentation fault\n"},
                    {{"uninstall", id}, 1, title + "could not read its MCP servers, skill removed.\n    Segmentation fault\n"},
                    {{"status", id}, 1, title + "MCP server unknown, skill not installed.\n    Segmentation fault\n"}});
    EXPECT_EQ(machine.agents.calls[id], expectedCalls("ggg"));
    EXPECT_NE(machine.run({"status", "--json", id}).output.find("{\"detail\":\"Segmentation fault\\n\",\"id\":\"" + id +
                                                                "\",\"registration\":\"unknown\""),
              std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Agents, ClaudeAndCodexSteps, ::testing::Values("claude", "codex"));

TEST(Skill, SourceIsAgentLinksThenResourcesUTF8OrAMessage) {
    Machine machine;
    fs::path app = machine.root / "Studio.app";
    auto source = [&](std::optional<fs::path> at) { return BridgeInstaller::skillSource(at, machine.files); };
    EXPECT_EQ(source(std::nullopt), SkillSource::missing("Vantoric Studio was not found; set VANTORIC_STUDIO_APP to the "
                                                         "app's path and run this again."));
    EXPECT_EQ(source(app), SkillSource::missing(app.string() + " has no Studio skill in Contents/Resources/AgentLink; "
                                                               "rebuild or reinstall Studio."));
    machine.files.write(app / "Contents/Resources/vantoric-studio-skill.md", "plain");
    EXPECT_EQ(source(app), SkillSource::text("plain"));
    machine.files.write(app / "Contents/Resources/AgentLink/vantoric-studio-skill.md", "linked");
    EXPECT_EQ(source(app), SkillSource::text("linked"));
    machine.files.write(app / "Contents/Resources/AgentLink/vantoric-studio-skill.md", "bad \xFF");
    EXPECT_EQ(source(app), SkillSource::text("plain")) << "not UTF-8: as if it were not there";
}

TEST(Skill, WrittenOnlyWhenItDiffersAndAMissingSourceFailsNothing) {
    Machine machine;
    machine.installAgent("codex");
    fs::path file = machine.home / ".codex/skills/vantoric-studio/SKILL.md";
    machine.expect({{{"install"}, 0, "Codex: Studio's MCP server added, skill installed.\n" + advice},
                    {{"install"}, 0, "Codex: Studio's MCP server already set up, skill installed.\n" + advice}});
    for (std::string mine : {"my own notes", "\xFF\xFE"}) {
        machine.files.write(file, mine);
        machine.run({"install"});
        EXPECT_EQ(machine.files.text(file), skillText);
    }
    EXPECT_EQ(machine.files.written, std::vector<fs::path>(3, file)) << "an unchanged copy is not written again";
    machine.studio = std::nullopt;
    machine.files.remove(file);
    machine.expect({{{"install"}, 0, "Codex: Studio's MCP server already set up, skill not installed.\n    Vantoric Studio was "
                                     "not found; set VANTORIC_STUDIO_APP to the app's path and run this again.\n" + advice},
                    {{"status"}, 0, "Codex: MCP server added, skill not installed.\n"}});
}

TEST(Skill, FolderOrFileThatCannotBeWrittenOrRemovedFailsTheAgentUsersFilesStay) {
    Machine machine;
    machine.installAgent("claude");
    fs::path folder = machine.home / ".claude/skills/vantoric-studio", file = folder / "SKILL.md";
    machine.files.write(folder.parent_path(), "a file where the folder should be");
    machine.expect({{{"install"}, 1, "Claude Code: Studio's MCP server added, skill not installed.\n"
                                     "    Could not create the folder " + folder.string() + ": Not a directory.\n"}});
    machine.files.remove(folder.parent_path());
    machine.files.failWrites[file] = ENOSPC;
    machine.expect({{{"install"}, 1, "Claude Code: Studio's MCP server already set up, skill not installed.\n"
                                     "    Could not write " + file.string() + ": No space left on device.\n"}});
    machine.files.failWrites.clear();
    machine.run({"install"});
    machine.expect({{{"uninstall"}, 0, "Claude Code: MCP server removed, skill removed.\n"}});
    EXPECT_FALSE(machine.files.status(folder).exists());
    EXPECT_TRUE(machine.files.status(folder.parent_path()).exists());

    machine.run({"install"});
    machine.files.write(folder / "notes.md", "mine");
    machine.expect({{{"uninstall"}, 0, "Claude Code: MCP server removed, skill removed.\n"},
                    {{"uninstall"}, 0, "Claude Code: no MCP server to remove.\n"}});
    EXPECT_EQ(machine.files.text(folder / "notes.md"), "mine");
    machine.files.write(file / "inside", "a folder in the file's place");
    machine.expect({{{"uninstall"}, 1, "Claude Code: no MCP server to remove, skill not removed.\n    Could not remove " +
                                           file.string() + ": Directory not empty.\n"}});
}
