// The skill file: its source in the bundle, installing, reporting, removing.
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "Machine.h"
#include "installer/Skill.h"

using namespace installertest;
using BridgeInstaller::SkillSource;

namespace {

ino_t inode(const fs::path& file) {
    struct stat info{};
    stat(file.c_str(), &info);
    return info.st_ino;
}

}  // namespace

TEST(SkillSourceInBundle, AgentLinkFirstThenResourcesThenAMessage) {
    testsupport::TempDir dir;
    fs::path app = dir / "Studio.app";
    EXPECT_EQ(BridgeInstaller::skillSource(std::nullopt),
              SkillSource::missing("Vantoric Studio was not found; set VANTORIC_STUDIO_APP to the app's path and run "
                                   "this again."));
    EXPECT_EQ(BridgeInstaller::skillSource(app),
              SkillSource::missing(app.string() +
                                   " has no Studio skill in Contents/Resources/AgentLink; rebuild or reinstall Studio."));
    dir.write("Studio.app/Contents/Resources/vantoric-studio-skill.md", "plain");
    EXPECT_EQ(BridgeInstaller::skillSource(app), SkillSource::text("plain"));
    dir.write("Studio.app/Contents/Resources/AgentLink/vantoric-studio-skill.md", "linked");
    EXPECT_EQ(BridgeInstaller::skillSource(app), SkillSource::text("linked"));
    // Not UTF-8: as if it were not there.
    dir.write("Studio.app/Contents/Resources/AgentLink/vantoric-studio-skill.md", "bad \xFF");
    EXPECT_EQ(BridgeInstaller::skillSource(app), SkillSource::text("plain"));
}

TEST(SkillInstallation, WrittenOnceAndReplacedWhenChanged) {
    Machine machine;
    machine.installAgent("codex");
    fs::path file = machine.home() / ".codex/skills/vantoric-studio/SKILL.md";

    EXPECT_EQ(machine.run({"install"}).status, 0);
    EXPECT_EQ(testsupport::readFile(file), skillText);
    auto first = inode(file);
    auto second = machine.run({"install"});
    EXPECT_EQ(second.output.substr(0, second.output.find('\n')),
              "Codex: Studio's MCP server already set up, skill installed.");
    EXPECT_EQ(inode(file), first);  // not rewritten

    machine.write("home/.codex/skills/vantoric-studio/SKILL.md", "my own notes");
    machine.run({"install"});
    EXPECT_EQ(testsupport::readFile(file), skillText);
    machine.write("home/.codex/skills/vantoric-studio/SKILL.md", "\xFF\xFE");
    machine.run({"install"});
    EXPECT_EQ(testsupport::readFile(file), skillText);
    EXPECT_EQ(fs::status(file).permissions() & fs::perms::others_read, fs::perms::others_read);
}

TEST(SkillInstallation, MissingSourceIsReportedWithoutFailingAndStatusOnlyLooksForTheFile) {
    Machine machine;
    machine.installAgent("claude");
    std::ostringstream out;
    auto status = BridgeInstaller::run({"install"}, machine.bridge(), std::nullopt, machine.environment(),
                                       machine.settings(), out);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(out.str().substr(0, out.str().find("\n\n")),
              "Claude Code: Studio's MCP server added, skill not installed.\n"
              "    Vantoric Studio was not found; set VANTORIC_STUDIO_APP to the app's path and run this again.");
    EXPECT_EQ(machine.run({"status"}).output, "Claude Code: MCP server added, skill not installed.\n");
    machine.write("home/.claude/skills/vantoric-studio/SKILL.md", "anything at all");
    EXPECT_EQ(machine.run({"status"}).output, "Claude Code: MCP server added, skill installed.\n");
}

TEST(SkillInstallation, FolderThatCannotBeCreatedFailsTheAgent) {
    Machine machine;
    machine.installAgent("claude");
    machine.write("home/.claude/skills", "a file where the folder should be");
    auto result = machine.run({"install"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output.substr(0, result.output.find('\n')),
              "Claude Code: Studio's MCP server added, skill not installed.");
    EXPECT_NE(result.output.find("\n    Could not create the folder " +
                                 (machine.home() / ".claude/skills/vantoric-studio").string()),
              std::string::npos)
        << result.output;
}

TEST(SkillRemoval, FileAndEmptyFolderGoUserFilesStay) {
    Machine machine;
    machine.installAgent("claude");
    fs::path folder = machine.home() / ".claude/skills/vantoric-studio";
    machine.run({"install"});
    EXPECT_EQ(machine.run({"uninstall"}).output, "Claude Code: MCP server removed, skill removed.\n");
    EXPECT_FALSE(fs::exists(folder));
    EXPECT_TRUE(fs::exists(folder.parent_path()));

    machine.run({"install"});
    machine.write("home/.claude/skills/vantoric-studio/notes.md", "mine");
    EXPECT_EQ(machine.run({"uninstall"}).output, "Claude Code: MCP server removed, skill removed.\n");
    EXPECT_FALSE(fs::exists(folder / "SKILL.md"));
    EXPECT_TRUE(fs::exists(folder / "notes.md"));

    EXPECT_EQ(machine.run({"uninstall"}).output, "Claude Code: no MCP server to remove.\n");
}

TEST(SkillRemoval, FileThatCannotBeRemovedFailsTheAgent) {
    Machine machine;
    machine.installAgent("claude");
    machine.write("home/.claude/skills/vantoric-studio/SKILL.md/inside", "a folder in the file's place");
    auto result = machine.run({"uninstall"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output.substr(0, result.output.find('\n')),
              "Claude Code: no MCP server to remove, skill not removed.");
    EXPECT_TRUE(fs::exists(machine.home() / ".claude/skills/vantoric-studio/SKILL.md/inside"));
}
