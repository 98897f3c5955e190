#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <thread>

#include "platform/ApplicationLauncher.h"
#include "platform/Environment.h"
#include "platform/Executable.h"
#include "support/TempDir.h"

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
    EXPECT_EQ(environment["VSM_TEST_VARIABLE"], "a=b");
    EXPECT_EQ(platform::nonEmpty(environment, "VSM_TEST_VARIABLE"), "a=b");
    EXPECT_FALSE(platform::nonEmpty(environment, "VSM_TEST_EMPTY"));
    EXPECT_FALSE(platform::nonEmpty(environment, "VSM_TEST_UNSET_VARIABLE"));
}

// Studio is launched with the session's variables, never the agent's: its
// API keys and settings stay with it.
TEST(DetachedLaunch, CarriesTheSessionsVariablesOnly) {
    testsupport::TempDir dir;
    setenv("ANTHROPIC_API_KEY", "sk-secret", 1);
    setenv("LC_TIME", "C", 1);
    setenv("XDG_RUNTIME_DIR", "/run/user/test", 1);
    auto out = dir / "env";
    ASSERT_FALSE(platform::LinuxApplicationLauncher::spawnDetached("/bin/sh", {"-c", "env > " + out.string() + ".part && mv " + out.string() + ".part " + out.string()}));
    for (int i = 0; i < 500 && !std::filesystem::exists(out); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    std::string seen = testsupport::readFile(out);
    unsetenv("ANTHROPIC_API_KEY");
    EXPECT_EQ(seen.find("sk-secret"), std::string::npos);
    EXPECT_NE(seen.find("LC_TIME=C"), std::string::npos) << seen;
    EXPECT_NE(seen.find("XDG_RUNTIME_DIR=/run/user/test"), std::string::npos);
    EXPECT_NE(seen.find("HOME="), std::string::npos);
    EXPECT_EQ(platform::LinuxApplicationLauncher::spawnDetached("/no/such/program", {})->code, ENOENT);
}
