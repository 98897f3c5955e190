// What an agent writes on the bridge's standard input, however it is cut
// into lines and writes, and the lines the bridge answers with: each one
// complete, compact JSON, and only JSON-RPC on standard output.
#include <gmock/gmock.h>

#include <thread>

#include "BridgeSession.h"

using namespace testsupport;

namespace {

std::string ping(const std::string& id) { return R"({"jsonrpc":"2.0","id":)" + id + R"(,"method":"ping"})" "\n"; }
std::string pong(const std::string& id) { return R"({"jsonrpc":"2.0","id":)" + id + R"(,"result":{}})"; }
const std::string parseError = R"({"jsonrpc":"2.0","id":null,"error":{"code":-32700,"message":"Parse error"}})";

// The writes, one read each (@BIG@ stands for 20 MiB of text, @DEEP@ for
// two million opening brackets); the replies before input ends, in any
// order; and what comes after.
struct Framing {
    std::string name;
    std::vector<std::string> writes, replies;
    std::string atEnd = "";
};
void PrintTo(const Framing& framing, std::ostream* out) { *out << framing.name; }

const Framing framings[] = {
    {"InputClosedAtOnce", {}, {}},
    {"LastLineWithoutLineFeedIsHandledAtTheEnd", {ping("1") + ping("2") + R"({"jsonrpc":"2.0","id":3,"method":"ping"})"},
     {pong("1"), pong("2")}, pong("3") + "\n"},
    {"LineSplitAcrossWrites", {R"({"jsonrpc":"2.0","id":1,)", R"("method":"ping"})" "\n"}, {pong("1")}},
    {"BlankLinesAreSkippedAndIdsComeBackAsSent", {ping("1") + "\n\n" + ping("0.5") + ping("true")}, {pong("1"), pong("0.5"), pong("true")}},
    {"CarriageReturnLineFeed", {R"({"jsonrpc":"2.0","id":1,"method":"ping"})" "\r\n" + ping("2")}, {pong("1"), pong("2")}},
    {"InvalidUtf8NulOrNoObject",
     {"{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"ping\",\"params\":{\"x\":\"\xc3\x28\xff\"}}\n" + std::string(1, '\0') +
      "\x80\x81\n42\n" + ping("2")},
     {parseError, parseError, parseError, pong("2")}},
    {"TwentyMebibyteLines", {R"({"jsonrpc":"2.0","id":1,"method":"ping","params":{"padding":"@BIG@"}})" "\n@BIG@\n"},
     {pong("1"), parseError}},
    {"NestingTooDeep", {"@DEEP@\n" + ping("1")}, {parseError, pong("1")}},
};

std::string expand(std::string text) {
    if (auto at = text.find("@DEEP@"); at != std::string::npos) text.replace(at, 6, std::string(2000000, '['));
    for (size_t at; (at = text.find("@BIG@")) != std::string::npos;) text.replace(at, 5, std::string(20 << 20, 'a'));
    return text;
}

}  // namespace

class StdioFraming : public ::testing::TestWithParam<Framing> {};

TEST_P(StdioFraming, EveryMessageIsAnsweredOnALineOfItsOwnAndTheEndOfInputEndsTheServer) {
    BridgeSession session;
    ChildProcess& bridge = session.launch();
    for (const auto& bytes : GetParam().writes) {
        bridge.write(expand(bytes));
        std::this_thread::sleep_for(100ms);
    }
    std::vector<std::string> replies;
    for (size_t i = 0; i < GetParam().replies.size(); ++i) replies.push_back(bridge.readLine().value_or("(none)"));
    EXPECT_THAT(replies, ::testing::UnorderedElementsAreArray(GetParam().replies));
    EXPECT_EQ(session.finish(), GetParam().atEnd);
    EXPECT_EQ(bridge.stderrText(), "");
}

INSTANTIATE_TEST_SUITE_P(Writes, StdioFraming, ::testing::ValuesIn(framings),
                         [](const auto& info) { return info.param.name; });
