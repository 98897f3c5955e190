// In-memory doubles of the platform's bundle reader and application
// registry, for unit tests of the code above them: bundles that exist only in
// memory, and what was asked of them, in order. One test thread.
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
             std::optional<std::string> shortVersion = std::nullopt) {
        bundles_[app.lexically_normal()] = {app, std::move(identifier), std::move(shortVersion), std::nullopt};
    }
    std::optional<platform::BundleInfo> open(const std::filesystem::path& app) const override {
        opened.push_back(app);
        auto found = bundles_.find(app.lexically_normal());
        return found == bundles_.end() ? std::nullopt : std::optional(found->second);
    }
    mutable std::vector<std::filesystem::path> opened;

private:
    std::map<std::filesystem::path, platform::BundleInfo> bundles_;
};

class FakeApplicationRegistry final : public platform::ApplicationRegistry {
public:
    void add(const std::string& bundleIdentifier, const std::filesystem::path& app) { applications_[bundleIdentifier] = app; }
    std::optional<std::filesystem::path> urlForApplication(const std::string& bundleIdentifier) const override {
        asked.push_back(bundleIdentifier);
        auto found = applications_.find(bundleIdentifier);
        return found == applications_.end() ? std::nullopt : std::optional(found->second);
    }
    mutable std::vector<std::string> asked;

private:
    std::map<std::string, std::filesystem::path> applications_;
};

}  // namespace testsupport
