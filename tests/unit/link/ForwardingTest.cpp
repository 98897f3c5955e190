// Forwarded tool calls, uploads and downloads over real loopback HTTP, with
// a small server playing Studio's services and a link given at construction.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>

#include <algorithm>
#include <fstream>

#include "LinkTestSupport.h"
#include "base/BridgeError.h"
#include "link/HttpSession.h"
#include "link/StudioConnection.h"
#include "peer/StudioPeer.h"
#include "support/PlatformDoubles.h"
#include "support/TempDir.h"

using namespace linktest;
namespace fs = std::filesystem;
using json = Json;

namespace {

const std::string token(40, 'k');

class Forwarding : public ::testing::Test {
protected:
    Forwarding() {
        // As in the bridge: a write to a peer that closed fails, it does not
        // end the process (sendfile has no MSG_NOSIGNAL).
        std::signal(SIGPIPE, SIG_IGN);
        durations_.httpTimeout = 5s;
        Link link{*URL::parse(http_.base() + "/mcp"), *URL::parse(http_.base()), token, nullptr};
        StudioConnection::Services services{notifications_, running_, launcher_, random_, nullptr, nullptr,
                                            "com.lumenfold.vantoric.studio", "n", "vantoric-studio-link"};
        connection_ = StudioConnection::create(io_.strand(), io_.io(), fs::path("/Applications/Vantoric Studio.app"),
                                               [] { return std::string("A coding agent"); }, services, durations_,
                                               link);
    }
    ~Forwarding() override {
        io_.onStrand([&] { connection_->stop(); });
    }

    StudioConnection::Forwarded forward(json arguments, const std::string& tool) {
        return io_.run(connection_->forward(std::move(arguments), tool));
    }
    std::string forwardFailure(json arguments = json::object()) {
        auto call = io_.start(connection_->forward(std::move(arguments), "timeline"));
        return failureOf(call);
    }
    void answer(int status, std::string body) {
        http_.setHandler([status, body](const FakeHttp::Request&) { return FakeHttp::Response{status, body}; });
    }

    FakeHttp http_;
    LinkDurations durations_;
    testsupport::FakeNotificationCenter notifications_;
    testsupport::FakeRunningApplications running_;
    testsupport::FakeApplicationLauncher launcher_;
    testsupport::FakeSecureRandom random_;
    IoThread io_;
    std::shared_ptr<StudioConnection> connection_;
};

}  // namespace

using ForwardedCall = Forwarding;

TEST_F(ForwardedCall, JsonRpcRequestWithTheTokenToTheEndpoint) {
    answer(200, R"({"jsonrpc":"2.0","id":1,"result":{"content":[{"type":"text","text":"done"}],"isError":false}})");
    auto forwarded = forward(json{{"clip", "a b/ü"}, {"at", 12.5}}, "timeline");
    ASSERT_TRUE(forwarded.result);
    EXPECT_EQ(forwarded.result->dump(), R"({"content":[{"type":"text","text":"done"}],"isError":false})");

    auto requests = http_.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].method, "POST");
    EXPECT_EQ(requests[0].target, "/mcp");
    EXPECT_EQ(requests[0].headers["authorization"], "Bearer " + token);
    EXPECT_EQ(requests[0].headers["content-type"], "application/json");
    EXPECT_EQ(requests[0].headers["accept"], "application/json, text/event-stream");
    EXPECT_EQ(requests[0].headers["host"], "127.0.0.1:" + std::to_string(http_.port()));
    auto body = json::parse(requests[0].body);
    EXPECT_EQ(body, json::parse(R"({"jsonrpc":"2.0","id":1,"method":"tools/call",
                                    "params":{"name":"timeline","arguments":{"clip":"a b/ü","at":12.5}}})"));
}

TEST_F(ForwardedCall, IdsCountUpWhateverStudioAnswered) {
    answer(200, R"({"result":{"content":[]}})");
    forward(json::object(), "a");
    answer(500, "");
    forwardFailure();
    answer(200, R"({"result":{"content":[]}})");
    forward(json::object(), "c");
    auto requests = http_.requests();
    ASSERT_EQ(requests.size(), 3u);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(json::parse(requests[i].body)["id"], i + 1);
    EXPECT_EQ(io_.onStrand([&] { return connection_->nextId(); }), 3);
}

