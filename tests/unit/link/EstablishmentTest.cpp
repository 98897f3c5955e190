// Obtaining a link: the establishment over a real loopback hand-over, with
// the notification centre, running applications, launcher and random source
// as recording doubles and a test thread playing Studio whenever the bridge
// announces itself.
#include <gtest/gtest.h>

#include <atomic>
#include <set>

#include "LinkTestSupport.h"
#include "link/BridgeError.h"
#include "link/Cancellation.h"
#include "link/StudioConnection.h"
#include "peer/StudioPeer.h"
#include "support/PlatformDoubles.h"

using namespace linktest;
namespace fs = std::filesystem;
using json = nlohmann::ordered_json;

namespace {

const std::string identifier = "com.lumenfold.vantoric.studio";
const std::string notification = "com.lumenfold.vantoric.studio.agent-link";
const std::string waitingMessage =
    "Waiting for permission in Vantoric Studio. Ask the person to choose Allow in Studio, then call this tool again.";
const std::string closedMessage =
    "Studio closed this agent connection. Call again to request a new connection; no edit was retried.";

std::map<std::string, std::string> queryItems(const std::string& query) {
    std::map<std::string, std::string> items;
    std::istringstream in(query);
    std::string item;
    while (std::getline(in, item, '&')) {
        auto eq = item.find('=');
        items[item.substr(0, eq)] = item.substr(eq + 1);
    }
    return items;
}

// Plays Studio: answers the announcement of each new port once, from a
// thread of its own, over a real connection.
class StudioDouble {
public:
    explicit StudioDouble(testsupport::FakeNotificationCenter& center) {
        center.onPost = [this](const testsupport::FakeNotificationCenter::Posted& posted) { onPost(posted); };
    }
    ~StudioDouble() {
        quit();
        for (auto& t : threads_) t.join();
    }

    std::function<std::string(int handover)> reply = [](int handover) {
        return json{{"ok", true},
                    {"v", 3},
                    {"connectionId", "123e4567-e89b-12d3-a456-426614174000"},
                    {"endpoint", "http://127.0.0.1:50000/mcp"},
                    {"files", "http://127.0.0.1:50001"},
                    {"token", std::string(40, 'a' + handover)}}
            .dump();
    };
    std::chrono::milliseconds askDelay{0};
    int ignoreFirst = 0;
    bool neverAnswer = false;
    bool closeWithoutReply = false;

    // Closes every connection, as a quitting Studio does.
    void quit() {
        std::lock_guard lock(mutex_);
        for (auto& c : clients_) c->close();
    }
    int handovers() const { return handovers_; }
    bool challengesMatched() const { return challengesMatched_; }
    std::set<uint16_t> ports() const {
        std::lock_guard lock(mutex_);
        return ports_;
    }
    std::vector<std::string> nonces() const {
        std::lock_guard lock(mutex_);
        return nonces_;
    }

private:
    void onPost(const testsupport::FakeNotificationCenter::Posted& posted) {
        auto items = queryItems(posted.object);
        uint16_t port = static_cast<uint16_t>(std::stoi(items["port"]));
        std::lock_guard lock(mutex_);
        ++posts_;
        if (posts_ <= ignoreFirst || ports_.count(port)) return;
        ports_.insert(port);
        int handover = handovers_++;
        threads_.emplace_back([this, port, handover, challenge = items["challenge"]] { play(port, handover, challenge); });
    }

    void play(uint16_t port, int handover, std::string challenge) {
        auto client = std::make_unique<Client>(port);
        auto greeting = client->readLine();
        if (!greeting) return;
        std::string nonce = json::parse(*greeting).value("nonce", "");
        if (StudioPeer::challenge(nonce) != challenge) challengesMatched_ = false;
        std::this_thread::sleep_for(askDelay);
        if (closeWithoutReply) return;
        // Recorded before the reply: the bridge may finish linking, and the
        // test read the nonces, before this thread runs again.
        std::lock_guard lock(mutex_);
        nonces_.push_back(nonce);
        if (!neverAnswer) client->send(reply(handover) + "\n");
        clients_.push_back(std::move(client));
    }

