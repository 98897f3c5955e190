// Forwarded calls, uploads and downloads against Studio's services played in
// memory: what goes out, what each kind of answer becomes, and that nothing
// reaches Studio twice. The last suite runs the same exchanges over real
// loopback TCP.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <thread>

#include "LinkHarness.h"

using namespace linktest;
using Response = FakeHttp::Response;

namespace {

const std::string lost = "The connection to Vantoric Studio was lost.";
const std::string refused = "Vantoric Studio refused the call.";
const std::string asHttp200 = "Vantoric Studio answered with HTTP 200.";

std::string patterned(size_t size) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 7 + i / 4096);
    return bytes;
}

}  // namespace

TEST(ForwardedCall, JsonRpcRequestWithTheTokenAndIdsCountingUpWhateverStudioAnswered) {
    Harness h;
    auto studio = h.connection();
    h.answer(200, R"({"jsonrpc":"2.0","id":1,"result":{"content":[{"type":"text","text":"done"}]}})");
    EXPECT_EQ(h.run(studio->forward(Json{{"clip", "a b/ü"}, {"at", 12.5}}, "timeline")).result->dump(),
              R"({"content":[{"type":"text","text":"done"}]})");
    h.answer(500, "");
    h.failure(studio->forward(Json::object(), "b"));
    h.answer(200, R"({"result":{}})");
    h.run(studio->forward(Json::object(), "c"));
    auto requests = h.studio.requests();
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[0].method + " " + requests[0].target, "POST /mcp");
    EXPECT_EQ(requests[0].headers["authorization"], "Bearer " + token);
    EXPECT_EQ(requests[0].headers["content-type"], "application/json");
    EXPECT_EQ(requests[0].headers["accept"], "application/json, text/event-stream");
    EXPECT_EQ(requests[0].headers["host"], "127.0.0.1:8080");
    EXPECT_EQ(Json::parse(requests[0].body), Json::parse(R"({"jsonrpc":"2.0","id":1,"method":"tools/call",
                                    "params":{"name":"timeline","arguments":{"clip":"a b/ü","at":12.5}}})"));
    for (int i = 0; i < 3; ++i) EXPECT_EQ(Json::parse(requests[i].body)["id"], i + 1);
    EXPECT_EQ(studio->nextId(), 3);
}

TEST(ForwardedCall, EachAnswerBecomesAResultARefusalOrOneSentence) {
    const size_t depth = 100000;
    struct Case {
        Response answer;
        std::string outcome;  // the result, the refusal or the failure
    };
    const Case cases[] = {
        {{200, R"({"result":{"content":[]},"error":{"message":"ignored"}})"}, R"({"content":[]})"},
        {{200, R"({"result":"text","error":{"message":"The clip is locked."}})"}, "The clip is locked."},
        {{200, R"({"error":{"code":-32000}})"}, refused},
        {{200, R"({"error":"no"})"}, refused},
        {{200, R"({"result":[1]})"}, refused},
        {{404, "not here"}, "Vantoric Studio answered with HTTP 404."},
        {{201, R"({"result":{}})"}, "Vantoric Studio answered with HTTP 201."},
        {{200, "event: message\ndata: {}\n\n", "text/event-stream"}, asHttp200},
        {{200, "[1,2]"}, asHttp200},
        // A NUL ends the JSON reader's input: what stands before it must not pass.
        {{200, std::string(R"({"result":{}})") + '\0' + "garbage"}, asHttp200},
        {{200, R"({"result":{"deep":)" + std::string(depth, '[') + std::string(depth, ']') + "}}"},
         "Vantoric Studio answered with JSON nested too deeply."},
        {{.status = 200, .body = "{}", .hangUp = true}, lost},
        {{.status = 200, .body = "{}", .truncateBodyAt = 1}, lost},
        {{.status = 200, .body = {}, .before = "HTTP/1.1 200 OK\r\nContent-Length: x\r\n\r\n"},
         "Vantoric Studio sent a malformed HTTP answer (bad Content-Length)."},
        {{.status = 200, .body = {}, .delay = 60s}, "The request to Vantoric Studio timed out."},
    };
    for (const auto& c : cases) {
        Harness h;
        h.durations.httpTimeout = 200ms;
        h.studio.setHandler([&](const FakeHttp::Request&) { return c.answer; });
        auto call = h.start(h.connection()->forward(Json::object(), "t"));
        std::string outcome;
        try {
            auto forwarded = h.wait(call);
            outcome = forwarded.result ? forwarded.result->dump() : forwarded.refusal;
        } catch (const BridgeError& failure) {
            outcome = failure.what();
        }
        EXPECT_EQ(outcome, c.outcome) << c.answer.body.substr(0, 40);
    }
}

