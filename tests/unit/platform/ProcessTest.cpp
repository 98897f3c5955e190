#include <gtest/gtest.h>

#include <cstdlib>

#include "platform/Environment.h"
#include "platform/Executable.h"

TEST(OwnExecutable, IsThisTestProgram) {
    auto executable = platform::ownExecutable();
    ASSERT_TRUE(executable);
    EXPECT_TRUE(executable->is_absolute());
    EXPECT_EQ(executable->filename(), "unit_platform");
}

TEST(CapturedEnvironment, HoldsTheVariablesOfThisProcess) {
    setenv("VSM_TEST_VARIABLE", "a=b", 1);
    setenv("VSM_TEST_EMPTY", "", 1);
    auto environment = platform::captureEnvironment();
    EXPECT_EQ(environment["VSM_TEST_VARIABLE"], "a=b");
    EXPECT_EQ(platform::nonEmpty(environment, "VSM_TEST_VARIABLE"), "a=b");
    EXPECT_FALSE(platform::nonEmpty(environment, "VSM_TEST_EMPTY"));
    EXPECT_FALSE(platform::nonEmpty(environment, "VSM_TEST_UNSET_VARIABLE"));
    unsetenv("VSM_TEST_VARIABLE");
    unsetenv("VSM_TEST_EMPTY");
}
