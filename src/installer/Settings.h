// What one installer run takes from the build it serves and from the clock,
// besides its command line: the MCP server name agents know the bridge by,
// whether it manages the skill, and how long an agent's program may take.
// A plain value built once per run; tests build their own to try the subject
// build or a shorter time limit.
#pragma once
#include <string>

#include "platform/Environment.h"

namespace BridgeInstaller {

struct Settings {
    // Every child process gets this long before it is asked to stop.
    static constexpr double commandTimeout = 120;

    std::string serverName;      // "vantoric-studio", or "studio-subject" for the subject build
    bool managesSkill = true;    // false for the subject build: no skill is touched or reported
    double timeout = commandTimeout;
    // The session bus this run sees (DBUS_SESSION_BUS_ADDRESS), or empty.
    // Codex starts MCP servers with a reduced environment that drops it, so
    // its entry carries the address; the bridge cannot reach Studio without a
    // bus. Other agents pass their own environment on.
    std::string sessionBus;

    // The values of the build this process serves, found from its own
    // location or the environment's VANTORIC_STUDIO_APP.
    static Settings current(const platform::Environment& environment);
};

}  // namespace BridgeInstaller
