// The installer's command line, agent selection and closing lines, and the
// texts it prints: detail lines, agents' answers, the JSON status report.
#include "Machine.h"
#include "installer/Text.h"

using namespace installertest;
using namespace BridgeInstaller;

TEST(InstallerCommandLine, BadWordsPrintUsageAndTouchNothingAgentWordsAreLowerCased) {
    Machine machine;
    machine.installAgent("claude");
    machine.installAgent("codex");
    const std::string usage =
        "Usage: vantoric-studio-mcp install | status [--json] | uninstall [claude] [codex] [opencode]\n";
    machine.expect({{{}, 2, usage}, {{"Install"}, 2, usage}, {{"remove"}, 2, usage}, {{"--json"}, 2, usage},
                    {{"install", "claude", "Claud"}, 2, "Unknown agent \"claud\": choose claude, codex or opencode.\n" + usage},
                    {{"uninstall", "\xC9" "Codex\xFF"}, 2, "Unknown agent \"\xC9" "codex\xFF\": choose claude, codex or opencode.\n" + usage}});
    EXPECT_TRUE(machine.agents.calls.empty());
    machine.expect({{{"install", "--json", "CLAUDE"}, 0, "Claude Code: Studio's MCP server added, skill installed.\n" + advice},
                    // In a fixed order whatever the words.
                    {{"uninstall", "codex", "claude"}, 0,
                     "Claude Code: MCP server removed, skill removed.\nCodex: no MCP server to remove.\n"}});
    EXPECT_EQ(machine.agents.calls["codex"], std::vector<std::string>{"mcp get vantoric-studio --json"});
}

TEST(InstallerCommandLine, InstallFromATemporaryLocationIsRefusedButStatusAndUninstallRun) {
    EXPECT_TRUE(isTransientLocation("/private/var/folders/x/T/AppTranslocation/1A2B/d/Vantoric Studio.app/Contents/MacOS/vantoric-studio-mcp"));
    EXPECT_TRUE(isTransientLocation("/Volumes/Vantoric Studio/Vantoric Studio.app/Contents/MacOS/vantoric-studio-mcp"));
    for (const char* path : {"/Applications/Vantoric Studio.app/Contents/MacOS/vantoric-studio-mcp", "/Volumes",
                             "/data/Volumes/Studio/vantoric-studio-mcp", "/opt/AppTranslocations/vantoric-studio-mcp"})
        EXPECT_FALSE(isTransientLocation(path)) << path;
    Machine machine;
    machine.installAgent("claude");
    fs::path translocated = machine.root / "AppTranslocation" / "X" / "vantoric-studio-mcp";
    auto refused = machine.run({"install"}, translocated);
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.output, "This copy of Vantoric Studio runs from a temporary location:\n  " + translocated.string() +
                                  "\nMove Vantoric Studio to Applications first, then run this again.\n");
    EXPECT_TRUE(machine.agents.calls.empty());
    EXPECT_EQ(machine.run({"status"}, translocated).output, "Claude Code: MCP server not added, skill not installed.\n");
    EXPECT_EQ(machine.run({"uninstall"}, "/Volumes/Studio/vantoric-studio-mcp").output, "Claude Code: no MCP server to remove.\n");
}

TEST(InstallerAgentSelection, MissingAgentsAreNamedAndFailTheRunFoundOnesGetTheirFolders) {
    Machine machine;
    const std::string byHand = "Add Studio by hand with this command as a stdio MCP server:\n  " + machine.bridge.string() + "\n";
    machine.files.write(machine.bin / "codex", "not executable", 0644);
    machine.expect({{{"install"}, 1, "No coding agent found on your PATH (looked for claude, codex and opencode).\n" + byHand}});
    // Found where installers put them even when PATH does not say so.
    machine.files.write(machine.home / ".local/bin/claude", "", 0755);
    machine.expect({{{"install", "codex"}, 1, "Codex: not found on your PATH.\n" + byHand},
                    {{"install", "codex", "claude"}, 1,
                     "Codex: not found on your PATH.\nClaude Code: Studio's MCP server added, skill installed.\n" + advice},
                    {{"status", "codex", "--json"}, 0,
                     "{\"agents\":[],\"bridge\":\"\\/m\\/Applications\\/Vantoric Studio.app\\/Contents\\/MacOS\\/vantoric-studio-mcp\"}\n"}});
    machine.installAgent("opencode");
    EXPECT_EQ(machine.agent("claude").skillsFolder, machine.home / ".claude/skills");
    EXPECT_EQ(machine.agent("opencode").configFolder, machine.home / ".config/opencode");
    machine.variables = {{"CLAUDE_CONFIG_DIR", "/c"}, {"XDG_CONFIG_HOME", "/g"}};
    EXPECT_EQ(machine.agent("claude").skillsFolder, "/c/skills");
    EXPECT_EQ(machine.agent("opencode").skillsFolder, "/g/opencode/skills");
}

