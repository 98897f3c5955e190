// Studio's side of the hand-over, as a bridge sees it: what the simulator
// answers to a greeting, when it refuses to, and the test controls that spoil
// or delay its reply.
#include <gtest/gtest.h>

#include <regex>

#include "SimHarness.h"

namespace simtest {
namespace {

bool isLowerHex(const std::string& text, std::size_t length) {
    return text.size() == length && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

TEST(HandOverReply, AnswersAProvenGreetingWithEndpointFilesAndToken) {
    SimSession sim;
    sim.start();
    HandOverListener listener;
    sim.announce(listener);
    Socket connection = listener.accept();
    ASSERT_TRUE(connection.valid());
    connection.send(listener.greeting());
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
    EXPECT_TRUE(isLowerHex(reply["token"], 64));
    // The reply is compact JSON on one line, and the connection stays open as the link.
    EXPECT_EQ(*line, nlohmann::ordered_json::parse(*line).dump());
    EXPECT_FALSE(connection.closedWithin(300ms));
    auto notification = sim.log().waitFor("notification");
    ASSERT_TRUE(notification);
    EXPECT_EQ((*notification)["client"], "Test Agent");
    EXPECT_EQ((*notification)["port"], listener.port());
}

TEST(HandOverReply, ClosesWithoutAWordWhenTheNonceDoesNotProveTheChallenge) {
    SimSession sim;
    sim.start();
    HandOverListener listener;
    sim.busClient().post(std::string(kRelease) + ".agent-link", listener.query("Test Agent", sha256Hex("another nonce")));
    Socket connection = listener.accept();
    ASSERT_TRUE(connection.valid());
    connection.send(listener.greeting());
    EXPECT_TRUE(connection.closedWithin(5s));
    auto greeting = sim.log().waitFor("greeting");
    ASSERT_TRUE(greeting);
    EXPECT_EQ((*greeting)["challenge"], false);
    EXPECT_EQ((*greeting)["accepted"], false);
    EXPECT_TRUE(sim.log().events("reply").empty());
    EXPECT_EQ(greeting->dump().find(listener.nonce()), std::string::npos) << "the log must not carry the nonce";
}

TEST(HandOverReply, ClosesWithoutAWordOnAnotherHelloOrVersion) {
    SimSession sim;
    sim.start();
    for (Json greeting : {Json{{"hello", "someone-else"}, {"v", 3}}, Json{{"hello", "vantoric-studio-link"}, {"v", 2}}}) {
        HandOverListener listener;
        greeting["nonce"] = listener.nonce();
        sim.announce(listener);
        Socket connection = listener.accept();
        ASSERT_TRUE(connection.valid());
        connection.send(greeting.dump() + "\n");
        EXPECT_TRUE(connection.closedWithin(5s)) << greeting.dump();
    }
    EXPECT_TRUE(sim.log().events("reply").empty());
}

TEST(HandOverReply, ConnectsOnlyOncePerAnnouncedPortAndChallenge) {
    SimSession sim;
    sim.start();
    HandOverListener listener;
    for (int i = 0; i < 3; ++i) sim.announce(listener);
    Socket first = listener.accept();
    ASSERT_TRUE(first.valid());
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
    Json status = SimSession::payload(sim.call(http, second.token, "studio_status"));
    EXPECT_EQ(status["agents"], 2);
}

TEST(HandOverControls, RefusesWithTheGivenTextOrWithoutOne) {
    for (std::string text : {"The person chose Don't Allow.", ""}) {
        SimSession sim;
        sim.start({.environment = {{"STUDIO_SIM_REFUSE", text}}});
        LinkReply link = sim.link();
        Json expected = {{"ok", false}};
        if (!text.empty()) expected["error"] = text;
        EXPECT_EQ(link.reply, expected);
        EXPECT_TRUE(link.connection.closedWithin(5s));
    }
}

TEST(HandOverControls, SpoilsTheReplyAsAsked) {
    struct Case {
        const char* kind;
        std::function<bool(const Json&, std::uint16_t port)> spoiled;
    };
    const std::vector<Case> cases = {
        {"version2", [](const Json& r, std::uint16_t) { return r["v"] == 2; }},
        {"short-token", [](const Json& r, std::uint16_t) { return r["token"].get<std::string>().size() == 31; }},
        {"localhost", [](const Json& r, std::uint16_t p) { return r["endpoint"] == "http://localhost:" + std::to_string(p) + "/mcp"; }},
        {"trailing-slash", [](const Json& r, std::uint16_t p) { return r["endpoint"] == "http://127.0.0.1:" + std::to_string(p) + "/mcp/"; }},
        {"files-slash", [](const Json& r, std::uint16_t p) { return r["files"] == "http://127.0.0.1:" + std::to_string(p) + "/"; }},
        {"bad-uuid", [](const Json& r, std::uint16_t) { return r["connectionId"] == "not-a-uuid"; }},
    };
    for (auto& c : cases) {
        SimSession sim;
        sim.start({.environment = {{"STUDIO_SIM_MALFORMED", c.kind}}});
        LinkReply link = sim.link();
        EXPECT_EQ(link.reply["ok"], true) << c.kind;
        EXPECT_TRUE(c.spoiled(link.reply, sim.httpPort())) << c.kind << ": " << link.reply.dump();
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

TEST(HandOverControls, SendsOneByteAfterTheReply) {
    SimSession sim;
    sim.start({.environment = {{"STUDIO_SIM_BYTE_AFTER_REPLY", "1"}}});
    LinkReply link = sim.link();
    EXPECT_EQ(link.reply["ok"], true);
    EXPECT_EQ(link.connection.readSome(5s).size(), 1u);
}

TEST(HandOverControls, PutsTheTrailerInTheSameWriteAsTheReply) {
    SimSession sim;
    sim.start({.environment = {{"STUDIO_SIM_REPLY_TRAILER", "garbage"}}});
    LinkReply link = sim.link();
    EXPECT_EQ(link.reply["ok"], true);
    EXPECT_EQ(link.connection.readSome(1s), "garbage");
}

TEST(HandOverControls, NeverAnswersButKeepsTheConnection) {
    SimSession sim;
    sim.start({.environment = {{"STUDIO_SIM_NEVER_ANSWER", "1"}}});
    HandOverListener listener;
    sim.announce(listener);
    Socket connection = listener.accept();
    ASSERT_TRUE(connection.valid());
    connection.send(listener.greeting());
    EXPECT_EQ(connection.readSome(700ms), "");
    EXPECT_FALSE(connection.closedWithin(10ms));
    EXPECT_TRUE(sim.log().waitFor("reply", [](const Json& e) { return e["sent"] == false; }));
}

TEST(HandOverControls, TakesItsTimeToAskThePerson) {
    SimSession sim;
    sim.start({.environment = {{"STUDIO_SIM_ASK_DELAY_MS", "1500"}}});
    HandOverListener listener;
    sim.announce(listener);
    Socket connection = listener.accept();
    ASSERT_TRUE(connection.valid());
    connection.send(listener.greeting());
    EXPECT_FALSE(connection.readLine(500ms)) << "the reply came before the person could answer";
    auto line = connection.readLine(5s);
    ASSERT_TRUE(line);
    EXPECT_EQ(Json::parse(*line)["ok"], true);
}

TEST(HandOverControls, SplitsTheReplyIntoTwoSegments) {
    SimSession sim;
    sim.start({.environment = {{"STUDIO_SIM_SPLIT_REPLY", "1"}}});
    HandOverListener listener;
    sim.announce(listener);
    Socket connection = listener.accept();
    ASSERT_TRUE(connection.valid());
    connection.send(listener.greeting());
    std::string first = connection.readSome(5s);
    EXPECT_FALSE(first.empty());
    EXPECT_EQ(first.find('\n'), std::string::npos) << "the first segment already held the whole line";
    auto rest = connection.readLine(5s);
    ASSERT_TRUE(rest);
    EXPECT_EQ(Json::parse(first + *rest)["ok"], true);
}

}  // namespace
}  // namespace simtest
