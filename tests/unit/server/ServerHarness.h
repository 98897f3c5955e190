// The server's unit-test harness. BridgeHarness: a bridge on the test's own
// io_context, fake bundles and platform services, every line written kept,
// and no Studio, so that whatever needs the link fails at once with the
// launch failure. Lines handed over together are received in one turn of the
// strand, as the input loop does with the lines of one read. StudioHarness
// adds a live link to a Studio played by FakeHttp: tool calls answered by the
// test's function and recorded, downloads served from what the test offered,
// in temporary working and home folders.
#pragma once
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "base/StudioLocation.h"
#include "link/BlockingWork.h"
#include "peer/StudioPeer.h"
#include "server/StudioMCPBridge.h"
#include "support/FakeBundles.h"
#include "support/FakeHttp.h"
#include "support/PlatformDoubles.h"
#include "support/TempDir.h"

namespace testsupport {

using peer::StudioPeer;
using peer::URL;
using server::BridgeTiming;
using server::StudioMCPBridge;
using studiolink::Link;
using studiolink::StudioConnection;

inline std::string studioCatalog() {
    return readFile(std::filesystem::path(VSM_SOURCE_DIR) / "tools/studio-sim/resources/studio-agent-mcp.json");
}

inline const std::filesystem::path fakeStudio = "/Applications/Vantoric Studio.app";
inline const std::string release(StudioLocation::releaseIdentifier);

class BridgeHarness {
public:
    explicit BridgeHarness(std::optional<std::string> catalog = studioCatalog(),
                           std::optional<std::filesystem::path> app = fakeStudio, BridgeTiming timing = {},
                           std::filesystem::path workingDirectory = "/work/folder",
                           std::optional<std::string> home = "/home/me", std::optional<Link> link = std::nullopt) {
        bundles.add(fakeStudio, release, "3.2.1");
        launcher.failure = platform::SystemError{ENOENT, "No such file or directory"};
        auto peer = std::make_shared<StudioPeer>(StudioPeer::Services{running, sockets, signing}, release);
        StudioMCPBridge::Setup setup{std::move(app), release, std::move(catalog), std::move(workingDirectory), std::move(home),
                                     [this](std::string_view line) { written.emplace_back(line); }, timing, &bundles,
                                     StudioConnection::Services{notifications, running, launcher, random, peer, {},
                                                                release, release + ".agent-link",
                                                                std::string(StudioLocation::hello)},
                                     std::move(link)};
        bridge = StudioMCPBridge::create(context.get_executor(), std::move(setup));
    }

    // The blocking pool's jobs answer to this context: they end before it goes.
    ~BridgeHarness() {
        if (bridge) drain();
        studiolink::blocking::settle();
    }

    // Receives the lines in one turn of the strand and runs every task.
    void receive(const std::vector<std::string>& lines) {
        boost::asio::post(bridge->strand(), [&] { for (const auto& line : lines) bridge->receive(line); });
        run();
    }
    void receive(const std::string& line) { receive(std::vector<std::string>{line}); }

    void drain() { boost::asio::co_spawn(bridge->strand(), bridge->drain(), boost::asio::detached); run(); }
    void run() { context.restart(); context.run(); }

    // Every line written so far, parsed; each must be one JSON object ending
    // in exactly one line feed.
    std::vector<Json> replies() const {
        std::vector<Json> out;
        for (const auto& line : written) {
            EXPECT_EQ(line.find('\n'), line.size() - 1) << line;
            auto value = parseObject(line);
            EXPECT_TRUE(value) << line;
            if (value) out.push_back(std::move(*value));
        }
        return out;
    }
    Json reply() const {  // the one reply written
        auto all = replies();
        EXPECT_EQ(all.size(), 1u);
        return all.empty() ? Json() : all.front();
    }

