// In-memory doubles of the platform's bundle reader and application
// registry, for unit tests of the code above them. They hold bundles that
// exist only in memory and record what was asked of them, in order. One test
// thread.
#pragma once
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/ApplicationRegistry.h"
#include "platform/Bundle.h"

namespace testsupport {

class FakeBundles final : public platform::Bundles {
public:
    // A bundle at `app` whose Info.plist holds these values (absent ones
    // missing from it).
    void add(const std::filesystem::path& app, std::optional<std::string> identifier,
             std::optional<std::string> shortVersion = std::nullopt,
             std::optional<std::string> executable = std::nullopt) {
        platform::BundleInfo info;
        info.url = app;
        info.identifier = std::move(identifier);
        info.shortVersion = std::move(shortVersion);
        info.executable = std::move(executable);
        bundles_[app.lexically_normal()] = std::move(info);
    }

    std::optional<platform::BundleInfo> open(const std::filesystem::path& app) const override {
        opened.push_back(app);
        auto found = bundles_.find(app.lexically_normal());
        if (found == bundles_.end()) return std::nullopt;
        return found->second;
    }

    mutable std::vector<std::filesystem::path> opened;

private:
    std::map<std::filesystem::path, platform::BundleInfo> bundles_;
};

class FakeApplicationRegistry final : public platform::ApplicationRegistry {
public:
    void add(const std::string& bundleIdentifier, const std::filesystem::path& app) {
        applications_[bundleIdentifier] = app;
    }

    std::optional<std::filesystem::path> urlForApplication(const std::string& bundleIdentifier) const override {
        asked.push_back(bundleIdentifier);
        auto found = applications_.find(bundleIdentifier);
        if (found == applications_.end()) return std::nullopt;
        return found->second;
    }

    mutable std::vector<std::string> asked;

private:
    std::map<std::string, std::filesystem::path> applications_;
};

}  // namespace testsupport
