// The peer checks over recording doubles: which process is accepted as
// Studio, which running copies count, the requirement text, the challenge,
// and the loopback URLs Studio may hand back.
#include <gtest/gtest.h>

#include "peer/StudioPeer.h"
#include "support/PlatformDoubles.h"
#include "support/TempDir.h"

namespace fs = std::filesystem;
using platform::RunningApplication;

namespace {

constexpr const char* identifier = "com.lumenfold.vantoric.studio";

class PeerChecks : public ::testing::Test {
protected:
    PeerChecks() { fs::create_directories(app_); }

    StudioPeer peer() { return StudioPeer({running_, sockets_, signing_}, identifier); }

    testsupport::TempDir dir_;
    fs::path app_ = dir_.path() / "Vantoric Studio.app";
    fs::path elsewhere_ = dir_.path() / "Old" / "Vantoric Studio.app";
    testsupport::FakeRunningApplications running_;
    testsupport::FakeProcessSockets sockets_;
    testsupport::FakeCodeSigning signing_;
};

}  // namespace

using VerifiedStudio = PeerChecks;

TEST_F(VerifiedStudio, ProcessOwningThePortPairFromItsSideAndSigned) {
    running_.set(identifier, {{100, app_}, {200, app_}, {300, app_}});
    sockets_.set(100, {{50001, 40000}});
    sockets_.set(200, {{7, 8}, {50002, 40000}});
    sockets_.set(300, {{40000, 50003}});  // the bridge's own view of the pair is not Studio's
    sockets_.set(400, {{50004, 40000}});  // not a running Studio
    signing_.sign(100);
    signing_.sign(200);
    signing_.sign(300);
    signing_.sign(400);
    EXPECT_EQ(peer().studio(app_, 50002, 40000), 200);
    EXPECT_EQ(peer().studio(app_, 50001, 40000), 100);
    EXPECT_FALSE(peer().studio(app_, 50003, 40000));
    EXPECT_FALSE(peer().studio(app_, 50004, 40000));
    EXPECT_EQ(running_.asked().back(), identifier);
}

TEST_F(VerifiedStudio, UnsignedOwnerOrUnreadableSocketsAreRefused) {
    running_.set(identifier, {{100, app_}, {200, app_}});
    sockets_.set(100, {{50001, 40000}});
    signing_.sign(200);  // 200's sockets cannot be read
    EXPECT_FALSE(peer().studio(app_, 50001, 40000));
    EXPECT_FALSE(peer().studio(app_, 50002, 40000));
}

using Eligibility = PeerChecks;

TEST_F(Eligibility, WithoutTeamOnlyCopiesRunningFromTheServedBundle) {
    fs::create_directories(elsewhere_);
    fs::create_directory_symlink(app_, dir_.path() / "link.app");
    running_.set(identifier, {{1, elsewhere_},
                              {2, app_},
                              {3, std::nullopt},
                              {4, dir_.path() / "link.app"},
                              {5, dir_.path() / "Old" / ".." / "Vantoric Studio.app"}});
    EXPECT_EQ(peer().eligible(app_), (std::vector<pid_t>{2, 4, 5}));
}

TEST_F(Eligibility, WithTeamEveryCopyInPlatformOrder) {
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

TEST(LoopbackURL, McpEndpointAcceptedOnlyExactly) {
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
          "http://127.0.0.1:54321/%zz", "127.0.0.1:54321/mcp", "http://0x7f.0.0.1:54321/mcp", ""}) {
        EXPECT_FALSE(StudioPeer::loopback(refused, "/mcp")) << refused;
    }
    EXPECT_FALSE(StudioPeer::loopback(std::nullopt, "/mcp"));
}

TEST(LoopbackURL, FilesBaseHasTheEmptyPath) {
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
