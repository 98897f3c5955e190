// The real session-bus services against a private dbus-daemon: the
// notification signal as another process on the bus hears it, the
// unreachable bus as an error value, and opening files through a running
// application's org.freedesktop.Application.Open.
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <thread>

#include "platform/ApplicationLauncher.h"
#include "platform/Bundle.h"
#include "platform/NotificationCenter.h"
#include "platform/SessionBus.h"
#include "support/PrivateBus.h"
#include "support/TempDir.h"
#include "support/TestBundle.h"

using namespace std::chrono_literals;

namespace {

// Another connection on the bus, served by its own thread: it hears the
// notification signal and can own a name that answers Application.Open.
class BusPeer {
public:
    explicit BusPeer(const std::string& address) {
        EXPECT_GE(sd_bus_new(&bus_), 0);
        sd_bus_set_address(bus_, address.c_str());
        sd_bus_set_bus_client(bus_, 1);
        EXPECT_GE(sd_bus_start(bus_), 0);
        sd_bus_match_signal(bus_, nullptr, nullptr, platform::LinuxNotificationCenter::path,
                            platform::LinuxNotificationCenter::interface, platform::LinuxNotificationCenter::member,
                            &BusPeer::onSignal, this);
    }
    ~BusPeer() {
        running_ = false;
        if (thread_.joinable()) thread_.join();
        sd_bus_flush_close_unref(bus_);
    }

    void own(const std::string& name, const std::string& objectPath) {
        static const sd_bus_vtable vtable[] = {
            SD_BUS_VTABLE_START(0),
            SD_BUS_METHOD("Open", "asa{sv}", "", &BusPeer::onOpen, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_VTABLE_END,
        };
        ASSERT_GE(sd_bus_add_object_vtable(bus_, nullptr, objectPath.c_str(), "org.freedesktop.Application", vtable,
                                           this),
                  0);
        ASSERT_GE(sd_bus_request_name(bus_, name.c_str(), 0), 0);
    }

    void run() {
        thread_ = std::thread([this] {
            while (running_) {
                int r = sd_bus_process(bus_, nullptr);
                if (r < 0) break;
                if (r == 0) sd_bus_wait(bus_, 50'000);
            }
        });
    }

    bool waitFor(size_t count, std::chrono::milliseconds timeout = 5s) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return received.size() + opened.size() >= count; });
    }

    std::mutex mutex_;
    std::vector<std::pair<std::string, std::string>> received;
    std::vector<std::string> opened;

private:
    static int onSignal(sd_bus_message* m, void* data, sd_bus_error*) {
        auto* self = static_cast<BusPeer*>(data);
        const char *name = nullptr, *object = nullptr;
        if (sd_bus_message_read(m, "ss", &name, &object) >= 0) {
            std::lock_guard lock(self->mutex_);
            self->received.emplace_back(name, object);
        }
        self->changed_.notify_all();
        return 0;
    }
    static int onOpen(sd_bus_message* m, void* data, sd_bus_error*) {
        auto* self = static_cast<BusPeer*>(data);
        char** uris = nullptr;
        if (sd_bus_message_read_strv(m, &uris) >= 0 && uris) {
            std::lock_guard lock(self->mutex_);
            for (char** u = uris; *u; ++u) {
                self->opened.emplace_back(*u);
                free(*u);
            }
            free(uris);
        }
        self->changed_.notify_all();
        return sd_bus_reply_method_return(m, "");
    }

    sd_bus* bus_ = nullptr;
    std::atomic<bool> running_{true};
    std::thread thread_;
    std::condition_variable changed_;
};

// Points this process's session bus address elsewhere for a while.
class BusAddress {
public:
    explicit BusAddress(const std::string& address) {
        if (const char* old = std::getenv("DBUS_SESSION_BUS_ADDRESS")) saved_ = old;
        set(address);
    }
    ~BusAddress() {
        if (saved_) set(*saved_);
        else unsetenv("DBUS_SESSION_BUS_ADDRESS");
    }
    void set(const std::string& address) { setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1); }

private:
    std::optional<std::string> saved_;
};

class SessionBusEnvironment : public ::testing::Test {
protected:
    testsupport::PrivateBus bus_;
    BusAddress address_{bus_.address()};
};

}  // namespace

using NotificationSignal = SessionBusEnvironment;

