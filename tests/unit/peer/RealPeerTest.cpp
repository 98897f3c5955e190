// The peer check against real processes: a program running from a Studio
// bundle connects to a real loopback listener, and only it is accepted; the
// same program outside the bundle, or a copy in another folder, is not.
#include <gtest/gtest.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <chrono>
#include <thread>

#include "peer/StudioPeer.h"
#include "platform/Bundle.h"
#include "platform/CodeSigning.h"
#include "platform/ProcessSockets.h"
#include "platform/RunningApplications.h"
#include "support/ChildProcess.h"
#include "support/TempDir.h"
#include "support/TestBundle.h"

namespace asio = boost::asio;
namespace fs = std::filesystem;
using testsupport::ChildProcess;

namespace {

// Not a real build's identifier, so that copies of the simulator started by
// other tests running at the same time never count here.
constexpr const char* identifier = "com.example.studio.peer-test";

struct Connected {
    std::unique_ptr<ChildProcess> child;
    asio::ip::tcp::socket socket;
};

// Runs bash from `executable`, connecting to the acceptor with /dev/tcp and
// then waiting, and accepts that connection.
Connected connectFrom(const fs::path& executable, asio::ip::tcp::acceptor& acceptor) {
    std::string script = "exec 3<>/dev/tcp/127.0.0.1/" + std::to_string(acceptor.local_endpoint().port()) +
                         "; read -r line <&0";
    auto child = std::make_unique<ChildProcess>(
        ChildProcess::Options{.argv = {executable.string(), "-c", script}, .workingDirectory = {}});
    auto socket = acceptor.accept();
    return {std::move(child), std::move(socket)};
}

class RealPeer : public ::testing::Test {
protected:
    RealPeer() : acceptor_(io_, {asio::ip::make_address("127.0.0.1"), 0}) {}

    StudioPeer peer() {
        return StudioPeer({running_, sockets_, signing_}, identifier);
    }
    uint16_t listening() const { return acceptor_.local_endpoint().port(); }

    testsupport::TempDir dir_;
    asio::io_context io_;
    asio::ip::tcp::acceptor acceptor_;
    platform::LinuxRunningApplications running_{platform::systemBundles()};
    platform::LinuxProcessSockets sockets_;
    platform::LinuxCodeSigning signing_{platform::systemBundles()};
};

}  // namespace

TEST_F(RealPeer, OnlyStudioFromTheServedBundleIsFoundByItsConnection) {
    auto studio = testsupport::makeBundle(dir_.path(), "Vantoric Studio", identifier, "Vantoric Studio", "/bin/bash");
    auto connected = connectFrom(studio.executable, acceptor_);
    uint16_t remote = connected.socket.remote_endpoint().port();
    EXPECT_EQ(peer().studio(studio.app, remote, listening()), connected.child->pid());
    EXPECT_FALSE(peer().studio(studio.app, remote + 1, listening()));
    EXPECT_FALSE(peer().unusableCopy(studio.app));

    auto outside = connectFrom("/bin/bash", acceptor_);
    EXPECT_FALSE(peer().studio(studio.app, outside.socket.remote_endpoint().port(), listening()));
}

TEST_F(RealPeer, CopyFromAnotherFolderIsUnusable) {
    auto served = testsupport::makeBundle(dir_.path(), "Vantoric Studio", identifier, "Vantoric Studio", "/bin/bash");
    auto other = testsupport::makeBundle(dir_.path() / "Old", "Vantoric Studio", identifier, "Vantoric Studio", "/bin/bash");
    auto connected = connectFrom(other.executable, acceptor_);
    EXPECT_FALSE(peer().studio(served.app, connected.socket.remote_endpoint().port(), listening()));
    EXPECT_EQ(peer().unusableCopy(served.app), other.app.string());
}
