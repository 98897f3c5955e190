#include <gtest/gtest.h>

#include <unistd.h>

#include "link/StudioLocation.h"
#include "support/FakeBundles.h"
#include "support/TempDir.h"

namespace fs = std::filesystem;
using testsupport::FakeApplicationRegistry;
using testsupport::FakeBundles;
using testsupport::TempDir;

namespace {

const std::string release(StudioLocation::releaseIdentifier);
const std::string subject(StudioLocation::subjectIdentifier);

// A bundle folder on disk with the bridge inside, its Info.plist faked.
fs::path bridgeInside(const TempDir& dir, const std::string& bundle) {
    auto tool = dir.write(bundle + "/Contents/MacOS/vantoric-studio-mcp", "#!");
    return tool;
}

}  // namespace

TEST(LocatingStudio, VariableNamesTheBundleWithoutAnyCheck) {
    FakeBundles bundles;
    FakeApplicationRegistry registry;
    platform::Environment environment{{"VANTORIC_STUDIO_APP", "/nowhere/Studio.app"}};
    EXPECT_EQ(StudioLocation::locateApp(std::nullopt, environment, bundles, registry), fs::path("/nowhere/Studio.app"));
    EXPECT_TRUE(bundles.opened.empty());
    EXPECT_TRUE(registry.asked.empty());
    EXPECT_EQ(StudioLocation::studioIdentifier(fs::path("/nowhere/Studio.app"), bundles), release);
}

TEST(LocatingStudio, RelativeVariableIsTakenFromTheCurrentFolder) {
    FakeBundles bundles;
    platform::Environment environment{{"VANTORIC_STUDIO_APP", "Some Studio.app"}};
    EXPECT_EQ(StudioLocation::appCandidate(std::nullopt, environment, bundles), fs::current_path() / "Some Studio.app");
}

TEST(LocatingStudio, EmptyVariableIsAsIfUnset) {
    TempDir dir;
    FakeBundles bundles;
    FakeApplicationRegistry registry;
    auto tool = bridgeInside(dir, "Studio.app");
    bundles.add(dir / "Studio.app", release);
    platform::Environment environment{{"VANTORIC_STUDIO_APP", ""}};
    EXPECT_EQ(StudioLocation::locateApp(tool, environment, bundles, registry), dir / "Studio.app");
    EXPECT_TRUE(registry.asked.empty());
}

TEST(LocatingStudio, BridgeReachedThroughASymbolicLinkFindsItsBundle) {
    TempDir dir;
    FakeBundles bundles;
    auto tool = bridgeInside(dir, "Studio Subject.app");
    bundles.add(dir / "Studio Subject.app", subject);
    fs::create_directories(dir / "bin");
    fs::create_symlink(tool, dir / "bin/vantoric-studio-mcp");
    auto found = StudioLocation::appCandidate(dir / "bin/vantoric-studio-mcp", {}, bundles);
    EXPECT_EQ(found, dir / "Studio Subject.app");
    EXPECT_EQ(StudioLocation::studioIdentifier(found, bundles), subject);
}

TEST(LocatingStudio, FolderMustEndInExactlyDotApp) {
    TempDir dir;
    FakeBundles bundles;
    FakeApplicationRegistry registry;
    registry.add(release, "/Applications/Vantoric Studio.app");
    for (std::string name : {"Studio.APP", "Studio.application"}) {
        auto tool = bridgeInside(dir, name);
        bundles.add(dir / name, release);
        EXPECT_FALSE(StudioLocation::appCandidate(tool, {}, bundles)) << name;
        EXPECT_EQ(StudioLocation::locateApp(tool, {}, bundles, registry), fs::path("/Applications/Vantoric Studio.app"));
    }
    EXPECT_EQ(registry.asked, (std::vector<std::string>{release, release}));
}

TEST(LocatingStudio, BundleOfAnotherApplicationIsNoCandidate) {
    TempDir dir;
    FakeBundles bundles;
    FakeApplicationRegistry registry;
    auto other = bridgeInside(dir, "Other.app");
    bundles.add(dir / "Other.app", "com.example.other");
    auto unreadable = bridgeInside(dir, "Unreadable.app");
    EXPECT_FALSE(StudioLocation::locateApp(other, {}, bundles, registry));
    EXPECT_FALSE(StudioLocation::locateApp(unreadable, {}, bundles, registry));
    EXPECT_FALSE(StudioLocation::locateApp(std::nullopt, {}, bundles, registry));
    // Only the release build is ever looked up in the registry.
    EXPECT_EQ(registry.asked, (std::vector<std::string>{release, release, release}));
}

TEST(ServedBuild, OnlyASubjectBundleMakesTheSubjectBuild) {
    FakeBundles bundles;
    bundles.add("/a/Subject.app", subject);
    bundles.add("/a/Release.app", release);
    bundles.add("/a/Other.app", "com.example.other");
    bundles.add("/a/NoIdentifier.app", std::nullopt);
    EXPECT_EQ(StudioLocation::studioIdentifier(fs::path("/a/Subject.app"), bundles), subject);
    EXPECT_EQ(StudioLocation::studioIdentifier(fs::path("/a/Release.app"), bundles), release);
    EXPECT_EQ(StudioLocation::studioIdentifier(fs::path("/a/Other.app"), bundles), release);
    EXPECT_EQ(StudioLocation::studioIdentifier(fs::path("/a/NoIdentifier.app"), bundles), release);
    EXPECT_EQ(StudioLocation::studioIdentifier(fs::path("/a/Missing.app"), bundles), release);
    EXPECT_EQ(StudioLocation::studioIdentifier(std::nullopt, bundles), release);
}

TEST(ServedBuild, NamesFollowTheIdentifier) {
    EXPECT_EQ(StudioLocation::notificationName(subject), "com.lumenfold.vantoric.studio.subject.agent-link");
    EXPECT_EQ(StudioLocation::notificationName(release), "com.lumenfold.vantoric.studio.agent-link");
    EXPECT_EQ(StudioLocation::mcpServerName(subject), "studio-subject");
    EXPECT_EQ(StudioLocation::mcpServerName(release), "vantoric-studio");
    EXPECT_EQ(StudioLocation::mcpServerName("com.example.other"), "vantoric-studio");
    EXPECT_EQ(StudioLocation::linkNotification(), StudioLocation::bundleIdentifier() + ".agent-link");
    EXPECT_EQ(StudioLocation::serverName(), StudioLocation::mcpServerName(StudioLocation::bundleIdentifier()));
}
