#include "server/SessionSetup.h"

#include <algorithm>

#include "link/StudioLocation.h"
#include "server/Catalog.h"
#include "server/StudioMCPBridge.h"

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

Json SessionSetup::initializeResult(const Json& params, const std::optional<std::filesystem::path>& app,
                                    const std::optional<std::string>& catalog, std::string_view bundleIdentifier,
                                    const platform::Bundles& bundles) {
    std::string version(supportedProtocols.front());
    if (auto asked = params.find("protocolVersion"); asked != params.end() && asked->is_string()) {
        const auto& wanted = asked->get_ref<const std::string&>();
        if (std::find(supportedProtocols.begin(), supportedProtocols.end(), wanted) != supportedProtocols.end())
            version = wanted;
    }

    std::string studioVersion = "0";
    if (app)
        if (auto bundle = bundles.open(*app); bundle && bundle->shortVersion) studioVersion = *bundle->shortVersion;

    const std::string serverName = StudioLocation::mcpServerName(bundleIdentifier);
    const bool subject = bundleIdentifier == StudioLocation::subjectIdentifier;

    std::string text = notFoundInstructions();
    if (auto given = Catalog::instructionsIn(catalog)) text = instructions(*given, serverName);

    Json listChanged = Json::object();
    listChanged["listChanged"] = false;
    Json capabilities = Json::object();
    capabilities["tools"] = listChanged;
    capabilities["prompts"] = listChanged;
    Json serverInfo = Json::object();
    serverInfo["name"] = serverName;
    serverInfo["title"] = subject ? "Vantoric Studio (subject build)" : "Vantoric Studio";
    serverInfo["version"] = studioVersion;

    Json result = Json::object();
    result["protocolVersion"] = version;
    result["capabilities"] = std::move(capabilities);
    result["serverInfo"] = std::move(serverInfo);
    result["instructions"] = std::move(text);
    return result;
}

// ---- the bridge's side ----

Json StudioMCPBridge::initialize(const Json& params) {
    if (auto name = clientNameIn(params)) clientName = std::move(*name);
    return initializeResult(params, app, catalog, bundleIdentifier(), bundles_);
}