    mutable std::mutex mutex_;
    std::vector<std::thread> threads_;
    std::vector<std::unique_ptr<Client>> clients_;
    std::set<uint16_t> ports_;
    std::vector<std::string> nonces_;
    int posts_ = 0;
    std::atomic<int> handovers_{0};
    std::atomic<bool> challengesMatched_{true};
};

class Establishment : public ::testing::Test {
protected:
    Establishment() {
        running_.set(identifier, {{42, app_}});
        signing_.sign(42);
        durations_.linkWait = 5s;
        durations_.replyTimeout = 5s;
        durations_.notificationInterval = 20ms;
        durations_.httpTimeout = 5s;
    }
    ~Establishment() override {
        if (connection_) io_.onStrand([&] { connection_->stop(); });
    }

    void make(std::optional<fs::path> app, std::optional<Link> link = {}) {
        auto peer = std::make_shared<StudioPeer>(StudioPeer::Services{running_, sockets_, signing_}, identifier);
        StudioConnection::Services services{notifications_, running_, launcher_, random_, peer,
                                            [](const fs::path&, uint16_t, uint16_t) { return true; },
                                            identifier, notification, "vantoric-studio-link"};
        connection_ = StudioConnection::create(io_.strand(), io_.io(), std::move(app), [this] { return client_; },
                                               services, durations_, std::move(link));
    }
    void make() { make(app_); }
    std::future<Link> connect() { return io_.start(connection_->connect()); }
    std::set<uint16_t> postedPorts() const {
        std::set<uint16_t> ports;
        for (auto& p : notifications_.posted())
            ports.insert(static_cast<uint16_t>(std::stoi(queryItems(p.object)["port"])));
        return ports;
    }

    fs::path app_ = "/Applications/Vantoric Studio.app";
    std::string client_ = "A coding agent";
    LinkDurations durations_;
    testsupport::FakeNotificationCenter notifications_;
    testsupport::FakeRunningApplications running_;
    testsupport::FakeApplicationLauncher launcher_;
    testsupport::FakeSecureRandom random_;
    testsupport::FakeProcessSockets sockets_;
    testsupport::FakeCodeSigning signing_;
    StudioDouble studio_{notifications_};
    IoThread io_;
    std::shared_ptr<StudioConnection> connection_;
};

}  // namespace

using EstablishmentLaunch = Establishment;

TEST_F(EstablishmentLaunch, StudioNotRunningIsLaunchedInTheBackgroundAndLinked) {
    running_.set(identifier, {});
    make();
    testing::internal::CaptureStderr();
    auto link = connect().get();
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(launcher_.opened(), std::vector<fs::path>{app_});
    EXPECT_EQ(log,
              "vantoric-studio-mcp: launching /Applications/Vantoric Studio.app in the background\n"
              "vantoric-studio-mcp: asking Studio for its agent endpoint (it asks the person the first time)\n"
              "vantoric-studio-mcp: connected to Studio at http://127.0.0.1:50000/mcp\n");
    EXPECT_EQ(link.endpoint.absoluteString(), "http://127.0.0.1:50000/mcp");
    EXPECT_EQ(link.files.absoluteString(), "http://127.0.0.1:50001");
    EXPECT_EQ(link.token, std::string(40, 'a'));
    ASSERT_TRUE(link.lifetime);
    EXPECT_TRUE(link.lifetime->isAlive());
}

TEST_F(EstablishmentLaunch, UsableCopyRunningIsNotLaunchedAgain) {
    make();
    connect().get();
    EXPECT_TRUE(launcher_.opened().empty());
}

TEST_F(EstablishmentLaunch, CopyFromAnotherFolderGivesTheAnotherCopyMessage) {
    running_.set(identifier, {{7, fs::path("/Users/x/Old/Vantoric Studio.app")}});
    make();
    auto call = connect();
    EXPECT_EQ(failureOf(call),
              "Another copy of Vantoric Studio is running (/Users/x/Old/Vantoric Studio.app) and this agent's bridge "
              "cannot use it: it belongs to /Applications/Vantoric Studio.app. Quit that copy so this one can start, "
              "or add the bridge inside the running copy (its Settings \u25B8 Agents).");
    EXPECT_TRUE(notifications_.posted().empty());
    EXPECT_TRUE(launcher_.opened().empty());
}

