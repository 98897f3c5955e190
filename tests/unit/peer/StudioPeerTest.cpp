// The peer checks over recording doubles: which process is accepted as
// Studio, which running copies count, the requirement text, the challenge,
// and the loopback URLs Studio may hand back.
#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>

#include "peer/StudioPeer.h"
#include "support/PlatformDoubles.h"
#include "support/TempDir.h"

namespace fs = std::filesystem;
using peer::percentEncodeQueryValue;
using peer::StudioPeer;
using peer::URL;
using platform::RunningApplication;

namespace {

constexpr const char* identifier = "com.lumenfold.vantoric.studio";

// One machine as the doubles describe it.
struct PeerWorld {
    PeerWorld() { fs::create_directories(app_); }

    StudioPeer peer() { return StudioPeer({running_, sockets_, signing_}, identifier); }

    testsupport::TempDir dir_;
    fs::path app_ = dir_.path() / "Vantoric Studio.app";
    fs::path elsewhere_ = dir_.path() / "Old" / "Vantoric Studio.app";
    testsupport::FakeRunningApplications running_;
    testsupport::FakeProcessSockets sockets_;
    testsupport::FakeCodeSigning signing_;
    std::pair<uint16_t, uint16_t> ports_{50001, 40000};
};

class PeerChecks : public ::testing::Test, public PeerWorld {};
using VerifiedStudio = PeerChecks;
using Eligibility = PeerChecks;

}  // namespace

TEST_F(VerifiedStudio, EveryHolderOfTheExactSocketMustBeAValidStudioOfThisUser) {
    struct Case {
        const char* what;
        std::function<void(PeerWorld&)> arrange;
        std::optional<pid_t> studio;
    };
    const uid_t own = getuid();
    const Case cases[] = {
        {"the one holder is Studio", [](PeerWorld&) {}, 100},
        {"two copies hold it", [](PeerWorld& t) { t.sockets_.hold(200, {7}); }, 100},
        {"no socket has the four-tuple", [](PeerWorld& t) { t.ports_ = {50009, 40000}; }, std::nullopt},
        {"the socket is another user's",
         [own](PeerWorld& t) { t.sockets_.connection(50001, 40000, {7, own + 1}); }, std::nullopt},
        {"a process that is not Studio holds it too", [](PeerWorld& t) { t.sockets_.hold(300, {9, 7}); },
         std::nullopt},
        {"the Studio holding it is stopped or traced", [](PeerWorld& t) { t.signing_.hinder(100); },
         std::nullopt},
        {"a copy from elsewhere holds it", [](PeerWorld& t) { t.running_.setFrom(t.app_, {200}); }, std::nullopt},
        {"no Studio holds it, only others", [](PeerWorld& t) { t.sockets_.hold(100, {8}); t.sockets_.hold(300, {7}); },
         std::nullopt},
        {"a process that might hold it cannot be searched", [](PeerWorld& t) { t.sockets_.unreadable(400); },
         std::nullopt},
    };
    for (const auto& c : cases) {
        PeerWorld t;
        t.running_.setFrom(t.app_, {100, 200});
        t.sockets_.connection(50001, 40000, {7, own});
        t.sockets_.hold(100, {3, 7});
        t.sockets_.hold(200, {4});
        for (pid_t pid : {100, 200, 300}) t.signing_.sign(pid);
        c.arrange(t);
        EXPECT_EQ(t.peer().studio(t.app_, t.ports_.first, t.ports_.second), c.studio) << c.what;
    }
}

TEST_F(VerifiedStudio, LookAtProcessesIsSharedOnlyByConnectionsAcceptedBeforeIt) {
    running_.setFrom(app_, {100});
    sockets_.connection(50001, 40000, {7, getuid()});
    sockets_.hold(100, {7});
    signing_.sign(100);
    auto checks = peer();
    auto accepted = StudioPeer::Clock::now();
    EXPECT_EQ(checks.studio(app_, 50001, 40000, accepted), 100);
    // Studio quits; a connection accepted before the last look may still
    // rely on it, one accepted after may not.
    running_.setFrom(app_, {});
    EXPECT_EQ(checks.studio(app_, 50001, 40000, accepted), 100);
    EXPECT_FALSE(checks.studio(app_, 50001, 40000, StudioPeer::Clock::now()));
}

TEST_F(Eligibility, WithoutTeamOnlyCopiesRunningFromTheServedBundleWithTeamEveryCopyInPlatformOrder) {
    fs::create_directories(elsewhere_);
    fs::create_directory_symlink(app_, dir_.path() / "link.app");
    running_.set(identifier, {{1, elsewhere_}, {2, app_}, {3, std::nullopt}, {4, dir_.path() / "link.app"},
                              {5, dir_.path() / "Old" / ".." / "Vantoric Studio.app"}});
    EXPECT_EQ(peer().eligible(app_), (std::vector<pid_t>{2, 4, 5}));
    signing_.setTeam("TEAM123");
    running_.set(identifier, {{9, elsewhere_}, {3, std::nullopt}, {5, app_}});
    EXPECT_EQ(peer().eligible(app_), (std::vector<pid_t>{9, 3, 5}));
}

