// The real agents (Claude Code, Codex and OpenCode from tests/npm) using the
// bridge end to end, the way a user's session does: each agent gets its own
// home, the bridge registered there by its own `install`, a private session
// bus with the simulator on it, and a scripted model on 127.0.0.1 speaking the
// agent's API (fake_model.mjs). The model calls Studio's tools by the names
// the agent offers it; what Studio answered comes back through the agent and
// is judged here. Everything runs in a network namespace of its own with only
// loopback up, so no agent can reach beyond the machine.
#include <gtest/gtest.h>

#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "support/ChildProcess.h"
#include "support/PrivateBus.h"
#include "support/TempDir.h"

namespace fs = std::filesystem;
using nlohmann::json;
using testsupport::ChildProcess;
using testsupport::Environment;

namespace {

const fs::path agentsBin = fs::path(VSM_NPM_DIR) / "node_modules" / ".bin";
const fs::path app = fs::path(VSM_BUNDLES_DIR) / "Vantoric Studio.app";
const fs::path bridge = app / "Contents/MacOS/vantoric-studio-mcp";
constexpr std::uintmax_t exportBytes = 1 << 20;

// Why the test cannot isolate itself, or nothing once it has: a network
// namespace of its own (and, without root, a user namespace that maps this
// user to itself), inherited by every process started from here on.
std::optional<std::string> isolateNetwork() {
    if (geteuid() != 0) {
        uid_t uid = getuid();
        gid_t gid = getgid();
        if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) return std::string("unshare: ") + strerror(errno);
        auto write = [](const char* file, const std::string& text) { std::ofstream(file) << text; };
        write("/proc/self/setgroups", "deny");
        write("/proc/self/uid_map", std::to_string(uid) + " " + std::to_string(uid) + " 1");
        write("/proc/self/gid_map", std::to_string(gid) + " " + std::to_string(gid) + " 1");
    } else if (unshare(CLONE_NEWNET) != 0) {
        return std::string("unshare: ") + strerror(errno);
    }
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    std::strcpy(request.ifr_name, "lo");
    bool up = fd >= 0 && ioctl(fd, SIOCGIFFLAGS, &request) == 0 &&
              (request.ifr_flags |= IFF_UP, ioctl(fd, SIOCSIFFLAGS, &request) == 0);
    std::string error = strerror(errno);
    if (fd >= 0) close(fd);
    if (!up) return "bringing up loopback: " + error;
    // The namespace holds loopback and nothing else.
    std::vector<std::string> interfaces;
    if (auto* list = if_nameindex()) {
        for (auto* i = list; i->if_index != 0; ++i) interfaces.emplace_back(i->if_name);
        if_freenameindex(list);
    }
    if (interfaces != std::vector<std::string>{"lo"}) return "the namespace has other interfaces than lo";
    return std::nullopt;
}

std::string folderOf(const std::string& program) {
    std::istringstream path(std::getenv("PATH") ? std::getenv("PATH") : "");
    for (std::string folder; std::getline(path, folder, ':');)
        if (!folder.empty() && access((fs::path(folder) / program).c_str(), X_OK) == 0) return folder;
    return "/usr/bin";
}

std::vector<json> jsonLines(const fs::path& file) {
    std::vector<json> lines;
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);) lines.push_back(json::parse(line, nullptr, false));
    return lines;
}

// The parent of a live process, or 0 when it is gone (or only a zombie).
pid_t parentOf(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), {});
    auto close = text.rfind(')');
    if (close == std::string::npos) return 0;
    std::istringstream rest(text.substr(close + 2));
    char state = 'Z';
    pid_t parent = 0;
    rest >> state >> parent;
    return state == 'Z' ? 0 : parent;
}

