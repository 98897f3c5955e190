#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <atomic>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <thread>

#include "platform/ApplicationLauncher.h"
#include "platform/Environment.h"
#include "platform/Executable.h"
#include "platform/SessionBus.h"
#include "support/PrivateBus.h"
#include "support/TempDir.h"

using namespace std::chrono_literals;

namespace {

// The user's service manager as far as a launch asks it: the Environment
// property of org.freedesktop.systemd1's Manager, served on a private bus.
class FakeServiceManager {
public:
    FakeServiceManager(const std::string& address, std::vector<std::string> environment)
        : environment_(std::move(environment)) {
        if (sd_bus_new(&bus_) < 0 || sd_bus_set_address(bus_, address.c_str()) < 0 ||
            sd_bus_set_bus_client(bus_, 1) < 0 || sd_bus_start(bus_) < 0 ||
            sd_bus_add_object_vtable(bus_, nullptr, "/org/freedesktop/systemd1", "org.freedesktop.systemd1.Manager",
                                     vtable, this) < 0 ||
            sd_bus_request_name(bus_, "org.freedesktop.systemd1", 0) < 0)
            throw std::runtime_error("could not serve the fake service manager");
        serving_ = std::thread([this] {
            while (!stop_) {
                if (sd_bus_process(bus_, nullptr) == 0) sd_bus_wait(bus_, 50'000);
            }
        });
    }
    ~FakeServiceManager() {
        stop_ = true;
        serving_.join();
        sd_bus_flush_close_unref(bus_);
    }

    static int property(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void* self,
                        sd_bus_error*) {
        std::vector<char*> strings;
        for (auto& entry : static_cast<FakeServiceManager*>(self)->environment_) strings.push_back(entry.data());
        strings.push_back(nullptr);
        return sd_bus_message_append_strv(reply, strings.data());
    }

private:
    static const sd_bus_vtable vtable[];

    std::vector<std::string> environment_;
    sd_bus* bus_ = nullptr;
    std::atomic<bool> stop_{false};
    std::thread serving_;
};

const sd_bus_vtable FakeServiceManager::vtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_PROPERTY("Environment", "as", FakeServiceManager::property, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_VTABLE_END,
};

}  // namespace

TEST(ThisProcess, ItsExecutableIsThisTestProgramAndItsEnvironmentItsVariables) {
    auto executable = platform::ownExecutable();
    ASSERT_TRUE(executable);
    EXPECT_TRUE(executable->is_absolute());
    EXPECT_EQ(executable->filename(), "unit_platform");
    setenv("VSM_TEST_VARIABLE", "a=b", 1);
    setenv("VSM_TEST_EMPTY", "", 1);
    auto environment = platform::captureEnvironment();
    unsetenv("VSM_TEST_VARIABLE");
    unsetenv("VSM_TEST_EMPTY");
    // Nobody handed the process-wide services an environment: one capture.
    EXPECT_EQ(platform::processEnvironment(), platform::captureEnvironment());
    EXPECT_EQ(environment["VSM_TEST_VARIABLE"], "a=b");
    EXPECT_EQ(platform::nonEmpty(environment, "VSM_TEST_VARIABLE"), "a=b");
    EXPECT_FALSE(platform::nonEmpty(environment, "VSM_TEST_EMPTY"));
    EXPECT_FALSE(platform::nonEmpty(environment, "VSM_TEST_UNSET_VARIABLE"));
}

// Studio is launched with the session's variables, never the agent's: its
// API keys and settings stay with it. An agent that gave no display variable
// would leave Studio without a screen: the user's service manager gives them.
TEST(LaunchEnvironment, SessionVariablesOnlyAndTheDisplayFromTheServiceManager) {
    testsupport::PrivateBus bus;
    platform::LinuxSessionBus session(5s, bus.address());
    FakeServiceManager manager(bus.address(), {"DISPLAY=:7", "XAUTHORITY=/run/x", "TOKEN=sk-manager", "WAYLAND_DISPLAY"});
    const platform::Environment agent{{"ANTHROPIC_API_KEY", "sk-secret"}, {"LC_TIME", "C"}, {"HOME", "/home/u"},
                                      {"XDG_RUNTIME_DIR", "/run/user/test"}, {"EDITOR", "vi"}};
    auto withDisplay = agent;
    withDisplay["WAYLAND_DISPLAY"] = "wayland-1";
    struct Case {
        platform::Environment given;
        platform::LinuxSessionBus& bus;
        platform::Environment launched;
    } cases[] = {
        {agent, session,
         {{"LC_TIME", "C"}, {"HOME", "/home/u"}, {"XDG_RUNTIME_DIR", "/run/user/test"}, {"DISPLAY", ":7"},
          {"XAUTHORITY", "/run/x"}}},
        {withDisplay, session,
         {{"LC_TIME", "C"}, {"HOME", "/home/u"}, {"XDG_RUNTIME_DIR", "/run/user/test"}, {"WAYLAND_DISPLAY", "wayland-1"}}},
    };
    for (const auto& c : cases) EXPECT_EQ(platform::LinuxApplicationLauncher::launchEnvironment(c.given, c.bus), c.launched);
    EXPECT_FALSE(session.stringsProperty("org.freedesktop.systemd1", "/org/freedesktop/systemd1",
                                         "org.freedesktop.systemd1.Manager", "NoSuchProperty"));

    // No manager on the bus, or no bus at all: the session's variables still.
    testsupport::PrivateBus empty;
    platform::LinuxSessionBus silent(5s, empty.address()), none(1s, "");
    for (auto* other : {&silent, &none})
        EXPECT_EQ(platform::LinuxApplicationLauncher::launchEnvironment(agent, *other),
                  (platform::Environment{{"LC_TIME", "C"}, {"HOME", "/home/u"}, {"XDG_RUNTIME_DIR", "/run/user/test"}}));
}

TEST(DetachedLaunch, StartsWithExactlyTheGivenEnvironment) {
    testsupport::TempDir dir;
    auto out = dir / "env";
    ASSERT_FALSE(platform::LinuxApplicationLauncher::spawnDetached(
        "/bin/sh", {"-c", "env > " + out.string() + ".part && mv " + out.string() + ".part " + out.string()},
        {{"LC_TIME", "C"}, {"PATH", "/usr/bin:/bin"}}));
    for (int i = 0; i < 500 && !std::filesystem::exists(out); ++i) std::this_thread::sleep_for(10ms);
    std::string seen = testsupport::readFile(out);
    EXPECT_NE(seen.find("LC_TIME=C\n"), std::string::npos) << seen;
    EXPECT_EQ(seen.find("HOME="), std::string::npos) << seen;
    EXPECT_EQ(platform::LinuxApplicationLauncher::spawnDetached("/no/such/program", {}, {})->code, ENOENT);
}
