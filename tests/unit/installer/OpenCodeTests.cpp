// OpenCode's configuration files: scanning, adding through OpenCode's own
// program, editing entries in place byte for byte, and what cannot be read.
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "Machine.h"
#include "installer/OpenCode.h"

using namespace installertest;

namespace {

const std::string removeByHand = "    Remove \"vantoric-studio\" from its \"mcp\" section by hand.";

std::string entryFile(const std::string& command) {
    return "{\n  \"mcp\": {\n    \"vantoric-studio\": {\n      \"type\": \"local\",\n      \"command\": " + command +
           "\n    }\n  }\n}\n";
}

class OpenCodeConfig : public ::testing::Test {
protected:
    void SetUp() override { machine.installAgent("opencode"); }
    fs::path config(const std::string& name) const { return machine.openCodeFolder() / name; }
    fs::path write(const std::string& name, const std::string& text) const {
        return machine.write("home/.config/opencode/" + name, text);
    }
    std::string read(const std::string& name) const { return testsupport::readFile(config(name)); }
    std::string bridgeArray() const { return "[\"" + machine.bridge().string() + "\"]"; }
    std::string firstLine(const std::string& output) const { return output.substr(0, output.find('\n')); }

    Machine machine;
};

}  // namespace

TEST_F(OpenCodeConfig, NoFileIsNotAddedAndInstallLetsOpenCodeAddIt) {
    EXPECT_EQ(machine.run({"status"}).output, "OpenCode: MCP server not added, skill not installed.\n");
    auto result = machine.run({"install"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(firstLine(result.output), "OpenCode: Studio's MCP server added, skill installed.");
    std::string bridge = machine.bridge().string();
    // Current OpenCode refuses --global; the plain form writes the global file.
    EXPECT_EQ(machine.calls("opencode"), (std::vector<std::string>{"mcp add --global vantoric-studio -- " + bridge,
                                                                    "mcp add vantoric-studio -- " + bridge}));
    EXPECT_NE(read("opencode.jsonc").find("\"command\": [\n        \"" + bridge + "\"\n      ]"), std::string::npos)
        << read("opencode.jsonc");
    EXPECT_EQ(machine.run({"status"}).output, "OpenCode: MCP server added, skill installed.\n");
    EXPECT_EQ(firstLine(machine.run({"install"}).output), "OpenCode: Studio's MCP server already set up, skill installed.");
    EXPECT_EQ(machine.calls("opencode").size(), 2u);
}

TEST_F(OpenCodeConfig, AddThatLeavesNoEntryIsReported) {
    machine.script("opencode", "add", "\u25C6  MCP server \"vantoric-studio\" added\n", 0);
    auto silent = machine.run({"install"});
    EXPECT_EQ(silent.status, 1);
    EXPECT_EQ(silent.output, "OpenCode: OpenCode said it added Studio's MCP server, but its global config does not "
                             "show it, skill installed.\n"
                             "    \u25C6  MCP server \"vantoric-studio\" added\n");
}

TEST_F(OpenCodeConfig, AddIsRetriedWithoutGlobalOnlyWhenOpenCodeExitedRefusingIt) {
    struct Case {
        std::string withGlobal;  // what the program does when given --global
        std::string without;     // and otherwise
        std::size_t calls;
        std::string details;
    };
    std::vector<Case> cases = {
        // Refused, then failed anyway: both answers are shown.
        {"echo 'opencode mcp add [name]'; exit 1", "echo 'Error: config folder is read-only'; exit 1", 2,
         "    opencode mcp add [name]\n    Without --global:\n    Error: config folder is read-only\n"},
        // Hung or killed: the plain form would fare no better, and the first
        // answer is the one that tells why.
        {"echo 'Loading plugins'; exec sleep 60", "exit 0", 1,
         "    Loading plugins\n    (stopped after 1 s without an answer)\n"},
        {"echo 'Loading plugins'; kill -9 $$", "exit 0", 1, "    Loading plugins\n"},
    };
    machine.timeout = 1;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.withGlobal);
        fs::remove(machine.bin() / "opencode.calls");
        fs::path program = machine.write("bin/opencode", "#!/bin/sh\necho \"$*\" >> \"$(dirname \"$0\")/opencode.calls\"\n"
                                                         "case \"$*\" in *--global*) " + c.withGlobal + ";; esac\n" +
                                                         c.without + "\n");
        fs::permissions(program, fs::perms::owner_all, fs::perm_options::add);
        auto result = machine.run({"install"});
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.output, "OpenCode: could not add Studio's MCP server, skill installed.\n" + c.details);
        EXPECT_EQ(machine.calls("opencode").size(), c.calls);
    }
}