// Processes running `executable` whose ancestry reaches `ancestor`.
std::vector<pid_t> runningBelow(pid_t ancestor, const fs::path& executable) {
    std::vector<pid_t> found;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator("/proc", ec)) {
        pid_t pid = std::atoi(entry.path().filename().c_str());
        if (pid <= 0 || fs::read_symlink(entry.path() / "exe", ec) != executable) continue;
        for (pid_t p = parentOf(pid); p > 1; p = parentOf(p))
            if (p == ancestor) {
                found.push_back(pid);
                break;
            }
    }
    return found;
}

// One Studio call of a scenario: the model makes it, and its (last) result
// must hold every text of `expect`. `typo` names the suggestion of a
// misspelled parameter: the first result must offer it, and the model's
// retry with it is what `expect` judges. With `until`, the model repeats the
// call until the result holds that text, as a model polls.
struct Step {
    std::string tool;
    std::string arguments;
    std::vector<std::string> expect;
    std::string typo = "";
    std::string until = "";
};

const std::vector<Step> basicSession = {
    {"studio_status", "{}", {R"("ready":true)", R"("project":null)"}},
    {"project", R"({"action":"create","name":"Trip"})", {R"("created":true)", R"("name":"Trip")"}},
    {"import_media", R"({"paths":["@WORK@/clips/beach.mov"]})", {R"("imported":[{)", R"("name":"beach.mov")"}},
    {"export_video", R"({"action":"start","path":"out/e2e.mp4"})", {R"("phase":"completed")", R"("savedTo":"@WORK@/out/e2e.mp4")"}},
    {"export_video", R"({"action":"status","wait_second":1})", {R"("phase":"completed")"}, "wait_seconds"},
};

struct AgentCase {
    std::string id;
    std::string dialect;  // the wire format fake_model.mjs speaks to it
};
void PrintTo(const AgentCase& agent, std::ostream* out) { *out << agent.id; }

class AgentSessions : public ::testing::TestWithParam<AgentCase> {
protected:
    void SetUp() override {
        for (auto program : {"claude", "codex", "opencode"})
            ASSERT_TRUE(fs::exists(agentsBin / program)) << program << " is missing; run scripts/test-setup";
        if (auto why = isolateNetwork()) GTEST_SKIP() << "no network namespace of its own: " << *why;

        // Below the build tree, not /tmp: Codex refuses some work under a
        // temporary folder.
        fs::create_directories(fs::path(VSM_BUILD_DIR) / "test-homes");
        std::string pattern = (fs::path(VSM_BUILD_DIR) / "test-homes" / ("e2e-" + agent().id + "-XXXXXX")).string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        root = pattern;
        for (auto folder : {"home", "tmp", "work/clips", "studio"}) fs::create_directories(root / folder);
        std::ofstream(root / "work/clips/beach.mov") << std::string(300000, 'v');

        bus = std::make_unique<testsupport::PrivateBus>();
        environment = bus->environment({
            {"HOME", (root / "home").string()},
            {"TMPDIR", (root / "tmp").string()},
            {"PATH", agentsBin.string() + ":" + folderOf("node") + ":/usr/bin:/bin"},
            {"LANG", "C.UTF-8"},
            {"USER", "tester"},
            {"TERM", "dumb"},
            {"MCP_TIMEOUT", "20000"},
            {"DISABLE_AUTOUPDATER", "1"},
            {"DISABLE_TELEMETRY", "1"},
            {"DISABLE_ERROR_REPORTING", "1"},
            {"CLAUDE_CODE_DISABLE_NONESSENTIAL_TRAFFIC", "1"},
            {"OPENCODE_DISABLE_AUTOUPDATE", "1"},
            {"OPENCODE_DISABLE_MODELS_FETCH", "1"},
        });
    }

    void TearDown() override {
        if (agentProcess) agentProcess->kill(SIGKILL);
        if (studio) studio->kill(SIGTERM);
        // A failed session's folder stays for a look at its logs.
        std::error_code ec;
        if (!root.empty() && !HasFailure()) fs::remove_all(root, ec);
    }

    const AgentCase& agent() const { return GetParam(); }