TEST_F(ForwardedCall, StatusOtherThan200IsThrownWithTheStatus) {
    answer(404, "not here");
    EXPECT_EQ(forwardFailure(), "Vantoric Studio answered with HTTP 404.");
    answer(201, R"({"result":{}})");
    EXPECT_EQ(forwardFailure(), "Vantoric Studio answered with HTTP 201.");
}

TEST_F(ForwardedCall, BodyThatIsNotAJsonObjectIsAnHttp200Failure) {
    http_.setHandler([](const FakeHttp::Request&) {
        return FakeHttp::Response{200, "event: message\ndata: {}\n\n", "text/event-stream"};
    });
    EXPECT_EQ(forwardFailure(), "Vantoric Studio answered with HTTP 200.");
    answer(200, "[1,2]");
    EXPECT_EQ(forwardFailure(), "Vantoric Studio answered with HTTP 200.");
    // A NUL ends nlohmann's input: what stands before it must not pass.
    answer(200, std::string(R"({"result":{}})") + '\0' + "garbage");
    EXPECT_EQ(forwardFailure(), "Vantoric Studio answered with HTTP 200.");
}

TEST_F(ForwardedCall, AnswerNestedDeeperThanTheAgentMaySendIsRefusedNotFollowed) {
    const size_t depth = 100000;
    answer(200, R"({"result":{"deep":)" + std::string(depth, '[') + std::string(depth, ']') + "}}");
    EXPECT_EQ(forwardFailure(), "Vantoric Studio answered with JSON nested too deeply.");
}

TEST_F(ForwardedCall, StudiosRefusalsComeBackAsMessages) {
    answer(200, R"({"result":{"content":[]},"error":{"message":"ignored"}})");
    EXPECT_TRUE(forward(json::object(), "t").result);
    answer(200, R"({"result":"text","error":{"message":"The clip is locked."}})");
    auto locked = forward(json::object(), "t");
    EXPECT_FALSE(locked.result);
    EXPECT_EQ(locked.refusal, "The clip is locked.");
    answer(200, R"({"error":{"code":-32000}})");
    EXPECT_EQ(forward(json::object(), "t").refusal, "Vantoric Studio refused the call.");
    answer(200, R"({"error":"no"})");
    EXPECT_EQ(forward(json::object(), "t").refusal, "Vantoric Studio refused the call.");
    answer(200, R"({"result":[1]})");
    EXPECT_EQ(forward(json::object(), "t").refusal, "Vantoric Studio refused the call.");
}

using KeptAlive = Forwarding;

TEST_F(KeptAlive, ConsecutiveCallsShareOneConnection) {
    answer(200, R"({"result":{}})");
    for (int i = 0; i < 3; ++i) forward(json::object(), "t");
    EXPECT_EQ(http_.connections(), 1);
}

TEST_F(KeptAlive, ConnectionStudioClosedIsReplacedTransparently) {
    answer(200, R"({"result":{}})");
    forward(json::object(), "t");
    http_.closeIdleConnections();
    std::this_thread::sleep_for(20ms);
    EXPECT_TRUE(forward(json::object(), "t").result);
    EXPECT_EQ(http_.connections(), 2);
    EXPECT_EQ(http_.requests().size(), 2u);
}

