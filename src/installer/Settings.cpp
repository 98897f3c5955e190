#include "installer/Settings.h"

#include "base/StudioLocation.h"

namespace BridgeInstaller {

Settings Settings::current() {
    return Settings{StudioLocation::serverName(), !StudioLocation::isSubject(), commandTimeout};
}

}  // namespace BridgeInstaller