    std::string expand(std::string text) const {
        for (size_t at; (at = text.find("@WORK@")) != std::string::npos;) text.replace(at, 6, (root / "work").string());
        return text;
    }

    // Studio with shortened timings, then the model, then the agent's own
    // configuration and the bridge's registration in it.
    void prepare(const std::vector<Step>& steps, Environment studioSettings = {}) {
        Environment studioEnvironment = environment;
        studioEnvironment.insert({{"STUDIO_SIM_HOME", (root / "studio").string()},
                                  {"STUDIO_SIM_LOG", (root / "studio.jsonl").string()},
                                  {"STUDIO_SIM_EXPORT_SECONDS", "0.5"},
                                  {"STUDIO_SIM_MAX_WAIT", "1"}});
        for (auto& [name, value] : studioSettings) studioEnvironment[name] = value;
        studio = std::make_unique<ChildProcess>(
            ChildProcess::Options{{(app / "Contents/MacOS/Vantoric Studio").string()}, studioEnvironment, root});
        auto ready = studio->readLine(std::chrono::seconds(20));
        ASSERT_TRUE(ready && ready->starts_with("studio-sim ready")) << studio->stderrText();

        json script = {{"steps", json::array()}};
        for (const auto& step : steps)
            script["steps"].push_back({{"tool", step.tool},
                                       {"arguments", json::parse(expand(step.arguments))},
                                       {"fixTypo", !step.typo.empty()},
                                       {"until", step.until}});
        std::ofstream(root / "script.json") << script.dump();
        model = std::make_unique<ChildProcess>(ChildProcess::Options{
            {folderOf("node") + "/node", std::string(VSM_SOURCE_DIR) + "/tests/integration/agents/fake_model.mjs",
             agent().dialect, (root / "script.json").string(), (root / "transcript.jsonl").string()},
            environment,
            root});
        auto listening = model->readLine(std::chrono::seconds(20));
        ASSERT_TRUE(listening && listening->starts_with("listening ")) << model->stderrText();
        std::string url = "http://127.0.0.1:" + listening->substr(10);

        fs::path home = root / "home";
        if (agent().id == "claude") {
            environment["ANTHROPIC_BASE_URL"] = url;
            environment["ANTHROPIC_API_KEY"] = "sk-e2e";
        } else if (agent().id == "codex") {
            // Written before `install`, whose entry then follows as a table.
            fs::create_directories(home / ".codex");
            std::ofstream(home / ".codex/config.toml")
                << "model = \"fake-model\"\nmodel_provider = \"e2e\"\n\n[model_providers.e2e]\nname = \"e2e\"\n"
                   "base_url = \"" << url << "/v1\"\nwire_api = \"responses\"\nrequest_max_retries = 0\n"
                   "stream_max_retries = 0\n\n";
        } else {
            fs::create_directories(home / ".config/opencode");
            json config = {{"$schema", "https://opencode.ai/config.json"},
                           {"model", "e2e/fake-model"},
                           {"small_model", "e2e/fake-model"},
                           {"autoupdate", false},
                           {"share", "disabled"},
                           {"provider",
                            {{"e2e",
                              {{"npm", "@ai-sdk/openai-compatible"},
                               {"name", "e2e"},
                               {"options", {{"baseURL", url + "/v1"}, {"apiKey", "sk-e2e"}}},
                               {"models", {{"fake-model", {{"name", "fake model"}, {"tool_call", true}}}}}}}}}};
            std::ofstream(home / ".config/opencode/opencode.json") << config.dump(2);
        }

        ChildProcess install({{bridge.string(), "install", agent().id}, environment, root / "tmp"});
        install.closeStdin();
        std::string said = install.readRest(std::chrono::seconds(120));
        ASSERT_EQ(install.wait(std::chrono::seconds(10)), 0) << said;
        ASSERT_NE(said.find("Studio's MCP server added"), std::string::npos) << said;
    }

