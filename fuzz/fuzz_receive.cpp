// Arbitrary bytes through the server's line handling, as if an agent had
// written them to standard input: cut into lines, each received by a bridge
// that serves a small catalog, every request task run to its end, then the
// shutdown. Whatever comes in, each output line must be exactly one JSON
// object and no request may stay in the table; a result answering a request
// of the stateless revision is framed for it ("resultType" "complete", the
// server's identity), one answering a handshake request is not.
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>

#include "link/BlockingWork.h"
#include "peer/StudioPeer.h"
#include "base/StudioLocation.h"
#include "server/Framing.h"
#include "server/InputLoop.h"
#include "server/StudioMCPBridge.h"
#include "support/PlatformDoubles.h"

using namespace server;
using peer::StudioPeer;
using studiolink::StudioConnection;

namespace {

const char* const catalog = R"({
  "instructions": "Use the \"vantoric-studio\" server.",
  "tools": [
    {"name": "export_video", "inputSchema": {"type": "object",
      "properties": {"action": {}, "path": {}, "overwrite": {}, "wait_seconds": {}}}},
    {"name": "größe", "inputSchema": {"type": "object", "properties": {"Größe": {}, "file_path": {}, "名前": {}}}},
    {"name": "studio_status", "inputSchema": {"type": "object", "properties": {}}},
    {"name": "project", "inputSchema": {"type": "object", "properties": {"action": {}, "path": {}}}}
  ],
  "prompts": [
    {"name": "cut", "description": "d", "template": "A {{tone|calm}} cut of {{topic}} {{a||b}} {{|x}} {{open"},
    {"name": "bare", "template": "{{}}{{{{}}}}"}
  ]
})";

// The era of every request among the lines, by request key; a key used in
// both eras is left out (its replies cannot be told apart).
std::map<std::string, int> erasOf(const std::vector<std::string_view>& lines) {
    std::map<std::string, int> eras;  // 1 handshake, 2 stateless, 3 both
    auto note = [&](const Json& message) {
        if (!message.is_object()) return;
        auto method = message.find("method");
        auto id = message.find("id");
        if (method == message.end() || !method->is_string() || id == message.end() || id->is_null()) return;
        auto params = message.find("params");
        auto era = ProtocolEra::of(method->get_ref<const std::string&>(),
                                   params == message.end() ? Json::object() : *params);
        eras[Framing::key(*id)] |= era == ProtocolEra::Era::stateless ? 2 : 1;
    };
    for (auto line : lines) {
        auto parsed = parseJSON(line);
        if (!parsed) continue;
        if (parsed->is_array())
            for (const auto& element : *parsed) note(element);
        else
            note(*parsed);
    }
    return eras;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    boost::asio::io_context context;
    std::vector<std::string> written;
    // No Studio runs and none can start: calls that need one fail at once,
    // and nothing of this machine (its bus, its programs) is touched.
    testsupport::FakeNotificationCenter notifications;
    testsupport::FakeRunningApplications running;
    testsupport::FakeProcessSockets sockets;
    testsupport::FakeCodeSigning signing;
    testsupport::FakeSecureRandom random;
    testsupport::FakeApplicationLauncher launcher;
    launcher.failure = platform::SystemError{ENOENT, "No such file or directory"};
    const std::string identifier(StudioLocation::releaseIdentifier);
    StudioConnection::Services services{notifications, running, launcher, random,
                                        std::make_shared<StudioPeer>(StudioPeer::Services{running, sockets, signing},
                                                                     identifier),
                                        {}, identifier, identifier + ".agent-link",
                                        std::string(StudioLocation::hello)};
    StudioMCPBridge::Setup setup;
    setup.app = std::filesystem::path("/nonexistent/Vantoric Studio.app");
    setup.catalog = std::string(catalog);
    setup.workingDirectory = "/tmp/fuzz-folder";
    setup.output = [&](std::string_view line) { written.emplace_back(line); };
    setup.services.emplace(std::move(services));
    auto bridge = StudioMCPBridge::create(context.get_executor(), std::move(setup));

    std::map<std::string, int> eras;
    boost::asio::post(bridge->strand(), [&] {
        LineSplitter splitter;
        std::vector<std::string_view> lines;
        splitter.feed(std::string_view(reinterpret_cast<const char*>(data), size), lines);
        auto last = splitter.finish();
        if (last) lines.push_back(*last);
        eras = erasOf(lines);
        for (const auto& line : lines) bridge->receive(line);
    });
    context.run();
    context.restart();
    boost::asio::co_spawn(bridge->strand(), bridge->drain(), boost::asio::detached);
    context.run();
    // Work handed to the blocking pool (a launch attempt) answers to this
    // context: none may still hold a piece of it when it goes.
    studiolink::blocking::settle();

    if (!bridge->idle()) std::abort();
    for (const auto& line : written) {
        if (line.empty() || line.back() != '\n' || line.find('\n') != line.size() - 1) std::abort();
        auto reply = parseObject(std::string_view(line).substr(0, line.size() - 1));
        if (!reply) std::abort();
        auto result = reply->find("result");
        auto id = reply->find("id");
        if (result == reply->end() || id == reply->end()) continue;
        auto era = eras.find(Framing::key(*id));
        if (era == eras.end() || era->second == 3) continue;
        const bool framed = result->is_object() && result->contains("resultType");
        if (era->second == 1 && framed) std::abort();
        if (era->second == 2 && (!framed || (*result)["resultType"] != "complete" ||
                                 !(*result)["_meta"].contains(ProtocolEra::serverInfoKey)))
            std::abort();
    }
    return 0;
}
