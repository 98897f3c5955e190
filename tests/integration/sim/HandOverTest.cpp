// Studio's side of the hand-over, as a bridge sees it: what the simulator
// answers to a greeting, when it refuses to, and the test controls that spoil
// its reply (those the bridge's own tests use are proven there).
#include <gtest/gtest.h>

#include <regex>

#include "SimHarness.h"

namespace simtest {
namespace {

TEST(HandOverReply, AnswersAProvenGreetingWithEndpointFilesAndToken) {
    SimSession sim;
    sim.start();
    HandOverListener listener;
    sim.announce(listener);
    Socket connection = sim.greeted(listener);
    auto line = connection.readLine();
    ASSERT_TRUE(line);
    Json reply = Json::parse(*line);
    std::string base = "http://127.0.0.1:" + std::to_string(sim.httpPort());
    EXPECT_EQ(reply["ok"], true);
    EXPECT_EQ(reply["v"], 3);
    EXPECT_TRUE(std::regex_match(reply["connectionId"].get<std::string>(),
                                 std::regex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}")));
    EXPECT_EQ(reply["endpoint"], base + "/mcp");
    EXPECT_EQ(reply["files"], base);
    EXPECT_TRUE(std::regex_match(reply["token"].get<std::string>(), std::regex("[0-9a-f]{64}")));
    // Compact JSON on one line, and the connection stays open as the link.
    EXPECT_EQ(*line, nlohmann::ordered_json::parse(*line).dump());
    EXPECT_FALSE(connection.closedWithin(300ms));
    auto notification = sim.log().waitFor("notification");
    ASSERT_TRUE(notification);
    EXPECT_EQ((*notification)["client"], "Test Agent");
    EXPECT_EQ((*notification)["port"], listener.port());
}

TEST(HandOverReply, ClosesWithoutAWordOnAWrongChallengeHelloOrVersion) {
    SimSession sim;
    sim.start();
    for (int wrong = 0; wrong < 3; ++wrong) {
        HandOverListener listener;
        Json greeting = Json::parse(listener.greeting());
        if (wrong == 0) sim.busClient().post(std::string(kRelease) + ".agent-link", listener.query("Test Agent", sha256Hex("another")));
        else sim.announce(listener);
        if (wrong == 1) greeting["hello"] = "someone-else";
        if (wrong == 2) greeting["v"] = 2;
        Socket connection = listener.accept();
        ASSERT_TRUE(connection.valid());
        connection.send(greeting.dump() + "\n");
        EXPECT_TRUE(connection.closedWithin(5s)) << greeting.dump();
        if (wrong == 0) {
            auto logged = sim.log().waitFor("greeting");
            ASSERT_TRUE(logged);
            EXPECT_EQ((*logged)["challenge"], false);
            EXPECT_EQ((*logged)["accepted"], false);
            EXPECT_EQ(logged->dump().find(listener.nonce()), std::string::npos) << "the log must not carry the nonce";
        }
    }
    EXPECT_TRUE(sim.log().events("reply").empty());
}

TEST(HandOverReply, ConnectsOnlyOncePerAnnouncedPortAndChallenge) {
    SimSession sim;
    sim.start();
    HandOverListener listener;
    for (int i = 0; i < 3; ++i) sim.announce(listener);
    EXPECT_TRUE(listener.accept().valid());
    EXPECT_FALSE(listener.accept(500ms).valid());
    ASSERT_TRUE(sim.log().waitFor("notification", [](const Json& e) { return e["repeat"] == true; }));
    EXPECT_EQ(sim.log().events("notification").size(), 3u);
}

TEST(HandOverReply, AnswersOnlyItsOwnBuildsNotification) {
    SimSession sim;
    sim.start({.bundle = "Vantoric Studio Subject.app"});
    EXPECT_TRUE(sim.busClient().hasOwner(kSubject));
    HandOverListener listener;
    sim.announce(listener, kRelease);
    EXPECT_FALSE(listener.accept(500ms).valid());
    sim.announce(listener, kSubject);
    EXPECT_TRUE(listener.accept().valid());
    auto ignored = sim.log().waitFor("notification", [](const Json& e) { return e["ours"] == false; });
    ASSERT_TRUE(ignored);
    EXPECT_EQ((*ignored)["name"], std::string(kRelease) + ".agent-link");
}

TEST(HandOverReply, GivesEachLinkItsOwnToken) {
    SimSession sim;
    sim.start();
    LinkReply first = sim.link("Agent One");
    LinkReply second = sim.link("Agent Two");
    EXPECT_NE(first.token, second.token);
    EXPECT_NE(first.reply["connectionId"], second.reply["connectionId"]);
    HttpClient http(sim.httpPort());
    EXPECT_FALSE(SimSession::isToolError(sim.call(http, first.token, "studio_status")));
    EXPECT_EQ(SimSession::payload(sim.call(http, second.token, "studio_status"))["agents"], 2);
}

TEST(HandOverControls, SpoilsTheReplyAsAsked) {
    for (auto [kind, member, spoiled] : std::vector<std::tuple<std::string, std::string, std::string>>{
             {"files-slash", "files", "http://127.0.0.1:PORT/"}, {"bad-uuid", "connectionId", "not-a-uuid"}}) {
        SimSession sim;
        sim.start({.environment = {{"STUDIO_SIM_MALFORMED", kind}}});
        LinkReply link = sim.link();
        EXPECT_EQ(link.reply["ok"], true) << kind;
        spoiled = std::regex_replace(spoiled, std::regex("PORT"), std::to_string(sim.httpPort()));
        EXPECT_EQ(link.reply[member], spoiled) << kind;
    }
}

TEST(HandOverControls, ClosesRightAfterTheReplyAndForgetsTheToken) {
    SimSession sim;
    sim.start({.environment = {{"STUDIO_SIM_CLOSE_AFTER_REPLY", "1"}}});
    LinkReply link = sim.link();
    EXPECT_EQ(link.reply["ok"], true);
    EXPECT_TRUE(link.connection.closedWithin(5s));
    HttpClient http(sim.httpPort());
    EXPECT_EQ(http.request("POST", "/mcp", {{"Authorization", "Bearer " + link.token}}, "{}").status, 401);
}

TEST(HandOverControls, SendsBytesAfterTheReplyOrSplitsIt) {
    for (auto [variable, value] : std::vector<std::pair<std::string, std::string>>{
             {"STUDIO_SIM_BYTE_AFTER_REPLY", "1"}, {"STUDIO_SIM_REPLY_TRAILER", "garbage"}, {"STUDIO_SIM_SPLIT_REPLY", "1"}}) {
        SCOPED_TRACE(variable);
        SimSession sim;
        sim.start({.environment = {{variable, value}}});
        HandOverListener listener;
        sim.announce(listener);
        Socket connection = sim.greeted(listener);
        std::string first = connection.readSome(5s);
        if (variable == "STUDIO_SIM_SPLIT_REPLY") {
            EXPECT_EQ(first.find('\n'), std::string::npos) << "the first segment already held the whole line";
            first += connection.readSome(5s);
        }
        auto newline = first.find('\n');
        ASSERT_NE(newline, std::string::npos) << first;
        EXPECT_EQ(Json::parse(first.substr(0, newline))["ok"], true);
        std::string after = first.substr(newline + 1);
        if (variable == "STUDIO_SIM_REPLY_TRAILER") {
            EXPECT_EQ(after, "garbage") << "in the same write as the reply";
        }
        if (variable == "STUDIO_SIM_BYTE_AFTER_REPLY") {
            if (after.empty()) after = connection.readSome(5s);
            EXPECT_EQ(after.size(), 1u);
        }
        if (variable == "STUDIO_SIM_SPLIT_REPLY") {
            EXPECT_EQ(after, "");
        }
    }
}

}  // namespace
}  // namespace simtest
