#include "BridgeHarness.h"

using namespace testsupport;

// Lines received in one turn of the strand: the request's task has not run
// yet when the cancellation arrives, as with a request still in flight.

TEST(CancellingRequests, NumberKeyCancelsOnlyTheNumericId) {
    BridgeHarness harness;
    harness.receive({request(7, "ping"), request("7", "tools/list"), cancelled(7)});
    auto reply = harness.reply();
    EXPECT_EQ(reply["id"], "7");
    EXPECT_TRUE(harness.bridge->calls.empty());
}

TEST(CancellingRequests, EqualNumbersWrittenDifferentlyShareAKey) {
    BridgeHarness harness;
    harness.receive({request(3, "ping"), cancelled(3.0)});
    EXPECT_TRUE(harness.written.empty());
}

TEST(CancellingRequests, CancelledToolCallWritesNothing) {
    BridgeHarness harness;
    harness.receive({toolCall(1, "timeline", Json::object()), cancelled(1)});
    EXPECT_TRUE(harness.written.empty());
    EXPECT_TRUE(harness.bridge->calls.empty());
}

TEST(CancellingRequests, ProtocolFaultsAreWrittenEvenWhenCancelled) {
    BridgeHarness harness;
    harness.receive({request(1, "tools/call"), request(2, "no/such"), request(3, "prompts/get"), cancelled(1),
                     cancelled(2), cancelled(3)});
    auto replies = harness.replies();
    ASSERT_EQ(replies.size(), 3u);
    EXPECT_EQ(replies[0]["error"]["code"], -32602);
    EXPECT_EQ(replies[1]["error"]["code"], -32601);
    EXPECT_EQ(replies[2]["error"]["code"], -32602);
}

TEST(CancellingRequests, MalformedOrUnknownCancellationsAreIgnored) {
    BridgeHarness harness;
    harness.receive({request(1, "ping"), cancelled(2),
                     R"({"jsonrpc":"2.0","method":"notifications/cancelled"})",
                     R"({"jsonrpc":"2.0","method":"notifications/cancelled","params":{"id":1}})",
                     R"({"jsonrpc":"2.0","method":"notifications/cancelled","params":[1]})",
                     R"({"jsonrpc":"2.0","id":9,"method":"notifications/cancelled","params":{"requestId":1}})"});
    // The last one has an id: it is a request, and an unknown method.
    auto replies = harness.replies();
    ASSERT_EQ(replies.size(), 2u);
    EXPECT_EQ(replies[0]["id"], 1);
    EXPECT_EQ(replies[1]["error"]["message"], "Method not found: notifications/cancelled");
}

TEST(CancellingRequests, ReusedIdReplacesTheEntryAndBothStillAnswer) {
    BridgeHarness harness;
    harness.receive({request(4, "ping"), request(4, "tools/list")});
    auto replies = harness.replies();
    ASSERT_EQ(replies.size(), 2u);
    EXPECT_TRUE(replies[0]["result"].empty());
    EXPECT_TRUE(replies[1]["result"].contains("tools"));
    EXPECT_TRUE(harness.bridge->calls.empty());
}

TEST(ShuttingDown, RequestsInFlightAreCancelledAndLeaveTheTable) {
    BridgeHarness harness;
    boost::asio::post(harness.bridge->strand(), [&] {
        harness.bridge->receive(request(1, "ping"));
        harness.bridge->receive(toolCall(2, "timeline", Json::object()));
        harness.bridge->receive(request(3, "tools/call"));
        EXPECT_EQ(harness.bridge->calls.size(), 3u);
        boost::asio::co_spawn(harness.bridge->strand(), harness.bridge->drain(), boost::asio::detached);
    });
    harness.run();
    EXPECT_TRUE(harness.bridge->stopped);
    EXPECT_TRUE(harness.bridge->calls.empty());
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
