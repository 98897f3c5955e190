// The installer against the agents' real programs (Claude Code, Codex and
// OpenCode from tests/npm, installed into the build tree), run through the
// real vantoric-studio-mcp binary inside the simulator's Studio bundle. Each
// test gets its own home and temporary folder below the build tree; the
// agents find nothing of the developer's own setup.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "support/ChildProcess.h"
#include "support/TempDir.h"

namespace fs = std::filesystem;
using testsupport::ChildProcess;

namespace {

const fs::path agentsBin = fs::path(VSM_NPM_DIR) / "node_modules" / ".bin";
const fs::path releaseApp = fs::path(VSM_BUNDLES_DIR) / "Vantoric Studio.app";
const fs::path subjectApp = fs::path(VSM_BUNDLES_DIR) / "Vantoric Studio Subject.app";
const std::string advice =
    "\nStart a new session in your agent and ask it to make a demo video with Vantoric Studio.\n"
    "The first time, Studio asks you once to allow the agent.\n";

struct Ran {
    int status;
    std::string output;  // standard output (and error, for the agents, appended)
};

// The folder holding `node`, which the agents' launchers need on the PATH.
std::string nodeFolder() {
    std::istringstream path(std::getenv("PATH") ? std::getenv("PATH") : "");
    for (std::string folder; std::getline(path, folder, ':');) {
        if (!folder.empty() && access((fs::path(folder) / "node").c_str(), X_OK) == 0) return folder;
    }
    return "/usr/bin";
}

class RealAgents : public ::testing::Test {
protected:
    void SetUp() override {
#ifndef VSM_BRIDGE_BINARY
        GTEST_SKIP() << "this build has no vantoric-studio-mcp binary";
#endif
        for (auto program : {"claude", "codex", "opencode"}) {
            ASSERT_TRUE(fs::exists(agentsBin / program))
                << program << " is missing from " << agentsBin << "; run scripts/test-setup";
        }
        // Below the build tree, not /tmp: Codex refuses some work under a
        // temporary folder, and the agents' state stays out of the way.
        fs::create_directories(fs::path(VSM_BUILD_DIR) / "test-homes");
        std::string pattern = (fs::path(VSM_BUILD_DIR) / "test-homes" / "installer-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        root = pattern;
        useHome(root / "home");
        bridge = releaseApp / "Contents" / "MacOS" / "vantoric-studio-mcp";
    }

    void TearDown() override {
        std::error_code ec;
        if (!root.empty()) fs::remove_all(root, ec);
    }

    void useHome(const fs::path& home) {
        fs::create_directories(home);
        fs::create_directories(root / "tmp");
        environment = {
            {"HOME", home.string()},
            {"TMPDIR", (root / "tmp").string()},
            {"PATH", agentsBin.string() + ":" + nodeFolder() + ":/usr/bin:/bin"},
            {"LANG", "C.UTF-8"},
            // Claude Code checks a registered server by starting it; the
            // bridge answers at once, so a short wait is plenty.
            {"MCP_TIMEOUT", "10000"},
            {"DISABLE_AUTOUPDATER", "1"},
            {"DISABLE_TELEMETRY", "1"},
            {"DISABLE_ERROR_REPORTING", "1"},
            {"CLAUDE_CODE_DISABLE_NONESSENTIAL_TRAFFIC", "1"},
            {"OPENCODE_DISABLE_AUTOUPDATE", "1"},
        };
    }

    Ran execute(std::vector<std::string> argv) const {
        ChildProcess child({std::move(argv), environment, root / "tmp"});
        child.closeStdin();
        std::string output = child.readRest(std::chrono::seconds(240));
        auto status = child.wait(std::chrono::seconds(30));
        return {status.value_or(-1000), output + child.stderrText()};
    }

    Ran installer(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), bridge.string());
        return execute(std::move(arguments));
    }

