// OpenCode's configuration files: scanning, adding through OpenCode's own
// program, editing entries in place byte for byte, links, and what cannot be
// read or written.
#include "Machine.h"
#include "installer/OpenCode.h"

using namespace installertest;

namespace {

const std::string removeByHand = "    Remove \"vantoric-studio\" from its \"mcp\" section by hand.\n";

std::string entryFile(const std::string& command) {
    return "{\n  \"mcp\": {\n    \"vantoric-studio\": {\n      \"type\": \"local\",\n      \"command\": " + command + "\n    }\n  }\n}\n";
}

class OpenCodeConfig : public ::testing::Test {
protected:
    void SetUp() override { machine.installAgent("opencode"); }
    fs::path config(const std::string& name) const { return machine.openCodeFolder() / name; }
    void write(const std::string& name, const std::string& text) { machine.files.write(config(name), text); }
    std::optional<std::string> read(const std::string& name) const { return machine.files.text(config(name)); }
    std::string bridgeArray() const { return "[\"" + machine.bridge.string() + "\"]"; }
    std::vector<std::string>& calls() { return machine.agents.calls["opencode"]; }

    Machine machine;
    fs::path dotfile = machine.root / "dotfiles/opencode.jsonc";
};

}  // namespace

TEST_F(OpenCodeConfig, NoFileOrADanglingLinkIsNotAddedYetAndOpenCodeAddsItThroughTheLink) {
    machine.files.createFolders(dotfile.parent_path());
    machine.files.put(config("opencode.jsonc"), FileKind::link, "../../../dotfiles/opencode.jsonc");
    machine.expect({{{"status"}, 0, "OpenCode: MCP server not added, skill not installed.\n"},
                    {{"uninstall"}, 0, "OpenCode: no MCP server to remove.\n"},
                    {{"install"}, 0, "OpenCode: Studio's MCP server added, skill installed.\n" + advice},
                    {{"install"}, 0, "OpenCode: Studio's MCP server already set up, skill installed.\n" + advice}});
    // Current OpenCode refuses --global; the plain form writes the global file.
    std::string bridge = machine.bridge.string();
    EXPECT_EQ(calls(), (std::vector<std::string>{"mcp add --global vantoric-studio -- " + bridge, "mcp add vantoric-studio -- " + bridge}));
    EXPECT_EQ(machine.files.linkStatus(config("opencode.jsonc")).kind, FileKind::link);
    EXPECT_TRUE(machine.files.text(dotfile));
}

TEST_F(OpenCodeConfig, AddIsRetriedWithoutGlobalOnlyWhenOpenCodeExitedRefusingIt) {
    struct Case {
        platform::CommandResult withGlobal, without;
        std::size_t calls;
        std::string output;
    };
    auto exited = [](int status, std::string output) { return platform::CommandResult{.status = status, .exited = true, .head = output}; };
    std::string added = "\u25C6  MCP server \"vantoric-studio\" added\n", failed = "could not add Studio's MCP server, skill installed.\n";
    machine.timeout = 1;
    for (const auto& c : std::vector<Case>{
             // Refused, then failed anyway: both answers are shown.
             {exited(1, "opencode mcp add [name]\n"), exited(1, "Error: config folder is read-only\n"), 2,
              failed + "    opencode mcp add [name]\n    Without --global:\n    Error: config folder is read-only\n"},
             // Hung or killed: the plain form would fare no better, and the
             // first answer is the one that tells why.
             {{.stopped = true, .head = "Loading plugins\n"}, exited(0, ""), 1,
              failed + "    Loading plugins\n    (stopped after 1 s without an answer)\n"},
             {{.status = 9, .head = "Loading plugins\n"}, exited(0, ""), 1, failed + "    Loading plugins\n"},
             // Said so, yet wrote nothing.
             {exited(0, added), exited(0, ""), 1,
              "OpenCode said it added Studio's MCP server, but its global config does not show it, skill installed.\n    " + added}}) {
        machine.agents.calls.clear();
        machine.agents.scripts["opencode"] = {{"add --global", c.withGlobal}, {"add vantoric-studio", c.without}};
        machine.expect({{{"install"}, 1, "OpenCode: " + c.output}});
        EXPECT_EQ(calls().size(), c.calls) << c.output;
    }
}

