// The registry of installed applications, looked up by bundle identifier:
// the stand-in for the workspace's application lookup. Stateless; any thread.
#pragma once
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "platform/Bundle.h"

namespace platform {

class ApplicationRegistry {
public:
    virtual ~ApplicationRegistry() = default;
    virtual std::optional<std::filesystem::path> urlForApplication(const std::string& bundleIdentifier) const = 0;
};

// The first *.app folder directly inside each of the given folders, tried in
// order (names sorted within a folder), whose CFBundleIdentifier matches.
class LinuxApplicationRegistry final : public ApplicationRegistry {
public:
    LinuxApplicationRegistry(std::vector<std::filesystem::path> folders, const Bundles& bundles);
    // $HOME/Applications, /Applications, /opt.
    static LinuxApplicationRegistry standard(const std::optional<std::string>& home, const Bundles& bundles);

    std::optional<std::filesystem::path> urlForApplication(const std::string& bundleIdentifier) const override;

private:
    std::vector<std::filesystem::path> folders_;
    const Bundles& bundles_;
};

}  // namespace platform