// What Studio does to one call must never reach another call, nor reach
// Studio twice: each case is a kept-alive connection, then one odd answer,
// then a plain call that must get its own answer.
TEST_F(KeptAlive, OddAnswersStayWithTheirCallAndNothingIsSentTwice) {
    struct Case {
        const char* name;
        FakeHttp::Response odd;
        std::string failure;  // "" when the odd call succeeds
        int connections;
    };
    auto with = [](auto change) {
        FakeHttp::Response response{200, R"({"result":{"call":"odd"}})"};
        change(response);
        return response;
    };
    const Case cases[] = {
        {"read and hung up", with([](auto& r) { r.hangUp = true; }), "The connection to Vantoric Studio was lost.", 2},
        {"interim 100 Continue", with([](auto& r) { r.before = "HTTP/1.1 100 Continue\r\n\r\n"; }), "", 1},
        {"two interim answers", with([](auto& r) { r.before = "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 102 Processing\r\n\r\n"; }), "", 1},
        {"bytes behind the body",
         with([](auto& r) { r.after = "HTTP/1.1 200 OK\r\nContent-Length: 25\r\n\r\n{\"result\":{\"call\":\"x\"}}"; }), "", 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        FakeHttp http;
        Link link{*URL::parse(http.base() + "/mcp"), *URL::parse(http.base()), token, nullptr};
        StudioConnection::Services services{notifications_, running_, launcher_, random_, nullptr, nullptr, "i", "n", "h"};
        auto studio = StudioConnection::create(io_.strand(), io_.io(), fs::path("/x.app"), [] { return std::string(); },
                                               services, durations_, link);
        http.setHandler([](const FakeHttp::Request&) { return FakeHttp::Response{200, R"({"result":{"call":"plain"}})"}; });
        ASSERT_TRUE(io_.run(studio->forward(json::object(), "t")).result);
        http.setHandler([&](const FakeHttp::Request&) { return c.odd; });
        auto odd = io_.start(studio->forward(json::object(), "t"));
        if (c.failure.empty()) {
            auto result = odd.get().result;
            ASSERT_TRUE(result);
            EXPECT_EQ((*result)["call"], "odd");
        } else {
            EXPECT_EQ(failureOf(odd), c.failure);
        }
        EXPECT_EQ(http.requests().size(), 2u);
        http.setHandler([](const FakeHttp::Request&) { return FakeHttp::Response{200, R"({"result":{"call":"plain"}})"}; });
        auto plain = io_.run(studio->forward(json::object(), "t")).result;
        ASSERT_TRUE(plain);
        EXPECT_EQ((*plain)["call"], "plain");
        EXPECT_EQ(http.connections(), c.connections);
        io_.onStrand([&] { studio->stop(); });
    }
}

TEST_F(KeptAlive, ConnectionClosedByStudiosAnswerIsNotReused) {
    http_.setHandler([](const FakeHttp::Request&) {
        FakeHttp::Response response{200, R"({"result":{}})"};
        response.close = true;
        return response;
    });
    forward(json::object(), "t");
    forward(json::object(), "t");
    EXPECT_EQ(http_.connections(), 2);
}

TEST_F(KeptAlive, SlowCallDoesNotHoldUpAnother) {
    http_.setHandler([](const FakeHttp::Request& request) {
        FakeHttp::Response response{200, R"({"result":{"tool":")" + json::parse(request.body)["params"]["name"].get<std::string>() + "\"}}"};
        if (request.body.find("slow") != std::string::npos) response.delay = 500ms;
        return response;
    });
    auto slow = io_.start(connection_->forward(json::object(), "slow"));
    std::this_thread::sleep_for(50ms);
    auto quick = io_.start(connection_->forward(json::object(), "quick"));
    ASSERT_EQ(quick.wait_for(300ms), std::future_status::ready);
    EXPECT_EQ(slow.wait_for(0ms), std::future_status::timeout);
    EXPECT_EQ((*quick.get().result)["tool"], "quick");
    EXPECT_EQ((*slow.get().result)["tool"], "slow");
}

TEST_F(KeptAlive, NobodyListeningIsATransportError) {
    Link dead{*URL::parse("http://127.0.0.1:1/mcp"), *URL::parse("http://127.0.0.1:1"), token, nullptr};
    StudioConnection::Services services{notifications_, running_, launcher_, random_, nullptr, nullptr, "i", "n", "h"};
    auto other = StudioConnection::create(io_.strand(), io_.io(), fs::path("/x.app"), [] { return std::string(); },
                                          services, durations_, dead);
    auto call = io_.start(other->forward(json::object(), "t"));
    EXPECT_EQ(failureOf(call), "Could not connect to Vantoric Studio: the connection was refused.");
}

