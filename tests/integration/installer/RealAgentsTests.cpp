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

namespace {

const fs::path agentsBin = fs::path(VSM_NPM_DIR) / "node_modules" / ".bin";
const fs::path releaseApp = fs::path(VSM_BUNDLES_DIR) / "Vantoric Studio.app";
const std::string advice =
    "\nStart a new session in your agent and ask it to make a demo video with Vantoric Studio.\n"
    "The first time, Studio asks you once to allow the agent.\n";

// The same words after each agent's title, one line each.
std::string each(const std::string& words) {
    return "Claude Code: " + words + "\nCodex: " + words + "\nOpenCode: " + words + "\n";
}

struct Ran {
    int status;
    std::string output;  // standard output (and error, for the agents, appended)
};

class RealAgents : public ::testing::Test {
protected:
    void SetUp() override {
        for (auto program : {"claude", "codex", "opencode"})
            ASSERT_TRUE(fs::exists(agentsBin / program)) << program << " is missing from " << agentsBin << "; run scripts/test-setup";
        // Below the build tree, not /tmp: Codex refuses some work under a
        // temporary folder, and the agents' state stays out of the way.
        fs::create_directories(fs::path(VSM_BUILD_DIR) / "test-homes");
        std::string pattern = (fs::path(VSM_BUILD_DIR) / "test-homes" / "installer-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        root = pattern;
        useHome(root / "home");
    }
    void TearDown() override {
        std::error_code ec;
        if (!root.empty()) fs::remove_all(root, ec);
    }

    void useHome(const fs::path& home) {
        fs::create_directories(home);
        fs::create_directories(root / "tmp");
        // The agents' launchers need node on the PATH, and nothing else of the developer's.
        std::string nodeFolder = "/usr/bin";
        std::istringstream path(std::getenv("PATH") ? std::getenv("PATH") : "");
        for (std::string folder; std::getline(path, folder, ':');)
            if (!folder.empty() && access((fs::path(folder) / "node").c_str(), X_OK) == 0) nodeFolder = folder;
        // Claude Code checks a registered server by starting it; the bridge answers at once.
        environment = {{"HOME", home.string()}, {"TMPDIR", (root / "tmp").string()}, {"LANG", "C.UTF-8"}, {"MCP_TIMEOUT", "10000"},
                       {"PATH", agentsBin.string() + ":" + nodeFolder + ":/usr/bin:/bin"}, {"DISABLE_AUTOUPDATER", "1"},
                       {"DISABLE_TELEMETRY", "1"}, {"DISABLE_ERROR_REPORTING", "1"},
                       {"CLAUDE_CODE_DISABLE_NONESSENTIAL_TRAFFIC", "1"}, {"OPENCODE_DISABLE_AUTOUPDATE", "1"}};
    }

    Ran execute(std::vector<std::string> argv) const {
        testsupport::ChildProcess child({std::move(argv), environment, root / "tmp"});
        child.closeStdin();
        std::string output = child.readRest(std::chrono::seconds(240));
        auto status = child.wait(std::chrono::seconds(30));
        return {status.value_or(-1000), output + child.stderrText()};
    }
    Ran agent(const std::string& program, std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), (agentsBin / program).string());
        return execute(std::move(arguments));
    }
    // Runs the installer with each command line in turn; checks its status
    // and everything it printed.
    void expect(const std::vector<std::pair<std::vector<std::string>, std::string>>& runs) const {
        for (auto [arguments, output] : runs) {
            arguments.insert(arguments.begin(), bridge.string());
            auto ran = execute(arguments);
            EXPECT_EQ(ran.status, 0) << testing::PrintToString(arguments);
            EXPECT_EQ(ran.output, output) << testing::PrintToString(arguments);
        }
    }

    // The entry each agent now holds for `name`, read through the agent
    // itself where it can tell.
    std::string claudeCommand(const std::string& name) const {
        auto answer = agent("claude", {"mcp", "get", name});
        auto at = answer.output.find("  Command: ");
        return answer.status != 0 || at == std::string::npos ? "" : answer.output.substr(at + 11, answer.output.find('\n', at) - at - 11);
    }
    std::optional<nlohmann::json> codexTransport(const std::string& name) const {
        auto answer = agent("codex", {"mcp", "get", name, "--json"});
        auto parsed = nlohmann::json::parse(answer.output.substr(std::min(answer.output.find('{'), answer.output.size())), nullptr, false);
        if (answer.status != 0 || parsed.is_discarded()) return std::nullopt;
        return parsed["transport"];
    }
    fs::path openCodeConfig() const { return fs::path(environment.at("HOME")) / ".config/opencode/opencode.jsonc"; }
    std::optional<nlohmann::json> openCodeEntry(const std::string& name) const {
        auto parsed = nlohmann::json::parse(testsupport::readFile(openCodeConfig()), nullptr, false, true);
        if (parsed.is_discarded() || !parsed.contains("mcp") || !parsed["mcp"].contains(name)) return std::nullopt;
        return parsed["mcp"][name];
    }

    fs::path root;
    fs::path bridge = releaseApp / "Contents" / "MacOS" / "vantoric-studio-mcp";
    testsupport::Environment environment;
};

}  // namespace

