// Lines in, replies out: framing, tool-call failures, and cancellation and
// shutdown through the request table (the method table: ProtocolEraTest). Lines received in one
// turn of the strand reach the bridge before any task has run, as with
// requests still in flight.
#include <algorithm>

#include "ServerHarness.h"

using namespace testsupport;

TEST(ReceivingLines, LinesThatAreNotWholeJSONAreParseErrors) {
    const std::string ping = request(1, "ping");
    const std::vector<std::string> lines = {
        // Nesting beyond the reader's depth: refused before any tree is built.
        R"({"jsonrpc":"2.0","id":1,"method":"ping","params":{"deep":)" + std::string(100000, '[') +
            std::string(100000, ']') + "}}",
        // A NUL ends the text for the parser, which would answer the ping.
        ping + std::string(1, '\0') + "trailing",
        ping.substr(0, ping.size() - 1) + std::string(1, '\0') + "}",
    };
    for (const auto& line : lines) {
        BridgeHarness harness;
        harness.receive(line);
        EXPECT_EQ(harness.reply()["error"]["code"], -32700) << line.substr(0, 60);
    }
}

TEST(ReceivingLines, AnObjectOfAnyWidthIsReadInOneLinearPass) {
    // Members found by linear search made this line take minutes, holding
    // the ping behind it.
    std::string wide = R"({"jsonrpc":"2.0","id":1,"method":"ping","params":{)";
    for (int i = 0; i < 200000; ++i) wide += (i ? ",\"m" : "\"m") + std::to_string(i) + "\":" + std::to_string(i);
    wide += R"(,"m7":"again"}})";
    BridgeHarness harness;
    harness.receive({wide, request(2, "ping")});
    auto replies = harness.replies();
    ASSERT_EQ(replies.size(), 2u);
    EXPECT_EQ(replies[1]["id"], 2);
    auto members = Json::parse(wide)["params"];
    EXPECT_EQ(members.size(), 200000u);
    EXPECT_EQ(members["m7"], "again");  // a repeated member: the last one holds
    EXPECT_EQ(members.begin().key(), "m0");
}

TEST(ReceivingLines, EachRequestOfABatchIsAnsweredAloneAndEverythingElseYieldsNothing) {
    BridgeHarness harness;
    harness.receive({"[" + request(1, "ping") + R"(,{"jsonrpc":"2.0","method":"notifications/initialized"},)" +
                         request(2, "ping") + R"(,5,"x",null,[],{"id":9},{"id":10,"method":3}])",
                     "[]", R"({"jsonrpc":"2.0","id":5,"result":{}})", R"({"jsonrpc":"2.0","id":null,"method":"ping"})",
                     R"({"jsonrpc":"2.0","method":"ping"})"});
    auto replies = harness.replies();
    ASSERT_EQ(replies.size(), 2u);
    EXPECT_EQ(replies[0], Json::parse(R"({"jsonrpc":"2.0","id":1,"result":{}})"));
    EXPECT_EQ(replies[1], Json::parse(R"({"jsonrpc":"2.0","id":2,"result":{}})"));
    EXPECT_TRUE(harness.bridge->idle());
}

TEST(ReceivingLines, IdComesBackAsReceived) {
    const std::vector<Json> ids = {"abc/def", -3, 2.5, 18446744073709551615ull, Json::object({{"k", 1}})};
    BridgeHarness harness;
    for (const auto& id : ids) harness.receive(request(id, "ping"));
    auto replies = harness.replies();
    ASSERT_EQ(replies.size(), ids.size());
    for (size_t i = 0; i < ids.size(); ++i) EXPECT_EQ(replies[i]["id"], ids[i]);
    // Output keeps "/" as it is.
    EXPECT_NE(harness.written[0].find("\"abc/def\""), std::string::npos);
}

