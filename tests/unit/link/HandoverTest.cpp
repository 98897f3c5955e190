// The hand-over in memory: who the listener greets and who it closes without
// a byte, which reply makes the link and how long it lasts, how Studio's
// reply is judged, and how calls wait for one establishment.
#include <gtest/gtest.h>

#include "LinkHarness.h"
#include "link/HandoverReply.h"
#include "peer/StudioPeer.h"

using namespace linktest;
using boost::asio::ip::make_address;
using boost::asio::ip::tcp;
using studiolink::HandoverReply;

namespace {

constexpr uint16_t studioPort = 40001;
const tcp::endpoint fromStudio{make_address("127.0.0.1"), studioPort};
const std::string nonce(64, 'a');

HandshakeListener::VerifyPeer onlyStudio() {
    return [](const fs::path&, uint16_t peer, uint16_t, auto) { return peer == studioPort; };
}

Json validReply(uint16_t port = 54321) {
    return {{"ok", true}, {"v", 3}, {"connectionId", "0F8FAD5B-D9CB-469F-A165-70867728950E"},
            {"endpoint", "http://127.0.0.1:" + std::to_string(port) + "/mcp"},
            {"files", "http://127.0.0.1:" + std::to_string(port + 1)}, {"token", std::string(32, 't')}};
}

struct Listening : Harness {
    std::shared_ptr<HandshakeListener> listener =
        HandshakeListener::create(io.get_executor(), nonce, "vantoric-studio-link", "/x.app", onlyStudio(), network);
    uint16_t port = run(listener->start());
    std::shared_ptr<MemoryStream> dial(tcp::endpoint from = fromStudio) {
        auto end = network->dial(port, from);
        until([&] { return end->farClosed() || !end->received().empty(); });
        return end;
    }
    ~Listening() { listener->stop(); }
};

}  // namespace

TEST(Handover, OnlyStudioIsGreetedAndItsFirstReplyLineMakesTheLink) {
    Listening h;
    const tcp::endpoint strangers[] = {{make_address("127.0.0.1"), 40002}, {make_address("10.0.0.1"), studioPort}};
    for (auto from : strangers) {
        auto stranger = h.dial(from);
        EXPECT_TRUE(stranger->farClosed());
        EXPECT_EQ(stranger->received(), "") << from;
    }
    EXPECT_FALSE(h.listener->contacted());
    auto studio = h.dial();
    EXPECT_EQ(studio->received(), R"({"hello":"vantoric-studio-link","v":3,"nonce":")" + nonce + "\"}\n");
    EXPECT_TRUE(h.listener->contacted());
    auto reply = h.start(h.listener->reply(10s));
    studio->send(R"({"ok":tr)");
    studio->send("ue}\n{\"second\":1}\n");
    EXPECT_EQ(h.wait(reply), Json::parse(R"({"ok":true})"));
    EXPECT_TRUE(h.listener->isAlive());
    // Listening ends with the link; the link ends with Studio's connection.
    EXPECT_TRUE(h.network->dial(h.port, fromStudio)->farClosed());
    studio->close();
    h.until([&] { return !h.listener->isAlive(); });
    EXPECT_TRUE(h.listener->contacted());
}

TEST(Handover, GreetedConnectionThatEndsOrOverflowsBeforeItsReplyEndsAlone) {
    Listening h;
    auto reply = h.start(h.listener->reply(10s));
    auto quitter = h.dial();
    quitter->close();
    auto talker = h.dial();
    talker->send(std::string(HandshakeListener::maximumLine, 'x'));
    h.until([&] { return talker->farClosed(); });
    auto studio = h.dial();
    studio->send(validReply().dump() + "\n");
    EXPECT_EQ(h.wait(reply), validReply());
}

