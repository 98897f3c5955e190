// A bridge on an io_context of the test's own, with an output that keeps
// every line, fake bundles, and the realistic catalog that the Studio
// bundles of the build ship. Lines handed over together are received in one
// turn of the strand, as the input loop does with the lines of one read;
// then the context runs until every task has finished.
#pragma once
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "server/StudioMCPBridge.h"
#include "peer/StudioPeer.h"
#include "support/FakeBundles.h"
#include "link/BlockingWork.h"
#include "support/PlatformDoubles.h"
#include "support/TempDir.h"

namespace testsupport {

inline std::string studioCatalog() {
    return readFile(std::filesystem::path(VSM_SOURCE_DIR) / "tools/studio-sim/resources/studio-agent-mcp.json");
}

inline const std::filesystem::path fakeStudio = "/Applications/Vantoric Studio.app";

class BridgeHarness {
public:
    explicit BridgeHarness(std::optional<std::string> catalog = studioCatalog(),
                           std::optional<std::filesystem::path> app = fakeStudio,
                           std::filesystem::path workingDirectory = "/work/folder",
                           StudioMCPBridge::Timing timing = {}) {
        bundles.add(fakeStudio, std::string(StudioMCPBridge::releaseIdentifier), "3.2.1");
        // No Studio runs and none can be started: whatever needs the link
        // fails at once with the launch failure, and nothing of this machine
        // (its session bus, its running programs) is touched.
        launcher.failure = platform::SystemError{ENOENT, "No such file or directory"};
        auto peer = std::make_shared<StudioPeer>(StudioPeer::Services{running, sockets, signing},
                                                 std::string(StudioMCPBridge::releaseIdentifier));
        StudioConnection::Services services{notifications, running, launcher, random, peer, {},
                                            std::string(StudioMCPBridge::releaseIdentifier),
                                            std::string(StudioMCPBridge::releaseIdentifier) + ".agent-link",
                                            std::string(StudioMCPBridge::hello)};
        bridge = StudioMCPBridge::create(
            context.get_executor(), std::move(app), std::move(catalog), std::move(workingDirectory),
            [this](std::string_view line) { written.emplace_back(line); }, timing, bundles, std::move(services));
    }

    // Jobs of the blocking pool answer to this context: none may still hold
    // a piece of it when it goes.
    ~BridgeHarness() { blocking::settle(); }

    // Receives the lines in one turn of the strand and runs every task.
    void receive(const std::vector<std::string>& lines) {
        boost::asio::post(bridge->strand(), [&] {
            for (const auto& line : lines) bridge->receive(line);
        });
        run();
    }
    void receive(const std::string& line) { receive(std::vector<std::string>{line}); }

    void drain() {
        boost::asio::co_spawn(bridge->strand(), bridge->drain(), boost::asio::detached);
        run();
    }

    void run() {
        context.restart();
        context.run();
    }

    // Every line written so far, parsed; each must be one JSON object ending
    // in exactly one line feed.
    std::vector<Json> replies() const {
        std::vector<Json> out;
        for (const auto& line : written) {
            EXPECT_FALSE(line.empty());
            EXPECT_EQ(line.back(), '\n');
            EXPECT_EQ(line.find('\n'), line.size() - 1);
            auto value = parseObject(line);
            EXPECT_TRUE(value) << line;
            if (value) out.push_back(std::move(*value));
        }
        return out;
    }

    // The one reply written, or a failure.
    Json reply() const {
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
    return Json{{"jsonrpc", "2.0"}, {"method", "notifications/cancelled"}, {"params", {{"requestId", requestId}}}}
        .dump();
}

// The text of a tool result's one content item.
inline std::string toolText(const Json& reply) {
    return reply.at("result").at("content").at(0).at("text").get<std::string>();
}

}  // namespace testsupport
