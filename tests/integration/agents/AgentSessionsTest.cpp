// The real agents (Claude Code, Codex and OpenCode from tests/npm) using the
// bridge the way a user's session does: a home of its own with the bridge
// registered by its own `install`, a private bus with the simulator on it,
// and a scripted model on 127.0.0.1 speaking the agent's API (fake_model.mjs)
// that calls Studio's tools by the names the agent offers. Everything runs in
// a network namespace with only loopback up: no agent reaches beyond it.
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstring>

#include "integration/server/BridgeSession.h"

using namespace testsupport;

namespace {

const fs::path agentsBin = fs::path(VSM_NPM_DIR) / "node_modules/.bin";

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

// One Studio call: its (last) result must hold `expect`, and with `poll` the
// model repeats it until it does. `typo`: the name the first result must
// suggest for a misspelled parameter, which the model then retries with.
struct Step {
    std::string tool, arguments, expect, typo = "";
    bool poll = false;
};

// The export outlasts the start call (4 s against a wait of 1 s), so the
// status calls that follow save it, exactly once.
const Step steps[] = {
    {"studio_status", "{}", R"("ready":true)"},
    {"project", R"({"action":"create","name":"Trip"})", R"("created":true)"},
    {"import_media", R"({"paths":["clips/beach.mov"]})", R"("imported":[{"id":"m1","name":"beach.mov")"},
    {"export_video", R"({"action":"start","path":"out/e2e.mp4"})", R"("phase":")"},
    {"export_video", R"({"action":"status","wait_second":1})", R"("phase":")", "wait_seconds"},
    {"export_video", R"({"action":"status","wait_seconds":1})", R"("phase":"completed")", "", true},
    {"export_video", R"({"action":"status"})", R"("phase":"completed")"},
};

struct Agent { std::string id, dialect; };  // dialect: the wire format fake_model.mjs speaks to it
void PrintTo(const Agent& agent, std::ostream* out) { *out << agent.id; }

}  // namespace

class AgentSessions : public ::testing::TestWithParam<Agent> {};

