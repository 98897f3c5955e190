// How long a simulator lives: it is launched detached by bridges and by
// tests with private buses, so it must end cleanly on a signal, on its own
// when its bus goes away, and after an idle time when asked.
#include <gtest/gtest.h>
#include <signal.h>

#include "SimHarness.h"

namespace simtest {
namespace {

TEST(Lifetime, ExitsCleanlyOnTerminate) {
    SimSession sim;
    sim.start();
    LinkReply link = sim.link();
    sim.process().kill(SIGTERM);
    EXPECT_EQ(sim.process().wait(5s), 0);
    EXPECT_TRUE(link.connection.closedWithin(1s));
    auto exit = sim.log().waitFor("exit");
    ASSERT_TRUE(exit);
    EXPECT_EQ((*exit)["reason"], "signal");
}

TEST(Lifetime, ExitsWhenItsSessionBusGoesAway) {
    SimSession sim;
    sim.start();
    ASSERT_TRUE(sim.busClient().hasOwner(kRelease));
    sim.stopBus();
    EXPECT_EQ(sim.process().wait(5s), 3);
    auto exit = sim.log().waitFor("exit");
    ASSERT_TRUE(exit);
    EXPECT_EQ((*exit)["reason"], "bus-lost");
}

TEST(Lifetime, ExitsAfterIdleTimeWithoutLinks) {
    SimSession sim;
    sim.start({.environment = {{"STUDIO_SIM_IDLE_EXIT_SECONDS", "0.5"}}});
    {
        LinkReply link = sim.link();
        EXPECT_FALSE(sim.process().wait(800ms)) << "a linked simulator is not idle";
    }
    EXPECT_EQ(sim.process().wait(5s), 0);
    auto exit = sim.log().waitFor("exit");
    ASSERT_TRUE(exit);
    EXPECT_EQ((*exit)["reason"], "idle");
}

TEST(Lifetime, UserSignalOneEndsEveryLink) {
    SimSession sim;
    sim.start();
    LinkReply first = sim.link();
    LinkReply second = sim.link();
    sim.process().kill(SIGUSR1);
    EXPECT_TRUE(first.connection.closedWithin(5s));
    EXPECT_TRUE(second.connection.closedWithin(5s));
    HttpClient http(sim.httpPort());
    EXPECT_EQ(http.request("POST", "/mcp", {{"Authorization", "Bearer " + first.token}}, "{}").status, 401);
    // Studio itself goes on: a new hand-over works.
    EXPECT_EQ(sim.link().reply["ok"], true);
}

TEST(Lifetime, ReportsConfigurationItCannotRead) {
    SimSession sim;
    sim.start({.environment = {{"STUDIO_SIM_MALFORMED", "sideways"}, {"STUDIO_SIM_ASK_DELAY_MS", "soon"}}});
    auto problems = sim.log().events("config-problem");
    ASSERT_EQ(problems.size(), 2u);
    EXPECT_EQ(problems[0]["variable"], "STUDIO_SIM_ASK_DELAY_MS");
    EXPECT_EQ(problems[1]["variable"], "STUDIO_SIM_MALFORMED");
}

}  // namespace
}  // namespace simtest
