// Temporary: replaced by the real driver when the installer lands.
#include <cstdio>

#include "installer/BridgeInstaller.h"

namespace BridgeInstaller {

int run(const std::vector<std::string>&, const std::filesystem::path&, const std::optional<std::filesystem::path>&,
        const platform::Environment&) {
    std::fputs("The installer is not part of this build yet.\n", stdout);
    return 2;
}

}  // namespace BridgeInstaller