TEST(Handover, NoReplyInTimeOrAStopEndsTheWait) {
    const std::string silent = "Vantoric Studio did not answer. Open Studio, then call this tool again.";
    Listening quiet;
    EXPECT_EQ(quiet.failure(quiet.listener->reply(50ms)), silent);
    EXPECT_TRUE(quiet.dial()->farClosed());
    Listening stopped;
    auto reply = stopped.start(stopped.listener->reply(10s));
    auto studio = stopped.dial();
    studio->send("not json\n");
    stopped.listener->stop();
    EXPECT_THROW(stopped.wait(reply), BridgeError);
    EXPECT_THROW(stopped.run(stopped.listener->start()), boost::system::system_error);
}

TEST(HandoverReply, OnlyLoopbackEndpointsAndALongTokenAreTaken) {
    auto reply = HandoverReply::validated(validReply());
    EXPECT_EQ(reply.endpoint.absoluteString(), "http://127.0.0.1:54321/mcp");
    EXPECT_EQ(reply.files.absoluteString(), "http://127.0.0.1:54322");
    EXPECT_EQ(reply.token, std::string(32, 't'));
    const std::string unexpected = "Vantoric Studio answered with an unexpected endpoint.";
    auto with = [](const char* key, Json value) {
        Json reply = validReply();
        if (value.is_null()) reply.erase(key);
        else reply[key] = value;
        return reply;
    };
    const std::pair<Json, std::string> refused[] = {
        {{{"ok", false}, {"error", "The person chose Don't Allow."}}, "The person chose Don't Allow."},
        {with("ok", "true"), "Vantoric Studio refused the connection."},
        {with("v", 2), unexpected},
        {with("v", nullptr), unexpected},
        {with("connectionId", "0F8FAD5B-D9CB-469F-A165-70867728950"), unexpected},
        {with("connectionId", "0F8FAD5B+D9CB-469F-A165-70867728950E"), unexpected},
        {with("endpoint", "http://localhost:54321/mcp"), unexpected},
        {with("files", "http://127.0.0.1:54322/"), unexpected},
        {with("token", std::string(31, 't')), unexpected},
        {with("token", "\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9\u00e9"), unexpected},
    };
    for (const auto& [value, message] : refused)
        EXPECT_EQ(thrown([&] { HandoverReply::validated(value); }), message) << value;
}

// The bridge's side as a whole: it announces, Studio dials and answers, and
// calls share one establishment however they wait for it.
struct Establishing : Harness {
    Establishing() { running.set("com.lumenfold.vantoric.studio", {{7, fs::path("/Apps/Studio.app")}}); }
    testsupport::FakeProcessSockets sockets;
    testsupport::FakeCodeSigning signing;
    std::shared_ptr<StudioConnection> studio = connection(std::nullopt, onlyStudio());

    // Answers the n-th announcement: the port it names, greeted and answered.
    std::shared_ptr<MemoryStream> answer(size_t n, const Json& reply) {
        until([&] { return notifications.posted().size() >= n; });
        auto query = notifications.posted()[n - 1].object;
        auto end = network->dial(static_cast<uint16_t>(std::stoi(query.substr(5))), fromStudio);
        until([&] { return !end->received().empty(); });
        auto greeting = Json::parse(end->received());
        EXPECT_NE(query.find("&challenge=" + StudioPeer::challenge(greeting["nonce"].get<std::string>()) +
                             "&client=A%20coding%20agent"),
                  std::string::npos)
            << query;
        end->send(reply.dump() + "\n");
        return end;
    }
};

TEST(Establishing, AnnouncedStudioLinksUntilItsConnectionEnds) {
    Establishing h;
    auto first = h.start(h.studio->connect());
    auto studio = h.answer(1, validReply());
    EXPECT_EQ(h.wait(first).endpoint.absoluteString(), "http://127.0.0.1:54321/mcp");
    EXPECT_EQ(h.run(h.studio->connect()).token, std::string(32, 't'));
    EXPECT_TRUE(h.launcher.opened().empty());
    studio->close();
    h.until([&] { return !h.studio->link()->lifetime->isAlive(); });
    EXPECT_EQ(h.failure(h.studio->connect()),
              "Studio closed this agent connection. Call again to request a new connection; no edit was retried.");
    auto again = h.start(h.studio->connect());
    h.answer(2, validReply(60000));
    EXPECT_EQ(h.wait(again).endpoint.port, 60000);
}