TEST_F(OpenCodeConfig, OnlyTheEntryChangesInAFileWithCommentsTrailingCommasAndLatin1) {
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
    write("opencode.json", before);
    ::chmod(config("opencode.json").c_str(), 0640);

    auto status = machine.run({"status"});
    EXPECT_EQ(status.output, "OpenCode: MCP server added but it runs another copy, skill not installed.\n"
                             "    It runs /opt/old/vantoric-studio-mcp; `vantoric-studio-mcp install` points it at "
                             "this one.\n");
    auto result = machine.run({"install"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(firstLine(result.output),
              "OpenCode: Studio's MCP server updated (it ran /opt/old/vantoric-studio-mcp), skill installed.");

    std::string oldArray = "[\"/opt/old/vantoric-studio-mcp\",\n                   ]";
    std::string expected = before;
    expected.replace(expected.find(oldArray), oldArray.size(), bridgeArray());
    EXPECT_EQ(read("opencode.json"), expected);
    EXPECT_EQ(fs::status(config("opencode.json")).permissions(),
              fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);

    EXPECT_EQ(machine.run({"uninstall"}).status, 0);
    std::string entry = expected.substr(expected.find("    \"vantoric-studio\""));
    entry = entry.substr(0, entry.find("    },\n") + 7);
    expected.erase(expected.find(entry), entry.size());
    EXPECT_EQ(read("opencode.json"), expected);
    EXPECT_TRUE(machine.calls("opencode").empty());
}

TEST_F(OpenCodeConfig, BothFilesAreScannedAndOnlyTheStaleOneIsRewritten) {
    std::string current = entryFile(bridgeArray());
    write("opencode.json", current);
    write("opencode.jsonc", entryFile("[\"npx\", \"studio-mcp\"]"));

    auto status = machine.run({"status", "--json"});
    EXPECT_NE(status.output.find(R"({"detail":"npx studio-mcp","id":"opencode","registration":"other")"),
              std::string::npos)
        << status.output;

    auto install = machine.run({"install"});
    EXPECT_EQ(firstLine(install.output), "OpenCode: Studio's MCP server updated (it ran npx studio-mcp), skill installed.");
    EXPECT_EQ(read("opencode.json"), current);
    EXPECT_EQ(read("opencode.jsonc"), current);

    auto uninstall = machine.run({"uninstall"});
    EXPECT_EQ(uninstall.status, 0);
    EXPECT_EQ(uninstall.output, "OpenCode: MCP server removed, MCP server removed, skill removed.\n");
    EXPECT_EQ(read("opencode.json"), "{\n  \"mcp\": {\n  }\n}\n");
    EXPECT_EQ(read("opencode.jsonc"), "{\n  \"mcp\": {\n  }\n}\n");
    EXPECT_EQ(machine.run({"uninstall"}).output, "OpenCode: no MCP server to remove.\n");
}

TEST_F(OpenCodeConfig, EntriesUnderServersAndDirectlyUnderMcpGoInOneEdit) {
    write("opencode.jsonc",
          "{\n  \"mcp\": {\n    \"servers\": {\n      \"vantoric-studio\": {\"command\": " + bridgeArray() +
              "}\n    },\n    \"vantoric-studio\": {\"command\": " + bridgeArray() + "},\n    \"keep\": {}\n  }\n}\n");
    EXPECT_EQ(machine.run({"status"}).output, "OpenCode: MCP server added, skill not installed.\n");
    auto scan = BridgeInstaller::openCodeScan(machine.agent("opencode"), machine.settings());
    ASSERT_EQ(scan.entries.size(), 2u);
    EXPECT_EQ(scan.entries[0].path, (std::vector<std::string>{"mcp", "servers", "vantoric-studio"}));
    EXPECT_EQ(scan.entries[1].path, (std::vector<std::string>{"mcp", "vantoric-studio"}));

    EXPECT_EQ(machine.run({"uninstall"}).output, "OpenCode: MCP server removed.\n");
    EXPECT_EQ(read("opencode.jsonc"), "{\n  \"mcp\": {\n    \"servers\": {\n    },\n    \"keep\": {}\n  }\n}\n");
}

TEST_F(OpenCodeConfig, EntryWithoutACommandIsAnotherServerThatCannotBeUpdated) {
    std::string before = "{\"mcp\": {\"vantoric-studio\": {\"type\": \"remote\", \"url\": \"http://h\"}}}";
    write("opencode.json", before);
    EXPECT_EQ(machine.run({"status"}).output,
              "OpenCode: MCP server added but it runs another copy, skill not installed.\n"
              "    It runs a server without a command; `vantoric-studio-mcp install` points it at this one.\n");
    auto result = machine.run({"install"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "OpenCode: could not update " + config("opencode.json").string() +
                                 ", skill installed.\n"
                                 "    It could not be edited safely (Studio edits only JSON with comments it can read "
                                 "back).\n"
                                 "    Set the \"command\" of mcp \u203A vantoric-studio there to " +
                                 bridgeArray() + ".\n");
    EXPECT_EQ(read("opencode.json"), before);
}

TEST_F(OpenCodeConfig, LinkedConfigurationIsEditedAtItsTargetAndStaysALink) {
    fs::path target = machine.write("dotfiles/opencode.jsonc", entryFile("[\"/old\"]"));
    ::chmod(target.c_str(), 0600);
    fs::create_directories(machine.openCodeFolder());
    fs::create_symlink("../../../dotfiles/opencode.jsonc", config("opencode.jsonc"));

    EXPECT_EQ(machine.run({"install"}).status, 0);
    EXPECT_TRUE(fs::is_symlink(config("opencode.jsonc")));
    EXPECT_EQ(testsupport::readFile(target), entryFile(bridgeArray()));
    EXPECT_EQ(fs::status(target).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    // No temporary file is left beside the target.
    EXPECT_EQ(std::distance(fs::directory_iterator(target.parent_path()), fs::directory_iterator()), 1);
}

TEST_F(OpenCodeConfig, BrokenFileIsIgnoredUnlessItNamesTheServer) {
    write("opencode.json", "{ \"theme\": \"dark\", oops }");
    EXPECT_EQ(machine.run({"status"}).output, "OpenCode: MCP server not added, skill not installed.\n");

    write("opencode.json", "{ \"mcp\": { \"vantoric-studio\": { \"command\": [\"/old\"] } }");  // unclosed
    write("opencode.jsonc", entryFile("[\"/old\"]"));
    std::string path = config("opencode.json").string();

    auto status = machine.run({"status"});
    EXPECT_EQ(status.status, 1);
    EXPECT_EQ(status.output, "OpenCode: MCP server unknown, skill not installed.\n    " + path +
                                 " could not be read as JSON.\n");

    auto install = machine.run({"install"});
    EXPECT_EQ(install.status, 1);
    EXPECT_EQ(install.output, "OpenCode: could not read " + path + ", skill installed.\n"
                              "    Check by hand that its \"vantoric-studio\" MCP server runs " + bridgeArray() + ".\n");
    EXPECT_EQ(read("opencode.jsonc"), entryFile("[\"/old\"]"));  // nothing is changed anywhere
    EXPECT_TRUE(machine.calls("opencode").empty());

    auto uninstall = machine.run({"uninstall"});
    EXPECT_EQ(uninstall.status, 1);
    EXPECT_EQ(uninstall.output, "OpenCode: could not read " + path + ", MCP server removed, skill removed.\n" +
                                    removeByHand + "\n");
    EXPECT_EQ(read("opencode.jsonc"), "{\n  \"mcp\": {\n  }\n}\n");  // the readable file is still cleaned
}

TEST_F(OpenCodeConfig, FolderOrLinkLoopInTheFilesPlaceCannotBeRead) {
    fs::create_directories(config("opencode.json"));
    fs::create_directories(machine.openCodeFolder());
    fs::create_symlink("opencode.jsonc", config("opencode.jsonc"));
    auto uninstall = machine.run({"uninstall"});
    EXPECT_EQ(uninstall.status, 1);
    EXPECT_EQ(uninstall.output, "OpenCode: could not read " + config("opencode.json").string() + ", could not read " +
                                    config("opencode.jsonc").string() + ".\n" + removeByHand + "\n" + removeByHand + "\n");
    auto json = machine.run({"status", "--json"});
    EXPECT_NE(json.output.find("could not be read as JSON."), std::string::npos);
}

TEST_F(OpenCodeConfig, DanglingLinkIsAFileThatDoesNotExistYet) {
    fs::create_directories(machine.openCodeFolder());
    fs::create_directories(machine.root() / "dotfiles");
    fs::create_symlink("../../../dotfiles/opencode.jsonc", config("opencode.jsonc"));
    EXPECT_EQ(machine.run({"status"}).output, "OpenCode: MCP server not added, skill not installed.\n");
    EXPECT_EQ(machine.run({"uninstall"}).output, "OpenCode: no MCP server to remove.\n");
    auto install = machine.run({"install"});
    EXPECT_EQ(install.status, 0);
    EXPECT_EQ(firstLine(install.output), "OpenCode: Studio's MCP server added, skill installed.");
    // OpenCode wrote through the link, which stays one.
    EXPECT_TRUE(fs::is_symlink(config("opencode.jsonc")));
    EXPECT_TRUE(fs::exists(machine.root() / "dotfiles/opencode.jsonc"));
}

TEST_F(OpenCodeConfig, ScanReadsOnlyArraysOfStringsAsCommands) {
    auto entries = BridgeInstaller::openCodeEntries(
        "{\"mcp\": {\"vantoric-studio\": {\"command\": [\"a\", 1]}, \"servers\": {\"vantoric-studio\": {\"command\": []}}}}",
        "/f", "vantoric-studio");
    ASSERT_TRUE(entries);
    ASSERT_EQ(entries->size(), 2u);
    EXPECT_EQ((*entries)[0].command, std::vector<std::string>{});
    EXPECT_EQ((*entries)[1].command, std::nullopt);
    EXPECT_FALSE(BridgeInstaller::openCodeEntries("{", "/f", "vantoric-studio"));
    EXPECT_EQ(BridgeInstaller::openCodeEntries("[]", "/f", "vantoric-studio")->size(), 0u);
}
