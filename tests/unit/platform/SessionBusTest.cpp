// The real session bus connection: where it is looked for, and that a bus
// which accepts and never answers is an error within the deadline.
#include <gtest/gtest.h>

#include <chrono>

#include "platform/SessionBus.h"
#include "support/PrivateBus.h"

using namespace std::chrono_literals;

using testsupport::SilentSocket;

TEST(SessionBusAddress, VariableThenRuntimeFolderThenTheStandardPlace) {
    testsupport::TempDir runtime;
    SilentSocket bus(runtime.path() / "bus");
    EXPECT_EQ(platform::sessionBusAddress({{"DBUS_SESSION_BUS_ADDRESS", "unix:path=/x"},
                                           {"XDG_RUNTIME_DIR", runtime.path().string()}}),
              "unix:path=/x");
    EXPECT_EQ(platform::sessionBusAddress({{"DBUS_SESSION_BUS_ADDRESS", ""}, {"XDG_RUNTIME_DIR", runtime.path().string()}}),
              "unix:path=" + runtime.path().string() + "/bus");
    std::string standard = "/run/user/" + std::to_string(getuid()) + "/bus";
    std::error_code ec;
    EXPECT_EQ(platform::sessionBusAddress({{"XDG_RUNTIME_DIR", "/nonexistent"}}),
              std::filesystem::is_socket(standard, ec) ? "unix:path=" + standard : "");

    EXPECT_EQ(platform::busIdentity("unix:path=/tmp/b,guid=0123"), platform::busIdentity("unix:path=/tmp/b"));
    EXPECT_NE(platform::busIdentity("unix:path=/tmp/b"), platform::busIdentity("unix:path=/tmp/c"));
    EXPECT_NE(platform::busIdentity("unix:abstract=/tmp/b"), platform::busIdentity("unix:path=/tmp/b"));
}

TEST(SessionBusDeadline, BusThatAcceptsAndNeverAnswersFailsWithinIt) {
    testsupport::TempDir dir;
    SilentSocket silent(dir.path() / "bus");
    for (auto address : {"unix:path=" + (dir.path() / "bus").string(), "unix:path=" + (dir.path() / "none").string(),
                         std::string()}) {
        platform::LinuxSessionBus bus(500ms, address);
        auto start = std::chrono::steady_clock::now();
        auto failure = bus.emitSignal("/a", "a.b", "C", "d", "e");
        EXPECT_LT(std::chrono::steady_clock::now() - start, 3s) << address;
        ASSERT_TRUE(failure) << address;
        EXPECT_FALSE(failure->description.empty());
    }
}
