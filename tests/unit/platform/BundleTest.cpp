#include <gtest/gtest.h>
#include <plist/plist.h>

#include <cstdlib>

#include "platform/Bundle.h"
#include "support/TempDir.h"

using platform::LinuxBundles;
using testsupport::TempDir;

namespace {

std::string xmlInfoPlist(const std::string& body) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
           "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
           "<plist version=\"1.0\">" +
           body + "</plist>\n";
}

std::string binaryInfoPlist(const char* identifier, const char* version) {
    plist_t dict = plist_new_dict();
    plist_dict_set_item(dict, "CFBundleIdentifier", plist_new_string(identifier));
    plist_dict_set_item(dict, "CFBundleShortVersionString", plist_new_string(version));
    char* bytes = nullptr;
    uint32_t length = 0;
    plist_to_bin(dict, &bytes, &length);
    std::string out(bytes, length);
    free(bytes);
    plist_free(dict);
    return out;
}

}  // namespace

TEST(BundleReading, ReadsIdentifierVersionAndExecutableFromXml) {
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
}

TEST(BundleReading, ReadsBinaryPropertyLists) {
    TempDir dir;
    dir.write("B.app/Contents/Info.plist", binaryInfoPlist("com.example.binary", "1.0"));
    auto info = LinuxBundles().open(dir / "B.app");
    ASSERT_TRUE(info);
    EXPECT_EQ(info->identifier, "com.example.binary");
    EXPECT_EQ(info->shortVersion, "1.0");
    EXPECT_FALSE(info->executablePath());
}

TEST(BundleReading, ValuesOfAnotherTypeCountAsMissing) {
    TempDir dir;
    dir.write("N.app/Contents/Info.plist",
              xmlInfoPlist("<dict><key>CFBundleIdentifier</key><integer>7</integer>"
                           "<key>CFBundleShortVersionString</key><real>2.5</real></dict>"));
    auto info = LinuxBundles().open(dir / "N.app");
    ASSERT_TRUE(info);
    EXPECT_FALSE(info->identifier);
    EXPECT_FALSE(info->shortVersion);
}

TEST(BundleReading, FolderWithoutAReadableDictionaryIsNoBundle) {
    TempDir dir;
    std::filesystem::create_directories(dir / "Empty.app/Contents");
    dir.write("Array.app/Contents/Info.plist", xmlInfoPlist("<array><string>x</string></array>"));
    dir.write("Junk.app/Contents/Info.plist", "this is not a property list");
    dir.write("File.app", "a file, not a folder");
    LinuxBundles bundles;
    EXPECT_FALSE(bundles.open(dir / "Missing.app"));
    EXPECT_FALSE(bundles.open(dir / "Empty.app"));
    EXPECT_FALSE(bundles.open(dir / "Array.app"));
    EXPECT_FALSE(bundles.open(dir / "Junk.app"));
    EXPECT_FALSE(bundles.open(dir / "File.app"));
}