TEST_F(OpenCodeConfig, OnlyTheEntryChangesAtALinksTargetWithCommentsTrailingCommasAndLatin1) {
    std::string before =
        "// my OpenCode setup, r\xE9sum\xE9 of my servers\n"  // Latin-1, not UTF-8: the user's bytes all the same
        "{\n"
        "  \"$schema\": \"https://opencode.ai/config.json\",\n"
        "  /* servers */ \"mcp\": {\n"
        "    \"other\": { \"type\": \"local\", \"command\": [\"x\"], },\n"
        "    \"vantoric-studio\": {\n"
        "      \"type\": \"local\",\n"
        "      \"command\": /* old */ [\"/opt/old/vantoric-studio-mcp\",\n"
        "                   ],   // keep me\n"
        "      \"enabled\": true,\n"
        "    },\n"
        "  },\n"
        "}\n";
    machine.files.write(dotfile, before, 0640);
    machine.files.put(config("opencode.json"), FileKind::link, "../../../dotfiles/opencode.jsonc");
    machine.expect({{{"status"}, 0, "OpenCode: MCP server added but it runs another copy, skill not installed.\n    It runs "
                                    "/opt/old/vantoric-studio-mcp; `vantoric-studio-mcp install` points it at this one.\n"},
                    {{"install"}, 0, "OpenCode: Studio's MCP server updated (it ran /opt/old/vantoric-studio-mcp), skill installed.\n" + advice}});
    std::string oldArray = "[\"/opt/old/vantoric-studio-mcp\",\n                   ]", expected = before;
    expected.replace(expected.find(oldArray), oldArray.size(), bridgeArray());
    EXPECT_EQ(machine.files.text(dotfile), expected);
    EXPECT_EQ(machine.files.status(dotfile).permissions, 0640u);
    EXPECT_EQ(machine.files.linkStatus(config("opencode.json")).kind, FileKind::link);

    EXPECT_EQ(machine.run({"uninstall"}).status, 0);
    std::string entry = expected.substr(expected.find("    \"vantoric-studio\""));
    expected.erase(expected.find(entry), entry.find("    },\n") + 7);
    EXPECT_EQ(machine.files.text(dotfile), expected);
    EXPECT_TRUE(calls().empty());
}

TEST_F(OpenCodeConfig, EveryEntryInBothFilesIsFoundAndOnlyStaleOnesAreRewritten) {
    write("opencode.json", entryFile(bridgeArray()));
    write("opencode.jsonc", "{\n  \"mcp\": {\n    \"servers\": {\n      \"vantoric-studio\": {\"command\": [\"npx\", \"studio-mcp\"]}"
                            "\n    },\n    \"vantoric-studio\": {\"command\": " + bridgeArray() + "},\n    \"keep\": {}\n  }\n}\n");
    auto scan = BridgeInstaller::openCodeScan(machine.agent("opencode"), machine.settings(), machine.system());
    ASSERT_EQ(scan.entries.size(), 3u);
    EXPECT_EQ(scan.entries[1].path, (std::vector<std::string>{"mcp", "servers", "vantoric-studio"}));
    EXPECT_EQ(scan.entries[2].path, (std::vector<std::string>{"mcp", "vantoric-studio"}));
    EXPECT_NE(machine.run({"status", "--json"}).output.find(R"({"detail":"npx studio-mcp","id":"opencode","registration":"other")"),
              std::string::npos);
    machine.expect({{{"install"}, 0, "OpenCode: Studio's MCP server updated (it ran npx studio-mcp), skill installed.\n" + advice},
                    {{"status"}, 0, "OpenCode: MCP server added, skill installed.\n"}});
    EXPECT_EQ(machine.files.written.front(), config("opencode.jsonc")) << "the current file is left alone";
    machine.expect({{{"uninstall"}, 0, "OpenCode: MCP server removed, MCP server removed, skill removed.\n"},
                    {{"uninstall"}, 0, "OpenCode: no MCP server to remove.\n"}});
    EXPECT_EQ(read("opencode.json"), "{\n  \"mcp\": {\n  }\n}\n");
    EXPECT_EQ(read("opencode.jsonc"), "{\n  \"mcp\": {\n    \"servers\": {\n    },\n    \"keep\": {}\n  }\n}\n");
    // Only an array of strings is a command.
    auto entries = BridgeInstaller::openCodeEntries(R"({"mcp": {"vantoric-studio": {"command": ["a", 1]}, "servers": )"
                                                    R"({"vantoric-studio": {"command": []}}}})", "/f", "vantoric-studio");
    EXPECT_EQ(entries.value().at(0).command, std::vector<std::string>{});
    EXPECT_EQ(entries.value().at(1).command, std::nullopt);
}

