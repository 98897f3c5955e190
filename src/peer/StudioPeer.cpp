#include "peer/StudioPeer.h"

#include <algorithm>
#include <system_error>

#include "platform/CodeSigning.h"
#include "platform/Crypto.h"
#include "platform/Executable.h"
#include "platform/Hex.h"
#include "platform/ProcessSockets.h"
#include "platform/RunningApplications.h"

namespace peer {

namespace fs = std::filesystem;

namespace {

fs::path resolvedLocation(const fs::path& path) {
    std::error_code ec;
    fs::path resolved = fs::weakly_canonical(path, ec);
    if (ec) resolved = path.lexically_normal();
    // "X.app/" and "X.app" are the same bundle.
    if (!resolved.has_filename() && resolved.has_parent_path()) resolved = resolved.parent_path();
    return resolved;
}

}  // namespace

StudioPeer::StudioPeer(Services services, std::string bundleIdentifier)
    : services_(services), bundleIdentifier_(std::move(bundleIdentifier)) {}

StudioPeer::StudioPeer(std::string bundleIdentifier)
    : StudioPeer(Services{platform::systemRunningApplications(), platform::systemProcessSockets(),
                          platform::systemCodeSigning()},
                 std::move(bundleIdentifier)) {}

std::optional<pid_t> StudioPeer::studio(const fs::path& app, uint16_t peerPort, uint16_t localPort,
                                        Clock::time_point acceptedAt) const {
    // Studio's own socket has the connection's remote port as its local port
    // and the bridge's listening port as its foreign port.
    auto socket = services_.sockets.loopbackSocket(peerPort, localPort);
    if (!socket || socket->uid != platform::ownUser()) return std::nullopt;
    // The cheap refusal first: most connections that are not Studio's are
    // held by no process that could be Studio.
    std::vector<pid_t> studios;
    // Held here: a range over a member of the returned pointer would not
    // keep it alive, and a look taken by another connection meanwhile would
    // free it under the loop.
    auto looked = candidates(app, acceptedAt);
    for (const auto& [pid, inodes] : looked->sockets)
        if (std::find(inodes.begin(), inodes.end(), socket->inode) != inodes.end()) studios.push_back(pid);
    if (studios.empty()) return std::nullopt;
    for (pid_t pid : studios)
        if (!services_.signing.validNow(pid, requirement())) return std::nullopt;
    // Whoever else holds the socket would read what is sent to Studio.
    auto holders = services_.sockets.holders(socket->inode);
    if (!holders || holders->empty()) return std::nullopt;
    for (pid_t pid : *holders) {
        if (std::find(studios.begin(), studios.end(), pid) == studios.end()) return std::nullopt;
        // Again after the search: stopped, traced or gone meanwhile.
        if (!services_.signing.validNow(pid, requirement())) return std::nullopt;
    }
    return holders->front();
}

std::shared_ptr<const StudioPeer::Candidates> StudioPeer::candidates(const fs::path& app,
                                                                     Clock::time_point acceptedAt) const {
    // Held while looking, so that connections judged at the same time wait
    // for this look instead of each taking their own.
    std::lock_guard guard(candidatesLock_);
    if (candidates_ && candidates_->app == app && candidates_->takenAt >= acceptedAt) return candidates_;
    auto fresh = std::make_shared<Candidates>();
    fresh->takenAt = Clock::now();
    fresh->app = app;
    std::vector<pid_t> pids;
    if (ownTeam()) {
        for (const auto& running : services_.running.withBundleIdentifier(bundleIdentifier_))
            pids.push_back(running.processIdentifier);
    } else {
        pids = services_.running.runningFrom(app);
    }
    for (pid_t pid : pids) {
        if (auto inodes = services_.sockets.socketInodes(pid)) fresh->sockets.emplace_back(pid, std::move(*inodes));
    }
    candidates_ = fresh;
    return fresh;
}

std::vector<pid_t> StudioPeer::eligible(const fs::path& app) const {
    fs::path target = resolvedLocation(app);
    bool anyLocation = ownTeam().has_value();
    std::vector<pid_t> pids;
    for (const auto& running : services_.running.withBundleIdentifier(bundleIdentifier_)) {
        if (anyLocation || (running.bundleURL && resolvedLocation(*running.bundleURL) == target))
            pids.push_back(running.processIdentifier);
    }
    return pids;
}

std::string StudioPeer::requirement() const {
    std::string text = "identifier \"" + bundleIdentifier_ + "\"";
    if (auto team = ownTeam())
        text += " and anchor apple generic and certificate leaf[subject.OU] = \"" + *team + "\"";
    return text;
}

bool StudioPeer::signedAsStudio(pid_t pid) const { return services_.signing.satisfies(pid, requirement()); }

std::optional<std::string> StudioPeer::ownTeam() const {
    std::call_once(teamOnce_, [this] { team_ = services_.signing.ownTeam(); });
    return team_;
}

std::optional<std::string> StudioPeer::unusableCopy(const fs::path& app) const {
    auto running = services_.running.withBundleIdentifier(bundleIdentifier_);
    if (running.empty()) return std::nullopt;
    std::vector<pid_t> candidates = eligible(app);
    std::sort(candidates.begin(), candidates.end());
    candidates.erase(std::unique(candidates.begin(), candidates.end()), candidates.end());
    for (pid_t pid : candidates)
        if (signedAsStudio(pid)) return std::nullopt;
    const auto& first = running.front();
    return first.bundleURL ? first.bundleURL->string() : std::string("another location");
}

std::string StudioPeer::challenge(std::string_view nonce) {
    return platform::hex(platform::sha256(nonce));
}

std::optional<URL> StudioPeer::loopback(const std::optional<std::string>& text, std::string_view path) {
    if (!text) return std::nullopt;
    auto url = URL::parse(*text);
    if (!url) return std::nullopt;
    if (url->scheme != "http") return std::nullopt;
    if (url->host != "127.0.0.1") return std::nullopt;
    if (!url->port || *url->port < 1024) return std::nullopt;
    if (url->user || url->password || url->query) return std::nullopt;
    if (url->path != path) return std::nullopt;
    return url;
}

}  // namespace peer