TEST(ForwardedCall, StudioOutOfReachIsNamed) {
    Harness h;
    auto closed = Link{*URL::parse("http://127.0.0.1:1/mcp"), *URL::parse("http://127.0.0.1:1"), token, nullptr};
    EXPECT_EQ(h.failure(h.connection(closed)->forward(Json::object(), "t")),
              "Could not connect to Vantoric Studio: the connection was refused.");
    auto named = Link{*URL::parse("http://localhost:8080/mcp"), *URL::parse("http://localhost:8080"), token, nullptr};
    EXPECT_EQ(h.failure(h.connection(named)->forward(Json::object(), "t")),
              "Vantoric Studio's address http://localhost:8080/mcp cannot be reached.");
}

// What Studio does to one call must never reach another call, nor reach
// Studio twice: a kept-alive connection, then one odd answer, then a plain
// call that must get its own answer.
TEST(KeptAlive, OddAnswersStayWithTheirCallAndNothingIsSentTwice) {
    struct Case {
        const char* name;
        Response odd;
        std::string failure;  // "" when the odd call succeeds
        int connections;
        bool closedWhileIdle = false;
    };
    const std::string plain = R"({"result":{"call":"plain"}})", odd = R"({"result":{"call":"odd"}})";
    const Case cases[] = {
        {"kept alive", {200, odd}, "", 1},
        {"read and hung up", {.status = 200, .body = odd, .hangUp = true}, lost, 2},
        {"interim 100 Continue", {.status = 200, .body = odd, .before = "HTTP/1.1 100 Continue\r\n\r\n"}, "", 1},
        {"two interim answers",
         {.status = 200, .body = odd, .before = "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 102 Processing\r\n\r\n"}, "", 1},
        {"bytes behind the body",
         {.status = 200, .body = odd, .after = "HTTP/1.1 200 OK\r\nContent-Length: 25\r\n\r\n{\"result\":{\"call\":\"x\"}}"},
         "", 2},
        {"closed by the answer", {.status = 200, .body = odd, .close = true}, "", 2},
        {"closed while idle", {200, odd}, "", 2, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Harness h;
        auto studio = h.connection();
        h.answer(200, plain);
        ASSERT_TRUE(h.run(studio->forward(Json::object(), "t")).result);
        h.studio.setHandler([&](const FakeHttp::Request&) { return c.odd; });
        auto call = h.start(studio->forward(Json::object(), "t"));
        if (c.failure.empty()) EXPECT_EQ((*h.wait(call).result)["call"], "odd");
        else EXPECT_THROW(h.wait(call), TransportError);
        EXPECT_EQ(h.studio.requests().size(), 2u);
        if (c.closedWhileIdle) h.studio.closeIdleConnections();
        h.answer(200, plain);
        EXPECT_EQ((*h.run(studio->forward(Json::object(), "t")).result)["call"], "plain");
        EXPECT_EQ(h.studio.connections(), c.connections);
    }
}

TEST(KeptAlive, SlowCallDoesNotHoldUpAnother) {
    Harness h;
    auto studio = h.connection();
    h.studio.setHandler([](const FakeHttp::Request& request) {
        auto tool = Json::parse(request.body)["params"]["name"].get<std::string>();
        return Response{.status = 200, .body = Json{{"result", {{"tool", tool}}}}.dump(),
                        .delay = tool == "slow" ? 300ms : 0ms};
    });
    auto slow = h.start(studio->forward(Json::object(), "slow"));
    EXPECT_EQ((*h.run(studio->forward(Json::object(), "quick")).result)["tool"], "quick");
    EXPECT_EQ(slow.wait_for(0s), std::future_status::timeout);
    EXPECT_EQ((*h.wait(slow).result)["tool"], "slow");
}

// Whichever read or write of the exchange fails, the caller hears of it and
// Studio has the request at most once.
TEST(KeptAlive, FailureAtAnyStepIsTheCallersAndNothingIsSentAgain) {
    Harness h;
    h.answer(200, R"({"result":{}})");
    size_t failed = 0, received = 0;
    for (size_t step = 1; step <= 8; ++step) {
        h.network->failNextAt(step);
        auto outcome = h.failure(h.connection()->forward(Json::object(), "t"));
        size_t now = h.studio.requests().size();
        EXPECT_LE(now - received, 1u) << step;
        if (!outcome.empty()) {
            EXPECT_EQ(outcome, "The connection to Vantoric Studio failed: An automatic unit test failure occurred.") << step;
            ++failed;
        }
        received = now;
    }
    EXPECT_GT(failed, 1u);
    EXPECT_GT(received, 0u);
}

// Both ways a file's bytes go out: as the kernel sends them, and through the
// bridge's own pieces.
TEST(Uploading, FileBytesArePutUnderItsNameAndOneThatShrinksWhileSentFailsThatUploadAlone) {
    testsupport::TempDir dir;
    auto bytes = patterned(3 << 20);
    for (bool zeroCopy : {true, false}) {
        auto file = dir.write("my clip & more.mov", bytes);
        Harness h;
        h.network->zeroCopy = zeroCopy;
        h.answer(201, R"({"uploadId":"u-1"})");
        auto studio = h.connection();
        std::vector<uint64_t> told;
        auto progress = [&](uint64_t sent, uint64_t total) {
            EXPECT_EQ(total, bytes.size());
            told.push_back(sent);
        };
        EXPECT_EQ(h.run(studio->upload(file, Harness::memoryLink(), progress)), "u-1");
        ASSERT_GE(told.size(), 2u) << zeroCopy;
        EXPECT_TRUE(std::is_sorted(told.begin(), told.end()));
        EXPECT_EQ(told.back(), bytes.size());
        auto shrink = [&](uint64_t, uint64_t) { fs::resize_file(file, 10); };
        EXPECT_EQ(h.failure(studio->upload(file, Harness::memoryLink(), shrink)),
                  "Could not read " + file.string() + ": it became shorter while it was being uploaded.");
        EXPECT_EQ(h.run(studio->upload(dir.write("other.mov", "other"), Harness::memoryLink())), "u-1");
        auto requests = h.studio.requests();
        ASSERT_EQ(requests.size(), 2u);
        EXPECT_EQ(requests[0].method + " " + requests[0].target, "PUT /uploads?name=my%20clip%20%26%20more.mov");
        EXPECT_EQ(requests[0].headers["content-type"], "application/octet-stream");
        EXPECT_EQ(requests[0].headers["authorization"], "Bearer " + token);
        EXPECT_TRUE(requests[0].body == bytes);
        EXPECT_EQ(requests[1].body, "other");
    }
}

TEST(Uploading, RefusalsAndFilesThatCannotBeSentAreNamed) {
    testsupport::TempDir dir;
    auto small = dir.write("a.png", "png");
    auto big = dir.write("big.mov", patterned(3 << 20));
    ASSERT_EQ(::mkfifo((dir / "pipe.mov").c_str(), 0644), 0);
    struct Case {
        fs::path file;
        std::function<void(Harness&)> arrange;
        std::string failure;
        size_t requests;
    };
    auto answering = [](int status, std::string body) { return [=](Harness& h) { h.answer(status, body); }; };
    const Case cases[] = {
        {small, answering(200, R"({"uploadId":"u-1"})"), "Studio did not accept a.png: upload failed.", 1},
        {small, answering(415, R"({"error":"PNG files are not supported"})"),
         "Studio did not accept a.png: PNG files are not supported.", 1},
        {small, answering(201, "not json"), "Studio did not accept a.png: upload failed.", 1},
        // Refused on its header: the refusal is what counts, not the broken
        // pipe the rest of the body then meets.
        {big, [](Harness& h) { h.studio.refuseBodies({413, R"({"error":"Files over 1 MB are not accepted"})"}); },
         "Studio did not accept big.mov: Files over 1 MB are not accepted.", 1},
        {big, [](Harness& h) { h.network->failNextAt(4, boost::asio::error::connection_reset); }, lost, 0},
        {dir / "pipe.mov", {}, "Cannot read " + (dir / "pipe.mov").string() + ".", 0},
        {dir / "gone.mov", {}, "Could not read " + (dir / "gone.mov").string() + ": No such file or directory.", 0},
    };
    for (const auto& c : cases) {
        Harness h;
        if (c.arrange) c.arrange(h);
        EXPECT_EQ(h.failure(h.connection()->upload(c.file, Harness::memoryLink())), c.failure);
        EXPECT_EQ(h.studio.requests().size(), c.requests) << c.failure;
    }
}

// The export lands whole and readable by all, or nothing but what was there.
TEST(Downloading, ExportStreamsToItsDestinationOrLeavesNothingBehind) {
    testsupport::TempDir dir;
    auto bytes = patterned(3 << 20);
    Harness h;
    h.answer(200, bytes);
    auto destination = dir / "new/folders/out.mp4";
    h.run(h.connection()->download("export 1", destination, false));
    EXPECT_TRUE(testsupport::readFile(destination) == bytes);
    struct stat info {};
    ASSERT_EQ(stat(destination.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0644u);
    EXPECT_EQ(testsupport::namesIn(destination.parent_path()), std::vector<std::string>{"out.mp4"});
    auto requests = h.studio.requests();
    EXPECT_EQ(requests[0].method + " " + requests[0].target, "GET /downloads/export%201");
    EXPECT_EQ(requests[0].headers["authorization"], "Bearer " + token);

    auto existing = dir.write("old/out.mp4", "old");
    struct Case {
        Response answer;
        bool overwrite;
        std::string failure;
    };
    const Case cases[] = {
        {{404, "{}"}, true, "Studio could not hand over the export. It is still in the project's exports folder."},
        {{.status = 200, .body = std::string(100000, 'x'), .truncateBodyAt = 5000}, true, lost},
        {{200, "new"}, false, existing.string() + " already exists."},
    };
    for (const auto& c : cases) {
        h.studio.setHandler([&](const FakeHttp::Request&) { return c.answer; });
        EXPECT_EQ(h.failure(h.connection()->download("e", existing, c.overwrite)), c.failure);
        EXPECT_EQ(testsupport::readFile(existing), "old");
        EXPECT_EQ(testsupport::namesIn(existing.parent_path()), std::vector<std::string>{"out.mp4"});
    }
}

// The same exchanges over the system's TCP: the kernel sends the file,
// waiting whenever the socket is full, and a kept connection Studio closed
// is noticed without a read.
TEST(OverTcp, UploadsCallsAndRefusalsGoThroughTheSockets) {
    std::signal(SIGPIPE, SIG_IGN);
    testsupport::TempDir dir;
    auto bytes = patterned(32 << 20);
    auto file = dir.write("big.mov", bytes);
    FakeHttp http;
    Harness h;
    h.overTcp = true;
    Link link{*URL::parse(http.base() + "/mcp"), *URL::parse(http.base()), token, nullptr};
    auto studio = h.connection(link);
    http.setHandler([](const FakeHttp::Request& request) {
        return Response{request.method == "PUT" ? 201 : 200, R"({"uploadId":"u-1","result":{}})"};
    });
    EXPECT_EQ(h.run(studio->upload(file, link)), "u-1");
    EXPECT_TRUE(http.requests().at(0).body == bytes);
    http.closeIdleConnections();
    std::this_thread::sleep_for(20ms);
    EXPECT_TRUE(h.run(studio->forward(Json::object(), "t")).result);
    EXPECT_EQ(http.connections(), 2);
    http.refuseBodies({413, R"({"error":"Too large"})"});
    EXPECT_EQ(h.failure(studio->upload(file, link)), "Studio did not accept big.mov: Too large.");
}
