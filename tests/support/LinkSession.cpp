#include "support/LinkSession.h"

#include <signal.h>

#include <algorithm>
#include <fstream>
#include <stdexcept>
#include <thread>

namespace fs = std::filesystem;

namespace testsupport {

fs::path bundle() { return fs::path(VSM_BUNDLES_DIR) / "Vantoric Studio.app"; }

fs::path bridgeBinary() {
#ifdef VSM_BRIDGE_BINARY
    return VSM_BRIDGE_BINARY;
#else
    return {};
#endif
}

LinkSession::LinkSession(Settings settings) : bus_(std::make_unique<PrivateBus>()) {
    environment_ = bus_->environment();
    environment_["VANTORIC_STUDIO_APP"] = bundle().string();
    environment_["STUDIO_SIM_HOME"] = home_.path().string();
    environment_["STUDIO_SIM_LOG"] = (home_.path() / "studio.jsonl").string();
    environment_.erase("VANTORIC_STUDIO_CATALOG");
    // A copy of Studio that the bridge launches gets the session's variables
    // only; it reads its settings from this folder, and is known by it.
    environment_["XDG_CONFIG_HOME"] = (home_.path() / ".config").string();
    for (auto& [name, value] : settings) environment_[name] = value;
}

void LinkSession::writeStudioSettings() const {
    fs::path folder = home_.path() / ".config/vantoric-studio-sim";
    fs::create_directories(folder);
    std::ofstream out(folder / "settings", std::ios::trunc);
    for (auto& [name, value] : environment_)
        if (name.rfind("STUDIO_SIM_", 0) == 0) out << name << '=' << value << '\n';
}

LinkSession::~LinkSession() {
    if (bridge_) {
        bridge_->closeStdin();
        if (!bridge_->wait(10s)) bridge_->kill(SIGKILL);
    }
    if (studio_) {
        studio_->kill(SIGTERM);
        studio_->wait(5s);
    }
    // Copies the bridge launched are nobody's children here.
    for (pid_t pid : studioProcesses()) kill(pid, SIGTERM);
    for (int i = 0; i < 200 && !studioProcesses().empty(); ++i) std::this_thread::sleep_for(10ms);
    for (pid_t pid : studioProcesses()) kill(pid, SIGKILL);
}

pid_t LinkSession::startStudio() {
    writeStudioSettings();
    studio_ = std::make_unique<ChildProcess>(ChildProcess::Options{
        .argv = {(bundle() / "Contents/MacOS/Vantoric Studio").string()}, .environment = environment_});
    auto ready = studio_->readLine(10s);
    if (!ready || ready->find("studio-sim ready") == std::string::npos)
        throw std::runtime_error("the simulator did not start: " + studio_->stderrText());
    return studio_->pid();
}

std::vector<pid_t> LinkSession::studioProcesses() const {
    std::vector<pid_t> found;
    std::string marker = "XDG_CONFIG_HOME=" + (home_.path() / ".config").string();
    for (auto& entry : fs::directory_iterator("/proc")) {
        std::string name = entry.path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos) continue;
        std::error_code ec;
        auto exe = fs::read_symlink(entry.path() / "exe", ec);
        if (ec || exe.filename() != "Vantoric Studio") continue;
        std::ifstream in(entry.path() / "environ", std::ios::binary);
        std::string variables((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        std::string terminated = marker + '\0';
        if (variables.find(terminated) != std::string::npos) found.push_back(std::stoi(name));
    }
    return found;
}

std::vector<json> LinkSession::studioEvents(const std::string& event) const {
    std::vector<json> events;
    std::ifstream in(home_.path() / "studio.jsonl");
    std::string line;
    while (std::getline(in, line)) {
        auto value = json::parse(line, nullptr, false);
        if (value.is_object() && value.value("event", "") == event) events.push_back(value);
    }
    return events;
}

void LinkSession::startBridge(std::filesystem::path workingDirectory) {
    if (workingDirectory.empty()) workingDirectory = home_.path();
    writeStudioSettings();
    bridge_ = std::make_unique<ChildProcess>(ChildProcess::Options{
        .argv = {bridgeBinary().string()}, .environment = environment_, .workingDirectory = workingDirectory});
    send({{"jsonrpc", "2.0"}, {"id", "init"}, {"method", "initialize"},
          {"params", {{"protocolVersion", "2025-06-18"}, {"capabilities", json::object()},
                      {"clientInfo", {{"name", "link-tests"}, {"version", "1"}}}}}});
    if (!reply("init")) throw std::runtime_error("the bridge did not answer initialize: " + bridge_->stderrText());
    send({{"jsonrpc", "2.0"}, {"method", "notifications/initialized"}});
}

void LinkSession::send(const json& message) { bridge_->write(message.dump() + "\n"); }

std::optional<json> LinkSession::reply(const json& id, std::chrono::milliseconds timeout) {
    auto kept = std::find_if(pending_.begin(), pending_.end(), [&](auto& m) { return m.contains("id") && m["id"] == id; });
    if (kept != pending_.end()) {
        json found = std::move(*kept);
        pending_.erase(kept);
        return found;
    }
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return std::nullopt;
        auto line = bridge_->readLine(left);
        if (!line) return std::nullopt;
        auto message = json::parse(*line);
        if (message.contains("id") && message["id"] == id) return message;
        pending_.push_back(message);
    }
}

json LinkSession::call(int id, const std::string& tool, const json& arguments) {
    send({{"jsonrpc", "2.0"}, {"id", id}, {"method", "tools/call"}, {"params", {{"name", tool}, {"arguments", arguments}}}});
    auto answer = reply(id, 60s);
    if (!answer) throw std::runtime_error("no reply to call " + std::to_string(id) + "; bridge said: " + bridge_->stderrText());
    if (!answer->contains("result")) throw std::runtime_error("call " + std::to_string(id) + " failed: " + answer->dump());
    return (*answer)["result"];
}

std::vector<json> LinkSession::takeNotifications() {
    auto notifications = std::stable_partition(pending_.begin(), pending_.end(), [](auto& m) { return m.contains("id"); });
    std::vector<json> taken(notifications, pending_.end());
    pending_.erase(notifications, pending_.end());
    return taken;
}

std::string LinkSession::text(const json& result) {
    if (!result.contains("content") || result["content"].empty()) return "";
    return result["content"][0].value("text", "");
}

}  // namespace testsupport
