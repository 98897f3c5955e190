// The hand-over listener over real loopback TCP, with a test client playing
// Studio and the peer check decided by the test.
#include <gtest/gtest.h>

#include <atomic>

#include "LinkTestSupport.h"
#include "link/HandshakeListener.h"

using namespace linktest;

namespace {

const std::string nonce(64, 'a');

class Handover : public ::testing::Test {
protected:
    std::shared_ptr<HandshakeListener> make(HandshakeListener::VerifyPeer verify = nullptr) {
        if (!verify) verify = [](const std::filesystem::path&, uint16_t, uint16_t) { return true; };
        listener_ = HandshakeListener::create(io_.io(), nonce, "vantoric-studio-link", "/Apps/Vantoric Studio.app",
                                              std::move(verify));
        return listener_;
    }
    uint16_t start() { return io_.run(listener_->start()); }
    std::future<nlohmann::ordered_json> reply(std::chrono::milliseconds timeout = 10s) {
        return io_.start(listener_->reply(timeout));
    }
    static bool eventually(const std::function<bool()>& condition) {
        for (int i = 0; i < 500; ++i) {
            if (condition()) return true;
            std::this_thread::sleep_for(5ms);
        }
        return condition();
    }

    IoThread io_;
    std::shared_ptr<HandshakeListener> listener_;
};

const std::string okReply = R"({"ok":true,"v":3})";

}  // namespace

using HandoverGreeting = Handover;

TEST_F(HandoverGreeting, VerifiedPeerReceivesHelloVersionAndNonceOnOneLine) {
    std::atomic<uint16_t> seenPeer{0}, seenLocal{0};
    std::filesystem::path seenApp;
    make([&](const std::filesystem::path& app, uint16_t peer, uint16_t local) {
        seenApp = app;
        seenPeer = peer;
        seenLocal = local;
        return true;
    });
    uint16_t port = start();
    Client studio(port);
    auto line = studio.readLine();
    ASSERT_TRUE(line);
    EXPECT_EQ(*line, R"({"hello":"vantoric-studio-link","v":3,"nonce":")" + nonce + "\"}");
    EXPECT_EQ(seenApp, "/Apps/Vantoric Studio.app");
    EXPECT_EQ(seenPeer, studio.localPort());
    EXPECT_EQ(seenLocal, port);
    EXPECT_TRUE(listener_->contacted());
    EXPECT_TRUE(listener_->isAlive());
}

TEST_F(HandoverGreeting, RejectedPeerIsClosedWithoutAByteAndStudioStillConnects) {
    std::atomic<int> asked{0};
    make([&](const std::filesystem::path&, uint16_t, uint16_t) { return ++asked > 1; });
    uint16_t port = start();
    testing::internal::CaptureStderr();
    Client intruder(port);
    bool closed = intruder.closedByPeer();
    ASSERT_TRUE(eventually([&] { return asked >= 1; }));
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(closed);
    EXPECT_EQ(intruder.received(), "");
    EXPECT_EQ(log, "vantoric-studio-mcp: closed a hand-over connection that was not Vantoric Studio\n");
    EXPECT_FALSE(listener_->contacted());

    Client studio(port);
    EXPECT_TRUE(studio.readLine());
    EXPECT_TRUE(listener_->contacted());
}