using Uploading = Forwarding;

TEST_F(Uploading, FileBytesArePutUnderItsNameAndTheUploadIdReturned) {
    testsupport::TempDir dir;
    std::string bytes(300000, '\0');
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 7);
    auto file = dir.write("my clip & more.mov", bytes);
    answer(201, R"({"uploadId":"u-1"})");
    auto link = io_.run(connection_->connect());
    EXPECT_EQ(io_.run(connection_->upload(file, link)), "u-1");
    auto requests = http_.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].method, "PUT");
    EXPECT_EQ(requests[0].target, "/uploads?name=my%20clip%20%26%20more.mov");
    EXPECT_EQ(requests[0].headers["content-type"], "application/octet-stream");
    EXPECT_EQ(requests[0].headers["authorization"], "Bearer " + token);
    EXPECT_EQ(requests[0].body, bytes);
}

TEST_F(Uploading, AnythingButA201WithAnIdIsRefused) {
    testsupport::TempDir dir;
    auto file = dir.write("a.png", "png");
    auto link = io_.run(connection_->connect());
    auto failure = [&] {
        auto call = io_.start(connection_->upload(file, link));
        return failureOf(call);
    };
    answer(200, R"({"uploadId":"u-1"})");
    EXPECT_EQ(failure(), "Studio did not accept a.png: upload failed.");
    answer(415, R"({"error":"PNG files are not supported"})");
    EXPECT_EQ(failure(), "Studio did not accept a.png: PNG files are not supported.");
    answer(201, "not json");
    EXPECT_EQ(failure(), "Studio did not accept a.png: upload failed.");

    // Refused on its header, before the body: the refusal is what counts,
    // not the broken pipe the rest of the body then meets; and what stands
    // in for the file must be a file.
    auto big = dir.write("big.mov", std::string(64 << 20, 'b'));
    http_.refuseBodies({413, R"({"error":"Files over 1 MB are not accepted"})"});
    auto refused = io_.start(connection_->upload(big, link));
    EXPECT_EQ(failureOf(refused), "Studio did not accept big.mov: Files over 1 MB are not accepted.");
    ASSERT_EQ(::mkfifo((dir.path() / "pipe.mov").c_str(), 0644), 0);
    auto piped = io_.start(connection_->upload(dir.path() / "pipe.mov", link));
    EXPECT_EQ(failureOf(piped), "Cannot read " + (dir.path() / "pipe.mov").string() + ".");
}

TEST_F(Uploading, ProgressCountsTheBytesSentUpToTheFileSize) {
    testsupport::TempDir dir;
    auto file = dir.write("big.mov", std::string(5 << 20, 'b'));
    answer(201, R"({"uploadId":"u-1"})");
    auto link = io_.run(connection_->connect());
    std::vector<uint64_t> told;
    io_.run(connection_->upload(file, link, [&](uint64_t sent, uint64_t total) {
        EXPECT_EQ(total, 5u << 20);
        told.push_back(sent);
    }));
    ASSERT_GE(told.size(), 2u);
    EXPECT_TRUE(std::is_sorted(told.begin(), told.end()));
    EXPECT_EQ(told.back(), 5u << 20);
    EXPECT_EQ(http_.requests().at(0).body.size(), 5u << 20);
}

TEST_F(Uploading, FileThatShrinksWhileSentFailsThatUploadAlone) {
    testsupport::TempDir dir;
    auto file = dir.write("shrinking.mov", std::string(32 << 20, 's'));  // more than one send takes
    auto other = dir.write("other.mov", "other");
    answer(201, R"({"uploadId":"u-1"})");
    auto link = io_.run(connection_->connect());
    auto call = io_.start(connection_->upload(file, link, [&](uint64_t, uint64_t) { fs::resize_file(file, 10); }));
    EXPECT_EQ(failureOf(call), "Could not read " + file.string() + ": it became shorter while it was being uploaded.");
    // Studio never saw a whole request for it; the next upload goes through.
    EXPECT_EQ(io_.run(connection_->upload(other, link)), "u-1");
    auto requests = http_.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].body, "other");
}