TEST(Establishing, CallsThatRunOutOfPatienceLeaveItGoingAndLaterOnesJoin) {
    Establishing h;
    h.durations.linkWait = 50ms;
    auto studio = h.connection(std::nullopt, onlyStudio());
    auto one = h.start(studio->connect()), two = h.start(studio->connect());
    const std::string waiting = "Waiting for permission in Vantoric Studio. Ask the person to choose Allow in Studio, "
                                "then call this tool again.";
    EXPECT_EQ(h.failure(one), waiting);
    EXPECT_EQ(h.failure(two), waiting);
    EXPECT_TRUE(studio->hasPending());
    h.durations.linkWait = 10s;
    auto three = h.start(studio->connect());
    h.answer(1, validReply());
    EXPECT_EQ(h.wait(three).token, std::string(32, 't'));
    EXPECT_EQ(h.notifications.posted().size(), 1u);
}

TEST(Establishing, WhatKeepsItFromLinkingIsSaidAndTheNextCallStartsAfresh) {
    struct Case {
        const char* what;
        std::function<void(Establishing&)> arrange;
        std::string failure;
    };
    const Case cases[] = {
        {"no Studio", [](Establishing& h) { h.studio = h.connection(std::nullopt, onlyStudio(), std::nullopt); },
         "Vantoric Studio could not be found on this Mac. Install it from vantoric.studio, or set "
         "VANTORIC_STUDIO_APP to its path."},
        {"launch fails",
         [](Establishing& h) {
             h.running.set("com.lumenfold.vantoric.studio", {});
             h.launcher.failure = platform::SystemError{ENOENT, "The application could not be opened."};
         },
         "Could not launch Vantoric Studio: The application could not be opened."},
        {"no bus", [](Establishing& h) { h.notifications.failure = platform::SystemError{ENOENT, "No session bus"}; },
         "No session bus. Vantoric Studio is asked for a link over the desktop session's bus: start the agent "
         "inside the desktop session, or set DBUS_SESSION_BUS_ADDRESS to its bus."},
        {"a copy from elsewhere runs",
         [](Establishing& h) {
             h.running.set("com.lumenfold.vantoric.studio", {{8, fs::path("/Old/Studio.app")}});
             h.peer = std::make_shared<StudioPeer>(StudioPeer::Services{h.running, h.sockets, h.signing},
                                                   "com.lumenfold.vantoric.studio");
             h.studio = h.connection(std::nullopt, onlyStudio());
         },
         "Another copy of Vantoric Studio is running (/Old/Studio.app) and this agent's bridge cannot use it: it "
         "belongs to /Apps/Studio.app. Quit that copy so this one can start, or add the bridge inside the running "
         "copy (its Settings \u25B8 Agents)."},
        {"Studio refuses", {}, "No."},
    };
    for (const auto& c : cases) {
        Establishing h;
        if (c.arrange) c.arrange(h);
        auto call = h.start(h.studio->connect());
        if (!c.arrange) h.answer(1, {{"ok", false}, {"error", "No."}});
        EXPECT_EQ(h.failure(call), c.failure) << c.what;
        EXPECT_FALSE(h.studio->hasPending()) << c.what;
    }
}

TEST(Establishing, StopCancelsTheWaitAndNoLinkIsMadeAfter) {
    Establishing h;
    auto call = h.start(h.studio->connect());
    h.until([&] { return !h.notifications.posted().empty(); });
    boost::asio::post(h.strand, [&] { h.studio->stop(); });
    EXPECT_THROW(h.wait(call), boost::system::system_error);
    EXPECT_THROW(h.run(h.studio->connect()), boost::system::system_error);
}
