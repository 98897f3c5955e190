// Session set-up: the answer to "initialize". The bridge agrees a protocol
// version (never refusing one), takes the agent's display name, announces its
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

struct SessionSetup {
    // Newest first; the first is also the answer to anything unknown.
    static constexpr std::array<std::string_view, 3> supportedProtocols = {"2025-06-18", "2025-03-26", "2024-11-05"};

    // What the agent is told when there is no catalog with instructions.
    static std::string notFoundInstructions();

    // The catalog's instructions for the given server name: they are written
    // for the release build, so "vantoric-studio" in double quotes becomes
    // the given name in double quotes; the bare word is left alone.
    static std::string instructions(std::string_view text, std::string_view serverName);

    // The agent's display name from the params' "clientInfo": a non-empty
    // "title", else (when "title" is not a string) a non-empty "name".
    static std::optional<std::string> clientNameIn(const Json& params);

    // The result object of "initialize" for a bridge serving the given
    // bundle identifier, with Studio's version read from the bundle.
    static Json initializeResult(const Json& params, const std::optional<std::filesystem::path>& app,
                                 const std::optional<std::string>& catalog, std::string_view bundleIdentifier,
                                 const platform::Bundles& bundles);
};