TEST_F(NotificationSignal, OtherConnectionsHearNameAndObject) {
    BusPeer peer(bus_.address());
    peer.run();
    platform::LinuxSessionBus sessionBus;
    platform::LinuxNotificationCenter center(sessionBus);
    ASSERT_FALSE(center.post("com.example.agent-link", "port=1&client=A%20B"));
    ASSERT_FALSE(center.post("com.example.agent-link", "second"));
    ASSERT_TRUE(peer.waitFor(2));
    std::lock_guard lock(peer.mutex_);
    EXPECT_EQ(peer.received[0].first, "com.example.agent-link");
    EXPECT_EQ(peer.received[0].second, "port=1&client=A%20B");
    EXPECT_EQ(peer.received[1].second, "second");
}

TEST(UnreachableSessionBus, PostingIsAnErrorNamingTheAddress) {
    testsupport::TempDir dir;
    std::string address = "unix:path=" + (dir.path() / "no-bus-here").string();
    BusAddress unreachable(address);
    platform::LinuxSessionBus sessionBus;
    auto failure = platform::LinuxNotificationCenter(sessionBus).post("com.example.agent-link", "x");
    ASSERT_TRUE(failure);
    EXPECT_NE(failure->description.find(address), std::string::npos) << failure->description;
    EXPECT_NE(failure->code, 0);
    auto owner = sessionBus.hasOwner("com.example");
    EXPECT_FALSE(owner.owned);
    EXPECT_TRUE(owner.error);
}

TEST(NotificationReconnection, ConnectionReopensAfterTheBusWentAway) {
    auto first = std::make_unique<testsupport::PrivateBus>();
    BusAddress address(first->address());
    platform::LinuxSessionBus sessionBus;
    platform::LinuxNotificationCenter center(sessionBus);
    EXPECT_FALSE(center.post("n", "before"));

    // A new daemon at a new address stands in for a restarted session.
    first.reset();
    testsupport::PrivateBus second;
    address.set(second.address());
    BusPeer peer(second.address());
    peer.run();
    // The first post after the loss may only find out that the old
    // connection is dead; the next one goes out on a new connection.
    bool heard = false;
    for (int i = 0; i < 5 && !heard; ++i) {
        center.post("n", "after");
        heard = peer.waitFor(1, 300ms);
    }
    EXPECT_TRUE(heard);
}

using OpeningFiles = SessionBusEnvironment;

TEST_F(OpeningFiles, RunningOwnerOfTheIdentifierGetsFileURIs) {
    testsupport::TempDir dir;
    auto bundle = testsupport::makeBundle(dir.path(), "Tool", "com.example.tool", "tool", "", "#!/bin/sh\nexit 3\n");
    BusPeer owner(bus_.address());
    owner.own("com.example.tool", "/com/example/tool");
    owner.run();

    platform::LinuxSessionBus sessionBus;
    platform::LinuxApplicationLauncher launcher(platform::systemBundles(), sessionBus);
    auto failure = launcher.openURLs({"/tmp/a b/Project #1.vproj", "/tmp/x"}, bundle.app);
    ASSERT_FALSE(failure) << failure->description;
    ASSERT_TRUE(owner.waitFor(2));
    std::lock_guard lock(owner.mutex_);
    EXPECT_EQ(owner.opened, (std::vector<std::string>{"file:///tmp/a%20b/Project%20%231.vproj", "file:///tmp/x"}));
}

TEST_F(OpeningFiles, WithoutAnOwnerTheExecutableGetsThePaths) {
    testsupport::TempDir dir;
    auto out = dir.path() / "args";
    auto bundle = testsupport::makeBundle(dir.path(), "Tool", "com.example.tool", "tool", "",
                                          "#!/bin/sh\nfor a in \"$@\"; do echo \"$a\"; done > '" + out.string() +
                                              ".tmp' && mv '" + out.string() + ".tmp' '" + out.string() + "'\n");
    platform::LinuxSessionBus sessionBus;
    platform::LinuxApplicationLauncher launcher(platform::systemBundles(), sessionBus);
    ASSERT_FALSE(launcher.openURLs({"/tmp/a b.mov", "/tmp/c"}, bundle.app));
    for (int i = 0; i < 500 && !std::filesystem::exists(out); ++i) std::this_thread::sleep_for(10ms);
    EXPECT_EQ(testsupport::readFile(out), "/tmp/a b.mov\n/tmp/c\n");
}

TEST(ApplicationObjectPath, DotsBecomeSlashes) {
    EXPECT_EQ(platform::LinuxApplicationLauncher::objectPath("com.lumenfold.vantoric.studio"),
              "/com/lumenfold/vantoric/studio");
    EXPECT_EQ(platform::LinuxApplicationLauncher::objectPath("org.my-app.x"), "/org/my_app/x");
}
