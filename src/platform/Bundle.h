// Application bundles: a folder Name.app with Contents/Info.plist (XML or
// binary), Contents/MacOS/<CFBundleExecutable> and Contents/Resources/.
// Opening a bundle reads its Info.plist once; the result is a plain value.
// Any thread may call these; nothing is cached.
#pragma once
#include <filesystem>
#include <optional>
#include <string>

namespace platform {

struct BundleInfo {
    std::filesystem::path url;               // the .app folder
    std::optional<std::string> identifier;   // CFBundleIdentifier, when a string
    std::optional<std::string> shortVersion; // CFBundleShortVersionString, when a string
    std::optional<std::string> executable;   // CFBundleExecutable, when a string

    std::filesystem::path contents() const { return url / "Contents"; }
    std::filesystem::path resources() const { return url / "Contents" / "Resources"; }
    // Contents/MacOS/<CFBundleExecutable>, when the bundle names one.
    std::optional<std::filesystem::path> executablePath() const;
};

// Reads bundles from the disk. An interface so that tests can hand the code
// above bundles that exist only in memory.
class Bundles {
public:
    virtual ~Bundles() = default;
    // Nothing when the folder or its Info.plist is missing, unreadable, or not
    // a property list whose top level is a dictionary.
    virtual std::optional<BundleInfo> open(const std::filesystem::path& app) const = 0;
};

// The real one: Contents/Info.plist through libplist.
class LinuxBundles final : public Bundles {
public:
    std::optional<BundleInfo> open(const std::filesystem::path& app) const override;
};

// The process's own, never destroyed: work still running on a pool thread
// may use it while the process exits.
const Bundles& systemBundles();

}  // namespace platform
