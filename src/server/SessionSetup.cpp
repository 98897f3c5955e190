#include "server/SessionSetup.h"

#include <algorithm>

#include "base/StudioLocation.h"
#include "server/Catalog.h"
#include "server/ProtocolEra.h"

namespace server {

std::string SessionSetup::notFoundInstructions() {
    return "Vantoric Studio could not be found on this Mac. Install it from " +
           std::string(StudioLocation::webSiteHost) + ", then restart this MCP server.";
}

std::string SessionSetup::instructions(std::string_view text, std::string_view serverName) {
    const std::string release = StudioLocation::mcpServerName(StudioLocation::releaseIdentifier);
    if (serverName == release) return std::string(text);
    const auto inQuotes = [](std::string_view name) {
        std::string out(1, '"');
        out.append(name);
        out.push_back('"');
        return out;
    };
    const std::string quoted = inQuotes(release);
    const std::string replacement = inQuotes(serverName);
    std::string out;
    size_t from = 0;
    for (size_t at; (at = text.find(quoted, from)) != std::string_view::npos; from = at + quoted.size()) {
        out.append(text.substr(from, at - from));
        out.append(replacement);
    }
    out.append(text.substr(from));
    return out;
}

std::optional<std::string> SessionSetup::clientNameIn(const Json& params) {
    auto info = params.find("clientInfo");
    if (info == params.end() || !info->is_object()) return std::nullopt;
    const Json* taken = nullptr;
    if (auto title = info->find("title"); title != info->end() && title->is_string())
        taken = &*title;
    else if (auto name = info->find("name"); name != info->end() && name->is_string())
        taken = &*name;
    if (!taken || taken->get_ref<const std::string&>().empty()) return std::nullopt;
    return taken->get<std::string>();
}

Json SessionSetup::serverInfo(const std::optional<std::filesystem::path>& app, std::string_view bundleIdentifier,
                              const platform::Bundles& bundles) {
    std::string studioVersion = "0";
    if (app)
        if (auto bundle = bundles.open(*app); bundle && bundle->shortVersion) studioVersion = *bundle->shortVersion;
    Json info = Json::object();
    info["name"] = StudioLocation::mcpServerName(bundleIdentifier);
    info["title"] = bundleIdentifier == StudioLocation::subjectIdentifier ? "Vantoric Studio (subject build)"
                                                                          : "Vantoric Studio";
    info["version"] = std::move(studioVersion);
    return info;
}

Json SessionSetup::capabilities() {
    Json listChanged = Json::object();
    listChanged["listChanged"] = false;
    Json capabilities = Json::object();
    capabilities["tools"] = listChanged;
    capabilities["prompts"] = listChanged;
    return capabilities;
}

std::string SessionSetup::instructionsFor(const std::optional<std::string>& catalog, std::string_view bundleIdentifier) {
    if (auto given = Catalog::instructionsIn(catalog))
        return instructions(*given, StudioLocation::mcpServerName(bundleIdentifier));
    return notFoundInstructions();
}

Json SessionSetup::initializeResult(const Json& params, const std::optional<std::filesystem::path>& app,
                                    const std::optional<std::string>& catalog, std::string_view bundleIdentifier,
                                    const platform::Bundles& bundles) {
    return initializeResult(params, serverInfo(app, bundleIdentifier, bundles), catalog, bundleIdentifier);
}

Json SessionSetup::initializeResult(const Json& params, Json serverInfo, const std::optional<std::string>& catalog,
                                    std::string_view bundleIdentifier) {
    std::string version(supportedProtocols.front());
    if (auto asked = params.find("protocolVersion"); asked != params.end() && asked->is_string()) {
        const auto& wanted = asked->get_ref<const std::string&>();
        if (std::find(supportedProtocols.begin(), supportedProtocols.end(), wanted) != supportedProtocols.end())
            version = wanted;
    }
    Json result = Json::object();
    result["protocolVersion"] = version;
    result["capabilities"] = capabilities();
    result["serverInfo"] = std::move(serverInfo);
    result["instructions"] = instructionsFor(catalog, bundleIdentifier);
    return result;
}

Json SessionSetup::discoverResult(const std::optional<std::string>& catalog, std::string_view bundleIdentifier) {
    Json versions = Json::array();
    for (auto version : ProtocolEra::supportedVersions) versions.push_back(std::string(version));
    Json result = Json::object();
    result["supportedVersions"] = std::move(versions);
    result["capabilities"] = capabilities();
    result["instructions"] = instructionsFor(catalog, bundleIdentifier);
    return result;
}

}  // namespace server
