// Obtaining a link over a real loopback hand-over, with the platform services
// as recording doubles and a test thread playing Studio whenever the bridge
// announces itself. Launching, waiting, joining and Studio quitting are
// proven against the real simulator by the link's integration tests.
#include <gtest/gtest.h>

#include <atomic>
#include <set>

#include "LinkTestSupport.h"
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
const std::string noAnswer = "Vantoric Studio did not answer. Open Studio, then call this tool again.";

std::map<std::string, std::string> queryItems(const std::string& query) {
    std::map<std::string, std::string> items;
    std::istringstream in(query);
    for (std::string item; std::getline(in, item, '&');) items[item.substr(0, item.find('='))] = item.substr(item.find('=') + 1);
    return items;
}

bool cancelled(std::future<Link>& call) {
    try {
        call.get();
    } catch (const std::exception& e) {
        return cancellation::is(e);
    }
    return false;
}

// Plays Studio: answers the announcement of each new port once, from a
// thread of its own, over a real connection.
class StudioDouble {
public:
    explicit StudioDouble(testsupport::FakeNotificationCenter& center) {
        center.onPost = [this](const testsupport::FakeNotificationCenter::Posted& posted) { onPost(posted); };
    }
    ~StudioDouble() {
        for (auto& t : threads_) t.join();
    }

    std::function<json(int handover)> reply = [](int handover) {
        return json{{"ok", true}, {"v", 3}, {"connectionId", "123e4567-e89b-12d3-a456-426614174000"},
                    {"endpoint", "http://127.0.0.1:50000/mcp"}, {"files", "http://127.0.0.1:50001"},
                    {"token", std::string(40, 'a' + handover)}};
    };
    int ignoreFirst = 0;
    bool neverAnswer = false, closeWithoutReply = false;

    bool challengesMatched() const { return challengesMatched_; }
    std::vector<std::string> nonces() const {
        std::lock_guard lock(mutex_);
        return nonces_;
    }

private:
    void onPost(const testsupport::FakeNotificationCenter::Posted& posted) {
        auto items = queryItems(posted.object);
        uint16_t port = static_cast<uint16_t>(std::stoi(items["port"]));
        std::lock_guard lock(mutex_);
        if (++posts_ <= ignoreFirst || !ports_.insert(port).second) return;
        int handover = handovers_++;
        threads_.emplace_back([this, port, handover, challenge = items["challenge"]] {
            auto client = std::make_unique<Client>(port);
            auto greeting = client->readLine();
            if (!greeting) return;
            std::string nonce = json::parse(*greeting).value("nonce", "");
            if (StudioPeer::challenge(nonce) != challenge) challengesMatched_ = false;
            if (closeWithoutReply) return;
            // Recorded before the reply: the bridge may finish linking, and the
            // test read the nonces, before this thread runs again.
            std::lock_guard lock(mutex_);
            nonces_.push_back(nonce);
            if (!neverAnswer) client->send(reply(handover).dump() + "\n");
            clients_.push_back(std::move(client));
        });
    }

