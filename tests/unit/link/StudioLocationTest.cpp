// Where the served Studio is and which build it is.
#include <gtest/gtest.h>

#include "base/StudioLocation.h"
#include "support/FakeBundles.h"
#include "support/TempDir.h"

namespace fs = std::filesystem;
using testsupport::FakeApplicationRegistry;
using testsupport::FakeBundles;
using testsupport::TempDir;

namespace {

const std::string release(StudioLocation::releaseIdentifier);
const std::string subject(StudioLocation::subjectIdentifier);

class LocatingStudio : public ::testing::Test {
protected:
    // A bundle folder on disk with the bridge inside; its Info.plist faked.
    fs::path bridgeInside(const std::string& bundle, std::optional<std::string> identifier) {
        if (identifier) bundles_.add(dir_ / bundle, *identifier);
        return dir_.write(bundle + "/Contents/MacOS/vantoric-studio-mcp", "#!");
    }
    TempDir dir_;
    FakeBundles bundles_;
    FakeApplicationRegistry registry_;
};

}  // namespace

TEST_F(LocatingStudio, VariableNamesTheBundleWithoutAnyCheckAndEmptyIsAsIfUnset) {
    platform::Environment environment{{"VANTORIC_STUDIO_APP", "/nowhere/Studio.app"}};
    EXPECT_EQ(StudioLocation::locateApp(std::nullopt, environment, bundles_, registry_), fs::path("/nowhere/Studio.app"));
    EXPECT_TRUE(bundles_.opened.empty());
    EXPECT_EQ(StudioLocation::appCandidate(std::nullopt, {{"VANTORIC_STUDIO_APP", "Some Studio.app"}}, bundles_),
              fs::current_path() / "Some Studio.app");
    auto tool = bridgeInside("Studio.app", release);
    EXPECT_EQ(StudioLocation::locateApp(tool, {{"VANTORIC_STUDIO_APP", ""}}, bundles_, registry_), dir_ / "Studio.app");
    EXPECT_TRUE(registry_.asked.empty());
}

TEST_F(LocatingStudio, BridgeReachedThroughASymbolicLinkFindsItsBundle) {
    auto tool = bridgeInside("Studio Subject.app", subject);
    fs::create_directories(dir_ / "bin");
    fs::create_symlink(tool, dir_ / "bin/vantoric-studio-mcp");
    auto found = StudioLocation::appCandidate(dir_ / "bin/vantoric-studio-mcp", {}, bundles_);
    EXPECT_EQ(found, dir_ / "Studio Subject.app");
    EXPECT_EQ(StudioLocation::studioIdentifier(found, bundles_), subject);
}

TEST_F(LocatingStudio, OtherwiseTheRegistryIsAskedForTheReleaseBuild) {
    registry_.add(release, "/Applications/Vantoric Studio.app");
    std::vector<std::optional<fs::path>> tools = {
        bridgeInside("Studio.APP", release), bridgeInside("Studio.application", release),
        bridgeInside("Other.app", "com.example.other"), bridgeInside("Unreadable.app", std::nullopt), std::nullopt};
    for (auto& tool : tools) {
        SCOPED_TRACE(tool ? tool->string() : "no bridge path");
        EXPECT_FALSE(StudioLocation::appCandidate(tool, {}, bundles_));
        EXPECT_EQ(StudioLocation::locateApp(tool, {}, bundles_, registry_), fs::path("/Applications/Vantoric Studio.app"));
    }
    EXPECT_EQ(registry_.asked, std::vector<std::string>(tools.size(), release));
    EXPECT_FALSE(StudioLocation::locateApp(std::nullopt, {}, bundles_, FakeApplicationRegistry()));
}

TEST(ServedBuild, OnlyASubjectBundleMakesTheSubjectBuildAndNamesFollowTheIdentifier) {
    FakeBundles bundles;
    bundles.add("/a/Subject.app", subject);
    bundles.add("/a/Release.app", release);
    bundles.add("/a/Other.app", "com.example.other");
    bundles.add("/a/NoIdentifier.app", std::nullopt);
    EXPECT_EQ(StudioLocation::studioIdentifier(fs::path("/a/Subject.app"), bundles), subject);
    for (const char* app : {"/a/Release.app", "/a/Other.app", "/a/NoIdentifier.app", "/a/Missing.app"})
        EXPECT_EQ(StudioLocation::studioIdentifier(fs::path(app), bundles), release) << app;
    EXPECT_EQ(StudioLocation::studioIdentifier(std::nullopt, bundles), release);

    EXPECT_EQ(StudioLocation::notificationName(subject), "com.lumenfold.vantoric.studio.subject.agent-link");
    EXPECT_EQ(StudioLocation::notificationName(release), "com.lumenfold.vantoric.studio.agent-link");
    EXPECT_EQ(StudioLocation::mcpServerName(subject), "studio-subject");
    EXPECT_EQ(StudioLocation::mcpServerName(release), "vantoric-studio");
    EXPECT_EQ(StudioLocation::mcpServerName("com.example.other"), "vantoric-studio");
}
