// The real /proc-based services against real child processes and sockets:
// which processes are running applications of a bundle, which of them pass
// the signing rule, and which TCP sockets a process holds.
#include <gtest/gtest.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <chrono>
#include <thread>

#include "platform/Bundle.h"
#include "platform/CodeSigning.h"
#include "platform/ProcessSockets.h"
#include "platform/RunningApplications.h"
#include "support/ChildProcess.h"
#include "support/TempDir.h"
#include "support/TestBundle.h"

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using testsupport::ChildProcess;

namespace {

constexpr const char* identifier = "com.example.studio";

std::unique_ptr<ChildProcess> runSleeping(const fs::path& executable) {
    auto child = std::make_unique<ChildProcess>(ChildProcess::Options{.argv = {executable.string(), "60"}, .workingDirectory = {}});
    // Until the exec has happened /proc/PID/exe still names the test binary.
    for (int i = 0; i < 500; ++i) {
        std::error_code ec;
        if (fs::read_symlink("/proc/" + std::to_string(child->pid()) + "/exe", ec).filename() ==
            executable.filename())
            break;
        std::this_thread::sleep_for(5ms);
    }
    return child;
}

bool listed(const std::vector<platform::RunningApplication>& apps, pid_t pid) {
    for (auto& app : apps)
        if (app.processIdentifier == pid) return true;
    return false;
}

class ProcessesOfABundle : public ::testing::Test {
protected:
    testsupport::TempDir dir_;
    platform::LinuxRunningApplications running_{platform::systemBundles()};
    platform::LinuxCodeSigning signing_{platform::systemBundles()};
    std::string requirement_ = std::string("identifier \"") + identifier + "\"";
};

}  // namespace

TEST_F(ProcessesOfABundle, MainExecutableIsARunningApplicationThatPassesTheSigningRule) {
    auto bundle = testsupport::makeBundle(dir_.path(), "Studio", identifier, "Studio", "/bin/sleep");
    auto child = runSleeping(bundle.executable);

    auto apps = running_.withBundleIdentifier(identifier);
    ASSERT_TRUE(listed(apps, child->pid()));
    for (auto& app : apps) {
        if (app.processIdentifier == child->pid()) {
            EXPECT_EQ(app.bundleURL, bundle.app);
        }
    }
    EXPECT_FALSE(listed(running_.withBundleIdentifier("com.example.other"), child->pid()));

    EXPECT_TRUE(signing_.satisfies(child->pid(), requirement_));
    EXPECT_FALSE(signing_.satisfies(child->pid(), "identifier \"com.example.other\""));
    EXPECT_FALSE(signing_.satisfies(
        child->pid(), requirement_ + " and anchor apple generic and certificate leaf[subject.OU] = \"TEAM\""));
    EXPECT_FALSE(signing_.ownTeam());
}

TEST_F(ProcessesOfABundle, HelperBesideTheMainExecutableIsNeither) {
    auto bundle = testsupport::makeBundle(dir_.path(), "Studio", identifier, "Studio", "/bin/sleep");
    fs::copy_file("/bin/sleep", bundle.app / "Contents/MacOS/helper");
    auto helper = runSleeping(bundle.app / "Contents/MacOS/helper");

    EXPECT_FALSE(listed(running_.withBundleIdentifier(identifier), helper->pid()));
    EXPECT_FALSE(signing_.satisfies(helper->pid(), requirement_));
}

TEST_F(ProcessesOfABundle, ReplacedExecutableStillRunsFromTheBundleButFailsTheSigningRule) {
    auto bundle = testsupport::makeBundle(dir_.path(), "Studio", identifier, "Studio", "/bin/sleep");
    auto child = runSleeping(bundle.executable);
    fs::remove(bundle.executable);
    fs::copy_file("/bin/sleep", bundle.executable);

    EXPECT_TRUE(listed(running_.withBundleIdentifier(identifier), child->pid()));
    EXPECT_FALSE(signing_.satisfies(child->pid(), requirement_));
}

TEST_F(ProcessesOfABundle, FolderThatIsNotABundleHoldsNoApplication) {
    fs::create_directories(dir_.path() / "Loose.app/Contents/MacOS");
    fs::copy_file("/bin/sleep", dir_.path() / "Loose.app/Contents/MacOS/Studio");
    auto child = runSleeping(dir_.path() / "Loose.app/Contents/MacOS/Studio");
    EXPECT_FALSE(listed(running_.withBundleIdentifier(identifier), child->pid()));
    EXPECT_FALSE(signing_.satisfies(child->pid(), requirement_));
    EXPECT_FALSE(signing_.satisfies(getpid(), requirement_));
    EXPECT_FALSE(signing_.satisfies(999999999, requirement_));
}

TEST(ProcessTcpSockets, BothEndsOfALoopbackConnectionWithTheirPorts) {
    namespace asio = boost::asio;
    asio::io_context io;
    asio::ip::tcp::acceptor acceptor(io, {asio::ip::make_address("127.0.0.1"), 0});
    asio::ip::tcp::socket client(io);
    client.connect(acceptor.local_endpoint());
    auto server = acceptor.accept();
    uint16_t listening = acceptor.local_endpoint().port();
    uint16_t ephemeral = client.local_endpoint().port();

    platform::LinuxProcessSockets sockets;
    auto found = sockets.tcpSockets(getpid());
    ASSERT_TRUE(found);
    auto has = [&](uint16_t local, uint16_t remote) {
        for (auto& s : *found)
            if (s.localPort == local && s.remotePort == remote) return true;
        return false;
    };
    EXPECT_TRUE(has(ephemeral, listening));
    EXPECT_TRUE(has(listening, ephemeral));
    EXPECT_TRUE(has(listening, 0));  // the listening socket itself
}

TEST(ProcessTcpSockets, IPv6SocketsAreReadToo) {
    namespace asio = boost::asio;
    asio::io_context io;
    boost::system::error_code ec;
    asio::ip::tcp::acceptor acceptor(io);
    acceptor.open(asio::ip::tcp::v6(), ec);
    if (!ec) acceptor.bind({asio::ip::make_address("::1"), 0}, ec);
    if (ec) GTEST_SKIP() << "no IPv6 loopback here";
    acceptor.listen();
    asio::ip::tcp::socket client(io);
    client.connect(acceptor.local_endpoint());
    auto server = acceptor.accept();

    auto found = platform::LinuxProcessSockets().tcpSockets(getpid());
    ASSERT_TRUE(found);
    bool seen = false;
    for (auto& s : *found)
        seen |= s.localPort == client.local_endpoint().port() && s.remotePort == acceptor.local_endpoint().port();
    EXPECT_TRUE(seen);
}

TEST(ProcessTcpSockets, ProcessThatDoesNotExistIsUnreadable) {
    EXPECT_FALSE(platform::LinuxProcessSockets().tcpSockets(999999999));
}
