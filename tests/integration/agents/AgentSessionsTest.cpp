// The real agents (Claude Code, Codex and OpenCode from tests/npm) using the
// bridge end to end, the way a user's session does: each agent gets its own
// home, the bridge registered there by its own `install`, a private session
// bus with the simulator on it (BridgeSession), and a scripted model on
// 127.0.0.1 speaking the agent's API (fake_model.mjs). The model calls
// Studio's tools by the names the agent offers it; what Studio answered
// comes back through the agent and is judged here. Everything runs in a
// network namespace of its own with only loopback up, so no agent can reach
// beyond the machine.
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <sstream>

#include "integration/server/BridgeSession.h"

using namespace testsupport;

namespace {

const fs::path agentsBin = fs::path(VSM_NPM_DIR) / "node_modules" / ".bin";
const fs::path bundledBridge = bundle() / "Contents/MacOS/vantoric-studio-mcp";

// Why the test cannot isolate itself, or nothing once it has: a network
// namespace of its own (and, without root, a user namespace that maps this
// user to itself), inherited by every process started from here on.
std::optional<std::string> isolateNetwork() {
    const uid_t uid = getuid();
    const gid_t gid = getgid();
    const bool root = geteuid() == 0;
    if (unshare(root ? CLONE_NEWNET : CLONE_NEWUSER | CLONE_NEWNET) != 0) return std::string("unshare: ") + strerror(errno);
    if (!root) {
        std::ofstream("/proc/self/setgroups") << "deny";
        std::ofstream("/proc/self/uid_map") << uid << " " << uid << " 1";
        std::ofstream("/proc/self/gid_map") << gid << " " << gid << " 1";
    }
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    std::strcpy(request.ifr_name, "lo");
    bool up = fd >= 0 && ioctl(fd, SIOCGIFFLAGS, &request) == 0 &&
              (request.ifr_flags |= IFF_UP, ioctl(fd, SIOCSIFFLAGS, &request) == 0);
    std::string error = strerror(errno);
    if (fd >= 0) close(fd);
    return up ? std::nullopt : std::optional("bringing up loopback: " + error);
}

std::string folderOf(const std::string& program) {
    std::istringstream path(std::getenv("PATH") ? std::getenv("PATH") : "");
    for (std::string folder; std::getline(path, folder, ':');)
        if (!folder.empty() && access((fs::path(folder) / program).c_str(), X_OK) == 0) return folder;
    return "/usr/bin";
}

// One Studio call of the session: the model makes it, and its (last) result
// must hold every text of `expect`. `typo` names the suggestion of a
// misspelled parameter: the first result must offer it, and the model's
// retry with it is what `expect` judges. With `until`, the model repeats the
// call until the result holds that text, as a model polls.
struct Step {
    std::string tool, arguments;
    std::vector<std::string> expect;
    std::string typo = "", until = "";
};

// The export outlasts the start call (4 s against a wait of 1 s), so the
// status calls that follow save it, exactly once.
const std::vector<Step> steps = {
    {"studio_status", "{}", {R"("ready":true)", R"("project":null)"}},
    {"project", R"({"action":"create","name":"Trip"})", {R"("created":true)", R"("name":"Trip")"}},
    {"import_media", R"({"paths":["@WORK@/clips/beach.mov"]})", {R"("imported":[{)", R"("name":"beach.mov")"}},
    {"export_video", R"({"action":"start","path":"out/e2e.mp4"})", {R"("phase":")"}},
    {"export_video", R"({"action":"status","wait_second":1})", {R"("phase":")"}, "wait_seconds"},
    {"export_video", R"({"action":"status","wait_seconds":1})", {R"("phase":"completed")"}, "", R"("phase":"completed")"},
    {"export_video", R"({"action":"status"})", {R"("phase":"completed")"}},
};

struct Agent {
    std::string id;
    std::string dialect;  // the wire format fake_model.mjs speaks to it
};
void PrintTo(const Agent& agent, std::ostream* out) { *out << agent.id; }

}  // namespace

class AgentSessions : public ::testing::TestWithParam<Agent> {
protected:
    void SetUp() override {
        ASSERT_TRUE(fs::exists(agentsBin / agent.id)) << agent.id << " is missing; run scripts/test-setup";
        if (auto why = isolateNetwork()) GTEST_SKIP() << "no network namespace of its own: " << *why;
        // Below the build tree, not /tmp: Codex refuses some work under a
        // temporary folder.
        fs::create_directories(fs::path(VSM_BUILD_DIR) / "test-homes");
        std::string pattern = (fs::path(VSM_BUILD_DIR) / "test-homes" / ("e2e-" + agent.id + "-XXXXXX")).string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        root = pattern;
        for (auto folder : {"home", "tmp", "work/clips"}) fs::create_directories(root / folder);
        writeFile(root / "work/clips/beach.mov", std::string(300000, 'v'));
        studio = std::make_unique<BridgeSession>(BridgeSession::Settings{{"STUDIO_SIM_EXPORT_SECONDS", "4"}, {"STUDIO_SIM_MAX_WAIT", "1"}});
        studio->startStudio();
        environment = {{"HOME", (root / "home").string()}, {"TMPDIR", (root / "tmp").string()},
                       {"PATH", agentsBin.string() + ":" + folderOf("node") + ":/usr/bin:/bin"},
                       {"LANG", "C.UTF-8"}, {"USER", "tester"}, {"TERM", "dumb"}, {"MCP_TIMEOUT", "20000"},
                       {"DBUS_SESSION_BUS_ADDRESS", studio->busAddress()}, {"DISABLE_AUTOUPDATER", "1"},
                       {"DISABLE_TELEMETRY", "1"}, {"DISABLE_ERROR_REPORTING", "1"},
                       {"CLAUDE_CODE_DISABLE_NONESSENTIAL_TRAFFIC", "1"}, {"OPENCODE_DISABLE_AUTOUPDATE", "1"},
                       {"OPENCODE_DISABLE_MODELS_FETCH", "1"}};
    }
    void TearDown() override {
        agentProcess.reset();
        // A failed session's folder stays for a look at its logs.
        std::error_code ec;
        if (!root.empty() && !HasFailure()) fs::remove_all(root, ec);
    }

    std::string expand(std::string text) const {
        for (size_t at; (at = text.find("@WORK@")) != std::string::npos;) text.replace(at, 6, (root / "work").string());
        return text;
    }

    // The model, then the agent's own configuration and the bridge's
    // registration in it.
    void prepare() {
        json script = {{"steps", json::array()}};
        for (const auto& step : steps)
            script["steps"].push_back({{"tool", step.tool}, {"arguments", json::parse(expand(step.arguments))},
                                       {"fixTypo", !step.typo.empty()}, {"until", step.until}});
        writeFile(root / "script.json", script.dump());
        model = std::make_unique<ChildProcess>(ChildProcess::Options{
            {"node", std::string(VSM_SOURCE_DIR) + "/tests/integration/agents/fake_model.mjs", agent.dialect,
             (root / "script.json").string(), (root / "transcript.jsonl").string()}, environment, root});
        auto listening = model->readLine(20s);
        ASSERT_TRUE(listening && listening->starts_with("listening ")) << model->stderrText();
        std::string url = "http://127.0.0.1:" + listening->substr(10);
        if (agent.id == "claude") {
            environment["ANTHROPIC_BASE_URL"] = url;
            environment["ANTHROPIC_API_KEY"] = "sk-e2e";
        } else if (agent.id == "codex") {  // written before `install`, whose entry then follows as a table
            writeFile(root / "home/.codex/config.toml",
                      "model = \"fake-model\"\nmodel_provider = \"e2e\"\n\n[model_providers.e2e]\nname = \"e2e\"\n"
                      "base_url = \"" + url + "/v1\"\nwire_api = \"responses\"\nrequest_max_retries = 0\n"
                      "stream_max_retries = 0\n\n");
        } else {
            json provider = {{"npm", "@ai-sdk/openai-compatible"}, {"name", "e2e"},
                             {"options", {{"baseURL", url + "/v1"}, {"apiKey", "sk-e2e"}}},
                             {"models", {{"fake-model", {{"name", "fake model"}, {"tool_call", true}}}}}};
            writeFile(root / "home/.config/opencode/opencode.json",
                      json({{"$schema", "https://opencode.ai/config.json"}, {"model", "e2e/fake-model"},
                            {"small_model", "e2e/fake-model"}, {"autoupdate", false}, {"share", "disabled"},
                            {"provider", {{"e2e", provider}}}}).dump(2));
        }
        ChildProcess install({{bundledBridge.string(), "install", agent.id}, environment, root / "tmp"});
        install.closeStdin();
        std::string said = install.readRest(120s);
        ASSERT_EQ(install.wait(), 0) << said;
        ASSERT_NE(said.find("Studio's MCP server added"), std::string::npos) << said;
    }

    // The agent, prompted once, until it ends by itself. Settings for the
    // bridge reach it through the agent: in its environment, or for Codex,
    // which hands its servers only a few variables of its own, in the entry's
    // variables for this run.
    std::optional<int> runAgent(const Environment& bridgeSettings) {
        const std::string prompt = "Make a short video with Vantoric Studio.";
        std::string program = (agentsBin / agent.id).string();
        std::vector<std::string> argv = {program, "run", "--print-logs", prompt};
        Environment agentEnvironment = environment;
        agentEnvironment.insert(bridgeSettings.begin(), bridgeSettings.end());
        if (agent.id == "claude") {
            argv = {program, "-p", prompt, "--allowedTools", "mcp__vantoric-studio", "--output-format", "json"};
        } else if (agent.id == "codex") {
            argv = {program, "exec", "--skip-git-repo-check", "--json"};
            for (auto& [name, value] : bridgeSettings)
                argv.insert(argv.end(), {"-c", "mcp_servers.vantoric-studio.env." + name + "=\"" + value + "\""});
            argv.push_back(prompt);
        }
        agentProcess = std::make_unique<ChildProcess>(ChildProcess::Options{argv, agentEnvironment, root / "work"});
        agentProcess->closeStdin();
        agentOutput = agentProcess->readRest(150s);
        return agentProcess->wait(20s);
    }

    std::string diagnostics() const {
        std::string errors = agentProcess ? agentProcess->stderrText() : "";
        return "agent output:\n" + agentOutput + "\nagent errors (tail):\n" + errors.substr(errors.size() - std::min<size_t>(errors.size(), 6000)) +
               "\ntranscript:\n" + readFile(root / "transcript.jsonl");
    }

    // The results the model received, step by step (a misspelled step has
    // two: the refusal and the retry).
    std::map<int, std::vector<json>> resultsByStep() const {
        std::map<int, std::vector<json>> results;
        std::ifstream in(root / "transcript.jsonl");
        for (std::string line; std::getline(in, line);)
            if (auto entry = json::parse(line, nullptr, false); entry.contains("step")) results[entry["step"]].push_back(entry);
        return results;
    }

    const Agent agent = GetParam();
    fs::path root;
    std::unique_ptr<BridgeSession> studio;
    Environment environment;
    std::unique_ptr<ChildProcess> model, agentProcess;
    std::string agentOutput;
};

TEST_P(AgentSessions, StatusProjectImportALongExportAndAMisspelledParameter) {
    ASSERT_NO_FATAL_FAILURE(prepare());
    EXPECT_EQ(runAgent({{"VSM_TEST_EXPORT_WAIT_MS", "1000"}}), 0) << diagnostics();

    auto results = resultsByStep();
    const std::string saved = R"("savedTo":")" + expand("@WORK@/out/e2e.mp4");
    int copies = 0;
    for (size_t i = 0; i < steps.size(); ++i) {
        const Step& step = steps[i];
        const auto& seen = results[static_cast<int>(i)];
        if (step.until.empty()) {
            ASSERT_EQ(seen.size(), step.typo.empty() ? 1u : 2u) << step.tool << " (step " << i << ")\n" << diagnostics();
        } else {
            ASSERT_FALSE(seen.empty()) << step.tool << " (step " << i << ")\n" << diagnostics();
        }
        EXPECT_NE(seen.front()["name"].get<std::string>().find(step.tool), std::string::npos);
        if (!step.typo.empty())
            EXPECT_NE(seen.front()["result"].get<std::string>().find("(did you mean \"" + step.typo + "\"?)"), std::string::npos)
                << seen.front();
        for (const auto& text : step.expect)
            EXPECT_NE(seen.back()["result"].get<std::string>().find(expand(text)), std::string::npos)
                << step.tool << " lacks " << expand(text) << ":\n" << seen.back();
        for (const auto& result : seen) copies += result["result"].get<std::string>().find(saved) != std::string::npos;
    }
    EXPECT_EQ(results[3][0]["result"].get<std::string>().find("savedTo"), std::string::npos) << results[3][0];
    EXPECT_EQ(copies, 1) << diagnostics();

    fs::path video = root / "work/out/e2e.mp4";
    ASSERT_TRUE(fs::is_regular_file(video)) << diagnostics();
    EXPECT_EQ(fs::file_size(video), 1u << 20);
    EXPECT_EQ(readFile(video).substr(4, 8), "ftypisom");
    EXPECT_EQ(fs::status(video).permissions(), fs::perms(0644));
    EXPECT_EQ(namesIn(video.parent_path()), std::vector<std::string>{"e2e.mp4"});  // nothing left beside it
}

INSTANTIATE_TEST_SUITE_P(RealAgents, AgentSessions,
                         ::testing::Values(Agent{"claude", "anthropic"}, Agent{"codex", "responses"}, Agent{"opencode", "chat"}),
                         [](const auto& info) { return info.param.id; });
