// Who this copy of Studio is: its bundle identifier (which names its bus name,
// its object path and the notification it answers), its version, and the
// bundle it runs from. Taken from STUDIO_SIM_IDENTIFIER when set, otherwise
// from Contents/Info.plist of the .app folder around /proc/self/exe; a bare
// build of the simulator outside any bundle is the release build. Computed
// once at start-up; a plain value afterwards.
#pragma once
#include <filesystem>
#include <optional>
#include <string>

namespace studiosim {

struct BundleIdentity {
    static constexpr const char* releaseIdentifier = "com.lumenfold.vantoric.studio";
    static constexpr const char* subjectIdentifier = "com.lumenfold.vantoric.studio.subject";

    std::string identifier;
    std::string version;                        // CFBundleShortVersionString, "0" when unknown
    std::optional<std::filesystem::path> bundle;  // the .app folder, when running inside one

    bool isSubject() const { return identifier == subjectIdentifier; }
    // The distributed-notification name a bridge posts to reach this build.
    std::string linkNotification() const { return identifier + ".agent-link"; }
    // "/" + the identifier with dots as slashes; characters a D-Bus object path
    // can't hold become "_".
    std::string objectPath() const;
};

BundleIdentity readIdentity(const std::optional<std::string>& identifierOverride);

}  // namespace studiosim
