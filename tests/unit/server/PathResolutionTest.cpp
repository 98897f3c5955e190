#include <gtest/gtest.h>

#include "server/PathResolution.h"

namespace {
std::filesystem::path resolve(const std::string& path) {
    return PathResolution::resolve(path, "/work/folder", std::string("/home/me"));
}
}  // namespace

TEST(ResolvingAgentPaths, RelativeHomeAndAbsolute) {
    EXPECT_EQ(resolve("media/clip.mov"), "/work/folder/media/clip.mov");
    EXPECT_EQ(resolve("~/Movies/clip.mov"), "/home/me/Movies/clip.mov");
    EXPECT_EQ(resolve("~"), "/home/me");
    EXPECT_EQ(resolve("/tmp/../tmp/clip.mov"), "/tmp/clip.mov");
    EXPECT_EQ(resolve("./a/./b/../c.mp4"), "/work/folder/a/c.mp4");
    EXPECT_EQ(resolve("../up.mp4"), "/work/up.mp4");
    EXPECT_EQ(resolve("/Users/me/Trip.vantoric/"), "/Users/me/Trip.vantoric");
    EXPECT_EQ(resolve("a~b"), "/work/folder/a~b");
}

TEST(ResolvingAgentPaths, TildeWithAUserName) {
    EXPECT_EQ(resolve("~root/x"), "/root/x");
    EXPECT_EQ(resolve("~no-such-user-here/x"), "/work/folder/~no-such-user-here/x");
}

TEST(ResolvingAgentPaths, Mp4ExtensionInAnyCase) {
    EXPECT_TRUE(PathResolution::isMP4("/a/out.mp4"));
    EXPECT_TRUE(PathResolution::isMP4("/a/out.MP4"));
    EXPECT_TRUE(PathResolution::isMP4("/a/out.Mp4"));
    EXPECT_FALSE(PathResolution::isMP4("/a/out.mov"));
    EXPECT_FALSE(PathResolution::isMP4("/a/out"));
    EXPECT_FALSE(PathResolution::isMP4("/a/mp4"));
    EXPECT_FALSE(PathResolution::isMP4("/a/.mp4"));
    EXPECT_FALSE(PathResolution::isMP4("/a/out.mp4x"));
}
