// Forwarded tool calls, uploads and downloads over real loopback HTTP, with
// a small server playing Studio's services and a link given at construction.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "LinkTestSupport.h"
#include "link/StudioConnection.h"
#include "support/PlatformDoubles.h"
#include "support/TempDir.h"

using namespace linktest;
namespace fs = std::filesystem;
using json = nlohmann::ordered_json;

namespace {

const std::string token(40, 'k');

class Forwarding : public ::testing::Test {
protected:
    Forwarding() { connection_ = make(http_.base()); }
    ~Forwarding() override {
        io_.onStrand([&] { connection_->stop(); });
    }

    std::shared_ptr<StudioConnection> make(const std::string& base) {
        durations_.httpTimeout = 5s;
        StudioConnection::Services services{notifications_, running_, launcher_, random_, nullptr, nullptr,
                                            "com.lumenfold.vantoric.studio", "n", "vantoric-studio-link"};
        return StudioConnection::create(io_.strand(), io_.io(), fs::path("/Applications/Vantoric Studio.app"),
                                        [] { return std::string("A coding agent"); }, services, durations_,
                                        Link{*URL::parse(base + "/mcp"), *URL::parse(base), token, nullptr});
    }
    StudioConnection::Forwarded forward(const std::string& tool = "t", json arguments = json::object()) {
        return io_.run(connection_->forward(std::move(arguments), tool));
    }
    std::string forwardFailure() { return failureOf(io_.start(connection_->forward(json::object(), "timeline"))); }
    void answer(int status, std::string body, std::string type = "application/json") {
        http_.setHandler([=](const FakeHttp::Request&) { return FakeHttp::Response{status, body, type}; });
    }
    std::vector<std::string> entries(const fs::path& folder) {
        std::vector<std::string> names;
        for (auto& entry : fs::directory_iterator(folder)) names.push_back(entry.path().filename().string());
        return names;
    }

    FakeHttp http_;
    LinkDurations durations_;
    testsupport::FakeNotificationCenter notifications_;
    testsupport::FakeRunningApplications running_;
    testsupport::FakeApplicationLauncher launcher_;
    testsupport::FakeSecureRandom random_;
    IoThread io_;
    std::shared_ptr<StudioConnection> connection_;
    testsupport::TempDir dir_;
};

}  // namespace

using ForwardedCall = Forwarding;

TEST_F(ForwardedCall, JsonRpcRequestWithTheTokenToTheEndpoint) {
    answer(200, R"({"jsonrpc":"2.0","id":1,"result":{"content":[{"type":"text","text":"done"}],"isError":false}})");
    auto forwarded = forward("timeline", json{{"clip", "a b/ü"}, {"at", 12.5}});
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
    EXPECT_EQ(json::parse(requests[0].body), json::parse(R"({"jsonrpc":"2.0","id":1,"method":"tools/call",
                                    "params":{"name":"timeline","arguments":{"clip":"a b/ü","at":12.5}}})"));
}

TEST_F(ForwardedCall, IdsCountUpWhateverStudioAnswered) {
    answer(200, R"({"result":{"content":[]}})");
    forward();
    answer(500, "");
    forwardFailure();
    answer(200, R"({"result":{"content":[]}})");
    forward();
    auto requests = http_.requests();
    ASSERT_EQ(requests.size(), 3u);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(json::parse(requests[i].body)["id"], i + 1);
    EXPECT_EQ(io_.onStrand([&] { return connection_->nextId(); }), 3);
}

TEST_F(ForwardedCall, AnythingButA200WithAJsonObjectIsAnHttpFailure) {
    struct Case {
        int status;
        std::string body, type, message;
    };
    for (const Case& c : std::vector<Case>{
             {404, "not here", "application/json", "Vantoric Studio answered with HTTP 404."},
             {201, R"({"result":{}})", "application/json", "Vantoric Studio answered with HTTP 201."},
             {200, "event: message\ndata: {}\n\n", "text/event-stream", "Vantoric Studio answered with HTTP 200."},
             {200, "[1,2]", "application/json", "Vantoric Studio answered with HTTP 200."},
         }) {
        SCOPED_TRACE(c.body);
        answer(c.status, c.body, c.type);
        EXPECT_EQ(forwardFailure(), c.message);
    }
}

TEST_F(ForwardedCall, StudiosRefusalsComeBackAsMessages) {
    const std::string general = "Vantoric Studio refused the call.";
    for (auto [body, refusal] : std::vector<std::pair<std::string, std::string>>{
             {R"({"result":{"content":[]},"error":{"message":"ignored"}})", ""},
             {R"({"result":"text","error":{"message":"The clip is locked."}})", "The clip is locked."},
             {R"({"error":{"code":-32000}})", general},
             {R"({"error":"no"})", general},
             {R"({"result":[1]})", general},
         }) {
        SCOPED_TRACE(body);
        answer(200, body);
        auto forwarded = forward();
        EXPECT_EQ(forwarded.result.has_value(), refusal.empty());
        if (!refusal.empty()) {
            EXPECT_EQ(forwarded.refusal, refusal);
        }
    }
}

