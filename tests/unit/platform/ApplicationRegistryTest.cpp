#include <gtest/gtest.h>

#include "platform/ApplicationRegistry.h"
#include "support/FakeBundles.h"
#include "support/TempDir.h"

using platform::LinuxApplicationRegistry;

TEST(ApplicationLookup, FirstFolderThenNameOrderAmongAppFoldersWithTheIdentifier) {
    testsupport::TempDir dir;
    testsupport::FakeBundles bundles;
    // Real folders (the registry lists them), fake Info.plists.
    auto app = [&](const std::string& relative, const std::string& identifier) {
        std::filesystem::create_directories(dir / relative);
        bundles.add(dir / relative, identifier);
        return dir / relative;
    };
    app("apps/A.bundle", "com.example.studio");
    app("apps/B Other.app", "com.example.other");
    auto wanted = app("apps/C.app", "com.example.studio");
    app("apps/D.app", "com.example.studio");
    app("later/A.app", "com.example.studio");
    auto onlyLater = app("later/B.app", "com.example.late");
    LinuxApplicationRegistry registry({dir / "missing", dir / "apps", dir / "later"}, bundles);
    EXPECT_EQ(registry.urlForApplication("com.example.studio"), wanted);
    EXPECT_EQ(registry.urlForApplication("com.example.late"), onlyLater);
    EXPECT_FALSE(registry.urlForApplication("com.example.nothing"));
}

TEST(ApplicationLookup, StandardFoldersStartWithTheHomeApplicationsFolder) {
    testsupport::TempDir dir;
    testsupport::FakeBundles bundles;
    std::filesystem::create_directories(dir / "Applications/Studio.app");
    bundles.add(dir / "Applications/Studio.app", "com.example.only-in-this-home");
    auto registry = LinuxApplicationRegistry::standard(dir.path().string(), bundles);
    EXPECT_EQ(registry.urlForApplication("com.example.only-in-this-home"), dir / "Applications/Studio.app");
}
