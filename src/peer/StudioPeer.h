// Proving that the process at the other end of a hand-over connection is the
// Studio this bridge serves, and checking what such a process hands back.
// A StudioPeer holds the platform services it is given, the bridge's own
// signing team (read once on first use) and the last look at the processes
// that may be Studio, which judging a burst of connections shares. Every
// operation may be called from any thread at once (connections are judged on
// worker threads while the bridge's strand asks about running copies); none
// throws, and every failing platform call makes its check fail.
#pragma once
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
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

namespace peer {

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

    using Clock = std::chrono::steady_clock;

    // The verified Studio process at the other end of the connection the
    // bridge accepted at `acceptedAt` from 127.0.0.1:`peerPort` on its
    // listening `localPort`. The kernel names the socket at that end by the
    // connection's exact four-tuple, in the bridge's network namespace; it
    // must belong to this user, and every process holding it must be a
    // Studio running from `app`, signed as Studio, at the time of asking and
    // again after. (Linux knows both endpoints, so both addresses are
    // compared, not only the ports.) A look at the processes that began after
    // `acceptedAt` is shared with other connections accepted before it: the
    // process that made a connection existed when it was accepted.
    std::optional<pid_t> studio(const std::filesystem::path& app, uint16_t peerPort, uint16_t localPort,
                                Clock::time_point acceptedAt = Clock::now()) const;
    // The running copies that may be Studio, in the order the platform lists
    // them: all of them for a bridge with a team, else only those running
    // from `app` itself.
    std::vector<pid_t> eligible(const std::filesystem::path& app) const;
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
    // The processes that may be Studio and the sockets each holds, as seen
    // from `takenAt` on.
    struct Candidates {
        Clock::time_point takenAt;
        std::filesystem::path app;
        std::vector<std::pair<pid_t, std::vector<uint64_t>>> sockets;
    };
    std::shared_ptr<const Candidates> candidates(const std::filesystem::path& app, Clock::time_point acceptedAt) const;

    Services services_;
    std::string bundleIdentifier_;
    mutable std::once_flag teamOnce_;
    mutable std::optional<std::string> team_;
    mutable std::mutex candidatesLock_;
    mutable std::shared_ptr<const Candidates> candidates_;
};

}  // namespace peer
