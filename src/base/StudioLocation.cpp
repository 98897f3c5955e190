#include "base/StudioLocation.h"

#include <system_error>


namespace fs = std::filesystem;

std::optional<fs::path> StudioLocation::appCandidate(const std::optional<fs::path>& executable,
                                                     const platform::Environment& environment,
                                                     const platform::Bundles& bundles) {
    if (auto named = platform::nonEmpty(environment, "VANTORIC_STUDIO_APP")) {
        // Taken as given, relative to the current folder like any file URL;
        // whether it exists or is a bundle is found out later.
        std::error_code ec;
        fs::path absolute = fs::absolute(*named, ec);
        return ec ? fs::path(*named) : absolute;
    }
    if (!executable) return std::nullopt;

    std::error_code ec;
    fs::path resolved = fs::weakly_canonical(*executable, ec);
    if (ec) resolved = *executable;
    fs::path app = resolved.parent_path().parent_path().parent_path();
    if (app.extension() != ".app") return std::nullopt;

    auto info = bundles.open(app);
    if (!info || !info->identifier) return std::nullopt;
    if (*info->identifier != releaseIdentifier && *info->identifier != subjectIdentifier) return std::nullopt;
    return app;
}

std::optional<fs::path> StudioLocation::locateApp(const std::optional<fs::path>& executable,
                                                  const platform::Environment& environment,
                                                  const platform::Bundles& bundles,
                                                  const platform::ApplicationRegistry& registry) {
    if (auto candidate = appCandidate(executable, environment, bundles)) return candidate;
    return registry.urlForApplication(std::string(releaseIdentifier));
}

std::optional<fs::path> StudioLocation::locateApp(const std::optional<fs::path>& executable,
                                                  const platform::Environment& environment) {
    auto registry = platform::LinuxApplicationRegistry::standard(platform::nonEmpty(environment, "HOME"),
                                                                 platform::systemBundles());
    return locateApp(executable, environment, platform::systemBundles(), registry);
}

std::string StudioLocation::studioIdentifier(const std::optional<fs::path>& app, const platform::Bundles& bundles) {
    if (app) {
        auto info = bundles.open(*app);
        if (info && info->identifier == subjectIdentifier) return std::string(subjectIdentifier);
    }
    return std::string(releaseIdentifier);
}

std::string StudioLocation::notificationName(std::string_view identifier) {
    return std::string(identifier) + ".agent-link";
}

std::string StudioLocation::mcpServerName(std::string_view identifier) {
    return identifier == subjectIdentifier ? "studio-subject" : "vantoric-studio";
}