TEST_F(PeerChecks, RequirementNamesTheIdentifierAndTheTeamReadOnce) {
    auto checks = peer();
    EXPECT_EQ(checks.requirement(), "identifier \"com.lumenfold.vantoric.studio\"");
    signing_.sign(7);
    EXPECT_TRUE(checks.signedAsStudio(7));
    EXPECT_EQ(signing_.checked().back().second, "identifier \"com.lumenfold.vantoric.studio\"");

    signing_.setTeam("AB12CD34EF");
    EXPECT_EQ(peer().requirement(),
              "identifier \"com.lumenfold.vantoric.studio\" and anchor apple generic and certificate "
              "leaf[subject.OU] = \"AB12CD34EF\"");
    auto teamed = peer();
    int reads = signing_.teamReads();
    signing_.setTeam("T1");
    EXPECT_EQ(teamed.ownTeam(), "T1") << "read when first needed";
    signing_.setTeam("T2");
    EXPECT_EQ(teamed.ownTeam(), "T1");
    teamed.requirement();
    teamed.eligible(app_);
    EXPECT_EQ(signing_.teamReads(), reads + 1);
}

TEST_F(PeerChecks, UnusableCopyIsNamedByItsLocation) {
    struct Case {
        std::vector<RunningApplication> running;
        std::optional<std::string> unusable;
    };
    signing_.sign(2);
    for (const auto& c : std::vector<Case>{
             {{}, std::nullopt},
             {{{1, elsewhere_}, {2, app_}}, std::nullopt},  // a usable copy runs too
             {{{1, elsewhere_}, {3, app_}}, elsewhere_.string()},
             {{{1, std::nullopt}}, "another location"},
             {{{4, app_}}, app_.string()},  // from the served bundle but not signed as Studio
         }) {
        running_.set(identifier, c.running);
        EXPECT_EQ(peer().unusableCopy(app_), c.unusable) << c.running.size();
    }
}

TEST(Challenge, Sha256OfTheNonceInLowercaseHex) {
    EXPECT_EQ(StudioPeer::challenge("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(LoopbackURL, McpEndpointAcceptedOnlyExactlyAndTheFilesBaseWithTheEmptyPath) {
    auto ok = StudioPeer::loopback("http://127.0.0.1:54321/mcp", "/mcp");
    ASSERT_TRUE(ok);
    EXPECT_EQ(ok->port, 54321);
    EXPECT_EQ(ok->absoluteString(), "http://127.0.0.1:54321/mcp");
    EXPECT_TRUE(StudioPeer::loopback("http://127.0.0.1:1024/mcp", "/mcp"));
    for (const char* refused :
         {"http://127.0.0.1:54321/mcp/", "http://localhost:54321/mcp", "https://127.0.0.1:54321/mcp",
          "http://127.0.0.1/mcp", "http://127.0.0.1:1023/mcp", "http://127.0.0.1:54321/mcp?x=1",
          "http://127.0.0.1:54321/mcp?", "http://user@127.0.0.1:54321/mcp", "http://u:p@127.0.0.1:54321/mcp",
          "HTTP://127.0.0.1:54321/mcp", "http://127.0.0.1:/mcp", "http://127.0.0.1:65536/mcp",
          "http://127.0.0.1:5x321/mcp", "http://[::1]:54321/mcp", "http://127.0.0.1:54321/m cp",
          "http://127.0.0.1:54321/%zz", "127.0.0.1:54321/mcp", "http://0x7f.0.0.1:54321/mcp", ""})
        EXPECT_FALSE(StudioPeer::loopback(refused, "/mcp")) << refused;
    EXPECT_FALSE(StudioPeer::loopback(std::nullopt, "/mcp"));
    EXPECT_TRUE(StudioPeer::loopback("http://127.0.0.1:54322"));
    EXPECT_FALSE(StudioPeer::loopback("http://127.0.0.1:54322/"));
    EXPECT_FALSE(StudioPeer::loopback("http://127.0.0.1:54322/mcp"));
}

TEST(URLComponents, AppendedComponentsAndQueryValuesAreEncoded) {
    auto files = URL::parse("http://127.0.0.1:54322");
    ASSERT_TRUE(files);
    auto upload = files->appendingPathComponent("uploads");
    upload.query = "name=" + percentEncodeQueryValue("my clip & more=1+2#.mov");
    EXPECT_EQ(upload.absoluteString(), "http://127.0.0.1:54322/uploads?name=my%20clip%20%26%20more%3D1%2B2%23.mov");
    EXPECT_EQ(upload.target(), "/uploads?name=my%20clip%20%26%20more%3D1%2B2%23.mov");
    EXPECT_EQ(files->appendingPathComponent("downloads").appendingPathComponent("a/b c").path,
              "/downloads/a%2Fb%20c");
    EXPECT_EQ(files->target(), "/");
    // Found by fuzzing: an empty port after a host that holds a colon.
    EXPECT_FALSE(URL::parse("http://user:phttp:/x#f"));
    EXPECT_EQ(URL::parse("http://127.0.0.1:08642/mcp")->port, 8642);
    EXPECT_EQ(files->authority(), "127.0.0.1:54322");
}
