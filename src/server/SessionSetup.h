// Session set-up: the answer to "initialize", and to "server/discover", its
// stateless counterpart. The bridge agrees a protocol version (never refusing
// one in a handshake), takes the agent's display name, announces its
// capabilities and identity for the Studio build it serves, and passes on the
// instructions of Studio's catalog, adapted to the server name of that build.
// Pure functions apart from reading Studio's Info.plist; any thread. The
// bridge's initialize, which also stores the agent's name, runs on its strand.
#pragma once
#include <array>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Bundle.h"
#include "server/JSONText.h"

namespace server {

namespace SessionSetup {
// The handshake revisions, newest first; the first is also the answer to
// anything unknown. The agents ask for 2025-11-25; the stateless
// revision is never agreed in a handshake (ProtocolEra).
inline constexpr std::array<std::string_view, 4> supportedProtocols = {"2025-11-25", "2025-06-18", "2025-03-26",
                                                                      "2024-11-05"};

// What the agent is told when there is no catalog with instructions.
std::string notFoundInstructions();

// The catalog's instructions for the given server name: they are written
// for the release build, so "vantoric-studio" in double quotes becomes
// the given name in double quotes; the bare word is left alone.
std::string instructions(std::string_view text, std::string_view serverName);

// The agent's display name from the params' "clientInfo": a non-empty
// "title", else (when "title" is not a string) a non-empty "name".
std::optional<std::string> clientNameIn(const Json& params);

// The server's identity for the given bundle identifier: name, title
// and Studio's version read from the bundle ("0" when it cannot be).
Json serverInfo(const std::optional<std::filesystem::path>& app, std::string_view bundleIdentifier,
                       const platform::Bundles& bundles);

// What the bridge offers: tools and prompts, neither list ever changing.
Json capabilities();

// The instructions sent to the agent: the catalog's, adapted to the
// build's server name, or the not-found text.
std::string instructionsFor(const std::optional<std::string>& catalog, std::string_view bundleIdentifier);

// The result object of "initialize" for a bridge serving the given
// bundle identifier, with Studio's version read from the bundle.
Json initializeResult(const Json& params, const std::optional<std::filesystem::path>& app,
                             const std::optional<std::string>& catalog, std::string_view bundleIdentifier,
                             const platform::Bundles& bundles);
Json initializeResult(const Json& params, Json serverInfo, const std::optional<std::string>& catalog,
                             std::string_view bundleIdentifier);

// The result of "server/discover" before its stateless framing: every
// revision spoken, the same capabilities and instructions as a
// handshake. The identity goes into "_meta" with the framing.
Json discoverResult(const std::optional<std::string>& catalog, std::string_view bundleIdentifier);
}  // namespace SessionSetup

}  // namespace server
