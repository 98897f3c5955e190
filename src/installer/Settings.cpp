#include "installer/Settings.h"

#include "link/StudioLocation.h"

namespace BridgeInstaller {

Settings Settings::current() {
    return Settings{StudioLocation::serverName(), !StudioLocation::isSubject(), commandTimeout};
}

}  // namespace BridgeInstaller