    // `bridgeSettings` reach the bridge through the agent: in its environment,
    // or for Codex, which hands its servers only a few variables of its own,
    // in the entry's variables for this run.
    void startAgent(const Environment& bridgeSettings = {}) {
        const std::string prompt = "Make a short video with Vantoric Studio.";
        std::vector<std::string> argv;
        std::string program = (agentsBin / agent().id).string();
        Environment agentEnvironment = environment;
        if (agent().id == "claude") {
            argv = {program, "-p", prompt, "--allowedTools", "mcp__vantoric-studio", "--output-format", "json"};
        } else if (agent().id == "codex") {
            argv = {program, "exec", "--skip-git-repo-check", "--json"};
            for (auto& [name, value] : bridgeSettings)
                argv.insert(argv.end(), {"-c", "mcp_servers.vantoric-studio.env." + name + "=\"" + value + "\""});
            argv.push_back(prompt);
        } else {
            argv = {program, "run", "--print-logs", prompt};
        }
        if (agent().id != "codex") agentEnvironment.insert(bridgeSettings.begin(), bridgeSettings.end());
        agentProcess = std::make_unique<ChildProcess>(ChildProcess::Options{argv, agentEnvironment, root / "work"});
        agentProcess->closeStdin();
    }

    // The agent's exit status, once it has ended by itself.
    std::optional<int> finishAgent() {
        agentOutput = agentProcess->readRest(std::chrono::seconds(150));
        return agentProcess->wait(std::chrono::seconds(20));
    }

    std::string diagnostics() const {
        std::string text = "agent output:\n" + agentOutput;
        if (agentProcess) text += "\nagent errors (tail):\n" + tail(agentProcess->stderrText());
        text += "\ntranscript:\n" + testsupport::readFile(root / "transcript.jsonl");
        return text;
    }
    static std::string tail(const std::string& text) { return text.size() > 6000 ? text.substr(text.size() - 6000) : text; }

    // The results the model received, step by step (a misspelled step has
    // two: the refusal and the retry).
    std::map<int, std::vector<json>> resultsByStep() const {
        std::map<int, std::vector<json>> results;
        for (auto& line : jsonLines(root / "transcript.jsonl"))
            if (line.contains("step")) results[line["step"].get<int>()].push_back(line);
        return results;
    }

    // Every step was played as `steps` says and its results hold what each expects.
    void expectResults(const std::vector<Step>& steps) {
        auto results = resultsByStep();
        for (size_t i = 0; i < steps.size(); ++i) {
            const Step& step = steps[i];
            auto& seen = results[static_cast<int>(i)];
            if (step.until.empty()) {
                ASSERT_EQ(seen.size(), step.typo.empty() ? 1u : 2u) << step.tool << " (step " << i << ")\n" << diagnostics();
            } else {
                ASSERT_FALSE(seen.empty()) << step.tool << " (step " << i << ")\n" << diagnostics();
            }
            EXPECT_NE(seen.front()["name"].get<std::string>().find(step.tool), std::string::npos);
            if (!step.typo.empty()) {
                EXPECT_NE(seen.front()["result"].get<std::string>().find("(did you mean \"" + step.typo + "\"?)"),
                          std::string::npos)
                    << seen.front();
            }
            std::string result = seen.back()["result"];
            for (const auto& text : step.expect)
                EXPECT_NE(result.find(expand(text)), std::string::npos)
                    << step.tool << " lacks " << expand(text) << ":\n" << result;
        }
    }

    fs::path root;
    std::unique_ptr<testsupport::PrivateBus> bus;
    Environment environment;
    std::unique_ptr<ChildProcess> studio, model, agentProcess;
    std::string agentOutput;
};

}  // namespace

