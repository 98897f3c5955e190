#include <gtest/gtest.h>

#include "platform/ApplicationRegistry.h"
#include "support/FakeBundles.h"
#include "support/TempDir.h"

using platform::LinuxApplicationRegistry;
using testsupport::FakeBundles;
using testsupport::TempDir;

namespace {

// Real folders (the registry lists them), fake Info.plists.
std::filesystem::path makeApp(const TempDir& dir, const std::string& relative) {
    auto path = dir / relative;
    std::filesystem::create_directories(path);
    return path;
}

}  // namespace

TEST(ApplicationLookup, EarlierFolderWinsOverLaterOne) {
    TempDir dir;
    FakeBundles bundles;
    auto first = makeApp(dir, "home/Applications/Z Studio.app");
    auto second = makeApp(dir, "Applications/A Studio.app");
    bundles.add(first, "com.example.studio");
    bundles.add(second, "com.example.studio");
    LinuxApplicationRegistry registry({dir / "home/Applications", dir / "Applications"}, bundles);
    EXPECT_EQ(registry.urlForApplication("com.example.studio"), first);
}

TEST(ApplicationLookup, NamesAreSortedWithinAFolder) {
    TempDir dir;
    FakeBundles bundles;
    auto b = makeApp(dir, "apps/B.app");
    auto a = makeApp(dir, "apps/A.app");
    bundles.add(b, "com.example.studio");
    bundles.add(a, "com.example.studio");
    LinuxApplicationRegistry registry({dir / "apps"}, bundles);
    EXPECT_EQ(registry.urlForApplication("com.example.studio"), a);
}

TEST(ApplicationLookup, OnlyAppFoldersWithTheIdentifierCount) {
    TempDir dir;
    FakeBundles bundles;
    auto other = makeApp(dir, "apps/Other.app");
    auto notApp = makeApp(dir, "apps/Studio.bundle");
    auto wanted = makeApp(dir, "apps/Wanted.app");
    bundles.add(other, "com.example.other");
    bundles.add(notApp, "com.example.studio");
    bundles.add(wanted, "com.example.studio");
    LinuxApplicationRegistry registry({dir / "missing", dir / "apps"}, bundles);
    EXPECT_EQ(registry.urlForApplication("com.example.studio"), wanted);
    EXPECT_FALSE(registry.urlForApplication("com.example.nothing"));
}

TEST(ApplicationLookup, StandardFoldersStartWithTheHomeApplicationsFolder) {
    TempDir dir;
    FakeBundles bundles;
    auto app = makeApp(dir, "Applications/Studio.app");
    bundles.add(app, "com.example.only-in-this-home");
    auto registry = LinuxApplicationRegistry::standard(dir.path().string(), bundles);
    EXPECT_EQ(registry.urlForApplication("com.example.only-in-this-home"), app);
}