    Ran agent(const std::string& program, std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), (agentsBin / program).string());
        return execute(std::move(arguments));
    }

    fs::path openCodeConfig() const { return fs::path(environment.at("HOME")) / ".config/opencode/opencode.jsonc"; }

    // The command each agent now holds for `name`, read through the agent
    // itself where it can tell.
    std::string claudeCommand(const std::string& name) const {
        auto answer = agent("claude", {"mcp", "get", name});
        auto at = answer.output.find("  Command: ");
        if (answer.status != 0 || at == std::string::npos) return "";
        at += 11;
        return answer.output.substr(at, answer.output.find('\n', at) - at);
    }
    std::optional<nlohmann::json> codexTransport(const std::string& name) const {
        auto answer = agent("codex", {"mcp", "get", name, "--json"});
        if (answer.status != 0) return std::nullopt;
        auto parsed = nlohmann::json::parse(answer.output.substr(answer.output.find('{')), nullptr, false);
        if (parsed.is_discarded()) return std::nullopt;
        return parsed["transport"];
    }
    std::optional<nlohmann::json> openCodeEntry(const std::string& name) const {
        std::error_code ec;
        if (!fs::exists(openCodeConfig(), ec)) return std::nullopt;
        auto parsed = nlohmann::json::parse(testsupport::readFile(openCodeConfig()), nullptr, false, true);
        if (parsed.is_discarded() || !parsed.contains("mcp") || !parsed["mcp"].contains(name)) return std::nullopt;
        return parsed["mcp"][name];
    }

    fs::path root;
    fs::path bridge;
    testsupport::Environment environment;
};

}  // namespace

TEST_F(RealAgents, InstallStatusAndUninstallRoundTrip) {
    auto before = installer({"status"});
    EXPECT_EQ(before.status, 0);
    EXPECT_EQ(before.output, "Claude Code: MCP server not added, skill not installed.\n"
                             "Codex: MCP server not added, skill not installed.\n"
                             "OpenCode: MCP server not added, skill not installed.\n");

    auto install = installer({"install"});
    EXPECT_EQ(install.status, 0);
    EXPECT_EQ(install.output, "Claude Code: Studio's MCP server added, skill installed.\n"
                              "Codex: Studio's MCP server added, skill installed.\n"
                              "OpenCode: Studio's MCP server added, skill installed.\n" +
                                  advice);

    // Each agent now starts this very bridge, with no arguments.
    auto claude = agent("claude", {"mcp", "get", "vantoric-studio"});
    EXPECT_NE(claude.output.find("  Command: " + bridge.string() + "\n  Args:\n"), std::string::npos) << claude.output;
    // Claude Code started it and got an answer to "initialize".
    EXPECT_NE(claude.output.find("Status: \u2714 Connected"), std::string::npos) << claude.output;
    auto codex = codexTransport("vantoric-studio");
    ASSERT_TRUE(codex);
    EXPECT_EQ((*codex)["command"], bridge.string());
    EXPECT_EQ((*codex)["args"], nlohmann::json::array());
    auto opencode = openCodeEntry("vantoric-studio");
    ASSERT_TRUE(opencode) << testsupport::readFile(openCodeConfig());
    EXPECT_EQ((*opencode)["command"], nlohmann::json::array({bridge.string()}));
    // OpenCode started it and got its answers.
    auto list = agent("opencode", {"mcp", "list"});
    EXPECT_NE(list.output.find("\u2713 vantoric-studio"), std::string::npos) << list.output;
    EXPECT_NE(list.output.find("connected"), std::string::npos) << list.output;

    std::string skill = testsupport::readFile(releaseApp / "Contents/Resources/AgentLink/vantoric-studio-skill.md");
    fs::path home = environment.at("HOME");
    for (auto folder : {".claude/skills", ".codex/skills", ".config/opencode/skills"}) {
        EXPECT_EQ(testsupport::readFile(home / folder / "vantoric-studio/SKILL.md"), skill) << folder;
    }

    auto status = installer({"status"});
    EXPECT_EQ(status.status, 0);
    EXPECT_EQ(status.output, "Claude Code: MCP server added, skill installed.\n"
                             "Codex: MCP server added, skill installed.\n"
                             "OpenCode: MCP server added, skill installed.\n");
    auto json = installer({"status", "--json"});
    EXPECT_EQ(json.status, 0);
    std::string escapedBridge;
    for (char c : bridge.string()) {
        if (c == '/') escapedBridge += '\\';
        escapedBridge += c;
    }
    EXPECT_EQ(json.output,
              R"({"agents":[{"detail":"","id":"claude","registration":"current","title":"Claude Code"},)"
              R"({"detail":"","id":"codex","registration":"current","title":"Codex"},)"
              R"({"detail":"","id":"opencode","registration":"current","title":"OpenCode"}],"bridge":")" +
                  escapedBridge + "\"}\n");

    auto again = installer({"install"});
    EXPECT_EQ(again.output, "Claude Code: Studio's MCP server already set up, skill installed.\n"
                            "Codex: Studio's MCP server already set up, skill installed.\n"
                            "OpenCode: Studio's MCP server already set up, skill installed.\n" +
                                advice);

    auto uninstall = installer({"uninstall"});
    EXPECT_EQ(uninstall.status, 0);
    EXPECT_EQ(uninstall.output, "Claude Code: MCP server removed, skill removed.\n"
                                "Codex: MCP server removed, skill removed.\n"
                                "OpenCode: MCP server removed, skill removed.\n");
    EXPECT_EQ(claudeCommand("vantoric-studio"), "");
    EXPECT_FALSE(codexTransport("vantoric-studio"));
    EXPECT_FALSE(openCodeEntry("vantoric-studio"));
    for (auto folder : {".claude/skills", ".codex/skills", ".config/opencode/skills"}) {
        EXPECT_FALSE(fs::exists(home / folder / "vantoric-studio")) << folder;
    }
    EXPECT_EQ(installer({"uninstall"}).output, "Claude Code: no MCP server to remove.\n"
                                               "Codex: no MCP server to remove.\n"
                                               "OpenCode: no MCP server to remove.\n");
}