using KeptAlive = Forwarding;

TEST_F(KeptAlive, ConsecutiveCallsShareOneConnectionUntilStudioClosesIt) {
    answer(200, R"({"result":{}})");
    for (int i = 0; i < 3; ++i) forward();
    EXPECT_EQ(http_.connections(), 1);
    http_.closeIdleConnections();
    std::this_thread::sleep_for(20ms);
    EXPECT_TRUE(forward().result) << "a connection Studio closed is replaced transparently";
    EXPECT_EQ(http_.connections(), 2);
    EXPECT_EQ(http_.requests().size(), 4u);
}

TEST_F(KeptAlive, ConnectionClosedByStudiosAnswerIsNotReused) {
    http_.setHandler([](const FakeHttp::Request&) {
        FakeHttp::Response response{200, R"({"result":{}})"};
        response.close = true;
        return response;
    });
    forward();
    forward();
    EXPECT_EQ(http_.connections(), 2);
}

TEST_F(KeptAlive, NobodyListeningIsATransportError) {
    auto other = make("http://127.0.0.1:1");
    EXPECT_EQ(failureOf(io_.start(other->forward(json::object(), "t"))),
              "Could not connect to Vantoric Studio: the connection was refused.");
}

using Uploading = Forwarding;

TEST_F(Uploading, FileBytesArePutUnderItsNameAndTheUploadIdReturned) {
    std::string bytes(300000, '\0');
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 7);
    auto file = dir_.write("my clip & more.mov", bytes);
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
    auto file = dir_.write("a.png", "png");
    auto link = io_.run(connection_->connect());
    for (auto [status, body, message] : std::vector<std::tuple<int, std::string, std::string>>{
             {200, R"({"uploadId":"u-1"})", "Studio did not accept a.png: upload failed."},
             {415, R"({"error":"PNG files are not supported"})", "Studio did not accept a.png: PNG files are not supported."},
             {201, "not json", "Studio did not accept a.png: upload failed."},
         }) {
        SCOPED_TRACE(body);
        answer(status, body);
        EXPECT_EQ(failureOf(io_.start(connection_->upload(file, link))), message);
    }
    auto missing = io_.start(connection_->upload(dir_.path() / "gone.mov", link));
    EXPECT_NE(failureOf(missing).find("gone.mov"), std::string::npos);
    EXPECT_EQ(http_.requests().size(), 3u);
}

using Downloading = Forwarding;

TEST_F(Downloading, ExportLandsAtTheDestinationReadableByAll) {
    std::string bytes(1 << 20, 'v');
    answer(200, bytes);
    auto destination = dir_.path() / "new" / "folders" / "out.mp4";
    io_.run(connection_->download("export 1", destination, false));
    EXPECT_EQ(testsupport::readFile(destination), bytes);
    struct stat info {};
    ASSERT_EQ(stat(destination.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0644u);
    EXPECT_EQ(entries(destination.parent_path()), std::vector<std::string>{"out.mp4"});
    auto requests = http_.requests();
    EXPECT_EQ(requests[0].method, "GET");
    EXPECT_EQ(requests[0].target, "/downloads/export%201");
    EXPECT_EQ(requests[0].headers["authorization"], "Bearer " + token);
}

TEST_F(Downloading, ExistingFileIsKeptUnlessOverwriteIsAskedAndAFolderNever) {
    auto destination = dir_.write("out.mp4", "old");
    answer(200, "new");
    EXPECT_EQ(failureOf(io_.start(connection_->download("e", destination, false))),
              destination.string() + " already exists.");
    EXPECT_EQ(testsupport::readFile(destination), "old");
    io_.run(connection_->download("e", destination, true));
    EXPECT_EQ(testsupport::readFile(destination), "new");
    EXPECT_EQ(entries(dir_.path()), std::vector<std::string>{"out.mp4"});
    fs::create_directory(dir_.path() / "folder");
    EXPECT_EQ(failureOf(io_.start(connection_->download("e", dir_.path() / "folder", true))),
              (dir_.path() / "folder").string() + " is a folder: name a file to export to.");
}

TEST_F(Downloading, FailedHandOverLeavesNothingBehind) {
    FakeHttp::Response cut{200, std::string(100000, 'x')};
    cut.truncateBodyAt = 5000;
    for (auto [response, message] : std::vector<std::pair<FakeHttp::Response, std::string>>{
             {{404, "{}"}, "Studio could not hand over the export. It is still in the project's exports folder."},
             {cut, "The connection to Vantoric Studio was lost."},
         }) {
        SCOPED_TRACE(message);
        http_.setHandler([response](const FakeHttp::Request&) { return response; });
        EXPECT_EQ(failureOf(io_.start(connection_->download("e", dir_.path() / "out.mp4", false))), message);
        EXPECT_TRUE(entries(dir_.path()).empty());
    }
}