TEST_F(EstablishmentLaunch, LaunchFailureNamesTheReason) {
    running_.set(identifier, {});
    launcher_.failure = platform::SystemError{ENOENT, "No such file or directory"};
    make();
    auto call = connect();
    EXPECT_EQ(failureOf(call), "Could not launch Vantoric Studio: No such file or directory");
    EXPECT_TRUE(notifications_.posted().empty());
}

TEST_F(EstablishmentLaunch, NoStudioKnownAtAll) {
    make(std::nullopt);
    auto call = connect();
    EXPECT_EQ(failureOf(call),
              "Vantoric Studio could not be found on this Mac. Install it from vantoric.studio, or set "
              "VANTORIC_STUDIO_APP to its path.");
    EXPECT_EQ(random_.calls(), 0);
}

using EstablishmentAnnouncement = Establishment;

TEST_F(EstablishmentAnnouncement, PortChallengeAndClientInTheNotification) {
    client_ = "Claude Code & Co=1";
    make();
    connect().get();
    auto posted = notifications_.posted();
    ASSERT_FALSE(posted.empty());
    EXPECT_EQ(posted[0].name, notification);
    auto items = queryItems(posted[0].object);
    EXPECT_EQ(posted[0].object.substr(0, 5), "port=");
    EXPECT_NE(posted[0].object.find("&challenge="), std::string::npos);
    EXPECT_EQ(items["client"], "Claude%20Code%20%26%20Co%3D1");
    EXPECT_EQ(items["challenge"].size(), 64u);
    EXPECT_TRUE(studio_.challengesMatched());
    // The nonce came from the secure source: bytes 0..31 in hex.
    ASSERT_EQ(studio_.nonces().size(), 1u);
    EXPECT_EQ(studio_.nonces()[0].substr(0, 8), "00010203");
}

TEST_F(EstablishmentAnnouncement, RepeatedUntilStudioMakesContactThenSilent) {
    studio_.ignoreFirst = 3;
    make();
    connect().get();
    size_t count = notifications_.posted().size();
    EXPECT_GE(count, 4u);
    std::this_thread::sleep_for(durations_.notificationInterval * 5);
    EXPECT_EQ(notifications_.posted().size(), count);
}

TEST_F(EstablishmentAnnouncement, AtMostTheGivenNumberOfAttempts) {
    studio_.ignoreFirst = 1000;
    durations_.notificationAttempts = 5;
    durations_.notificationInterval = 5ms;
    durations_.linkWait = 300ms;
    make();
    auto call = connect();
    EXPECT_EQ(failureOf(call), waitingMessage);
    EXPECT_EQ(notifications_.posted().size(), 5u);
}

TEST_F(EstablishmentAnnouncement, UnreachableBusFailsAtOnceWithItsReason) {
    notifications_.failure = platform::SystemError{ENOENT, "Could not connect to the session bus at unix:path=/x"};
    make();
    auto call = connect();
    std::string message = failureOf(call);
    EXPECT_EQ(message.rfind("Could not connect to the session bus at unix:path=/x. ", 0), 0u) << message;
    EXPECT_NE(message.find("DBUS_SESSION_BUS_ADDRESS"), std::string::npos);
    EXPECT_FALSE(io_.onStrand([&] { return connection_->hasPending(); }));
}

using EstablishmentOutcome = Establishment;

