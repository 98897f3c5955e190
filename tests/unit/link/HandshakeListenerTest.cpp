// The hand-over listener over real loopback TCP, with a test client playing
// Studio and the peer check decided by the test.
#include <gtest/gtest.h>

#include <atomic>

#include "LinkTestSupport.h"
#include "link/HandshakeListener.h"

using namespace linktest;

namespace {

const std::string nonce(64, 'a');
const std::string okReply = R"({"ok":true,"v":3})";
const std::string noAnswer = "Vantoric Studio did not answer. Open Studio, then call this tool again.";

class Handover : public ::testing::Test {
protected:
    uint16_t start(HandshakeListener::VerifyPeer verify = [](const std::filesystem::path&, uint16_t, uint16_t) {
        return true;
    }) {
        listener_ = HandshakeListener::create(io_.io(), nonce, "vantoric-studio-link", "/Apps/Vantoric Studio.app",
                                              std::move(verify));
        return port_ = io_.run(listener_->start());
    }
    // Studio connected and greeted.
    std::unique_ptr<Client> studio() {
        auto client = std::make_unique<Client>(port_);
        EXPECT_TRUE(client->readLine()) << "no greeting";
        return client;
    }
    std::future<nlohmann::ordered_json> reply(std::chrono::milliseconds timeout = 10s) {
        return io_.start(listener_->reply(timeout));
    }
    static bool eventually(const std::function<bool()>& condition) {
        for (int i = 0; i < 500 && !condition(); ++i) std::this_thread::sleep_for(5ms);
        return condition();
    }

    IoThread io_;
    std::shared_ptr<HandshakeListener> listener_;
    uint16_t port_ = 0;
};

}  // namespace

using HandoverGreeting = Handover;

TEST_F(HandoverGreeting, VerifiedPeerReceivesHelloVersionAndNonceOnOneLine) {
    std::atomic<uint16_t> seenPeer{0}, seenLocal{0};
    std::filesystem::path seenApp;
    uint16_t port = start([&](const std::filesystem::path& app, uint16_t peer, uint16_t local) {
        seenApp = app;
        seenPeer = peer;
        seenLocal = local;
        return true;
    });
    Client studio(port);
    EXPECT_EQ(studio.readLine(), R"({"hello":"vantoric-studio-link","v":3,"nonce":")" + nonce + "\"}");
    EXPECT_EQ(seenApp, "/Apps/Vantoric Studio.app");
    EXPECT_EQ(seenPeer, studio.localPort());
    EXPECT_EQ(seenLocal, port);
    EXPECT_TRUE(listener_->contacted());
    EXPECT_TRUE(listener_->isAlive());
}

TEST_F(HandoverGreeting, SecondVerifiedConnectionIsClosedSilently) {
    start();
    auto first = studio();
    testing::internal::CaptureStderr();
    Client second(port_);
    EXPECT_TRUE(second.closedByPeer());
    EXPECT_EQ(second.received(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_TRUE(listener_->isAlive());
}

using HandoverReplyLine = Handover;

TEST_F(HandoverReplyLine, SegmentsAreJoinedUntilTheLineFeedAndWhatFollowsIsDropped) {
    start();
    auto answer = reply();
    auto client = studio();
    for (std::string segment : {R"({"ok":tr)", R"(ue,"v":3})", "\n{\"ok\":false}\n"}) {
        client->send(segment);
        std::this_thread::sleep_for(20ms);
    }
    EXPECT_EQ(answer.get().dump(), okReply);
    EXPECT_TRUE(listener_->isAlive());
}

TEST_F(HandoverReplyLine, LineThatArrivesBeforeAnyoneWaitsIsKept) {
    start();
    studio()->send(okReply + "\n");
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(reply().get().dump(), okReply);
}

TEST_F(HandoverReplyLine, BadOrMissingLineEndsTheWaitAndTheListener) {
    struct Case {
        const char* name;
        std::chrono::milliseconds timeout;  // a line that is not an object is ignored until the timeout
        std::function<void(Client&)> studioDoes;
    };
    for (const Case& c : std::vector<Case>{
             {"not an object", 200ms, [](Client& s) { s.send("[]\n"); }},
             {"oversized", 10s, [](Client& s) { s.send(std::string(HandshakeListener::maximumLine, 'x')); }},
             {"closed mid-line", 10s, [](Client& s) { s.send("{\"ok\":"), s.close(); }},
         }) {
        SCOPED_TRACE(c.name);
        start();
        auto answer = reply(c.timeout);
        auto client = studio();
        c.studioDoes(*client);
        EXPECT_EQ(failureOf(answer), noAnswer);
        EXPECT_FALSE(listener_->isAlive());
        EXPECT_TRUE(listener_->contacted());
    }
}

using HandoverLifetime = Handover;

TEST_F(HandoverLifetime, AnyByteOrCloseAfterTheReplyEndsTheLink) {
    for (bool closes : {false, true}) {
        SCOPED_TRACE(closes ? "close" : "byte");
        start();
        auto client = studio();
        client->send(okReply + "\n");
        reply().get();
        ASSERT_TRUE(listener_->isAlive());
        if (closes) client->close();
        else client->send("x");
        EXPECT_TRUE(eventually([&] { return !listener_->isAlive(); }));
        if (!closes) {
            EXPECT_TRUE(client->closedByPeer());
        }
    }
}

TEST_F(HandoverLifetime, NoFurtherConnectionIsAcceptedOnceLinked) {
    start();
    auto client = studio();
    client->send(okReply + "\n");
    reply().get();
    EXPECT_THROW(
        {
            Client late(port_);
            if (!late.closedByPeer(1s)) throw std::runtime_error("still accepted");
        },
        std::runtime_error);
}

TEST_F(HandoverLifetime, StoppingClosesTheConnectionAndEndsTheWait) {
    start();
    auto answer = reply();
    auto client = studio();
    listener_->stop();
    EXPECT_FALSE(listener_->isAlive());
    EXPECT_TRUE(client->closedByPeer());
    EXPECT_EQ(failureOf(answer), noAnswer);
}

TEST_F(HandoverLifetime, StopTwiceOrBeforeStartIsHarmless) {
    listener_ = HandshakeListener::create(io_.io(), nonce, "vantoric-studio-link", "/x.app",
                                          [](const std::filesystem::path&, uint16_t, uint16_t) { return true; });
    listener_->stop();
    listener_->stop();
    EXPECT_FALSE(listener_->isAlive());
    EXPECT_FALSE(listener_->contacted());
    EXPECT_EQ(failureOf(reply()), noAnswer);
    EXPECT_NE(failureOf(io_.start(listener_->start())), "");
}
