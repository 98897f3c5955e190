// A bridge with a live link to a Studio played by a small HTTP server on
// loopback: tool calls are answered by the test's function and recorded,
// uploads are kept with their bytes, downloads hand out the bytes the test
// put there. The workspace is a recording launcher, and the working
// directory and home folder are temporary folders of the test's own.
#pragma once
#include <stdlib.h>
#include <sys/stat.h>

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "BridgeHarness.h"
#include "support/FakeHttp.h"
#include "support/PlatformDoubles.h"

namespace testsupport {

// A tool result carrying the payload, as Studio writes it.
inline Json studioResult(const Json& payload) {
    return Json{{"content", Json::array({Json{{"type", "text"}, {"text", payload.dump()}}})}, {"isError", false}};
}

inline Json studioRefusal(const std::string& message) {
    return Json{{"content", Json::array({Json{{"type", "text"}, {"text", message}}})}, {"isError", true}};
}

// The folders of one test, made before the bridge that works in them.
struct TestFolders {
    TestFolders() {
        std::filesystem::create_directories(work());
        std::filesystem::create_directories(home());
        if (const char* old = getenv("HOME")) oldHome = old;
        setenv("HOME", home().c_str(), 1);
    }
    ~TestFolders() {
        if (oldHome) setenv("HOME", oldHome->c_str(), 1);
        else unsetenv("HOME");
    }
    std::filesystem::path work() const { return dir.path() / "work"; }
    std::filesystem::path home() const { return dir.path() / "home"; }

    TempDir dir;
    std::optional<std::string> oldHome;
};

inline StudioMCPBridge::Timing shortTiming() {
    StudioMCPBridge::Timing timing;
    timing.exportWait = std::chrono::milliseconds(300);
    timing.link.httpTimeout = std::chrono::seconds(10);
    return timing;
}

class StudioHarness : public TestFolders, public BridgeHarness {
public:
    struct Upload {
        std::string target;
        std::string body;
    };

    explicit StudioHarness(std::optional<std::filesystem::path> app = fakeStudio,
                           StudioMCPBridge::Timing timing = shortTiming())
        : BridgeHarness(studioCatalog(), app, work(), timing) {
        http.setHandler([this](const FakeHttp::Request& request) { return serve(request); });
        Link link{*URL::parse(http.base() + "/mcp"), *URL::parse(http.base()), "t0k3n", nullptr};
        StudioConnection::Services services{notifications, running, launcher, random, nullptr, nullptr,
                                            std::string(StudioMCPBridge::releaseIdentifier), "n", "h"};
        bridge->studio = StudioConnection::create(bridge->strand(), context.get_executor(), app,
                                                  [] { return std::string("A coding agent"); }, services,
                                                  timing.link, link);
    }
    // The link's connections close before the server goes away.
    ~StudioHarness() {
        boost::asio::post(bridge->strand(), [this] {
            bridge->studio->stop();
            bridge->studio.reset();
        });
        run();
    }

    // Answers Studio gives to tool calls: the params of the call in, a tool
    // result out. Called on the server's threads.
    void onCall(std::function<Json(const Json& params)> answer) {
        std::lock_guard lock(mutex_);
        answer_ = std::move(answer);
    }
    // The params ({"name", "arguments"}) of every tools/call Studio received.
    std::vector<Json> calls() const {
        std::lock_guard lock(mutex_);
        return calls_;
    }
    std::vector<Upload> uploads() const {
        std::lock_guard lock(mutex_);
        return uploads_;
    }
    std::vector<std::string> downloads() const {
        std::lock_guard lock(mutex_);
        return downloads_;
    }
    void offerDownload(const std::string& id, std::string bytes) {
        std::lock_guard lock(mutex_);
        offered_[id] = std::move(bytes);
    }
    // Uploads are refused with this status and error from now on.
    void refuseUploads(int status, const std::string& error) {
        std::lock_guard lock(mutex_);
        uploadRefusal_ = {status, error};
    }

    // Runs the call to its end; its reply.
    Json call(int id, const std::string& tool, const Json& arguments) {
        written.clear();
        receive(toolCall(id, tool, arguments));
        auto all = replies();
        EXPECT_FALSE(all.empty());
        return all.empty() ? Json() : all.back();
    }

    // A file under the working directory.
    std::filesystem::path file(const std::string& relative, const std::string& contents = "bytes") {
        return dir.write("work/" + relative, contents);
    }

    // How long Studio takes to answer each tool call; set before calls.
    std::chrono::milliseconds callDelay{0};

    FakeHttp http;
    FakeNotificationCenter notifications;
    FakeRunningApplications running;
    FakeApplicationLauncher launcher;
    FakeSecureRandom random;

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
        if (request.method == "PUT" && request.target.rfind("/uploads?", 0) == 0) {
            uploads_.push_back({request.target, request.body});
            if (uploadRefusal_) return {uploadRefusal_->first, Json{{"error", uploadRefusal_->second}}.dump()};
            return {201, Json{{"uploadId", "up-" + std::to_string(uploads_.size())}}.dump()};
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
    std::vector<Upload> uploads_;
    std::vector<std::string> downloads_;
    std::map<std::string, std::string> offered_;
    std::optional<std::pair<int, std::string>> uploadRefusal_;
};

}  // namespace testsupport
