#include <gtest/gtest.h>
#include <plist/plist.h>

#include <cstdlib>

#include "platform/Bundle.h"
#include "support/TempDir.h"

using platform::LinuxBundles;
using testsupport::TempDir;

namespace {

std::string xmlInfoPlist(const std::string& body) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">" + body + "</plist>\n";
}

}  // namespace

TEST(BundleReading, IdentifierVersionAndExecutableFromXmlOrBinaryWhenTheyAreStrings) {
    TempDir dir;
    dir.write("Studio.app/Contents/Info.plist",
              xmlInfoPlist("<dict><key>CFBundleIdentifier</key><string>com.example.one</string>"
                           "<key>CFBundleShortVersionString</key><string>4.5.6</string>"
                           "<key>CFBundleExecutable</key><string>Studio Bin</string></dict>"));
    auto info = LinuxBundles().open(dir / "Studio.app");
    ASSERT_TRUE(info);
    EXPECT_EQ(info->url, dir / "Studio.app");
    EXPECT_EQ(info->identifier, "com.example.one");
    EXPECT_EQ(info->shortVersion, "4.5.6");
    EXPECT_EQ(info->executablePath(), dir / "Studio.app/Contents/MacOS/Studio Bin");
    EXPECT_EQ(info->resources(), dir / "Studio.app/Contents/Resources");

    plist_t dict = plist_new_dict();
    plist_dict_set_item(dict, "CFBundleIdentifier", plist_new_string("com.example.binary"));
    char* bytes = nullptr;
    uint32_t length = 0;
    plist_to_bin(dict, &bytes, &length);
    dir.write("B.app/Contents/Info.plist", std::string(bytes, length));
    free(bytes);
    plist_free(dict);
    auto binary = LinuxBundles().open(dir / "B.app");
    ASSERT_TRUE(binary);
    EXPECT_EQ(binary->identifier, "com.example.binary");
    EXPECT_FALSE(binary->shortVersion);
    EXPECT_FALSE(binary->executablePath());

    // Values of another type count as missing.
    dir.write("N.app/Contents/Info.plist",
              xmlInfoPlist("<dict><key>CFBundleIdentifier</key><integer>7</integer>"
                           "<key>CFBundleShortVersionString</key><real>2.5</real></dict>"));
    auto typed = LinuxBundles().open(dir / "N.app");
    ASSERT_TRUE(typed);
    EXPECT_FALSE(typed->identifier);
    EXPECT_FALSE(typed->shortVersion);
}

TEST(BundleReading, FolderWithoutAReadableDictionaryIsNoBundle) {
    TempDir dir;
    std::filesystem::create_directories(dir / "Empty.app/Contents");
    dir.write("Array.app/Contents/Info.plist", xmlInfoPlist("<array><string>x</string></array>"));
    dir.write("Junk.app/Contents/Info.plist", "this is not a property list");
    dir.write("File.app", "a file, not a folder");
    for (const char* name : {"Missing.app", "Empty.app", "Array.app", "Junk.app", "File.app"})
        EXPECT_FALSE(LinuxBundles().open(dir / name)) << name;
}