TEST_F(RealAgents, EntriesThatStartAnotherCopyAreReplaced) {
    ASSERT_EQ(agent("claude", {"mcp", "add", "--scope", "user", "vantoric-studio", "--", "/opt/old/vantoric-studio-mcp",
                               "--verbose"})
                  .status,
              0);
    ASSERT_EQ(agent("codex", {"mcp", "add", "vantoric-studio", "--", "/opt/old/vantoric-studio-mcp"}).status, 0);
    ASSERT_EQ(agent("opencode", {"mcp", "add", "vantoric-studio", "--", "/opt/old/vantoric-studio-mcp"}).status, 0);

    auto status = installer({"status"});
    EXPECT_EQ(status.output,
              "Claude Code: MCP server added but it runs another copy, skill not installed.\n"
              "    It runs /opt/old/vantoric-studio-mcp --verbose; `vantoric-studio-mcp install` points it at this one.\n"
              "Codex: MCP server added but it runs another copy, skill not installed.\n"
              "    It runs /opt/old/vantoric-studio-mcp; `vantoric-studio-mcp install` points it at this one.\n"
              "OpenCode: MCP server added but it runs another copy, skill not installed.\n"
              "    It runs /opt/old/vantoric-studio-mcp; `vantoric-studio-mcp install` points it at this one.\n");

    std::string configBefore = testsupport::readFile(openCodeConfig());
    auto install = installer({"install", "claude", "codex", "opencode"});
    EXPECT_EQ(install.status, 0);
    EXPECT_EQ(install.output,
              "Claude Code: Studio's MCP server updated (it ran /opt/old/vantoric-studio-mcp --verbose), skill installed.\n"
              "Codex: Studio's MCP server updated (it ran /opt/old/vantoric-studio-mcp), skill installed.\n"
              "OpenCode: Studio's MCP server updated (it ran /opt/old/vantoric-studio-mcp), skill installed.\n" +
                  advice);
    EXPECT_EQ(claudeCommand("vantoric-studio"), bridge.string());
    EXPECT_EQ((*codexTransport("vantoric-studio"))["command"], bridge.string());
    // OpenCode's file changed only inside the command array.
    std::string expected = configBefore;
    std::string oldArray = "[\n        \"/opt/old/vantoric-studio-mcp\"\n      ]";
    ASSERT_NE(expected.find(oldArray), std::string::npos) << expected;
    expected.replace(expected.find(oldArray), oldArray.size(), "[\"" + bridge.string() + "\"]");
    EXPECT_EQ(testsupport::readFile(openCodeConfig()), expected);
    // OpenCode reads the edited file and starts this bridge from it.
    auto list = agent("opencode", {"mcp", "list"});
    EXPECT_NE(list.output.find("\u2713 vantoric-studio"), std::string::npos) << list.output;
    EXPECT_NE(list.output.find(bridge.string()), std::string::npos) << list.output;
}

