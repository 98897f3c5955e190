// Both eras of the protocol on one bridge, line by line: a request whose
// "_meta" names the protocol revision is answered by the stateless revision
// (discover, resultType, cache fields, its errors); everything else by the
// handshake revisions, exactly as before.
#include "ServerHarness.h"

using namespace testsupport;
namespace ProtocolEra = server::ProtocolEra;

namespace {

const std::string modernMeta =
    R"("_meta":{"io.modelcontextprotocol/protocolVersion":"2026-07-28","io.modelcontextprotocol/clientCapabilities":{},)"
    R"("io.modelcontextprotocol/clientInfo":{"name":"claude-code","title":"Claude Code","version":"2.1.331"}})";

std::string modern(int id, const std::string& method, const std::string& params = "") {
    return R"({"jsonrpc":"2.0","id":)" + std::to_string(id) + R"(,"method":")" + method + R"(","params":{)" + params +
           (params.empty() ? "" : ",") + modernMeta + "}}";
}

// A request whose _meta holds this version (when given) and these capabilities (when given).
std::string withMeta(int id, const std::string& method, const std::string& version, const std::string& capabilities = "{}") {
    std::string meta = version.empty() ? "" : R"("io.modelcontextprotocol/protocolVersion":)" + version;
    if (!capabilities.empty()) meta += (meta.empty() ? "" : ",") + std::string(R"("io.modelcontextprotocol/clientCapabilities":)") + capabilities;
    return R"({"jsonrpc":"2.0","id":)" + std::to_string(id) + R"(,"method":")" + method + R"(","params":{"_meta":{)" + meta + "}}}";
}

const Json supported = Json::parse(R"(["2026-07-28","2025-11-25","2025-06-18","2025-03-26","2024-11-05"])");
const Json serverInfo = Json::parse(R"({"name":"vantoric-studio","title":"Vantoric Studio","version":"3.2.1"})");

struct Line {
    std::string what, line;
    Json expected;                    // members the one reply must hold, objects compared member by member
    std::vector<std::string> absent = {};  // JSON pointers that must not be there
};

}  // namespace

TEST(BothEras, RawLinesAndTheirReplies) {
    const Json catalog = Json::parse(studioCatalog());
    Json listed = catalog["prompts"];
    for (auto& prompt : listed) prompt.erase("template");
    const Json identity = {{"io.modelcontextprotocol/serverInfo", serverInfo}};
    auto list = [&](const char* member, const Json& value) {
        return Json{{"result", {{"resultType", "complete"}, {"ttlMs", 3600000}, {"cacheScope", "private"}, {"_meta", identity}, {member, value}}}};
    };
    auto error = [](int code, const std::string& message) { return Json{{"error", {{"code", code}, {"message", message}}}}; };
    const std::string missingCapabilities = R"(Missing _meta "io.modelcontextprotocol/clientCapabilities".)";
    const std::string missingVersion = R"(Missing _meta "io.modelcontextprotocol/protocolVersion".)";
    const std::vector<Line> table = {
        {"discover: versions newest first, identity in _meta, cacheable", modern(1, "server/discover"),
         {{"result", {{"resultType", "complete"}, {"supportedVersions", supported}, {"instructions", catalog["instructions"]},
                      {"capabilities", {{"tools", {{"listChanged", false}}}, {"prompts", {{"listChanged", false}}}}},
                      {"_meta", identity}, {"ttlMs", 3600000}, {"cacheScope", "private"}}}},
         {"/result/protocolVersion", "/result/serverInfo"}},
        {"an unknown revision is refused with the supported ones", withMeta(2, "server/discover", R"("2099-01-01")"),
         {{"error", {{"code", -32022}, {"message", "Unsupported protocol version"},
                     {"data", {{"supported", supported}, {"requested", "2099-01-01"}}}}}}},
        {"a handshake revision named in _meta is not served statelessly", withMeta(3, "tools/list", R"("2025-11-25")"),
         {{"error", {{"code", -32022}, {"data", {{"requested", "2025-11-25"}}}}}}},
        {"capabilities missing", withMeta(4, "tools/list", R"("2026-07-28")", ""), error(-32602, missingCapabilities)},
        {"capabilities not an object", withMeta(5, "prompts/list", R"("2026-07-28")", "[]"), error(-32602, missingCapabilities)},
        {"a version that is not a string", withMeta(6, "tools/list", "20260728"), error(-32602, missingVersion)},
        {"discover without any _meta", request(7, "server/discover"), error(-32602, missingVersion)},
        {"tools/list", modern(8, "tools/list"), list("tools", catalog["tools"])},
        {"prompts/list", modern(9, "prompts/list"), list("prompts", listed)},
        {"resources/list", modern(10, "resources/list"), list("resources", Json::array())},
        {"prompts/get is complete but not cacheable", modern(11, "prompts/get", R"("name":"rough_cut","arguments":{"folder":"/clips"})"),
         {{"result", {{"resultType", "complete"}, {"_meta", identity}}}}, {"/result/ttlMs", "/result/cacheScope"}},
        {"a refused tool call is a complete tool error",
         modern(12, "tools/call", R"("name":"export_video","arguments":{"action":"start","pathh":"a.mp4"})"),
         Json::parse(R"j({"result":{"resultType":"complete","isError":true,"content":[{"type":"text",
             "text":"export_video has no parameter \"pathh\" (did you mean \"path\"?). Nothing was done."}]}})j"),
         {"/result/ttlMs"}},
        {"a tool call Studio cannot take is a complete tool error", modern(13, "tools/call", R"("name":"timeline","arguments":{"action":"list"})"),
         {{"result", {{"resultType", "complete"}, {"isError", true}}}}, {"/error"}},
        {"a prompt failure keeps its code", modern(14, "prompts/get", R"("name":"nope")"), error(-32602, "Unknown prompt.")},
        {"ping is gone from the stateless revision", modern(15, "ping"), error(-32601, "Method not found: ping")},
        {"so is initialize", modern(16, "initialize", R"("protocolVersion":"2025-11-25")"), error(-32601, "Method not found: initialize")},
        {"and logging/setLevel", modern(17, "logging/setLevel", R"("level":"debug")"), error(-32601, "Method not found: logging/setLevel")},
        {"handshake ping", request(18, "ping", {{"anything", true}}), {{"result", Json::object()}}, {"/result/resultType"}},
        {"handshake tools/list has no new members", request(19, "tools/list"), {{"result", {{"tools", catalog["tools"]}}}},
         {"/result/resultType", "/result/ttlMs", "/result/cacheScope", "/result/_meta"}},
        {"handshake prompts/list", request(20, "prompts/list"), {{"result", {{"prompts", listed}}}}, {"/result/resultType"}},
        {"handshake resources/list", request(21, "resources/list"), {{"result", {{"resources", Json::array()}}}}},
        {"handshake prompts/get", request(22, "prompts/get", {{"name", "no_such_prompt"}}), error(-32602, "Unknown prompt.")},
        {"handshake tool error has no resultType", toolCall(23, "export_video", {{"pathh", 1}}), {{"result", {{"isError", true}}}},
         {"/result/resultType"}},
        {"handshake initialize agrees on 2025-11-25",
         request(24, "initialize", {{"protocolVersion", "2025-11-25"}, {"clientInfo", {{"name", "claude-code"}}}}),
         {{"result", {{"protocolVersion", "2025-11-25"}, {"serverInfo", serverInfo}}}}, {"/result/resultType"}},
    };
    for (const auto& row : table) {
        BridgeHarness harness;
        harness.receive(row.line);
        auto replies = harness.replies();
        ASSERT_EQ(replies.size(), 1u) << row.what;
        Json expected = row.expected, reply = replies.front();
        expected["jsonrpc"] = "2.0", expected["id"] = Json::parse(row.line)["id"];
        Json merged = reply;
        merged.merge_patch(expected);  // unchanged when the reply holds every expected member
        EXPECT_EQ(merged, reply) << row.what;
        for (const auto& pointer : row.absent) EXPECT_FALSE(reply.contains(Json::json_pointer(pointer))) << row.what << ": " << pointer;
    }
}