    mutable std::mutex mutex_;
    std::vector<std::thread> threads_;
    std::vector<std::unique_ptr<Client>> clients_;
    std::set<uint16_t> ports_;
    std::vector<std::string> nonces_;
    int posts_ = 0;
    int handovers_ = 0;
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
    bool pending() { return io_.onStrand([&] { return connection_->hasPending(); }); }
    size_t postedPorts() const {
        std::set<std::string> ports;
        for (auto& p : notifications_.posted()) ports.insert(queryItems(p.object)["port"]);
        return ports.size();
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

TEST_F(EstablishmentLaunch, FailuresBeforeAnyAnnouncementNameTheirCause) {
    struct Case {
        std::function<void()> setUp;
        std::optional<fs::path> app;
        size_t launches;
        std::string message;
    };
    std::vector<Case> cases = {
        {[this] { running_.set(identifier, {{7, fs::path("/Users/x/Old/Vantoric Studio.app")}}); },
         app_, 0,
         "Another copy of Vantoric Studio is running (/Users/x/Old/Vantoric Studio.app) and this agent's bridge "
         "cannot use it: it belongs to /Applications/Vantoric Studio.app. Quit that copy so this one can start, "
         "or add the bridge inside the running copy (its Settings \u25B8 Agents)."},
        {[this] {
             running_.set(identifier, {});
             launcher_.failure = platform::SystemError{ENOENT, "No such file or directory"};
         },
         app_, 1, "Could not launch Vantoric Studio: No such file or directory"},
        {[] {}, std::nullopt, 0,
         "Vantoric Studio could not be found on this Mac. Install it from vantoric.studio, or set "
         "VANTORIC_STUDIO_APP to its path."},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.message);
        c.setUp();
        size_t launched = launcher_.opened().size();
        int drawn = random_.calls();
        make(c.app);
        EXPECT_EQ(failureOf(connect()), c.message);
        EXPECT_TRUE(notifications_.posted().empty());
        EXPECT_EQ(launcher_.opened().size() - launched, c.launches);
        if (!c.app) {
            EXPECT_EQ(random_.calls(), drawn) << "nothing to link to: no nonce drawn";
        }
    }
}

using EstablishmentAnnouncement = Establishment;

TEST_F(EstablishmentAnnouncement, PortChallengeAndClientInTheNotification) {
    client_ = "Claude Code & Co=1";
    make();
    auto link = connect().get();
    EXPECT_TRUE(launcher_.opened().empty()) << "a usable copy was running";
    EXPECT_EQ(link.endpoint.absoluteString(), "http://127.0.0.1:50000/mcp");
    EXPECT_EQ(link.files.absoluteString(), "http://127.0.0.1:50001");
    EXPECT_EQ(link.token, std::string(40, 'a'));
    ASSERT_TRUE(link.lifetime);
    EXPECT_TRUE(link.lifetime->isAlive());
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
    EXPECT_EQ(failureOf(connect()), waitingMessage);
    EXPECT_EQ(notifications_.posted().size(), 5u);
}

using EstablishmentOutcome = Establishment;

TEST_F(EstablishmentOutcome, RefusalGivesStudiosTextAndTheNextCallStartsAfresh) {
    studio_.reply = [](int handover) {
        return handover == 0 ? json{{"ok", false}, {"error", "The person chose Don't Allow."}} : json{{"ok", false}};
    };
    make();
    EXPECT_EQ(failureOf(connect()), "The person chose Don't Allow.");
    EXPECT_EQ(failureOf(connect()), "Vantoric Studio refused the connection.");
    EXPECT_EQ(postedPorts(), 2u);
    auto nonces = studio_.nonces();
    ASSERT_EQ(nonces.size(), 2u);
    EXPECT_NE(nonces[0], nonces[1]);
}

TEST_F(EstablishmentOutcome, StudioClosingOrSilentBeforeItsReplyDidNotAnswer) {
    for (bool closes : {true, false}) {
        SCOPED_TRACE(closes ? "closes" : "silent");
        studio_.closeWithoutReply = closes;
        studio_.neverAnswer = !closes;
        durations_.replyTimeout = 100ms;
        make();
        EXPECT_EQ(failureOf(connect()), noAnswer);
        io_.onStrand([&] { connection_->stop(); });
    }
}

using EstablishmentWaiting = Establishment;

TEST_F(EstablishmentWaiting, LinkGivenAtConstructionNeverExpires) {
    make(app_, Link{*URL::parse("http://127.0.0.1:50000/mcp"), *URL::parse("http://127.0.0.1:50001"),
                    std::string(40, 'z'), nullptr});
    EXPECT_EQ(connect().get().token, std::string(40, 'z'));
    EXPECT_TRUE(notifications_.posted().empty());
}

using EstablishmentShutdown = Establishment;

TEST_F(EstablishmentShutdown, StopCancelsAPendingCallAndEveryLaterOne) {
    studio_.neverAnswer = true;
    make();
    auto call = connect();
    for (int i = 0; i < 400 && studio_.nonces().empty(); ++i) std::this_thread::sleep_for(5ms);
    ASSERT_EQ(studio_.nonces().size(), 1u);
    io_.onStrand([&] { connection_->stop(); });
    ASSERT_EQ(call.wait_for(2s), std::future_status::ready);
    EXPECT_TRUE(cancelled(call));
    EXPECT_FALSE(pending());
    auto after = connect();
    EXPECT_TRUE(cancelled(after));
}

TEST_F(EstablishmentShutdown, StopEndsALiveLink) {
    make();
    auto link = connect().get();
    io_.onStrand([&] { connection_->stop(); });
    EXPECT_FALSE(link.lifetime->isAlive());
    EXPECT_FALSE(io_.onStrand([&] { return connection_->link().has_value(); }));
}
