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
namespace asio = boost::asio;
using testsupport::ChildProcess;

namespace {

constexpr const char* identifier = "com.example.studio";

std::unique_ptr<ChildProcess> runSleeping(const fs::path& executable) {
    auto child = std::make_unique<ChildProcess>(ChildProcess::Options{.argv = {executable.string(), "60"}, .workingDirectory = {}});
    // Until the exec has happened /proc/PID/exe still names the test binary.
    for (int i = 0; i < 500; ++i) {
        std::error_code ec;
        if (fs::read_symlink("/proc/" + std::to_string(child->pid()) + "/exe", ec).filename() == executable.filename()) break;
        std::this_thread::sleep_for(5ms);
    }
    return child;
}

class ProcessesOfABundle : public ::testing::Test {
protected:
    std::optional<fs::path> listedAt(pid_t pid) {
        for (auto& app : running_.withBundleIdentifier(identifier))
            if (app.processIdentifier == pid) return app.bundleURL.value_or("(none)");
        return std::nullopt;
    }
    bool signedAsStudio(pid_t pid) { return signing_.satisfies(pid, requirement_); }

    testsupport::TempDir dir_;
    platform::LinuxRunningApplications running_{platform::systemBundles()};
    platform::LinuxCodeSigning signing_{platform::systemBundles()};
    std::string requirement_ = std::string("identifier \"") + identifier + "\"";
};

}  // namespace

TEST_F(ProcessesOfABundle, MainExecutableIsARunningApplicationThatPassesTheSigningRule) {
    auto bundle = testsupport::makeBundle(dir_.path(), "Studio", identifier, "Studio", "/bin/sleep");
    auto child = runSleeping(bundle.executable);
    EXPECT_EQ(listedAt(child->pid()), bundle.app);
    for (auto& app : running_.withBundleIdentifier("com.example.other")) EXPECT_NE(app.processIdentifier, child->pid());
    EXPECT_TRUE(signedAsStudio(child->pid()));
    EXPECT_FALSE(signing_.satisfies(child->pid(), "identifier \"com.example.other\""));
    EXPECT_FALSE(signing_.satisfies(
        child->pid(), requirement_ + " and anchor apple generic and certificate leaf[subject.OU] = \"TEAM\""));
    EXPECT_FALSE(signing_.ownTeam());
}

TEST_F(ProcessesOfABundle, HelpersReplacedExecutablesAndLooseFoldersDoNotPass) {
    auto bundle = testsupport::makeBundle(dir_.path(), "Studio", identifier, "Studio", "/bin/sleep");
    fs::copy_file("/bin/sleep", bundle.app / "Contents/MacOS/helper");
    auto helper = runSleeping(bundle.app / "Contents/MacOS/helper");
    EXPECT_FALSE(listedAt(helper->pid()));
    EXPECT_FALSE(signedAsStudio(helper->pid()));

    // Replaced on disk while it runs: still from the bundle, no longer signed as it.
    auto replaced = runSleeping(bundle.executable);
    fs::remove(bundle.executable);
    fs::copy_file("/bin/sleep", bundle.executable);
    EXPECT_TRUE(listedAt(replaced->pid()));
    EXPECT_FALSE(signedAsStudio(replaced->pid()));

    fs::create_directories(dir_.path() / "Loose.app/Contents/MacOS");
    fs::copy_file("/bin/sleep", dir_.path() / "Loose.app/Contents/MacOS/Studio");
    auto loose = runSleeping(dir_.path() / "Loose.app/Contents/MacOS/Studio");
    EXPECT_FALSE(listedAt(loose->pid()));
    for (pid_t pid : {loose->pid(), getpid(), 999999999}) EXPECT_FALSE(signedAsStudio(pid)) << pid;
}

TEST(ProcessTcpSockets, BothEndsOfLoopbackConnectionsWithTheirPorts) {
    asio::io_context io;
    auto found = [](uint16_t local, uint16_t remote) {
        auto sockets = platform::LinuxProcessSockets().tcpSockets(getpid());
        for (auto& s : sockets.value_or(std::vector<platform::TcpSocket>{}))
            if (s.localPort == local && s.remotePort == remote) return true;
        return false;
    };
    for (const char* address : {"127.0.0.1", "::1"}) {
        SCOPED_TRACE(address);
        boost::system::error_code ec;
        asio::ip::tcp::acceptor acceptor(io);
        auto endpoint = asio::ip::tcp::endpoint(asio::ip::make_address(address), 0);
        acceptor.open(endpoint.protocol(), ec);
        if (!ec) acceptor.bind(endpoint, ec);
        if (ec) {
            EXPECT_STREQ(address, "::1") << ec.message();
            continue;  // no IPv6 loopback here
        }
        acceptor.listen();
        asio::ip::tcp::socket client(io);
        client.connect(acceptor.local_endpoint());
        auto server = acceptor.accept();
        uint16_t listening = acceptor.local_endpoint().port(), ephemeral = client.local_endpoint().port();
        EXPECT_TRUE(found(ephemeral, listening));
        EXPECT_TRUE(found(listening, ephemeral));
        EXPECT_TRUE(found(listening, 0)) << "the listening socket itself";
    }
    EXPECT_FALSE(platform::LinuxProcessSockets().tcpSockets(999999999));
}
