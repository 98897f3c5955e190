// Judging Studio's reply line: refusals in Studio's words, every malformed
// field as the one unexpected-endpoint message.
#include <gtest/gtest.h>

#include "link/BridgeError.h"
#include "link/HandoverReply.h"

namespace {

using json = nlohmann::ordered_json;

json good() {
    return json{{"ok", true},
                {"v", 3},
                {"connectionId", "123E4567-e89b-12d3-a456-426614174000"},
                {"endpoint", "http://127.0.0.1:54321/mcp"},
                {"files", "http://127.0.0.1:54322"},
                {"token", std::string(32, 't')}};
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

}  // namespace

TEST(HandoverReplyRefusal, StudiosOwnTextOrTheDefault) {
    EXPECT_EQ(failure({{"ok", false}, {"error", "The person chose Don't Allow."}}), "The person chose Don't Allow.");
    EXPECT_EQ(failure({{"error", "Studio is busy."}}), "Studio is busy.");
    EXPECT_EQ(failure({{"ok", false}, {"error", 7}}), "Vantoric Studio refused the connection.");
    EXPECT_EQ(failure(json::object()), "Vantoric Studio refused the connection.");
    json truthy = good();
    truthy["ok"] = 1;
    EXPECT_EQ(failure(truthy), "Vantoric Studio refused the connection.");
    json text = good();
    text["ok"] = "true";
    EXPECT_EQ(failure(text), "Vantoric Studio refused the connection.");
}

TEST(HandoverReplyAccepted, LoopbackAddressesAndToken) {
    auto reply = HandoverReply::validated(good());
    EXPECT_EQ(reply.endpoint.absoluteString(), "http://127.0.0.1:54321/mcp");
    EXPECT_EQ(reply.files.absoluteString(), "http://127.0.0.1:54322");
    EXPECT_EQ(reply.token, std::string(32, 't'));
    json extra = good();
    extra["something"] = "new";
    extra["v"] = 3.0;
    EXPECT_EQ(failure(extra), "");
}

TEST(HandoverReplyMalformed, EveryFieldIsChecked) {
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
        {"token", 12345678},
    };
    for (const auto& [member, value] : cases) {
        json reply = good();
        reply[member] = value;
        EXPECT_EQ(failure(reply), unexpected) << member << " = " << value.dump();
    }
    for (const char* member : {"v", "connectionId", "endpoint", "files", "token"}) {
        json reply = good();
        reply.erase(member);
        EXPECT_EQ(failure(reply), unexpected) << "without " << member;
    }
}

TEST(HandoverReplyMalformed, TokenLengthCountsCharactersNotBytes) {
    json reply = good();
    std::string accented;
    for (int i = 0; i < 31; ++i) accented += "\xC3\xA9";  // 31 characters, 62 bytes
    reply["token"] = accented;
    EXPECT_EQ(failure(reply), unexpected);
    reply["token"] = accented + "x";
    EXPECT_EQ(failure(reply), "");
}