TEST_F(EstablishmentOutcome, RefusalGivesStudiosTextAndTheNextCallStartsAfresh) {
    studio_.reply = [](int handover) {
        return handover == 0 ? json{{"ok", false}, {"error", "The person chose Don't Allow."}}.dump()
                             : json{{"ok", false}}.dump();
    };
    make();
    auto first = connect();
    EXPECT_EQ(failureOf(first), "The person chose Don't Allow.");
    auto second = connect();
    EXPECT_EQ(failureOf(second), "Vantoric Studio refused the connection.");
    EXPECT_EQ(postedPorts().size(), 2u);
    auto nonces = studio_.nonces();
    ASSERT_EQ(nonces.size(), 2u);
    EXPECT_NE(nonces[0], nonces[1]);
}

TEST_F(EstablishmentOutcome, MalformedReplyIsAnUnexpectedEndpoint) {
    studio_.reply = [](int) {
        return json{{"ok", true},
                    {"v", 2},
                    {"connectionId", "123e4567-e89b-12d3-a456-426614174000"},
                    {"endpoint", "http://127.0.0.1:50000/mcp"},
                    {"files", "http://127.0.0.1:50001"},
                    {"token", std::string(40, 'a')}}
            .dump();
    };
    make();
    auto call = connect();
    EXPECT_EQ(failureOf(call), "Vantoric Studio answered with an unexpected endpoint.");
}

TEST_F(EstablishmentOutcome, StudioClosingBeforeItsReplyDidNotAnswer) {
    studio_.closeWithoutReply = true;
    make();
    auto call = connect();
    EXPECT_EQ(failureOf(call), "Vantoric Studio did not answer. Open Studio, then call this tool again.");
}

TEST_F(EstablishmentOutcome, NoReplyWithinTheReplyTimeoutDidNotAnswer) {
    studio_.neverAnswer = true;
    durations_.replyTimeout = 100ms;
    make();
    auto call = connect();
    EXPECT_EQ(failureOf(call), "Vantoric Studio did not answer. Open Studio, then call this tool again.");
}

using EstablishmentWaiting = Establishment;

TEST_F(EstablishmentWaiting, SlowPersonGetsTheWaitingMessageAndALaterCallJoins) {
    studio_.askDelay = 400ms;
    durations_.linkWait = 100ms;
    make();
    auto first = connect();
    EXPECT_EQ(failureOf(first), waitingMessage);
    EXPECT_TRUE(io_.onStrand([&] { return connection_->hasPending(); }));
    std::this_thread::sleep_for(400ms);
    auto later = connect();
    auto link = later.get();
    EXPECT_EQ(link.token, std::string(40, 'a'));
    EXPECT_EQ(postedPorts().size(), 1u);
    EXPECT_EQ(studio_.handovers(), 1);
    EXPECT_FALSE(io_.onStrand([&] { return connection_->hasPending(); }));
}

TEST_F(EstablishmentWaiting, TwoCallsAtOnceShareOneHandover) {
    studio_.askDelay = 100ms;
    make();
    auto a = connect();
    auto b = connect();
    auto linkA = a.get();
    auto linkB = b.get();
    EXPECT_EQ(linkA.lifetime, linkB.lifetime);
    EXPECT_EQ(studio_.handovers(), 1);
    EXPECT_EQ(postedPorts().size(), 1u);
}

TEST_F(EstablishmentWaiting, LiveLinkIsReturnedWithoutAnotherHandover) {
    make();
    auto first = connect().get();
    auto second = connect().get();
    EXPECT_EQ(first.lifetime, second.lifetime);
    EXPECT_EQ(studio_.handovers(), 1);
}

TEST_F(EstablishmentWaiting, StudioQuittingGivesTheClosedMessageOnceThenANewHandover) {
    make();
    auto first = connect().get();
    studio_.quit();
    for (int i = 0; i < 200 && first.lifetime->isAlive(); ++i) std::this_thread::sleep_for(5ms);
    auto closed = connect();
    EXPECT_EQ(failureOf(closed), closedMessage);
    auto again = connect().get();
    EXPECT_EQ(again.token, std::string(40, 'b'));
    EXPECT_EQ(studio_.handovers(), 2);
}