TEST_F(RealAgents, CodexAnswerAfterItsTemporaryFolderWarningIsUnderstood) {
    // With its home below the temporary folder, Codex prints a warning line
    // before every answer.
    useHome(root / "tmp" / "home");
    auto warned = agent("codex", {"mcp", "get", "vantoric-studio", "--json"});
    ASSERT_NE(warned.output.find("WARNING:"), std::string::npos) << warned.output;

    EXPECT_EQ(installer({"install", "codex"}).status, 0);
    auto status = installer({"status", "codex", "--json"});
    EXPECT_NE(status.output.find(R"({"detail":"","id":"codex","registration":"current","title":"Codex"})"),
              std::string::npos)
        << status.output;
    EXPECT_EQ(installer({"uninstall", "codex"}).output, "Codex: MCP server removed, skill removed.\n");
}

TEST_F(RealAgents, SubjectBuildRegistersItsOwnNameAndNoSkill) {
    bridge = subjectApp / "Contents" / "MacOS" / "vantoric-studio-mcp";
    auto install = installer({"install"});
    EXPECT_EQ(install.status, 0);
    EXPECT_EQ(install.output, "Claude Code: Studio's MCP server added.\n"
                              "Codex: Studio's MCP server added.\n"
                              "OpenCode: Studio's MCP server added.\n" +
                                  advice);
    EXPECT_EQ(claudeCommand("studio-subject"), bridge.string());
    EXPECT_EQ(claudeCommand("vantoric-studio"), "");
    EXPECT_TRUE(openCodeEntry("studio-subject"));
    EXPECT_FALSE(fs::exists(fs::path(environment.at("HOME")) / ".claude/skills"));
    EXPECT_EQ(installer({"status"}).output, "Claude Code: MCP server added.\nCodex: MCP server added.\n"
                                            "OpenCode: MCP server added.\n");
    EXPECT_EQ(installer({"uninstall"}).output, "Claude Code: MCP server removed.\nCodex: MCP server removed.\n"
                                               "OpenCode: MCP server removed.\n");
}

TEST_F(RealAgents, NoAgentOnThePathAsksToAddByHand) {
    for (auto folder : {"/usr/local/bin", "/opt/homebrew/bin"}) {
        for (auto program : {"claude", "codex", "opencode"}) {
            if (fs::exists(fs::path(folder) / program)) GTEST_SKIP() << program << " is installed in " << folder;
        }
    }
    environment["PATH"] = (root / "empty").string();
    fs::create_directories(root / "empty");
    auto result = installer({"install"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "No coding agent found on your PATH (looked for claude, codex and opencode).\n"
                             "Add Studio by hand with this command as a stdio MCP server:\n  " +
                                 bridge.string() + "\n");
}
