// Where a download waits until it is whole: nothing but a complete file at
// the destination, no folder made for a download that does not complete, and
// a sweep that clears what dead writers left without touching live ones.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>

#include "link/BridgeError.h"
#include "link/DownloadFile.h"
#include "support/TempDir.h"

namespace fs = std::filesystem;
using testsupport::readFile;
using testsupport::TempDir;

namespace {

std::vector<std::string> namesIn(const fs::path& folder) {
    std::vector<std::string> names;
    for (auto& entry : fs::directory_iterator(folder)) names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace

TEST(DownloadFile, MissingFoldersAreMadeOnlyForAWholeFile) {
    TempDir dir;
    auto file = DownloadFile::create(dir / "a/b/out.mp4", false);
    file->write("movie", 5);
    // The bytes wait in the nearest folder that exists; nothing is made yet.
    ASSERT_EQ(namesIn(dir.path()).size(), 1u);
    EXPECT_EQ(namesIn(dir.path())[0].rfind(".out.mp4.download-", 0), 0u);
    file->commit();
    EXPECT_EQ(readFile(dir / "a/b/out.mp4"), "movie");
    EXPECT_EQ(fs::status(dir / "a/b/out.mp4").permissions() & fs::perms::all,
              fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read | fs::perms::others_read);
    file.reset();
    EXPECT_EQ(namesIn(dir.path()), std::vector<std::string>{"a"});

    // A folder put where the file goes while the bytes came: refused.
    auto late = DownloadFile::create(dir / "a/b/late.mp4", false);
    late->write("new", 3);
    fs::create_directories(dir / "a/b/late.mp4");
    EXPECT_THROW(late->commit(), BridgeError);
    late.reset();
    EXPECT_EQ(namesIn(dir / "a/b"), (std::vector<std::string>{"late.mp4", "out.mp4"}));

    // Abandoned: neither its bytes nor its folders anywhere.
    auto abandoned = DownloadFile::create(dir / "e/f/out.mp4", false);
    abandoned->write("part", 4);
    abandoned.reset();
    EXPECT_EQ(namesIn(dir.path()), std::vector<std::string>{"a"});
}

TEST(DownloadFile, TheSweepRemovesOnlyWhatNoLiveWriterHolds) {
    TempDir dir;
    auto live = DownloadFile::create(dir / "first.mp4", false);
    live->write("first", 5);
    dir.write(".dead.mp4.download-AbC123", "left by a killed bridge");
    dir.write(".held.mp4.download-XyZ789", "written by another bridge");
    int held = ::open((dir / ".held.mp4.download-XyZ789").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(::flock(held, LOCK_EX | LOCK_NB), 0);
    dir.write(".notes.download-short", "not of our naming");
    dir.write("clip.download-AbC123", "not hidden");

    auto second = DownloadFile::create(dir / "second.mp4", false);
    auto names = namesIn(dir.path());
    EXPECT_EQ(std::count_if(names.begin(), names.end(), [](auto& n) { return n.find(".dead.") == 0; }), 0);
    for (const char* kept : {".held.mp4.download-XyZ789", ".notes.download-short", "clip.download-AbC123"})
        EXPECT_NE(std::find(names.begin(), names.end(), kept), names.end()) << kept;
    EXPECT_EQ(std::count_if(names.begin(), names.end(), [](auto& n) { return n.find(".first.mp4.download-") == 0; }), 1);
    ::close(held);

    live->commit();
    EXPECT_EQ(readFile(dir / "first.mp4"), "first");
    // The destination is checked again at the end, and an existing file is
    // replaced only when asked.
    dir.write("second.mp4", "there first");
    second->write("second", 6);
    EXPECT_THROW(second->commit(), BridgeError);
    EXPECT_EQ(readFile(dir / "second.mp4"), "there first");
    auto replacing = DownloadFile::create(dir / "second.mp4", true);
    replacing->write("second", 6);
    replacing->commit();
    EXPECT_EQ(readFile(dir / "second.mp4"), "second");
}

TEST(DownloadFile, UnfinishedDownloadsAreRemovedOnTheWayOut) {
    TempDir dir;
    auto file = DownloadFile::create(dir / "out.mp4", false);
    file->write("part", 4);
    ASSERT_EQ(namesIn(dir.path()).size(), 1u);
    removeUnfinishedDownloads();
    EXPECT_TRUE(namesIn(dir.path()).empty());
}
