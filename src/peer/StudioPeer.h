// Proving that the process at the other end of a hand-over connection is the
// Studio this bridge serves, and checking what such a process hands back.
// A StudioPeer holds no state but the platform services it is given and the
// bridge's own signing team, read once on first use. Every operation may be
// called from any thread at once (the hand-over listener's strand checks
// peers while the bridge's strand asks about running copies); none throws,
// and every failing platform call makes its check fail.
#pragma once
#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "peer/URL.h"

namespace platform {
class RunningApplications;
class ProcessSockets;
class CodeSigning;
}  // namespace platform

class StudioPeer {
public:
    struct Services {
        const platform::RunningApplications& running;
        const platform::ProcessSockets& sockets;
        const platform::CodeSigning& signing;
    };
    // `bundleIdentifier` is the identifier of the Studio build this bridge
    // serves.
    StudioPeer(Services services, std::string bundleIdentifier);
    // The real Linux services.
    explicit StudioPeer(std::string bundleIdentifier);

    // The verified Studio process that holds the connection whose remote
    // port (as the bridge sees it) is `peerPort`, on the bridge's listening
    // `localPort`.
    std::optional<pid_t> studio(const std::filesystem::path& app, uint16_t peerPort, uint16_t localPort) const;
    // The running copies that may be Studio, in the order the platform lists
    // them: all of them for a bridge with a team, else only those running
    // from `app` itself.
    std::vector<pid_t> eligible(const std::filesystem::path& app) const;
    // Whether the process holds a TCP socket with these ports, seen from its
    // own side.
    bool owns(pid_t pid, uint16_t localPort, uint16_t remotePort) const;
    bool signedAsStudio(pid_t pid) const;
    std::optional<std::string> ownTeam() const;
    // The requirement a Studio process must satisfy.
    std::string requirement() const;
    // Where a running copy that cannot be used runs from ("another location"
    // when unknown); nothing when none runs or a usable one does.
    std::optional<std::string> unusableCopy(const std::filesystem::path& app) const;

    // SHA-256 of the nonce's UTF-8 bytes in lowercase hexadecimal.
    static std::string challenge(std::string_view nonce);
    // The URL when it is http://127.0.0.1:<port of 1024 or more><path>
    // exactly, with no user, password or query.
    static std::optional<URL> loopback(const std::optional<std::string>& text, std::string_view path = "");

private:
    Services services_;
    std::string bundleIdentifier_;
    mutable std::once_flag teamOnce_;
    mutable std::optional<std::string> team_;
};
