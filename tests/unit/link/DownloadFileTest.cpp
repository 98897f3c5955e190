// Where a download waits until it is whole: nothing but a complete file at
// the destination, no folder made for a download that does not complete, and
// a sweep that clears what dead writers left without touching live ones.
#include <fcntl.h>
#include <sys/file.h>

#include "LinkHarness.h"
#include "link/DownloadFile.h"

using namespace linktest;
using studiolink::DownloadFile;
using studiolink::removeUnfinishedDownloads;
using testsupport::namesIn;
using testsupport::readFile;

TEST(DownloadFile, MissingFoldersAreMadeOnlyForAWholeFile) {
    testsupport::TempDir dir;
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

    // Abandoned, or unfinished when the bridge exits: neither its bytes nor
    // its folders anywhere.
    auto abandoned = DownloadFile::create(dir / "e/f/out.mp4", false);
    abandoned->write("part", 4);
    abandoned.reset();
    auto unfinished = DownloadFile::create(dir / "out.mp4", false);
    unfinished->write("part", 4);
    ASSERT_EQ(namesIn(dir.path()).size(), 2u);
    removeUnfinishedDownloads();
    EXPECT_EQ(namesIn(dir.path()), std::vector<std::string>{"a"});
}

TEST(DownloadFile, TheSweepRemovesOnlyWhatNoLiveWriterHolds) {
    testsupport::TempDir dir;
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
    ::close(held);
    auto named = [&](const std::string& prefix) {
        return std::count_if(names.begin(), names.end(), [&](auto& name) { return name.rfind(prefix, 0) == 0; });
    };
    EXPECT_EQ(named(".dead."), 0);
    EXPECT_EQ(named(".first.mp4.download-"), 1);
    for (const char* kept : {".held.mp4.download-XyZ789", ".notes.download-short", "clip.download-AbC123"})
        EXPECT_EQ(named(kept), 1) << kept;

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

// Refusals in the user's words, each before a byte lands where it should not.
TEST(DownloadFile, WhatStandsInTheWayIsNamed) {
    testsupport::TempDir dir;
    dir.write("file.txt", "a file, not a folder");
    fs::create_directories(dir / "folder.mp4");
    fs::create_symlink(dir / "nowhere", dir / "dangling.mp4");
    for (const auto& [destination, message] : std::vector<std::pair<std::string, std::string>>{
             {"file.txt/out.mp4", "Could not create the folder " + (dir / "file.txt").string() + ": Not a directory."},
             {"folder.mp4", (dir / "folder.mp4").string() + " is a folder: name a file to export to."},
             {"dangling.mp4", (dir / "dangling.mp4").string() + " already exists."}})
        EXPECT_EQ(thrown([&] { DownloadFile::create(dir / destination, false); }), message);

    // Files put where missing folders were to be made, while the bytes came:
    // refused at the end, with what others put there untouched.
    auto late = DownloadFile::create(dir / "new/deeper/out.mp4", false);
    late->write("bytes", 5);
    dir.write("new/deeper", "in the way");
    EXPECT_THROW(late->commit(), BridgeError);
    late.reset();
    EXPECT_EQ(readFile(dir / "new/deeper"), "in the way");

    auto made = DownloadFile::create(dir / "x/y/z/out.mp4", false);
    made->write("bytes", 5);
    dir.write("x/y/z", "in the way, two folders down");
    fs::remove_all(dir / "x");
    dir.write("x/y", "a file where y goes");
    EXPECT_THROW(made->commit(), BridgeError);
    made.reset();
    EXPECT_EQ(namesIn(dir / "x"), std::vector<std::string>{"y"});

    // Another user's leftover is not ours to remove.
    if (::geteuid() == 0) {
        dir.write(".theirs.mp4.download-Qw3rty", "someone else's");
        ASSERT_EQ(::chown((dir / ".theirs.mp4.download-Qw3rty").c_str(), 65534, 65534), 0);
        DownloadFile::create(dir / "mine.mp4", false);
        EXPECT_TRUE(fs::exists(dir / ".theirs.mp4.download-Qw3rty"));
    }
}