    FakeBundles bundles;
    FakeNotificationCenter notifications;
    FakeRunningApplications running;
    FakeProcessSockets sockets;
    FakeCodeSigning signing;
    FakeApplicationLauncher launcher;
    FakeSecureRandom random;
    boost::asio::io_context context;
    std::vector<std::string> written;
    std::shared_ptr<StudioMCPBridge> bridge;
};

inline std::string request(const Json& id, const std::string& method, const Json& params = Json()) {
    Json message = {{"jsonrpc", "2.0"}, {"id", id}, {"method", method}};
    if (!params.is_null()) message["params"] = params;
    return message.dump();
}

inline std::string toolCall(const Json& id, const std::string& tool, const Json& arguments) {
    return request(id, "tools/call", {{"name", tool}, {"arguments", arguments}});
}

inline std::string cancelled(const Json& requestId) {
    return Json{{"jsonrpc", "2.0"}, {"method", "notifications/cancelled"}, {"params", {{"requestId", requestId}}}}.dump();
}

inline std::string toolText(const Json& reply) { return reply.at("result").at("content").at(0).at("text").get<std::string>(); }

// Tool results as Studio writes them: a payload, or a refusal.
inline Json studioText(const std::string& text, bool isError) {
    return Json{{"content", Json::array({Json{{"type", "text"}, {"text", text}}})}, {"isError", isError}};
}
inline Json studioResult(const Json& payload) { return studioText(payload.dump(), false); }
inline Json studioRefusal(const std::string& message) { return studioText(message, true); }

inline BridgeTiming shortTiming() {
    BridgeTiming timing;
    timing.exportWait = std::chrono::milliseconds(300);
    timing.link.httpTimeout = std::chrono::seconds(10);
    return timing;
}

struct TestFolders {  // made before the bridge that works in them
    TestFolders() { std::filesystem::create_directories(work()); std::filesystem::create_directories(home()); }
    std::filesystem::path work() const { return dir.path() / "work"; }
    std::filesystem::path home() const { return dir.path() / "home"; }
    TempDir dir;
};

class StudioHarness : public TestFolders, public FakeHttp, public BridgeHarness {
public:
    explicit StudioHarness(std::optional<std::filesystem::path> app = fakeStudio, BridgeTiming timing = shortTiming())
        : BridgeHarness(studioCatalog(), std::move(app), timing, work(), home().string(),
                        Link{*URL::parse(base() + "/mcp"), *URL::parse(base()), "t0k3n", nullptr}) {
        setHandler([this](const FakeHttp::Request& request) { return serve(request); });
    }
    ~StudioHarness() { drain(); bridge.reset(); }  // the bridge's connections close before the server goes

    // Studio's answer to a tool call's params, called on the server's threads.
    void onCall(std::function<Json(const Json& params)> answer) { std::lock_guard lock(mutex_); answer_ = std::move(answer); }
    // The params ({"name", "arguments"}) of every tools/call Studio received.
    std::vector<Json> calls() const { std::lock_guard lock(mutex_); return calls_; }
    std::vector<std::string> downloads() const { std::lock_guard lock(mutex_); return downloads_; }
    void offerDownload(const std::string& id, std::string bytes) { std::lock_guard lock(mutex_); offered_[id] = std::move(bytes); }

    // Runs the call to its end; its reply.
    Json call(int id, const std::string& tool, const Json& arguments) {
        written.clear();
        receive(toolCall(id, tool, arguments));
        auto all = replies();
        EXPECT_FALSE(all.empty());
        return all.empty() ? Json() : all.back();
    }

    std::filesystem::path file(const std::string& relative, const std::string& contents) { return dir.write("work/" + relative, contents); }

    // How long Studio takes to answer each tool call; set before calls.
    std::chrono::milliseconds callDelay{0};

private:
    FakeHttp::Response serve(const FakeHttp::Request& request) {
        std::lock_guard lock(mutex_);
        if (request.method == "POST" && request.target == "/mcp") {
            Json body = Json::parse(request.body);
            calls_.push_back(body["params"]);
            Json result = answer_ ? answer_(body["params"]) : studioResult(Json{{"ok", true}});
            FakeHttp::Response response{200, Json{{"jsonrpc", "2.0"}, {"id", body["id"]}, {"result", result}}.dump()};
            response.delay = callDelay;
            return response;
        }
        if (request.method == "GET" && request.target.rfind("/downloads/", 0) == 0) {
            std::string id = request.target.substr(11);
            downloads_.push_back(id);
            auto offered = offered_.find(id);
            if (offered == offered_.end()) return {404, R"({"error":"No download."})"};
            return {200, offered->second, "video/mp4"};
        }
        return {404, R"({"error":"Not found."})"};
    }

    mutable std::mutex mutex_;
    std::function<Json(const Json&)> answer_;
    std::vector<Json> calls_;
    std::vector<std::string> downloads_;
    std::map<std::string, std::string> offered_;
};

}  // namespace testsupport