TEST_F(EstablishmentWaiting, LinkGivenAtConstructionNeverExpires) {
    auto endpoint = *URL::parse("http://127.0.0.1:50000/mcp");
    auto files = *URL::parse("http://127.0.0.1:50001");
    make(app_, Link{endpoint, files, std::string(40, 'z'), nullptr});
    EXPECT_EQ(connect().get().token, std::string(40, 'z'));
    EXPECT_TRUE(notifications_.posted().empty());
}

using EstablishmentShutdown = Establishment;

TEST_F(EstablishmentShutdown, StopWhilePendingCancelsTheCallAndStopsTheListener) {
    studio_.neverAnswer = true;
    make();
    auto call = connect();
    for (int i = 0; i < 400 && studio_.nonces().empty(); ++i) std::this_thread::sleep_for(5ms);
    ASSERT_EQ(studio_.nonces().size(), 1u);
    io_.onStrand([&] { connection_->stop(); });
    ASSERT_EQ(call.wait_for(2s), std::future_status::ready);
    EXPECT_THROW(
        try { call.get(); } catch (const std::exception& e) {
            if (cancellation::is(e)) throw std::logic_error("cancelled");
            throw;
        },
        std::logic_error);
    EXPECT_FALSE(io_.onStrand([&] { return connection_->hasPending(); }));
    auto after = connect();
    EXPECT_THROW(
        try { after.get(); } catch (const std::exception& e) {
            if (cancellation::is(e)) throw std::logic_error("cancelled");
            throw;
        },
        std::logic_error);
}

TEST_F(EstablishmentShutdown, StopEndsALiveLink) {
    make();
    auto link = connect().get();
    io_.onStrand([&] { connection_->stop(); });
    EXPECT_FALSE(link.lifetime->isAlive());
    EXPECT_FALSE(io_.onStrand([&] { return connection_->link().has_value(); }));
}

TEST(WaitingForALink, TimeoutWhenTheDurationPassesFirstAndTheTaskGoesOn) {
    IoThread io;
    auto task = std::make_shared<PendingLink>(io.strand());
    auto wait = io.start(StudioConnection::waiting(task, 50ms));
    EXPECT_THROW(wait.get(), TimeoutError);
    EXPECT_FALSE(io.onStrand([&] { return task->done; }));
    auto second = io.start(StudioConnection::waiting(task, 5s));
    io.onStrand([&] {
        task->finish(nullptr, Link{*URL::parse("http://127.0.0.1:5000/mcp"), {}, "token", nullptr});
        return 0;
    });
    EXPECT_EQ(second.get().token, "token");
}

TEST(WaitingForALink, TheTasksErrorIsRethrown) {
    IoThread io;
    auto task = std::make_shared<PendingLink>(io.strand());
    io.onStrand([&] {
        task->finish(std::make_exception_ptr(BridgeError("refused")), std::nullopt);
        return 0;
    });
    auto wait = io.start(StudioConnection::waiting(task, 5s));
    EXPECT_EQ(failureOf(wait), "refused");
}

TEST(WaitingForALink, FinishedTaskGivesItsLinkAtOnce) {
    IoThread io;
    auto task = std::make_shared<PendingLink>(io.strand());
    io.onStrand([&] {
        task->finish(nullptr, Link{*URL::parse("http://127.0.0.1:5000/mcp"), {}, "token", nullptr});
        return 0;
    });
    auto wait = io.start(StudioConnection::waiting(task, 5s));
    EXPECT_EQ(wait.get().token, "token");
}

TEST(WaitingForALink, LaterWaitAfterATimeoutGetsTheFinishedLink) {
    IoThread io;
    auto task = std::make_shared<PendingLink>(io.strand());
    auto wait = io.start(StudioConnection::waiting(task, 20ms));
    EXPECT_THROW(wait.get(), TimeoutError);
    io.onStrand([&] {
        task->finish(nullptr, Link{*URL::parse("http://127.0.0.1:5000/mcp"), {}, "token", nullptr});
        return 0;
    });
    EXPECT_TRUE(io.onStrand([&] { return task->link.has_value(); }));
    auto later = io.start(StudioConnection::waiting(task, 5s));
    EXPECT_EQ(later.get().token, "token");
}
