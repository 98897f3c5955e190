// Judging Studio's reply line: refusals in Studio's words, every malformed
// field as the one unexpected-endpoint message.
#include <gtest/gtest.h>

#include "link/BridgeError.h"
#include "link/HandoverReply.h"

namespace {

using json = nlohmann::ordered_json;

json good() {
    return json{{"ok", true}, {"v", 3}, {"connectionId", "123E4567-e89b-12d3-a456-426614174000"},
                {"endpoint", "http://127.0.0.1:54321/mcp"}, {"files", "http://127.0.0.1:54322"},
                {"token", std::string(32, 't')}};
}

json with(const std::string& member, const json& value) {
    json reply = good();
    reply[member] = value;
    return reply;
}

std::string failure(const json& reply) {
    try {
        HandoverReply::validated(reply);
    } catch (const BridgeError& e) {
        return e.message();
    }
    return "";
}

const std::string unexpected = "Vantoric Studio answered with an unexpected endpoint.";
const std::string refused = "Vantoric Studio refused the connection.";

}  // namespace

TEST(HandoverReplyRefusal, StudiosOwnTextOrTheDefault) {
    for (auto [reply, message] : std::vector<std::pair<json, std::string>>{
             {{{"ok", false}, {"error", "The person chose Don't Allow."}}, "The person chose Don't Allow."},
             {{{"error", "Studio is busy."}}, "Studio is busy."},
             {{{"ok", false}, {"error", 7}}, refused},
             {json::object(), refused},
             {with("ok", 1), refused},
             {with("ok", "true"), refused},
         }) {
        EXPECT_EQ(failure(reply), message) << reply.dump();
    }
}

TEST(HandoverReplyAccepted, LoopbackAddressesAndToken) {
    auto reply = HandoverReply::validated(good());
    EXPECT_EQ(reply.endpoint.absoluteString(), "http://127.0.0.1:54321/mcp");
    EXPECT_EQ(reply.files.absoluteString(), "http://127.0.0.1:54322");
    EXPECT_EQ(reply.token, std::string(32, 't'));
    json extra = with("something", "new");
    extra["v"] = 3.0;
    EXPECT_EQ(failure(extra), "");
    std::string accented;
    for (int i = 0; i < 31; ++i) accented += "\xC3\xA9";
    EXPECT_EQ(failure(with("token", accented + "x")), "") << "32 characters, 63 bytes";
}

TEST(HandoverReplyMalformed, EveryFieldIsChecked) {
    std::string accented;
    for (int i = 0; i < 31; ++i) accented += "\xC3\xA9";  // 31 characters, 62 bytes
    std::vector<std::pair<std::string, json>> cases = {
        {"v", 2},
        {"v", "3"},
        {"connectionId", "not-a-uuid"},
        {"connectionId", "123e4567e89b12d3a456426614174000"},
        {"connectionId", 5},
        {"endpoint", "http://localhost:54321/mcp"},
        {"endpoint", "http://127.0.0.1:54321/mcp/"},
        {"endpoint", "http://127.0.0.1:80/mcp"},
        {"files", "http://127.0.0.1:54322/"},
        {"files", "https://127.0.0.1:54322"},
        {"token", std::string(31, 't')},
        {"token", accented},
        {"token", 12345678},
    };
    for (const auto& [member, value] : cases) EXPECT_EQ(failure(with(member, value)), unexpected) << member << " = " << value.dump();
    for (const char* member : {"v", "connectionId", "endpoint", "files", "token"}) {
        json reply = good();
        reply.erase(member);
        EXPECT_EQ(failure(reply), unexpected) << "without " << member;
    }
}
