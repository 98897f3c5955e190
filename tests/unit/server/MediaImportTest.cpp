// Media import and series calls: files checked, uploaded in order, and the
// calls forwarded with upload ids instead of paths.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "StudioHarness.h"

using namespace testsupport;
namespace fs = std::filesystem;

namespace {

const std::string wrongPaths = "Pass paths: 1 to 20 files on this Mac.";

Json namesOf(int count) {
    Json paths = Json::array();
    for (int i = 0; i < count; ++i) paths.push_back("clip" + std::to_string(i) + ".mov");
    return paths;
}

// A socket file: something that exists, is not a folder, and cannot be
// opened for reading by anybody, root included.
fs::path socketFile(const fs::path& path) {
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", path.c_str());
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    close(fd);
    return path;
}

}  // namespace

TEST(ImportingMedia, UploadsEachFileInOrderThenForwardsTheIdsAndNames) {
    StudioHarness studio;
    studio.file("a.mov", "first");
    studio.file("media/b.wav", "second");
    auto reply = studio.call(1, "import_media", {{"paths", {"a.mov", "media/b.wav"}}, {"add_to_timeline", false}});
    EXPECT_EQ(reply["result"], studioResult(Json{{"ok", true}}));

    auto uploads = studio.uploads();
    ASSERT_EQ(uploads.size(), 2u);
    EXPECT_EQ(uploads[0].target, "/uploads?name=a.mov");
    EXPECT_EQ(uploads[0].body, "first");
    EXPECT_EQ(uploads[1].target, "/uploads?name=b.wav");
    EXPECT_EQ(uploads[1].body, "second");

    auto calls = studio.calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0]["name"], "import_media");
    EXPECT_EQ(calls[0]["arguments"].dump(),
              R"({"uploads":[{"uploadId":"up-1","name":"a.mov"},{"uploadId":"up-2","name":"b.wav"}],"add_to_timeline":false})");
}

TEST(ImportingMedia, WithoutAddToTimelineOnlyTheUploadsAreForwarded) {
    StudioHarness studio;
    studio.file("a.mov");
    studio.call(1, "import_media", {{"paths", {"a.mov"}}});
    EXPECT_EQ(studio.calls().at(0)["arguments"].dump(), R"({"uploads":[{"uploadId":"up-1","name":"a.mov"}]})");
}

TEST(ImportingMedia, PathsOtherThanOneToTwentyStringsAreRefused) {
    StudioHarness studio;
    for (auto& name : namesOf(21)) studio.file(name.get<std::string>());
    for (Json paths : {namesOf(21), Json::array(), Json("clip0.mov"), Json::array({"clip0.mov", 7}), Json()}) {
        Json arguments = Json::object();
        if (!paths.is_null()) arguments["paths"] = paths;
        auto reply = studio.call(1, "import_media", arguments);
        EXPECT_EQ(reply["result"]["isError"], true) << paths;
        EXPECT_EQ(toolText(reply), wrongPaths) << paths;
    }
    EXPECT_TRUE(studio.uploads().empty());
    EXPECT_TRUE(studio.calls().empty());
}

TEST(ImportingMedia, AnyBadPathFailsBeforeTheFirstUpload) {
    StudioHarness studio;
    studio.file("a.mov");
    studio.file("b.mov");
    fs::create_directories(studio.work() / "folder.mov");
    socketFile(studio.work() / "socket.mov");
    const std::map<std::string, std::string> refusals{
        {"missing.mov", "No file at " + (studio.work() / "missing.mov").string() + "."},
        {"folder.mov", "No file at " + (studio.work() / "folder.mov").string() + "."},
        {"socket.mov", "Cannot read " + (studio.work() / "socket.mov").string() + "."},
    };
    for (const auto& [third, message] : refusals) {
        auto reply = studio.call(1, "import_media", {{"paths", {"a.mov", "b.mov", third}}});
        EXPECT_EQ(reply["result"]["isError"], true);
        EXPECT_EQ(toolText(reply), message);
    }
    EXPECT_TRUE(studio.uploads().empty());
    EXPECT_TRUE(studio.calls().empty());
}

TEST(ImportingMedia, RefusedUploadStopsTheImportWithStudiosReason) {
    StudioHarness studio;
    studio.file("a.mov");
    studio.file("b.mov");
    studio.refuseUploads(415, "MOV files are not supported");
    auto reply = studio.call(1, "import_media", {{"paths", {"a.mov", "b.mov"}}});
    EXPECT_EQ(toolText(reply), "Studio did not accept a.mov: MOV files are not supported.");
    EXPECT_EQ(studio.uploads().size(), 1u);
    EXPECT_TRUE(studio.calls().empty());
}

TEST(SeriesCalls, MediaImportReplacesFromWithTheUploadAlone) {
    StudioHarness studio;
    studio.file("intro.mov", "intro");
    Json arguments = {{"operation", "seriesMediaImport"},
                      {"params", {{"seriesId", "s1"}, {"from", {{"path", "intro.mov"}, {"trim", 2}}}, {"tag", "x"}}}};
    studio.call(1, "series", arguments);
    auto uploads = studio.uploads();
    ASSERT_EQ(uploads.size(), 1u);
    EXPECT_EQ(uploads[0].body, "intro");
    auto calls = studio.calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0]["name"], "series");
    EXPECT_EQ(calls[0]["arguments"].dump(),
              R"({"operation":"seriesMediaImport","params":{"seriesId":"s1","from":{"uploadId":"up-1"},"tag":"x"}})");
}

TEST(SeriesCalls, EverythingElseReachesStudioAsSent) {
    StudioHarness studio;
    const std::vector<Json> unchanged{
        {{"operation", "seriesCreate"}, {"params", {{"name", "Trips"}, {"from", {{"path", "x.mov"}}}}}},
        {{"operation", "seriesMediaImport"}, {"params", {{"from", {{"path", 12}}}}}},
        {{"operation", "seriesMediaImport"}, {"params", {{"from", "x.mov"}}}},
        {{"operation", "seriesMediaImport"}, {"params", "from"}},
        {{"params", {{"from", {{"path", "x.mov"}}}}}},
    };
    for (const auto& arguments : unchanged) {
        studio.call(1, "series", arguments);
        EXPECT_EQ(studio.calls().back()["arguments"], arguments);
    }
    EXPECT_EQ(studio.calls().size(), unchanged.size());
    EXPECT_TRUE(studio.uploads().empty());
}

TEST(SeriesCalls, MissingFileIsReportedAndNothingIsSent) {
    StudioHarness studio;
    auto reply = studio.call(1, "series", {{"operation", "seriesMediaImport"}, {"params", {{"from", {{"path", "~/gone.mov"}}}}}});
    EXPECT_EQ(toolText(reply), "No file at " + (studio.home() / "gone.mov").string() + ".");
    EXPECT_TRUE(studio.calls().empty());
}
