#include <algorithm>
#include <system_error>

#include "platform/ApplicationRegistry.h"

namespace platform {

LinuxApplicationRegistry::LinuxApplicationRegistry(std::vector<std::filesystem::path> folders, const Bundles& bundles)
    : folders_(std::move(folders)), bundles_(bundles) {}

LinuxApplicationRegistry LinuxApplicationRegistry::standard(const std::optional<std::string>& home,
                                                            const Bundles& bundles) {
    std::vector<std::filesystem::path> folders;
    if (home && !home->empty()) folders.emplace_back(std::filesystem::path(*home) / "Applications");
    folders.emplace_back("/Applications");
    folders.emplace_back("/opt");
    return LinuxApplicationRegistry(std::move(folders), bundles);
}

std::optional<std::filesystem::path> LinuxApplicationRegistry::urlForApplication(
    const std::string& bundleIdentifier) const {
    for (const auto& folder : folders_) {
        std::error_code ec;
        std::vector<std::filesystem::path> apps;
        for (std::filesystem::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
            if (it->path().extension() == ".app") apps.push_back(it->path());
        }
        std::sort(apps.begin(), apps.end());
        for (const auto& app : apps) {
            auto info = bundles_.open(app);
            if (info && info->identifier == bundleIdentifier) return app;
        }
    }
    return std::nullopt;
}

}  // namespace platform