TEST_F(HandoverGreeting, SecondVerifiedConnectionIsClosedSilently) {
    make();
    uint16_t port = start();
    Client studio(port);
    ASSERT_TRUE(studio.readLine());
    testing::internal::CaptureStderr();
    Client second(port);
    EXPECT_TRUE(second.closedByPeer());
    EXPECT_EQ(second.received(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_TRUE(listener_->isAlive());
}

using HandoverReplyLine = Handover;

TEST_F(HandoverReplyLine, SegmentsAreJoinedUntilTheLineFeed) {
    make();
    uint16_t port = start();
    auto answer = reply();
    Client studio(port);
    ASSERT_TRUE(studio.readLine());
    studio.send(R"({"ok":tr)");
    std::this_thread::sleep_for(20ms);
    studio.send(R"(ue,"v":3})");
    std::this_thread::sleep_for(20ms);
    studio.send("\n");
    auto object = answer.get();
    EXPECT_EQ(object.dump(), okReply);
    EXPECT_TRUE(listener_->isAlive());
}

TEST_F(HandoverReplyLine, BytesAfterTheLineInTheSameSegmentAreDropped) {
    make();
    uint16_t port = start();
    Client studio(port);
    ASSERT_TRUE(studio.readLine());
    studio.send(okReply + "\n{\"ok\":false}\n");
    EXPECT_EQ(reply().get().dump(), okReply);
    EXPECT_TRUE(listener_->isAlive());
}

TEST_F(HandoverReplyLine, LineThatArrivesBeforeAnyoneWaitsIsKept) {
    make();
    uint16_t port = start();
    Client studio(port);
    ASSERT_TRUE(studio.readLine());
    studio.send(okReply + "\n");
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(reply().get().dump(), okReply);
}

TEST_F(HandoverReplyLine, FirstLineThatIsNotAnObjectWaitsForTheTimeout) {
    make();
    uint16_t port = start();
    Client studio(port);
    ASSERT_TRUE(studio.readLine());
    studio.send("[]\n");
    auto answer = reply(200ms);
    EXPECT_EQ(failureOf(answer), "Vantoric Studio did not answer. Open Studio, then call this tool again.");
    EXPECT_FALSE(listener_->isAlive());
    EXPECT_TRUE(studio.closedByPeer());
}

TEST_F(HandoverReplyLine, OversizedLineStopsTheListener) {
    make();
    uint16_t port = start();
    auto answer = reply();
    Client studio(port);
    ASSERT_TRUE(studio.readLine());
    studio.send(std::string(HandshakeListener::maximumLine, 'x'));
    EXPECT_EQ(failureOf(answer), "Vantoric Studio did not answer. Open Studio, then call this tool again.");
    EXPECT_FALSE(listener_->isAlive());
    EXPECT_TRUE(listener_->contacted());
}

TEST_F(HandoverReplyLine, StudioClosingBeforeItsReplyEndsTheWait) {
    make();
    uint16_t port = start();
    auto answer = reply();
    Client studio(port);
    ASSERT_TRUE(studio.readLine());
    studio.send("{\"ok\":");
    studio.close();
    EXPECT_EQ(failureOf(answer), "Vantoric Studio did not answer. Open Studio, then call this tool again.");
}

using HandoverLifetime = Handover;

TEST_F(HandoverLifetime, AnyByteAfterTheReplyEndsTheLink) {
    make();
    uint16_t port = start();
    Client studio(port);
    ASSERT_TRUE(studio.readLine());
    studio.send(okReply + "\n");
    reply().get();
    ASSERT_TRUE(listener_->isAlive());
    studio.send("x");
    EXPECT_TRUE(eventually([&] { return !listener_->isAlive(); }));
    EXPECT_TRUE(studio.closedByPeer());
    EXPECT_TRUE(listener_->contacted());
}

TEST_F(HandoverLifetime, StudioClosingAfterItsReplyEndsTheLink) {
    make();
    uint16_t port = start();
    Client studio(port);
    ASSERT_TRUE(studio.readLine());
    studio.send(okReply + "\n");
    reply().get();
    studio.close();
    EXPECT_TRUE(eventually([&] { return !listener_->isAlive(); }));
    EXPECT_TRUE(listener_->contacted());
}

TEST_F(HandoverLifetime, NoFurtherConnectionIsAcceptedOnceLinked) {
    make();
    uint16_t port = start();
    Client studio(port);
    ASSERT_TRUE(studio.readLine());
    studio.send(okReply + "\n");
    reply().get();
    EXPECT_THROW(
        {
            Client late(port);
            if (!late.closedByPeer(1s)) throw std::runtime_error("still accepted");
        },
        std::runtime_error);
}

TEST_F(HandoverLifetime, StoppingClosesTheConnectionAndEndsTheWait) {
    make();
    uint16_t port = start();
    auto answer = reply();
    Client studio(port);
    ASSERT_TRUE(studio.readLine());
    listener_->stop();
    EXPECT_FALSE(listener_->isAlive());
    EXPECT_TRUE(studio.closedByPeer());
    EXPECT_EQ(failureOf(answer), "Vantoric Studio did not answer. Open Studio, then call this tool again.");
}

TEST_F(HandoverLifetime, StopTwiceOrBeforeStartIsHarmless) {
    make();
    listener_->stop();
    listener_->stop();
    EXPECT_FALSE(listener_->isAlive());
    EXPECT_FALSE(listener_->contacted());
    auto answer = reply();
    EXPECT_EQ(failureOf(answer), "Vantoric Studio did not answer. Open Studio, then call this tool again.");
    auto started = io_.start(listener_->start());
    EXPECT_NE(failureOf(started), "");
}
