#include <gtest/gtest.h>

#include "server/AgentPaths.h"

using server::AgentPaths;

TEST(ResolvingAgentPaths, RelativeHomeAbsoluteAndOtherUsers) {
    const AgentPaths paths("/work/folder", std::string("/home/me"));
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"media/clip.mov", "/work/folder/media/clip.mov"}, {"~/Movies/clip.mov", "/home/me/Movies/clip.mov"}, {"~", "/home/me"},
        {"/tmp/../tmp/clip.mov", "/tmp/clip.mov"}, {"./a/./b/../c.mp4", "/work/folder/a/c.mp4"}, {"../up.mp4", "/work/up.mp4"},
        {"/Users/me/Trip.vantoric/", "/Users/me/Trip.vantoric"}, {"a~b", "/work/folder/a~b"}, {"~root/x", "/root/x"},
        {"~no-such-user-here/x", "/work/folder/~no-such-user-here/x"},
    };
    for (const auto& [given, resolved] : cases) EXPECT_EQ(paths.resolve(given), resolved) << given;
    EXPECT_EQ(AgentPaths("/w", std::nullopt).resolve("~/x"), "/w/~/x");
}

TEST(ResolvingAgentPaths, Mp4ExtensionInAnyCase) {
    for (std::string yes : {"/a/out.mp4", "/a/out.MP4", "/a/out.Mp4"}) EXPECT_TRUE(AgentPaths::isMP4(yes)) << yes;
    for (std::string no : {"/a/out.mov", "/a/out", "/a/mp4", "/a/.mp4", "/a/out.mp4x"})
        EXPECT_FALSE(AgentPaths::isMP4(no)) << no;
}