// Entries that start another copy are replaced, OpenCode's only inside its
// command array; then each agent starts this very bridge, with no arguments,
// and gets its answers; then everything goes.
TEST_F(RealAgents, StaleEntriesAreReplacedEachAgentStartsThisBridgeAndUninstallClearsAll) {
    std::string old = "/opt/old/vantoric-studio-mcp";
    ASSERT_EQ(agent("claude", {"mcp", "add", "--scope", "user", "vantoric-studio", "--", old, "--verbose"}).status, 0);
    ASSERT_EQ(agent("codex", {"mcp", "add", "vantoric-studio", "--", old}).status, 0);
    ASSERT_EQ(agent("opencode", {"mcp", "add", "vantoric-studio", "--", old}).status, 0);
    std::string configBefore = testsupport::readFile(openCodeConfig());
    std::string pointAt = "; `vantoric-studio-mcp install` points it at this one.\n";
    auto another = [&](const std::string& title, const std::string& runs) {
        return title + ": MCP server added but it runs another copy, skill not installed.\n    It runs " + runs + pointAt;
    };
    auto updated = [&](const std::string& title, const std::string& ran) {
        return title + ": Studio's MCP server updated (it ran " + ran + "), skill installed.\n";
    };
    expect({{{"status"}, another("Claude Code", old + " --verbose") + another("Codex", old) + another("OpenCode", old)},
            {{"install", "claude", "codex", "opencode"},
             updated("Claude Code", old + " --verbose") + updated("Codex", old) + updated("OpenCode", old) + advice}});
    auto claude = agent("claude", {"mcp", "get", "vantoric-studio"});
    EXPECT_NE(claude.output.find("  Command: " + bridge.string() + "\n  Args:\n"), std::string::npos) << claude.output;
    EXPECT_NE(claude.output.find("Status: \u2714 Connected"), std::string::npos) << claude.output;
    EXPECT_EQ(codexTransport("vantoric-studio").value_or(nullptr)["command"], bridge.string());
    EXPECT_EQ(codexTransport("vantoric-studio").value_or(nullptr)["args"], nlohmann::json::array());
    std::string oldArray = "[\n        \"" + old + "\"\n      ]";
    ASSERT_NE(configBefore.find(oldArray), std::string::npos) << configBefore;
    EXPECT_EQ(testsupport::readFile(openCodeConfig()),
              configBefore.replace(configBefore.find(oldArray), oldArray.size(), "[\"" + bridge.string() + "\"]"));
    auto list = agent("opencode", {"mcp", "list"});
    EXPECT_NE(list.output.find("\u2713 vantoric-studio"), std::string::npos) << list.output;
    EXPECT_NE(list.output.find("connected"), std::string::npos) << list.output;
    EXPECT_NE(list.output.find(bridge.string()), std::string::npos) << list.output;
    std::string skill = testsupport::readFile(releaseApp / "Contents/Resources/AgentLink/vantoric-studio-skill.md");
    fs::path home = environment.at("HOME");
    for (auto folder : {".claude/skills", ".codex/skills", ".config/opencode/skills"})
        EXPECT_EQ(testsupport::readFile(home / folder / "vantoric-studio/SKILL.md"), skill) << folder;

    std::string escaped;
    for (char c : bridge.string()) escaped += c == '/' ? std::string("\\/") : std::string(1, c);
    expect({{{"status"}, each("MCP server added, skill installed.")},
            {{"status", "--json"}, R"({"agents":[{"detail":"","id":"claude","registration":"current","title":"Claude Code"},)"
                                   R"({"detail":"","id":"codex","registration":"current","title":"Codex"},)"
                                   R"({"detail":"","id":"opencode","registration":"current","title":"OpenCode"}],"bridge":")" +
                                       escaped + "\"}\n"},
            {{"install"}, each("Studio's MCP server already set up, skill installed.") + advice},
            {{"uninstall"}, each("MCP server removed, skill removed.")}});
    EXPECT_EQ(claudeCommand("vantoric-studio"), "");
    EXPECT_FALSE(codexTransport("vantoric-studio"));
    EXPECT_FALSE(openCodeEntry("vantoric-studio"));
    for (auto folder : {".claude/skills", ".codex/skills", ".config/opencode/skills"})
        EXPECT_FALSE(fs::exists(home / folder / "vantoric-studio")) << folder;
    expect({{{"uninstall"}, each("no MCP server to remove.")}});
}

// Also the one fresh install into each agent, OpenCode's first refusing
// --global; with its home below the temporary folder, Codex prints a warning
// line before every answer.
TEST_F(RealAgents, SubjectBuildRegistersItsOwnNameAndNoSkillWhateverCodexWarns) {
    useHome(root / "tmp" / "home");
    auto warned = agent("codex", {"mcp", "get", "vantoric-studio", "--json"});
    ASSERT_NE(warned.output.find("WARNING:"), std::string::npos) << warned.output;
    bridge = fs::path(VSM_BUNDLES_DIR) / "Vantoric Studio Subject.app/Contents/MacOS/vantoric-studio-mcp";
    expect({{{"status"}, each("MCP server not added.")}, {{"install"}, each("Studio's MCP server added.") + advice}});
    EXPECT_EQ(claudeCommand("studio-subject"), bridge.string());
    EXPECT_EQ(claudeCommand("vantoric-studio"), "");
    EXPECT_TRUE(openCodeEntry("studio-subject"));
    EXPECT_FALSE(fs::exists(fs::path(environment.at("HOME")) / ".claude/skills"));
    expect({{{"status"}, each("MCP server added.")}, {{"uninstall"}, each("MCP server removed.")}});
}
