#include <fcntl.h>
#include <unistd.h>

#include <future>

#include <boost/asio/executor_work_guard.hpp>

#include "BridgeHarness.h"
#include "server/InputLoop.h"

using namespace testsupport;

namespace {
std::vector<std::string> split(std::initializer_list<std::string_view> chunks, std::optional<std::string>* last = nullptr) {
    LineSplitter splitter;
    std::vector<std::string> lines;
    for (auto chunk : chunks) {
        // The views last only until the next read: copy them at once.
        std::string bytes(chunk);
        std::vector<std::string_view> views;
        splitter.feed(bytes, views);
        lines.insert(lines.end(), views.begin(), views.end());
    }
    auto rest = splitter.finish();
    if (last) *last = rest;
    return lines;
}
}  // namespace

TEST(CuttingLines, LinesAcrossReadsAndSeveralInOne) {
    std::optional<std::string> last;
    auto lines = split({"one\ntw", "o\nthr", "ee\nfour"}, &last);
    EXPECT_EQ(lines, (std::vector<std::string>{"one", "two", "three"}));
    EXPECT_EQ(last, "four");
}

TEST(CuttingLines, EmptyLinesVanishCarriageReturnsStay) {
    std::optional<std::string> last;
    auto lines = split({"\n\na\r\n", "\n", "b\n"}, &last);
    EXPECT_EQ(lines, (std::vector<std::string>{"a\r", "b"}));
    EXPECT_EQ(last, std::nullopt);
}

TEST(CuttingLines, ZeroBytesAreOrdinary) {
    auto lines = split({std::string_view("a\0b\n", 4)});
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], std::string("a\0b", 3));
}

TEST(ReadingInput, EveryLineIsReceivedThenTheBridgeDrains) {
    BridgeHarness harness;
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
    std::string input = request(1, "ping") + "\n\n" + request(2, "ping") + "\r\n" + request(3, "ping");
    ASSERT_EQ(write(fds[1], input.data(), input.size()), static_cast<ssize_t>(input.size()));
    close(fds[1]);

    bool finished = false;
    auto work = boost::asio::make_work_guard(harness.context);
    std::thread reader = startInputLoop(fds[0], harness.bridge, [&] {
        finished = true;
        work.reset();
    });
    harness.context.run();
    reader.join();
    close(fds[0]);

    EXPECT_TRUE(finished);
    EXPECT_TRUE(harness.bridge->stopped);
    auto replies = harness.replies();
    ASSERT_EQ(replies.size(), 3u);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(replies[i]["id"], i + 1);
}

TEST(ReadingInput, ReadFailureIsLoggedAndStillDrains) {
    BridgeHarness harness;
    bool finished = false;
    auto work = boost::asio::make_work_guard(harness.context);
    std::thread reader = startInputLoop(-1, harness.bridge, [&] {
        finished = true;
        work.reset();
    });
    harness.context.run();
    reader.join();
    EXPECT_TRUE(finished);
    EXPECT_TRUE(harness.bridge->stopped);
    EXPECT_TRUE(harness.written.empty());
}