TEST_P(AgentSessions, StatusProjectImportExportAndAMisspelledParameter) {
    ASSERT_NO_FATAL_FAILURE(prepare(basicSession));
    startAgent();
    auto status = finishAgent();
    EXPECT_EQ(status, 0) << diagnostics();

    ASSERT_NO_FATAL_FAILURE(expectResults(basicSession));

    fs::path video = root / "work/out/e2e.mp4";
    ASSERT_TRUE(fs::is_regular_file(video)) << diagnostics();
    EXPECT_EQ(fs::file_size(video), exportBytes);
    EXPECT_EQ(testsupport::readFile(video).substr(4, 8), "ftypisom");
    struct stat info {};
    ASSERT_EQ(stat(video.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0644u);
    // Nothing was left beside it, and the status after the copy made none again.
    EXPECT_EQ(std::distance(fs::directory_iterator(video.parent_path()), {}), 1);
    EXPECT_EQ(resultsByStep()[4].back()["result"].get<std::string>().find("savedTo"), std::string::npos);
}

TEST_P(AgentSessions, LongExportIsContinuedByStatusCalls) {
    const std::vector<Step> steps = {
        {"project", R"({"action":"create","name":"Long"})", {R"("created":true)"}},
        {"export_video", R"({"action":"start","path":"out/long.mp4"})", {R"("phase":")"}},
        {"export_video", R"({"action":"status","wait_seconds":1})", {R"("savedTo":"@WORK@/out/long.mp4")"}, "", "savedTo"},
    };
    ASSERT_NO_FATAL_FAILURE(prepare(steps, {{"STUDIO_SIM_EXPORT_SECONDS", "4"}}));
    startAgent({{"VSM_TEST_EXPORT_WAIT_MS", "1000"}});
    EXPECT_EQ(finishAgent(), 0) << diagnostics();
    ASSERT_NO_FATAL_FAILURE(expectResults(steps));
    auto results = resultsByStep();
    EXPECT_EQ(results[1][0]["result"].get<std::string>().find("savedTo"), std::string::npos) << results[1][0];
    EXPECT_GE(results[2].size(), 2u) << "the export was not long enough to need more than one status call";
    EXPECT_EQ(fs::file_size(root / "work/out/long.mp4"), exportBytes);
}

TEST_P(AgentSessions, KilledAgentTakesTheBridgeAlong) {
    // An export that outlasts the call, so that the agent dies mid-call.
    ASSERT_NO_FATAL_FAILURE(prepare({{"studio_status", "{}", {}},
                                     {"project", R"({"action":"create","name":"Long"})", {}},
                                     {"export_video", R"({"action":"start","path":"out/long.mp4"})", {}}},
                                    {{"STUDIO_SIM_EXPORT_SECONDS", "60"}}));
    startAgent();
    // The agent process proper: the parent of the bridge it started (some
    // agents' commands are launchers for another program).
    std::vector<pid_t> bridges;
    bool exporting = false;
    for (auto until = std::chrono::steady_clock::now() + std::chrono::seconds(90);
         !exporting && std::chrono::steady_clock::now() < until;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        bridges = runningBelow(agentProcess->pid(), fs::canonical(bridge));
        for (auto& line : jsonLines(root / "studio.jsonl"))
            exporting = exporting || (line.value("event", "") == "export" && line.value("phase", "") == "queued");
    }
    ASSERT_TRUE(exporting) << diagnostics();
    ASSERT_EQ(bridges.size(), 1u) << diagnostics();

    ASSERT_EQ(kill(parentOf(bridges[0]), SIGKILL), 0);
    auto killedAt = std::chrono::steady_clock::now();
    while (parentOf(bridges[0]) != 0 && std::chrono::steady_clock::now() - killedAt < std::chrono::seconds(1))
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(parentOf(bridges[0]), 0) << "the bridge still runs a second after its agent was killed";
}

INSTANTIATE_TEST_SUITE_P(RealAgents, AgentSessions,
                         ::testing::Values(AgentCase{"claude", "anthropic"}, AgentCase{"codex", "responses"},
                                           AgentCase{"opencode", "chat"}),
                         [](const auto& info) { return info.param.id; });