TEST_F(OpenCodeConfig, EntryThatCannotBeEditedOrWrittenIsLeftWithAStepByHand) {
    std::string before = "{\"mcp\": {\"vantoric-studio\": {\"type\": \"remote\", \"url\": \"http://h\"}}}";
    write("opencode.json", before);
    std::string path = config("opencode.json").string();
    std::string setByHand = "    Set the \"command\" of mcp \u203A vantoric-studio there to " + bridgeArray() + ".\n";
    machine.expect({{{"status"}, 0, "OpenCode: MCP server added but it runs another copy, skill not installed.\n    It runs "
                                    "a server without a command; `vantoric-studio-mcp install` points it at this one.\n"},
                    {{"install"}, 1, "OpenCode: could not update " + path + ", skill installed.\n    It could not be edited "
                                     "safely (Studio edits only JSON with comments it can read back).\n" + setByHand}});
    EXPECT_EQ(read("opencode.json"), before);
    write("opencode.json", entryFile("[\"/old\"]"));
    machine.files.failWrites[config("opencode.json")] = EROFS;
    std::string readOnly = "    Could not write " + path + ": Read-only file system.\n";
    machine.expect({{{"install"}, 1, "OpenCode: could not update " + path + ", skill installed.\n" + readOnly + setByHand},
                    {{"uninstall"}, 1, "OpenCode: could not edit " + path + ", skill removed.\n" + readOnly +
                                           "    Remove \"vantoric-studio\" from mcp there by hand.\n"}});
    EXPECT_EQ(read("opencode.json"), entryFile("[\"/old\"]"));
}

TEST_F(OpenCodeConfig, UnreadableFilesAreNamedAndABrokenOneCountsOnlyWhenItNamesTheServer) {
    write("opencode.json", "{ \"theme\": \"dark\", oops }");
    machine.expect({{{"status"}, 0, "OpenCode: MCP server not added, skill not installed.\n"}});
    write("opencode.json", "{ \"mcp\": { \"vantoric-studio\": { \"command\": [\"/old\"] } }");  // unclosed
    write("opencode.jsonc", entryFile("[\"/old\"]"));
    std::string path = config("opencode.json").string();
    machine.expect({{{"status"}, 1, "OpenCode: MCP server unknown, skill not installed.\n    " + path + " could not be read as JSON.\n"},
                    {{"install"}, 1, "OpenCode: could not read " + path + ", skill installed.\n    Check by hand that its "
                                     "\"vantoric-studio\" MCP server runs " + bridgeArray() + ".\n"}});
    EXPECT_EQ(read("opencode.jsonc"), entryFile("[\"/old\"]"));  // nothing is changed anywhere
    EXPECT_TRUE(calls().empty());
    machine.expect({{{"uninstall"}, 1, "OpenCode: could not read " + path + ", MCP server removed, skill removed.\n" + removeByHand}});
    EXPECT_EQ(read("opencode.jsonc"), "{\n  \"mcp\": {\n  }\n}\n");  // the readable file is still cleaned
    // A folder or a loop of links in a file's place cannot be read.
    machine.files.remove(config("opencode.json"));
    machine.files.createFolders(config("opencode.json"));
    machine.files.put(config("opencode.jsonc"), FileKind::link, "opencode.jsonc");
    machine.expect({{{"uninstall"}, 1, "OpenCode: could not read " + path + ", could not read " + config("opencode.jsonc").string() +
                                           ".\n" + removeByHand + removeByHand}});
}