TEST_P(AgentSessions, StatusProjectImportALongExportAndAMisspelledParameter) {
    const Agent& agent = GetParam();
    const std::string program = (agentsBin / agent.id).string();
    ASSERT_TRUE(fs::exists(program)) << program << " is missing; run scripts/test-setup";
    if (auto why = isolateNetwork()) GTEST_SKIP() << "no network namespace of its own: " << *why;
    // Below the build tree, not /tmp: Codex refuses some work under a temporary folder.
    std::string pattern = fs::path(VSM_BUILD_DIR) / "test-homes" / ("e2e-" + agent.id + "-XXXXXX");
    fs::create_directories(fs::path(pattern).parent_path());
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    const fs::path root = pattern;
    writeFile(root / "work/clips/beach.mov", std::string(300000, 'v'));
    for (auto folder : {"home", "tmp"}) fs::create_directories(root / folder);
    BridgeSession studio({{"STUDIO_SIM_EXPORT_SECONDS", "4"}, {"STUDIO_SIM_MAX_WAIT", "1"}});
    studio.startStudio();
    Environment environment = {
        {"HOME", (root / "home").string()}, {"TMPDIR", (root / "tmp").string()}, {"PATH", agentsBin.string() + ":" + std::getenv("PATH")},
        {"LANG", "C.UTF-8"}, {"USER", "tester"}, {"TERM", "dumb"}, {"MCP_TIMEOUT", "20000"},
        {"DBUS_SESSION_BUS_ADDRESS", studio.busAddress()}, {"DISABLE_AUTOUPDATER", "1"}, {"DISABLE_TELEMETRY", "1"},
        {"DISABLE_ERROR_REPORTING", "1"}, {"CLAUDE_CODE_DISABLE_NONESSENTIAL_TRAFFIC", "1"},
        {"OPENCODE_DISABLE_AUTOUPDATE", "1"}, {"OPENCODE_DISABLE_MODELS_FETCH", "1"}};

    json script = json::array();
    for (const auto& step : steps)
        script.push_back(json{{"tool", step.tool}, {"arguments", json::parse(step.arguments)},
                              {"fixTypo", !step.typo.empty()}, {"until", step.poll ? step.expect : ""}});
    writeFile(root / "script.json", json({{"steps", script}}).dump());
    ChildProcess model({{"node", VSM_SOURCE_DIR "/tests/integration/agents/fake_model.mjs", agent.dialect,
                         (root / "script.json").string(), (root / "transcript.jsonl").string()}, environment, root});
    auto listening = model.readLine(20s);
    ASSERT_TRUE(listening && listening->starts_with("listening ")) << model.stderrText();
    const std::string url = "http://127.0.0.1:" + listening->substr(10);

    // The agent's own configuration, then the bridge's registration in it; the
    // agent prompted once, until it ends by itself. The bridge's shortened
    // export wait reaches it through the agent: in its environment, or for
    // Codex, which hands its servers only a few variables of its own, in the
    // entry's variables for this run.
    const std::string prompt = "Make a short video with Vantoric Studio.";
    std::vector<std::string> argv = {program, "run", "--print-logs", prompt};
    if (agent.id == "claude") {
        environment.insert({{"ANTHROPIC_BASE_URL", url}, {"ANTHROPIC_API_KEY", "sk-e2e"}});
        argv = {program, "-p", prompt, "--allowedTools", "mcp__vantoric-studio", "--output-format", "json"};
    } else if (agent.id == "codex") {  // written before `install`, whose entry then follows as a table
        writeFile(root / "home/.codex/config.toml",
                  "model = \"fake-model\"\nmodel_provider = \"e2e\"\n\n[model_providers.e2e]\nname = \"e2e\"\nbase_url = \"" + url +
                      "/v1\"\nwire_api = \"responses\"\nrequest_max_retries = 0\nstream_max_retries = 0\n\n");
        argv = {program, "exec", "--skip-git-repo-check", "--json", "-c",
                "mcp_servers.vantoric-studio.env.VSM_TEST_EXPORT_WAIT_MS=\"1000\"", prompt};
    } else {
        json provider = {{"npm", "@ai-sdk/openai-compatible"}, {"name", "e2e"},
                         {"options", {{"baseURL", url + "/v1"}, {"apiKey", "sk-e2e"}}},
                         {"models", {{"fake-model", {{"name", "fake model"}, {"tool_call", true}}}}}};
        writeFile(root / "home/.config/opencode/opencode.json",
                  json({{"$schema", "https://opencode.ai/config.json"}, {"model", "e2e/fake-model"}, {"small_model", "e2e/fake-model"},
                        {"autoupdate", false}, {"share", "disabled"}, {"provider", {{"e2e", provider}}}}).dump(2));
    }
    ChildProcess install({{(bundle() / "Contents/MacOS/vantoric-studio-mcp").string(), "install", agent.id}, environment, root / "tmp"});
    install.closeStdin();
    std::string said = install.readRest(120s);
    ASSERT_TRUE(install.wait() == 0 && said.find("Studio's MCP server added") != std::string::npos) << said;
    environment["VSM_TEST_EXPORT_WAIT_MS"] = "1000";
    ChildProcess agentProcess({argv, environment, root / "work"});
    agentProcess.closeStdin();
    const std::string output = agentProcess.readRest(150s), errors = agentProcess.stderrText();
    const std::string diagnostics = "agent output:\n" + output + "\nagent errors (tail):\n" + errors.substr(errors.size() > 6000 ? errors.size() - 6000 : 0) +
                                    "\ntranscript:\n" + readFile(root / "transcript.jsonl");
    EXPECT_EQ(agentProcess.wait(20s), 0) << diagnostics;

    // The results the model received, step by step (a misspelled step has
    // two: the refusal and the retry); the copy was saved by one of them.
    std::map<int, std::vector<std::string>> results;
    std::ifstream transcript(root / "transcript.jsonl");
    for (std::string line; std::getline(transcript, line);)
        if (auto entry = json::parse(line); entry.contains("step")) results[entry["step"]].push_back(entry["result"]);
    int copies = 0;
    for (int i = 0; i < int(std::size(steps)); ++i) {
        const auto& seen = results[i];
        ASSERT_TRUE(steps[i].poll ? !seen.empty() : seen.size() == (steps[i].typo.empty() ? 1u : 2u)) << "step " << i << "\n" << diagnostics;
        if (!steps[i].typo.empty()) {
            EXPECT_NE(seen.front().find("(did you mean \"" + steps[i].typo + "\"?)"), std::string::npos) << seen.front();
        }
        EXPECT_NE(seen.back().find(steps[i].expect), std::string::npos) << steps[i].tool << ":\n" << seen.back();
        for (const auto& result : seen) copies += result.find(R"("savedTo":")" + (root / "work/out/e2e.mp4").string()) != std::string::npos;
    }
    EXPECT_EQ(results[3][0].find("savedTo"), std::string::npos) << results[3][0];
    EXPECT_EQ(copies, 1) << diagnostics;

    fs::path video = root / "work/out/e2e.mp4";
    ASSERT_TRUE(fs::is_regular_file(video)) << diagnostics;
    EXPECT_EQ(fs::file_size(video), 1u << 20);
    EXPECT_EQ(readFile(video).substr(4, 8), "ftypisom");
    EXPECT_EQ(fs::status(video).permissions(), fs::perms(0644));
    EXPECT_EQ(namesIn(video.parent_path()), std::vector<std::string>{"e2e.mp4"});  // nothing left beside it
    if (!HasFailure()) fs::remove_all(root);  // a failed session's folder stays for a look at its logs
}

INSTANTIATE_TEST_SUITE_P(RealAgents, AgentSessions,
                         ::testing::Values(Agent{"claude", "anthropic"}, Agent{"codex", "responses"}, Agent{"opencode", "chat"}),
                         [](const auto& info) { return info.param.id; });
