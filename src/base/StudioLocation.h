// Where Studio's bundle lies and which of its two builds this bridge serves.
// The functions read only the environment they are given, the disk and the
// application registry; main works the served build out once and passes it
// down.
#pragma once
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "platform/ApplicationRegistry.h"
#include "platform/Bundle.h"
#include "platform/Environment.h"

struct StudioLocation {
    static constexpr std::string_view releaseIdentifier = "com.lumenfold.vantoric.studio";
    static constexpr std::string_view subjectIdentifier = "com.lumenfold.vantoric.studio.subject";
    // The word that identifies the bridge's side of the hand-over.
    static constexpr std::string_view hello = "vantoric-studio-link";
    // The product's web site, named wherever the user is told to install Studio.
    static constexpr std::string_view webSiteHost = "vantoric.studio";

    static std::optional<std::filesystem::path> appCandidate(const std::optional<std::filesystem::path>& executable,
                                                             const platform::Environment& environment,
                                                             const platform::Bundles& bundles = platform::systemBundles());
    static std::optional<std::filesystem::path> locateApp(const std::optional<std::filesystem::path>& executable,
                                                          const platform::Environment& environment,
                                                          const platform::Bundles& bundles,
                                                          const platform::ApplicationRegistry& registry);
    // With the real bundles and the standard registry under the environment's HOME.
    static std::optional<std::filesystem::path> locateApp(const std::optional<std::filesystem::path>& executable,
                                                          const platform::Environment& environment);
    // The build served by a bridge whose bundle candidate is `app` (from its
    // own location or VANTORIC_STUDIO_APP, never from the registry).
    static std::string studioIdentifier(const std::optional<std::filesystem::path>& app,
                                        const platform::Bundles& bundles = platform::systemBundles());
    static std::string notificationName(std::string_view identifier);

    // The MCP server name agents know the bridge by: "studio-subject" for the
    // subject build, "vantoric-studio" for every other identifier.
    static std::string mcpServerName(std::string_view identifier);
};