TEST(InstallerTexts, DetailLinesOutcomesAndCharacters) {
    EXPECT_EQ(indented("  first\r\nsecond\r\n\r\n\n"), (std::vector<std::string>{"    first", "    second"}));
    EXPECT_EQ(indented("a\vb\fc\rd\u0085e\u2028f\u2029g"),
              (std::vector<std::string>{"    a", "    b", "    c", "    d", "    e", "    f", "    g"}));
    EXPECT_EQ(indented("\u00a0 \t\n"), std::vector<std::string>{});
    // Inner lines keep their own white space; only the ends of the text go.
    EXPECT_EQ(indented("x\n   \n  y  "), (std::vector<std::string>{"    x", "       ", "      y"}));
    Outcome outcome;
    outcome.parts = {"Studio's MCP server added"};
    outcome.fail("skill not installed", "\nCould not write x\n", "Do it by hand.");
    std::ostringstream out;
    outcome.print("Claude Code", out);
    EXPECT_FALSE(outcome.succeeded);
    EXPECT_EQ(out.str(), "Claude Code: Studio's MCP server added, skill not installed.\n    Could not write x\n    Do it by hand.\n");
    EXPECT_EQ(title("cursor"), "cursor");
    std::string flag = "\U0001F1EB\U0001F1F7", accented = "e\u0301";  // one character each, two code points
    EXPECT_EQ(text::prefixCharacters(flag + accented + "x", 2), flag + accented);
    EXPECT_EQ(text::prefixCharacters("ab\r\ncd", 3), "ab\r\n");
    EXPECT_EQ(text::prefixCharacters("abc", 10), "abc");
}

TEST(InstallerTexts, ProgramAnswersAreRepairedCutAndSayHowTheProgramEnded) {
    std::string cut = "\n(70000 bytes cut from the middle of this output)\n", fffd = "\xEF\xBF\xBD";
    struct Case {
        platform::CommandResult result;
        double timeout;
        Answer expected;
    };
    for (const auto& c : std::vector<Case>{
             {{.status = 3, .exited = true, .head = "a\xFF" "b\xE2\x82" "c\xF0\x9F\x98"}, 10, {3, "a" + fffd + "b" + fffd + "c" + fffd, true}},
             {{.status = 0, .exited = true, .head = "head", .cut = 70000, .tail = "tail"}, 10, {0, "head" + cut + "tail", true}},
             {{.status = 9, .head = "killed\n"}, 10, {9, "killed\n", false}},
             {{.failure = platform::SystemError{ENOENT, "Could not start /x: No such file or directory"}}, 10,
              {-1, "Could not start /x: No such file or directory.", false}},
             {{.stopped = true, .head = "started\n"}, 1.9, {-1, "started\n\n(stopped after 1 s without an answer)", false}},
             {{.stopped = true, .head = "y\n", .cut = 70000, .tail = "y\n"}, 0.3, {-1, "y\n" + cut + "y\n\n(stopped after 0 s without an answer)", false}},
             {{.stopped = true, .survivedKill = true, .head = "traced\n"}, 2, {-1, "traced\n\n(no answer after 2 s, and it did not end when killed)", false}},
         }) {
        auto got = answer(c.result, c.timeout);
        EXPECT_EQ(std::tie(got.status, got.output, got.exited), std::tie(c.expected.status, c.expected.output, c.expected.exited));
    }
}

TEST(InstallerTexts, JsonStringsAndTheStatusReport) {
    EXPECT_EQ(jsonString("/Applications/Vantoric Studio.app/x"), "\"/Applications/Vantoric Studio.app/x\"");
    EXPECT_EQ(jsonString("a\"b\\c\nd\te\x01"), "\"a\\\"b\\\\c\\nd\\te\\u0001\"");
    EXPECT_EQ(jsonString("caf\xC3\xA9"), "\"caf\xC3\xA9\"");
    EXPECT_EQ(jsonString("a\xFF"), "\"a\xFF\"") << "not UTF-8: written as it is between quotes";
    std::vector<StatusEntry> entries = {{"claude", "Claude Code", Registration::current()},
                                        {"codex", "Codex", Registration::other("/opt/old/vantoric-studio-mcp --x")},
                                        {"opencode", "OpenCode", Registration::unknown("line \"one\"\nline two")}};
    EXPECT_EQ(statusJSON(entries, "/Applications/Vantoric Studio.app/Contents/MacOS/vantoric-studio-mcp"),
              R"({"agents":[)"
              R"({"detail":"","id":"claude","registration":"current","title":"Claude Code"},)"
              R"({"detail":"\/opt\/old\/vantoric-studio-mcp --x","id":"codex","registration":"other","title":"Codex"},)"
              R"({"detail":"line \"one\"\nline two","id":"opencode","registration":"unknown","title":"OpenCode"}],)"
              R"("bridge":"\/Applications\/Vantoric Studio.app\/Contents\/MacOS\/vantoric-studio-mcp"})");
    std::string reason;  // cut to 400 characters, in the JSON only
    for (int i = 0; i < 450; ++i) reason += "\xC3\xA9";
    auto json = nlohmann::json::parse(statusJSON({{"claude", "Claude Code", Registration::unknown(reason)}}, "/b"));
    EXPECT_EQ(json["agents"][0]["detail"].get<std::string>(), reason.substr(0, 800));
}
