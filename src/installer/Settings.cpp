#include "installer/Settings.h"

#include "base/StudioLocation.h"
#include "platform/Executable.h"

namespace BridgeInstaller {

Settings Settings::current(const platform::Environment& environment) {
    auto identifier = StudioLocation::studioIdentifier(StudioLocation::appCandidate(platform::ownExecutable(), environment));
    return Settings{StudioLocation::mcpServerName(identifier), identifier != StudioLocation::subjectIdentifier, commandTimeout, {}};
}

}  // namespace BridgeInstaller
