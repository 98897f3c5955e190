// How long a simulator lives: launched detached by bridges and by tests with
// private buses, it must end cleanly on a signal, when its bus goes away, and
// after an idle time when asked.
#include <gtest/gtest.h>
#include <signal.h>

#include "SimHarness.h"

namespace simtest {
namespace {

void expectExit(SimSession& sim, int status, const std::string& reason) {
    EXPECT_EQ(sim.process().wait(5s), status);
    auto exit = sim.log().waitFor("exit");
    ASSERT_TRUE(exit);
    EXPECT_EQ((*exit)["reason"], reason);
}

TEST(Lifetime, ExitsCleanlyOnTerminate) {
    SimSession sim;
    sim.start();
    LinkReply link = sim.link();
    sim.process().kill(SIGTERM);
    expectExit(sim, 0, "signal");
    EXPECT_TRUE(link.connection.closedWithin(1s));
}

TEST(Lifetime, ExitsWhenItsSessionBusGoesAway) {
    SimSession sim;
    sim.start();
    ASSERT_TRUE(sim.busClient().hasOwner(kRelease));
    sim.stopBus();
    expectExit(sim, 3, "bus-lost");
}

TEST(Lifetime, ExitsAfterIdleTimeWithoutLinks) {
    SimSession sim;
    sim.start({.environment = {{"STUDIO_SIM_IDLE_EXIT_SECONDS", "0.5"}}});
    {
        LinkReply link = sim.link();
        EXPECT_FALSE(sim.process().wait(800ms)) << "a linked simulator is not idle";
    }
    expectExit(sim, 0, "idle");
}

TEST(Lifetime, UserSignalOneEndsEveryLinkButNotStudio) {
    SimSession sim;
    sim.start();
    LinkReply first = sim.link();
    LinkReply second = sim.link();
    sim.process().kill(SIGUSR1);
    EXPECT_TRUE(first.connection.closedWithin(5s));
    EXPECT_TRUE(second.connection.closedWithin(5s));
    HttpClient http(sim.httpPort());
    EXPECT_EQ(http.request("POST", "/mcp", {{"Authorization", "Bearer " + first.token}}, "{}").status, 401);
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
