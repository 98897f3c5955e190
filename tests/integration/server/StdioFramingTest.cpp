#include "BridgeSession.h"

using namespace testsupport;

TEST(StdioFraming, InputClosedAtOnceEndsQuietly) {
    BridgeSession session;
    int status = -1;
    EXPECT_EQ(session.finish(&status), "");
    EXPECT_EQ(status, 0);
    EXPECT_EQ(session.child().stderrText(), "");
}

TEST(StdioFraming, TwoMessagesInOneWriteAndALastWithoutLineFeed) {
    BridgeSession session;
    std::string third = request(3, "ping");
    third.pop_back();
    session.send(request(1, "ping") + request(2, "ping") + third);
    auto replies = session.next(2);
    EXPECT_EQ(replies.size(), 2u);
    // The third is handled only once input ends.
    int status = -1;
    std::string rest = session.finish(&status);
    EXPECT_EQ(rest, R"({"jsonrpc":"2.0","id":3,"result":{}})" "\n");
    EXPECT_EQ(status, 0);
}

TEST(StdioFraming, BlankLinesGetNoReplyAndNoError) {
    BridgeSession session;
    session.send(request(1, "ping") + "\n\n" + request(2, "ping"));
    EXPECT_EQ(session.next(2).size(), 2u);
    EXPECT_EQ(session.finish(), "");
    EXPECT_EQ(session.child().stderrText(), "");
}

TEST(StdioFraming, CarriageReturnLineFeedEndsALineToo) {
    BridgeSession session;
    std::string line = request(1, "ping");
    line.insert(line.size() - 1, "\r");
    session.send(line + line);
    auto replies = session.next(2);
    EXPECT_EQ(replies.begin()->second, Json::parse(R"({"jsonrpc":"2.0","id":1,"result":{}})"));
    EXPECT_EQ(session.finish(), "");
}

TEST(StdioFraming, EachReplyIsOneLineWithSlashesUnescaped) {
    BridgeSession session;
    session.send(request("a/b", "ping"));
    auto line = session.child().readLine();
    EXPECT_EQ(line, R"({"jsonrpc":"2.0","id":"a/b","result":{}})");
    EXPECT_EQ(session.finish(), "");
}

TEST(StdioFraming, BatchElementsAreAnsweredAlone) {
    BridgeSession session;
    Json batch = Json::array({Json::parse(request(1, "ping")), {{"jsonrpc", "2.0"}, {"method", "notifications/initialized"}},
                              Json::parse(request(2, "tools/list")), 5, "junk", nullptr, Json::array(),
                              {{"jsonrpc", "2.0"}, {"id", 9}, {"result", Json::object()}}});
    session.send(batch.dump() + "\n[]\n");
    auto replies = session.next(2);
    ASSERT_EQ(replies.size(), 2u);
    EXPECT_EQ(replies["1"]["result"], Json::object());
    EXPECT_TRUE(replies["2"]["result"]["tools"].is_array());
    EXPECT_EQ(session.finish(), "");
}
