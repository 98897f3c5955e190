// Launching an application detached, with a real child that reports how it
// was started, and the failures of an exec that cannot happen.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "platform/ApplicationLauncher.h"
#include "platform/Bundle.h"
#include "platform/SessionBus.h"
#include "support/TempDir.h"
#include "support/TestBundle.h"

using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {

std::string waitForFile(const fs::path& path) {
    for (int i = 0; i < 500 && !fs::exists(path); ++i) std::this_thread::sleep_for(10ms);
    return fs::exists(path) ? testsupport::readFile(path) : std::string("(never written)");
}

}  // namespace

TEST(DetachedLaunch, ApplicationRunsInItsOwnSessionWithNothingOfOurs) {
    testsupport::TempDir dir;
    fs::path report = dir.path() / "report";
    // Field 6 of /proc/PID/stat is the session id.
    auto bundle = testsupport::makeBundle(
        dir.path(), "Probe", "com.example.probe", "Probe", "",
        "#!/bin/sh\n"
        "{ set -- $(cat /proc/$$/stat); echo \"sid=$6 pid=$$\"; pwd; readlink /proc/$$/fd/0; "
        "readlink /proc/$$/fd/2; if [ -e /proc/$$/fd/57 ]; then echo leaked; else echo clean; fi; "
        "echo \"marker=$VSM_LAUNCH_MARKER\"; } > '" +
            report.string() + ".tmp'; mv '" + report.string() + ".tmp' '" + report.string() + "'\n");
    int inherited = open("/dev/null", O_RDONLY);  // without close-on-exec
    ASSERT_GE(dup2(inherited, 57), 0);
    setenv("VSM_LAUNCH_MARKER", "from-the-bridge", 1);

    platform::LinuxSessionBus bus;
    platform::LinuxApplicationLauncher launcher(platform::systemBundles(), bus);
    auto failure = launcher.openApplication(bundle.app);
    close(57);
    close(inherited);
    ASSERT_FALSE(failure) << failure->description;

    std::string text = waitForFile(report);
    int sid = 0, pid = 0;
    ASSERT_EQ(sscanf(text.c_str(), "sid=%d pid=%d", &sid, &pid), 2) << text;
    // A session of its own, left by its leader at once so that the
    // application can never take a controlling terminal.
    EXPECT_NE(sid, getsid(0));
    EXPECT_NE(sid, pid);
    EXPECT_EQ(getpgid(sid), -1);
    EXPECT_EQ(text.substr(text.find('\n') + 1), "/\n/dev/null\n/dev/null\nclean\nmarker=from-the-bridge\n");
}

TEST(DetachedLaunch, ExecFailuresComeBackAsTheError) {
    testsupport::TempDir dir;
    auto bundle = testsupport::makeBundle(dir.path(), "Broken", "com.example.broken", "Broken", "", "#!/bin/sh\n");
    fs::permissions(bundle.executable, fs::perms::owner_read | fs::perms::owner_write);
    platform::LinuxSessionBus bus;
    platform::LinuxApplicationLauncher launcher(platform::systemBundles(), bus);

    auto notExecutable = launcher.openApplication(bundle.app);
    ASSERT_TRUE(notExecutable);
    EXPECT_EQ(notExecutable->code, EACCES);
    EXPECT_NE(notExecutable->description.find(bundle.executable.string()), std::string::npos);

    fs::remove(bundle.executable);
    auto missing = launcher.openApplication(bundle.app);
    ASSERT_TRUE(missing);
    EXPECT_EQ(missing->code, ENOENT);

    auto noBundle = launcher.openApplication(dir.path() / "Nowhere.app");
    ASSERT_TRUE(noBundle);
    EXPECT_NE(noBundle->description.find("Nowhere.app"), std::string::npos);
}

TEST(FileURIs, PathsArePercentEncoded) {
    EXPECT_EQ(platform::LinuxApplicationLauncher::fileURI("/a/b c/ü%#?.mov"), "file:///a/b%20c/%C3%BC%25%23%3F.mov");
}