TEST_F(Uploading, MissingFileIsAnError) {
    testsupport::TempDir dir;
    auto link = io_.run(connection_->connect());
    auto call = io_.start(connection_->upload(dir.path() / "gone.mov", link));
    EXPECT_NE(failureOf(call).find("gone.mov"), std::string::npos);
    EXPECT_TRUE(http_.requests().empty());
}

using Downloading = Forwarding;

TEST_F(Downloading, ExportLandsAtTheDestinationReadableByAll) {
    testsupport::TempDir dir;
    std::string bytes(1 << 20, 'v');
    answer(200, bytes);
    auto destination = dir.path() / "new" / "folders" / "out.mp4";
    io_.run(connection_->download("export 1", destination, false));
    EXPECT_EQ(testsupport::readFile(destination), bytes);
    struct stat info {};
    ASSERT_EQ(stat(destination.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0644u);
    EXPECT_EQ(testsupport::namesIn(destination.parent_path()), std::vector<std::string>{"out.mp4"});
    auto requests = http_.requests();
    EXPECT_EQ(requests[0].method, "GET");
    EXPECT_EQ(requests[0].target, "/downloads/export%201");
    EXPECT_EQ(requests[0].headers["authorization"], "Bearer " + token);
}

TEST_F(Downloading, ExportLargerThanAnyMessageLimitArrivesWhole) {
    testsupport::TempDir dir;
    std::string bytes(24 << 20, '\0');
    for (size_t i = 0; i < bytes.size(); i += 4096) bytes[i] = static_cast<char>(i / 4096);
    answer(200, bytes);
    io_.run(connection_->download("big", dir.path() / "big.mp4", false), 30s);
    EXPECT_EQ(fs::file_size(dir.path() / "big.mp4"), bytes.size());
    EXPECT_TRUE(testsupport::readFile(dir.path() / "big.mp4") == bytes);
}

TEST_F(Downloading, ExistingFileIsKeptUnlessOverwriteIsAsked) {
    testsupport::TempDir dir;
    auto destination = dir.write("out.mp4", "old");
    answer(200, "new");
    auto refused = io_.start(connection_->download("e", destination, false));
    EXPECT_EQ(failureOf(refused), destination.string() + " already exists.");
    EXPECT_EQ(testsupport::readFile(destination), "old");
    io_.run(connection_->download("e", destination, true));
    EXPECT_EQ(testsupport::readFile(destination), "new");
    EXPECT_EQ(testsupport::namesIn(dir.path()), std::vector<std::string>{"out.mp4"});
}

TEST_F(Downloading, FolderAtTheDestinationIsRefused) {
    testsupport::TempDir dir;
    fs::create_directory(dir.path() / "out.mp4");
    answer(200, "bytes");
    auto call = io_.start(connection_->download("e", dir.path() / "out.mp4", true));
    EXPECT_EQ(failureOf(call), (dir.path() / "out.mp4").string() + " is a folder: name a file to export to.");
}

TEST_F(Downloading, StudioNotHandingOverLeavesNothingBehind) {
    testsupport::TempDir dir;
    answer(404, "{}");
    auto call = io_.start(connection_->download("e", dir.path() / "out.mp4", false));
    EXPECT_EQ(failureOf(call), "Studio could not hand over the export. It is still in the project's exports folder.");
    EXPECT_TRUE(testsupport::namesIn(dir.path()).empty());
}

TEST_F(Downloading, ConnectionLostMidwayLeavesNoPartialFile) {
    testsupport::TempDir dir;
    http_.setHandler([](const FakeHttp::Request&) {
        FakeHttp::Response response{200, std::string(100000, 'x')};
        response.truncateBodyAt = 5000;
        return response;
    });
    auto call = io_.start(connection_->download("e", dir.path() / "out.mp4", false));
    EXPECT_EQ(failureOf(call), "The connection to Vantoric Studio was lost.");
    EXPECT_TRUE(testsupport::namesIn(dir.path()).empty());
}
