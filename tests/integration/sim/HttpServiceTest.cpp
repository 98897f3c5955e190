// The simulator's HTTP service as the bridge uses it: who may call, the
// JSON-RPC envelope, uploads and downloads of real bytes, and the test
// controls that make it answer badly.
#include <gtest/gtest.h>

#include <random>

#include "SimHarness.h"

namespace simtest {
namespace {

std::map<std::string, std::string> bearer(const std::string& token) { return {{"Authorization", "Bearer " + token}}; }

TEST(HttpAccess, NeedsTheTokenOfALiveLink) {
    Linked studio;
    auto& http = *studio.http;
    EXPECT_EQ(http.request("POST", "/mcp", {}, "{}").status, 401);
    EXPECT_EQ(http.request("POST", "/mcp", bearer(std::string(64, 'a')), "{}").status, 401);
    EXPECT_EQ(http.request("GET", "/downloads/x", {{"Authorization", "Basic " + studio.link.token}}).status, 401);
    EXPECT_EQ(studio.upload("a.mov", "bytes", "").status, 401);
    // A refused upload's body is read and dropped: the same connection carries on.
    EXPECT_TRUE(http.isOpen());
    EXPECT_FALSE(SimSession::isToolError(studio.call("studio_status")));

    studio.link.connection.close();
    ASSERT_TRUE(studio.sim.log().waitFor("link-closed"));
    EXPECT_EQ(studio.request("POST", "/mcp", "{}").status, 401);
    auto denied = studio.sim.log().events("http");
    EXPECT_EQ(denied.front()["auth"], "missing");
    EXPECT_EQ(denied.back()["auth"], "wrong");
}

TEST(HttpAccess, AnswersEverythingElseWithNotFound) {
    Linked studio;
    for (auto [method, target] : std::vector<std::pair<std::string, std::string>>{
             {"GET", "/mcp"}, {"POST", "/mcp/"}, {"POST", "/uploads?name=a"}, {"GET", "/downloads/unknown"}, {"DELETE", "/"}})
        EXPECT_EQ(studio.request(method, target, method == "POST" ? "{}" : "").status, 404) << method << " " << target;
    EXPECT_TRUE(studio.http->isOpen());
}

TEST(JsonRpc, EchoesTheIdAndCarriesTheToolResult) {
    Linked studio;
    Json answer = studio.call("studio_status", Json::object(), 41);
    EXPECT_EQ(answer["jsonrpc"], "2.0");
    EXPECT_EQ(answer["id"], 41);
    const Json& content = answer["result"]["content"];
    ASSERT_EQ(content.size(), 1u);
    EXPECT_EQ(content[0]["type"], "text");
    EXPECT_EQ(answer["result"]["isError"], false);
    auto text = content[0]["text"].get<std::string>();
    EXPECT_EQ(text, nlohmann::ordered_json::parse(text).dump()) << "the payload is compact JSON";
    EXPECT_EQ(Json::parse(text)["ready"], true);
    EXPECT_EQ(Json::parse(text)["identifier"], kRelease);

    auto logged = studio.sim.log().waitFor("http", [](const Json& e) { return e.contains("body"); });
    ASSERT_TRUE(logged);
    EXPECT_EQ((*logged)["body"]["params"]["name"], "studio_status");
    EXPECT_EQ((*logged)["accept"], "application/json, text/event-stream");
}

TEST(JsonRpc, ReportsUnknownToolsAsToolErrorsAndBadEnvelopesAsRpcErrors) {
    Linked studio;
    Json unknown = studio.call("make_coffee");
    EXPECT_TRUE(SimSession::isToolError(unknown));
    EXPECT_EQ(SimSession::payload(unknown), "Unknown tool make_coffee.");
    EXPECT_EQ(studio.request("POST", "/mcp", "not json").json()["error"]["code"], -32700);
    Json answer = studio.request("POST", "/mcp", Json{{"jsonrpc", "2.0"}, {"id", 5}, {"method", "ping"}}.dump()).json();
    EXPECT_EQ(answer["error"]["code"], -32601);
    EXPECT_EQ(answer["id"], 5);
}

TEST(FileTransfer, UploadImportExportAndDownloadRoundTrip) {
    Linked studio(Env{{"STUDIO_SIM_EXPORT_SECONDS", "0.3"}, {"STUDIO_SIM_EXPORT_BYTES", "3000000"}});
    ASSERT_FALSE(SimSession::isToolError(studio.call("project", {{"action", "create"}, {"name", "Trip"}})));

    // Larger than an HTTP library's default body limit, with a name that needs encoding.
    std::string clip(12 << 20, '\0');
    std::mt19937_64 random(7);
    for (auto& b : clip) b = static_cast<char>(random());
    HttpResponse uploaded = studio.upload("beach day #1.mov", clip);
    ASSERT_EQ(uploaded.status, 201) << uploaded.body;
    EXPECT_EQ(uploaded.json()["name"], "beach day #1.mov");
    EXPECT_EQ(uploaded.json()["bytes"], clip.size());
    std::string uploadId = uploaded.json()["uploadId"];

    Json imported = SimSession::payload(
        studio.call("import_media", {{"uploads", {{{"uploadId", uploadId}, {"name", "beach day #1.mov"}}}}}));
    ASSERT_EQ(imported["imported"].size(), 1u) << imported.dump();
    EXPECT_EQ(imported["imported"][0]["kind"], "video");
    EXPECT_EQ(imported["clips"].size(), 1u);
    EXPECT_EQ(testsupport::readFile(studio.sim.home() / "Projects/Trip.vantoric/Media/beach day #1.mov"), clip);
    EXPECT_TRUE(SimSession::isToolError(studio.call("import_media", {{"uploads", {{{"uploadId", uploadId}}}}})))
        << "an upload is imported once";

    EXPECT_EQ(SimSession::payload(studio.call("export_video", {{"action", "start"}}))["phase"], "queued");
    Json done = studio.exportUntilSettled();
    ASSERT_EQ(done["phase"], "completed") << done.dump();
    EXPECT_FALSE(done["file"].contains("level"));
    EXPECT_EQ(done["file"]["bytes"], 3000000);
    auto exported = studio.sim.home() / "Projects/Trip.vantoric/exports" / done["file"]["name"].get<std::string>();
    EXPECT_EQ(std::filesystem::file_size(exported), 3000000u);

    HttpResponse download = studio.request("GET", "/downloads/" + done["file"]["downloadId"].get<std::string>());
    ASSERT_EQ(download.status, 200);
    EXPECT_EQ(download.headers["content-type"], "video/mp4");
    EXPECT_EQ(download.body, testsupport::readFile(exported));
    EXPECT_EQ(download.body.substr(4, 8), "ftypisom");
    EXPECT_TRUE(studio.http->isOpen());
    auto logged = studio.sim.log().waitFor("download");
    ASSERT_TRUE(logged);
    EXPECT_EQ((*logged)["complete"], true);
}

TEST(FileTransfer, RefusesUploadsWithoutAUsableNameAndSeriesImportsByPath) {
    Linked studio;
    EXPECT_EQ(studio.request("PUT", "/uploads", "x").status, 400);
    EXPECT_EQ(studio.upload("../escape", "x").status, 400);
    EXPECT_EQ(studio.upload("", "x").status, 400);
    EXPECT_FALSE(std::filesystem::exists(studio.sim.home() / "escape"));
    EXPECT_TRUE(studio.http->isOpen());

    std::string seriesId = SimSession::payload(studio.call(
        "series", {{"operation", "seriesCreate"}, {"params", {{"name", "Travels"}}}}))["series"]["id"];
    auto importFrom = [&](const Json& from) {
        return studio.call("series", {{"operation", "seriesMediaImport"}, {"params", {{"seriesId", seriesId}, {"from", from}}}});
    };
    EXPECT_TRUE(SimSession::isToolError(importFrom({{"path", "/tmp/a.mov"}})));
    std::string uploadId = studio.upload("intro.wav", "RIFF....").json()["uploadId"];
    EXPECT_EQ(SimSession::payload(importFrom({{"uploadId", uploadId}}))["media"]["kind"], "audio");
    EXPECT_EQ(SimSession::payload(studio.call("series", {{"operation", "seriesList"}}))["series"][0]["media"].size(), 1u);
}

TEST(HttpControls, AnswersUploadsAndDownloadsAsTold) {
    Linked studio(Env{{"STUDIO_SIM_UPLOAD_STATUS", "200"}, {"STUDIO_SIM_DOWNLOAD_STATUS", "500"}, {"STUDIO_SIM_EXPORT_SECONDS", "0"}});
    HttpResponse uploaded = studio.upload("a.png", "png");
    EXPECT_EQ(uploaded.status, 200);
    EXPECT_TRUE(uploaded.json().contains("uploadId"));
    studio.call("project", {{"action", "create"}, {"name", "P"}});
    studio.call("export_video", {{"action", "start"}});
    Json done = studio.exportUntilSettled();
    ASSERT_EQ(done["phase"], "completed");
    EXPECT_EQ(studio.request("GET", "/downloads/" + done["file"]["downloadId"].get<std::string>()).status, 500);

    Linked refusing(Env{{"STUDIO_SIM_UPLOAD_ERROR", "The disk is full."}});
    HttpResponse refused = refusing.upload("a.mov", std::string(100000, 'x'));
    EXPECT_EQ(refused.status, 422);
    EXPECT_EQ(refused.json()["error"], "The disk is full.");
    EXPECT_TRUE(refusing.http->isOpen());
}

}  // namespace
}  // namespace simtest