TEST(ToolCalls, FailuresAreErrorFlaggedResultsAndArgumentsThatAreNotAnObjectCountAsEmpty) {
    BridgeHarness harness(std::nullopt);  // only the placeholder tool, which takes no parameters
    harness.receive({request(1, "tools/call", {{"name", "studio_status"}, {"arguments", "x"}}),
                     toolCall(2, "studio_status", {{"x", 1}})});
    // Replies leave in completion order: the refusal needs no Studio.
    auto replies = harness.replies();
    ASSERT_EQ(replies.size(), 2u);
    std::sort(replies.begin(), replies.end(), [](const Json& a, const Json& b) { return a["id"] < b["id"]; });
    EXPECT_FALSE(replies[0].contains("error"));
    EXPECT_EQ(replies[0]["result"]["isError"], true);
    EXPECT_EQ(toolText(replies[0]), "Could not launch Vantoric Studio: No such file or directory");
    EXPECT_EQ(toolText(replies[1]), R"(studio_status has no parameter "x". Nothing was done. It takes no parameters.)");
}

TEST(CancellingRequests, TheKeyFindsOnlyItsOwnRequest) {
    struct Case {
        std::vector<std::string> lines;
        std::vector<Json> answeredIds;
    };
    const std::vector<Case> cases = {
        {{request(7, "ping"), request("7", "tools/list"), cancelled(7)}, {"7"}},
        {{request(3, "ping"), cancelled(3.0)}, {}},  // equal numbers written differently
        {{toolCall(1, "timeline", Json::object()), cancelled(1)}, {}},
        // A reused id takes the key over; both still answer.
        {{request(4, "ping"), request(4, "tools/list")}, {4, 4}},
        // Malformed or unknown cancellations are ignored; one with an id is a
        // request for an unknown method.
        {{request(1, "ping"), cancelled(2), R"({"jsonrpc":"2.0","method":"notifications/cancelled"})",
          R"({"jsonrpc":"2.0","method":"notifications/cancelled","params":{"id":1}})",
          R"({"jsonrpc":"2.0","method":"notifications/cancelled","params":[1]})",
          R"({"jsonrpc":"2.0","id":9,"method":"notifications/cancelled","params":{"requestId":1}})"},
         {1, 9}},
        // Protocol faults are written even when cancelled.
        {{request(1, "tools/call"), request(2, "no/such"), request(3, "prompts/get"), cancelled(1), cancelled(2),
          cancelled(3)},
         {1, 2, 3}},
    };
    for (const auto& test : cases) {
        BridgeHarness harness;
        harness.receive(test.lines);
        std::vector<Json> ids;
        for (const auto& reply : harness.replies()) ids.push_back(reply["id"]);
        EXPECT_EQ(ids, test.answeredIds) << test.lines.front();
        EXPECT_TRUE(harness.bridge->idle());
    }
}

TEST(ShuttingDown, RequestsInFlightAreCancelledAndLeaveTheTable) {
    BridgeHarness harness;
    boost::asio::post(harness.bridge->strand(), [&] {
        harness.bridge->receive(request(1, "ping"));
        harness.bridge->receive(toolCall(2, "timeline", Json::object()));
        harness.bridge->receive(request(3, "tools/call"));
        EXPECT_FALSE(harness.bridge->idle());
        boost::asio::co_spawn(harness.bridge->strand(), harness.bridge->drain(), boost::asio::detached);
    });
    harness.run();
    EXPECT_TRUE(harness.bridge->idle());
    // Only the protocol fault, which is written regardless, comes out.
    EXPECT_EQ(harness.reply()["error"]["message"], "tools/call needs a name.");
}

TEST(ShuttingDown, BridgeGoneBeforeItsTaskStartsEndsTheTaskQuietly) {
    BridgeHarness harness;
    boost::asio::post(harness.bridge->strand(), [&] {
        harness.bridge->receive(request(1, "ping"));
        harness.bridge.reset();
    });
    harness.run();
    EXPECT_TRUE(harness.written.empty());
}
