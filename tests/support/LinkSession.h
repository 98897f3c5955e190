// One agent session against the Studio simulator, with real parts only: a
// private session bus, the simulator's bundle from the build tree, the real
// bridge binary over pipes, and the simulator's JSON-lines log. Copies of the
// simulator that the bridge launched are found by their private home folder
// and stopped at the end. One test thread.
#pragma once
#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "json/Json.h"
#include "support/ChildProcess.h"
#include "support/PrivateBus.h"
#include "support/TempDir.h"

namespace testsupport {

using json = Json;
using namespace std::chrono_literals;

// Both built in this tree.
std::filesystem::path bundle();
std::filesystem::path bridgeBinary();

class LinkSession {
public:
    using Settings = std::map<std::string, std::string>;
    explicit LinkSession(Settings settings = {});
    ~LinkSession();

    Environment& environment() { return environment_; }
    const std::string& busAddress() const { return bus_->address(); }
    const std::filesystem::path& home() const { return home_.path(); }

    pid_t startStudio();
    // Every simulator process of this session, whoever started it.
    std::vector<pid_t> studioProcesses() const;
    std::vector<json> studioEvents(const std::string& event) const;

    // The bridge, working in the session's home unless told otherwise.
    void startBridge(std::filesystem::path workingDirectory = {});
    ChildProcess& bridge() { return *bridge_; }
    void send(const json& message);
    // The reply to request `id`, or nothing by the deadline. Replies to other
    // requests read meanwhile are kept for later.
    std::optional<json> reply(const json& id, std::chrono::milliseconds timeout = 20s);
    // A tools/call, answered: the tool result object.
    json call(int id, const std::string& tool, const json& arguments = json::object());
    // Notifications from the bridge read so far (while waiting for
    // replies), in order; they are handed out once.
    std::vector<json> takeNotifications();
    static std::string text(const json& result);

private:
    // The simulator's settings of `environment_`, where a copy the bridge
    // launches finds them.
    void writeStudioSettings() const;

    std::unique_ptr<PrivateBus> bus_;
    TempDir home_;
    Environment environment_;
    std::unique_ptr<ChildProcess> studio_, bridge_;
    std::vector<json> pending_;
};

}  // namespace testsupport
