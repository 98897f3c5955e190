// The simulator's HTTP service as the bridge uses it: who may call, the
// JSON-RPC envelope, uploads and downloads of real bytes, and the test
// controls that make it answer badly.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <random>
#include <thread>

#include "SimHarness.h"

namespace simtest {
namespace {

std::string randomBytes(std::size_t size) {
    std::mt19937_64 random(size);
    std::string bytes(size, '\0');
    for (auto& b : bytes) b = static_cast<char>(random());
    return bytes;
}

std::map<std::string, std::string> bearer(const std::string& token) {
    return {{"Authorization", "Bearer " + token}};
}

HttpResponse upload(HttpClient& http, const std::string& token, const std::string& name, const std::string& bytes) {
    return http.request("PUT", "/uploads?name=" + percentEncode(name),
                        {{"Authorization", "Bearer " + token}, {"Content-Type", "application/octet-stream"}}, bytes);
}

Json exportUntilSettled(SimSession& sim, HttpClient& http, const std::string& token) {
    for (int i = 0; i < 50; ++i) {
        Json p = SimSession::payload(sim.call(http, token, "export_video", {{"action", "status"}, {"wait_seconds", 15}}));
        std::string phase = p["phase"];
        if (phase == "completed" || phase == "failed" || phase == "cancelled") return p;
    }
    throw std::runtime_error("the export never settled");
}

TEST(HttpAccess, NeedsTheTokenOfALiveLink) {
    SimSession sim;
    sim.start();
    LinkReply link = sim.link();
    HttpClient http(sim.httpPort());
    EXPECT_EQ(http.request("POST", "/mcp", {}, "{}").status, 401);
    EXPECT_EQ(http.request("POST", "/mcp", bearer(std::string(64, 'a')), "{}").status, 401);
    EXPECT_EQ(http.request("GET", "/downloads/x", {{"Authorization", "Basic " + link.token}}).status, 401);
    EXPECT_EQ(upload(http, "", "a.mov", "bytes").status, 401);
    // A refused upload's body is read and dropped: the same connection carries on.
    EXPECT_TRUE(http.isOpen());
    EXPECT_FALSE(SimSession::isToolError(sim.call(http, link.token, "studio_status")));

    link.connection.close();
    ASSERT_TRUE(sim.log().waitFor("link-closed"));
    EXPECT_EQ(http.request("POST", "/mcp", bearer(link.token), "{}").status, 401);
    auto denied = sim.log().events("http");
    EXPECT_EQ(denied.front()["auth"], "missing");
    EXPECT_EQ(denied.back()["auth"], "wrong");
}

TEST(HttpAccess, AnswersEverythingElseWithNotFound) {
    SimSession sim;
    sim.start();
    LinkReply link = sim.link();
    HttpClient http(sim.httpPort());
    EXPECT_EQ(http.request("GET", "/mcp", bearer(link.token)).status, 404);
    EXPECT_EQ(http.request("POST", "/mcp/", bearer(link.token), "{}").status, 404);
    EXPECT_EQ(http.request("POST", "/uploads?name=a", bearer(link.token), "x").status, 404);
    EXPECT_EQ(http.request("GET", "/downloads/unknown", bearer(link.token)).status, 404);
    EXPECT_EQ(http.request("DELETE", "/", bearer(link.token)).status, 404);
    EXPECT_TRUE(http.isOpen());
}

TEST(JsonRpc, EchoesTheIdAndCarriesTheToolResult) {
    SimSession sim;
    sim.start();
    LinkReply link = sim.link();
    HttpClient http(sim.httpPort());
    Json answer = sim.call(http, link.token, "studio_status", Json::object(), 41);
    EXPECT_EQ(answer["jsonrpc"], "2.0");
    EXPECT_EQ(answer["id"], 41);
    const Json& content = answer["result"]["content"];
    ASSERT_EQ(content.size(), 1u);
    EXPECT_EQ(content[0]["type"], "text");
    EXPECT_EQ(answer["result"]["isError"], false);
    Json status = Json::parse(content[0]["text"].get<std::string>());
    auto text = content[0]["text"].get<std::string>();
    EXPECT_EQ(status["ready"], true);
    EXPECT_EQ(status["identifier"], kRelease);
    EXPECT_EQ(text, nlohmann::ordered_json::parse(text).dump()) << "the payload is compact JSON";

    auto logged = sim.log().waitFor("http", [](const Json& e) { return e.contains("body"); });
    ASSERT_TRUE(logged);
    EXPECT_EQ((*logged)["body"]["params"]["name"], "studio_status");
    EXPECT_EQ((*logged)["accept"], "application/json, text/event-stream");
}

TEST(JsonRpc, ReportsUnknownToolsAsToolErrorsAndBadEnvelopesAsRpcErrors) {
    SimSession sim;
    sim.start();
    LinkReply link = sim.link();
    HttpClient http(sim.httpPort());
    Json unknown = sim.call(http, link.token, "make_coffee");
    EXPECT_TRUE(SimSession::isToolError(unknown));
    EXPECT_EQ(SimSession::payload(unknown), "Unknown tool make_coffee.");

    EXPECT_EQ(http.request("POST", "/mcp", bearer(link.token), "not json").json()["error"]["code"], -32700);
    Json ping = {{"jsonrpc", "2.0"}, {"id", 5}, {"method", "ping"}};
    Json answer = http.request("POST", "/mcp", bearer(link.token), ping.dump()).json();
    EXPECT_EQ(answer["error"]["code"], -32601);
    EXPECT_EQ(answer["id"], 5);
}

TEST(FileTransfer, UploadImportExportAndDownloadRoundTrip) {
    SimSession sim;
    sim.start({.environment = {{"STUDIO_SIM_EXPORT_SECONDS", "0.3"}, {"STUDIO_SIM_EXPORT_BYTES", "3000000"}}});
    LinkReply link = sim.link();
    HttpClient http(sim.httpPort());
    ASSERT_FALSE(SimSession::isToolError(sim.call(http, link.token, "project", {{"action", "create"}, {"name", "Trip"}})));

    // Larger than an HTTP library's default body limit, with a name that needs encoding.
    std::string clip = randomBytes(12 << 20);
    HttpResponse uploaded = upload(http, link.token, "beach day #1.mov", clip);
    ASSERT_EQ(uploaded.status, 201) << uploaded.body;
    Json receipt = uploaded.json();
    EXPECT_EQ(receipt["name"], "beach day #1.mov");
    EXPECT_EQ(receipt["bytes"], clip.size());
    std::string uploadId = receipt["uploadId"];

    Json imported = SimSession::payload(
        sim.call(http, link.token, "import_media", {{"uploads", {{{"uploadId", uploadId}, {"name", "beach day #1.mov"}}}}}));
    ASSERT_EQ(imported["imported"].size(), 1u) << imported.dump();
    EXPECT_EQ(imported["imported"][0]["kind"], "video");
    EXPECT_EQ(imported["clips"].size(), 1u);
    auto stored = sim.home() / "Projects/Trip.vantoric/Media/beach day #1.mov";
    EXPECT_EQ(testsupport::readFile(stored), clip);

    // The same upload cannot be imported twice.
    EXPECT_TRUE(SimSession::isToolError(sim.call(http, link.token, "import_media", {{"uploads", {{{"uploadId", uploadId}}}}})));

    Json started = SimSession::payload(sim.call(http, link.token, "export_video", {{"action", "start"}}));
    EXPECT_EQ(started["phase"], "queued");
    Json done = exportUntilSettled(sim, http, link.token);
    ASSERT_EQ(done["phase"], "completed") << done.dump();
    EXPECT_FALSE(done["file"].contains("level"));
    EXPECT_EQ(done["file"]["bytes"], 3000000);
    auto exported = sim.home() / "Projects/Trip.vantoric/exports" / done["file"]["name"].get<std::string>();
    EXPECT_EQ(std::filesystem::file_size(exported), 3000000u);

    HttpResponse download = http.request("GET", "/downloads/" + done["file"]["downloadId"].get<std::string>(), bearer(link.token));
    ASSERT_EQ(download.status, 200);
    EXPECT_EQ(download.headers["content-type"], "video/mp4");
    EXPECT_EQ(download.body, testsupport::readFile(exported));
    EXPECT_EQ(download.body.substr(4, 8), "ftypisom");
    EXPECT_TRUE(http.isOpen());
    auto logged = sim.log().waitFor("download");
    ASSERT_TRUE(logged);
    EXPECT_EQ((*logged)["complete"], true);
}

TEST(FileTransfer, RefusesUploadsWithoutAUsableName) {
    SimSession sim;
    sim.start();
    LinkReply link = sim.link();
    HttpClient http(sim.httpPort());
    EXPECT_EQ(http.request("PUT", "/uploads", bearer(link.token), "x").status, 400);
    EXPECT_EQ(upload(http, link.token, "../escape", "x").status, 400);
    EXPECT_EQ(upload(http, link.token, "", "x").status, 400);
    EXPECT_FALSE(std::filesystem::exists(sim.home() / "escape"));
    EXPECT_TRUE(http.isOpen());
}

TEST(FileTransfer, SeriesImportTakesAnUploadButNeverAPath) {
    SimSession sim;
    sim.start();
    LinkReply link = sim.link();
    HttpClient http(sim.httpPort());
    Json created = SimSession::payload(sim.call(http, link.token, "series", {{"operation", "seriesCreate"}, {"params", {{"name", "Travels"}}}}));
    std::string seriesId = created["series"]["id"];

    Json byPath = sim.call(http, link.token, "series",
                           {{"operation", "seriesMediaImport"}, {"params", {{"seriesId", seriesId}, {"from", {{"path", "/tmp/a.mov"}}}}}});
    EXPECT_TRUE(SimSession::isToolError(byPath));

    std::string uploadId = upload(http, link.token, "intro.wav", "RIFF....").json()["uploadId"];
    Json imported = SimSession::payload(sim.call(
        http, link.token, "series", {{"operation", "seriesMediaImport"}, {"params", {{"seriesId", seriesId}, {"from", {{"uploadId", uploadId}}}}}}));
    EXPECT_EQ(imported["media"]["kind"], "audio");
    Json listed = SimSession::payload(sim.call(http, link.token, "series", {{"operation", "seriesList"}}));
    EXPECT_EQ(listed["series"][0]["media"].size(), 1u);
}

TEST(HttpControls, AnswersTheMcpEndpointWithAFixedStatusOrBody) {
    {
        SimSession sim;
        sim.start({.environment = {{"STUDIO_SIM_HTTP_STATUS", "404"}}});
        LinkReply link = sim.link();
        HttpClient http(sim.httpPort());
        EXPECT_EQ(http.request("POST", "/mcp", bearer(link.token), "{}").status, 404);
    }
    {
        SimSession sim;
        sim.start({.environment = {{"STUDIO_SIM_MCP_BODY", "event: message\ndata: {}\n\n"}}});
        LinkReply link = sim.link();
        HttpClient http(sim.httpPort());
        HttpResponse response = http.request("POST", "/mcp", bearer(link.token), "{}");
        EXPECT_EQ(response.status, 200);
        EXPECT_EQ(response.body, "event: message\ndata: {}\n\n");
        EXPECT_EQ(response.headers["content-type"], "text/event-stream");
    }
}

TEST(HttpControls, AnswersUploadsAndDownloadsAsTold) {
    SimSession sim;
    sim.start({.environment = {{"STUDIO_SIM_UPLOAD_STATUS", "200"}, {"STUDIO_SIM_DOWNLOAD_STATUS", "500"}, {"STUDIO_SIM_EXPORT_SECONDS", "0"}}});
    LinkReply link = sim.link();
    HttpClient http(sim.httpPort());
    HttpResponse uploaded = upload(http, link.token, "a.png", "png");
    EXPECT_EQ(uploaded.status, 200);
    EXPECT_TRUE(uploaded.json().contains("uploadId"));
    sim.call(http, link.token, "project", {{"action", "create"}, {"name", "P"}});
    sim.call(http, link.token, "export_video", {{"action", "start"}});
    Json done = exportUntilSettled(sim, http, link.token);
    ASSERT_EQ(done["phase"], "completed");
    EXPECT_EQ(http.request("GET", "/downloads/" + done["file"]["downloadId"].get<std::string>(), bearer(link.token)).status, 500);
}

TEST(HttpControls, RefusesUploadsWithTheGivenError) {
    SimSession sim;
    sim.start({.environment = {{"STUDIO_SIM_UPLOAD_ERROR", "The disk is full."}}});
    LinkReply link = sim.link();
    HttpClient http(sim.httpPort());
    HttpResponse refused = upload(http, link.token, "a.mov", randomBytes(100000));
    EXPECT_EQ(refused.status, 422);
    EXPECT_EQ(refused.json()["error"], "The disk is full.");
    EXPECT_TRUE(http.isOpen());
}

TEST(HttpControls, DelaysOnlyTheSlowTool) {
    SimSession sim;
    sim.start({.environment = {{"STUDIO_SIM_SLOW_TOOL", "timeline"}, {"STUDIO_SIM_SLOW_TOOL_MS", "3000"}}});
    LinkReply link = sim.link();
    HttpClient slow(sim.httpPort());
    HttpClient quick(sim.httpPort());
    sim.call(quick, link.token, "project", {{"action", "create"}, {"name", "P"}});
    std::atomic<bool> slowAnswered = false;
    std::thread slowCall([&] {
        sim.call(slow, link.token, "timeline", {{"action", "list"}});
        slowAnswered = true;
    });
    ASSERT_TRUE(sim.log().waitFor("http", [](const Json& e) { return e.contains("body") && e["body"]["params"]["name"] == "timeline"; }));
    EXPECT_FALSE(SimSession::isToolError(sim.call(quick, link.token, "studio_status")));
    EXPECT_FALSE(slowAnswered) << "the slow tool was not held back, or held up the quick one";
    slowCall.join();
    EXPECT_TRUE(slowAnswered);
}

}  // namespace
}  // namespace simtest