TEST(BothEras, CancelledModernRequestsSayNothingAtAll) {
    // The handshake revisions still get their protocol faults after a
    // cancellation; the stateless one allows no message for a cancelled
    // request.
    BridgeHarness harness;
    harness.receive({modern(1, "ping"), modern(2, "tools/call", R"("arguments":{})"),
                     withMeta(3, "tools/list", R"("1.0")", ""),
                     modern(4, "tools/call", R"("name":"timeline")"), request(5, "no/such"), cancelled(1), cancelled(2),
                     cancelled(3), cancelled(4), cancelled(5)});
    auto replies = harness.replies();
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(replies[0]["id"], 5);
    EXPECT_TRUE(harness.bridge->idle());
}

TEST(BothEras, EachRequestNamesItsOwnAgentForTheHandOver) {
    // Studio "launches" but never makes contact: the hand-over's first
    // announcement carries the agent's name, then the test shuts down.
    auto announced = [](const std::vector<std::string>& lines) {
        BridgeTiming timing;
        timing.link.notificationAttempts = 1;
        BridgeHarness harness(studioCatalog(), fakeStudio, timing);
        harness.launcher.failure.reset();
        harness.notifications.onPost = [&](const FakeNotificationCenter::Posted&) {
            boost::asio::co_spawn(harness.bridge->strand(), harness.bridge->drain(), boost::asio::detached);
        };
        harness.receive(lines);
        auto posted = harness.notifications.posted();
        EXPECT_EQ(posted.size(), 1u);
        std::string query = posted.empty() ? std::string() : posted[0].object;
        return query.substr(query.find("client=") + 7);
    };
    const std::string codex = request(1, "initialize", {{"clientInfo", {{"name", "codex"}}}});
    const std::string timeline = toolCall(3, "timeline", Json::object());
    const std::string bare =
        R"({"jsonrpc":"2.0","id":2,"method":"tools/call","params":{"name":"timeline","_meta":{)"
        R"("io.modelcontextprotocol/protocolVersion":"2026-07-28","io.modelcontextprotocol/clientCapabilities":{}}}})";
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{codex, modern(2, "tools/call", R"("name":"timeline")")}, "Claude"},  // its own name, not the handshake's
        {{codex, timeline}, "codex"},
        {{timeline}, "A"},
        {{bare}, "A"},
        // The last non-empty name counts; a stateless "initialize" is refused
        // and names nobody.
        {{codex, request(4, "initialize", {{"clientInfo", {{"name", "other"}, {"title", ""}}}}), timeline}, "codex"},
        {{codex, modern(5, "initialize", R"("clientInfo":{"name":"x"})"), timeline}, "codex"},
    };
    for (const auto& [lines, name] : cases) EXPECT_EQ(announced(lines).rfind(name, 0), 0u) << lines.back();
}
