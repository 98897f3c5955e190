// Media import and series imports end to end: the agent's paths, the
// uploads Studio received, and the calls Studio saw instead of the paths.
#include <sys/stat.h>

#include "FileSession.h"

using namespace filestest;

namespace {

std::vector<std::string> uploadedNames(const FileSession& session) {
    std::vector<std::string> names;
    for (auto& event : session.studioEvents("upload"))
        if (event.contains("uploadId")) names.push_back(event["name"].get<std::string>());
    return names;
}

json pathsFor(FileSession& session, const std::string& stem, int count) {
    json paths = json::array();
    for (int i = 0; i < count; ++i) {
        std::string name = "media/" + stem + std::to_string(i) + ".mov";
        session.write(session.work() / name, std::string(100 + i, 'm'));
        paths.push_back(name);
    }
    return paths;
}

}  // namespace

using ImportingMedia = FileTools;

TEST_F(ImportingMedia, OneAndTwentyFilesAreImportedButTwentyOneAreNot) {
    FileSession session;
    session.start();
    auto one = session.call(1, "import_media", {{"paths", pathsFor(session, "one", 1)}});
    ASSERT_FALSE(FileSession::isError(one)) << one.dump();
    EXPECT_EQ(FileSession::payload(one)["imported"].size(), 1u);

    auto twenty = session.call(2, "import_media", {{"paths", pathsFor(session, "twenty", 20)}});
    ASSERT_FALSE(FileSession::isError(twenty)) << twenty.dump();
    auto imported = FileSession::payload(twenty)["imported"];
    ASSERT_EQ(imported.size(), 20u);
    EXPECT_EQ(imported[19]["name"], "twenty19.mov");
    EXPECT_EQ(imported[19]["bytes"], 119);

    auto refused = session.call(3, "import_media", {{"paths", pathsFor(session, "many", 21)}});
    EXPECT_TRUE(FileSession::isError(refused));
    EXPECT_EQ(LinkSession::text(refused), "Pass paths: 1 to 20 files on this Mac.");
    EXPECT_EQ(uploadedNames(session).size(), 21u);
    EXPECT_EQ(session.forwarded("import_media").size(), 2u);
}

TEST_F(ImportingMedia, RelativeHomeAndDottedPathsAreTheFilesMeant) {
    FileSession session;
    session.start();
    session.write(session.work() / "media/clip.mov", "relative");
    session.write(session.user() / "Movies/trip.mov", "in the home folder");
    session.write(session.work() / "other/take.mov", "dotted");
    std::string dotted = (session.work() / "media/../other/./take.mov").string();
    auto result = session.call(1, "import_media", {{"paths", {"media/clip.mov", "~/Movies/trip.mov", dotted}}});
    ASSERT_FALSE(FileSession::isError(result)) << result.dump();
    auto uploads = session.studioEvents("upload");
    ASSERT_EQ(uploads.size(), 3u);
    EXPECT_EQ(uploads[0]["name"], "clip.mov");
    EXPECT_EQ(uploads[0]["bytes"], 8);
    EXPECT_EQ(uploads[1]["name"], "trip.mov");
    EXPECT_EQ(uploads[1]["bytes"], 18);
    EXPECT_EQ(uploads[2]["name"], "take.mov");
    EXPECT_EQ(uploads[2]["bytes"], 6);

    auto missing = session.call(2, "import_media", {{"paths", {"media/../gone/./x.mov"}}});
    EXPECT_EQ(LinkSession::text(missing), "No file at " + (session.work() / "gone/x.mov").string() + ".");
}

TEST_F(ImportingMedia, MissingThirdFileFailsBeforeAnyUpload) {
    FileSession session;
    session.start();
    session.write(session.work() / "a.mov", "a");
    session.write(session.work() / "b.mov", "b");
    auto result = session.call(1, "import_media", {{"paths", {"a.mov", "b.mov", "c.mov"}}});
    EXPECT_TRUE(FileSession::isError(result));
    EXPECT_EQ(LinkSession::text(result), "No file at " + (session.work() / "c.mov").string() + ".");
    EXPECT_TRUE(session.studioEvents("upload").empty());
    EXPECT_TRUE(session.forwarded("import_media").empty());
}

TEST_F(ImportingMedia, AddToTimelineFalseReachesStudio) {
    FileSession session;
    session.start();
    session.write(session.work() / "a.mov", "a");
    auto result = session.call(1, "import_media", {{"paths", {"a.mov"}}, {"add_to_timeline", false}});
    ASSERT_FALSE(FileSession::isError(result)) << result.dump();
    EXPECT_EQ(FileSession::payload(result)["addedToTimeline"], false);
    auto forwarded = session.forwarded("import_media");
    ASSERT_EQ(forwarded.size(), 1u);
    std::string id = session.studioEvents("upload").at(0)["uploadId"];
    EXPECT_EQ(forwarded[0], json({{"uploads", {{{"uploadId", id}, {"name", "a.mov"}}}}, {"add_to_timeline", false}}));
}

TEST_F(ImportingMedia, SeriesImportSendsOnlyTheUploadInFrom) {
    FileSession session;
    session.start(false);
    auto created = session.call(1, "series", {{"operation", "seriesCreate"}, {"params", {{"name", "Trips"}}}});
    std::string series = FileSession::payload(created)["series"]["id"];
    session.write(session.user() / "intro.mov", "intro");
    auto result = session.call(2, "series",
                               {{"operation", "seriesMediaImport"},
                                {"params", {{"seriesId", series}, {"from", {{"path", "~/intro.mov"}, {"trim", 3}}}}}});
    ASSERT_FALSE(FileSession::isError(result)) << result.dump();
    EXPECT_EQ(FileSession::payload(result)["media"]["name"], "intro.mov");
    auto forwarded = session.forwarded("series");
    ASSERT_EQ(forwarded.size(), 2u);
    std::string id = session.studioEvents("upload").at(0)["uploadId"];
    EXPECT_EQ(forwarded[1], json({{"operation", "seriesMediaImport"},
                                  {"params", {{"seriesId", series}, {"from", {{"uploadId", id}}}}}}));
}

// What is not a regular file is refused before any upload, and a named pipe
// (whose opening would wait for a writer) holds nothing else up meanwhile.
// A NUL inside a path once ended it early and uploaded the file before it.
TEST_F(ImportingMedia, PathsThatNameNoRegularFileAreRefusedWithoutHoldingAnythingUp) {
    FileSession session;
    session.start();
    session.write(session.work() / "a.mov", "a");
    ASSERT_EQ(::mkfifo((session.work() / "pipe.mov").c_str(), 0644), 0);
    const std::string nul = std::string("a.mov") + '\0' + ".txt";
    struct Case {
        std::string path;
        std::string message;
    };
    const Case cases[] = {
        {"pipe.mov", "Cannot read " + (session.work() / "pipe.mov").string() + "."},
        {"/dev/zero", "Cannot read /dev/zero."},
        {nul, "No file at " + (session.work() / "a.mov\\x00.txt").string() + "."},
    };
    int id = 1;
    for (const auto& [path, message] : cases) {
        session.send({{"jsonrpc", "2.0"}, {"id", id}, {"method", "tools/call"},
                      {"params", {{"name", "import_media"}, {"arguments", {{"paths", {path}}}}}}});
        session.send({{"jsonrpc", "2.0"}, {"id", "ping"}, {"method", "ping"}});
        EXPECT_TRUE(session.reply("ping", 5s).has_value()) << path;
        auto refused = session.reply(id++, 5s);
        ASSERT_TRUE(refused.has_value()) << path;
        EXPECT_EQ(LinkSession::text((*refused)["result"]), message);
    }
    EXPECT_TRUE(session.studioEvents("upload").empty());
    auto series = session.call(9, "series", {{"operation", "seriesMediaImport"},
                                              {"params", {{"seriesId", "s"}, {"from", {{"path", "pipe.mov"}}}}}});
    EXPECT_EQ(LinkSession::text(series), cases[0].message);
}

// A working folder whose name is not UTF-8 (Latin-1, say): files in it are
// uploaded and exports saved there, and what the agent reads names the
// folder in a form it can be found by.
TEST_F(ImportingMedia, AWorkingFolderNamedInAnotherEncodingStillWorks) {
    FileSession session(LinkSession::Settings{{"STUDIO_SIM_EXPORT_SECONDS", "0.1"}});
    session.start();
    fs::path folder = session.home() / "caf\xE9";
    session.write(folder / "clip.mov", "clip");
    fs::create_directories(folder / "Trip.vantoric");
    session.startBridge(folder);

    auto imported = session.call(1, "import_media", {{"paths", {"clip.mov"}}});
    ASSERT_FALSE(FileSession::isError(imported)) << imported.dump();
    EXPECT_EQ(session.studioEvents("upload").at(0)["bytes"], 4);

    auto exported = FileSession::payload(session.call(2, "export_video", {{"path", "out.mp4"}}));
    EXPECT_TRUE(fs::exists(folder / "out.mp4"));
    EXPECT_EQ(exported["file"]["savedTo"], (session.home() / "caf\\xE9/out.mp4").string()) << exported.dump();

    auto opened = session.call(3, "project", {{"action", "open"}, {"path", "Trip.vantoric"}});
    EXPECT_EQ(LinkSession::text(opened),
              "This call names a path that is not valid UTF-8, which Vantoric Studio cannot read. Rename or move it, "
              "then try again.");
}
