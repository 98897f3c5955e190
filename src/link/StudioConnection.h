// The bridge's side of its link to Studio: obtaining a Link (reusing the live
// one, or establishing one by the hand-over), forwarding tool calls over it,
// and moving files to and from Studio's file service.
//
// Owned by the bridge (through a shared_ptr, since the establishment running
// in the background keeps it) and used only on the bridge's strand, the
// executor given at construction: connect(), forward(), upload(),
// download() and stop() must be called there, and all state below is touched
// only there. The hand-over listener runs on a strand of its own, made on the
// I/O executor under the bridge's strand.
//
// Several calls may be inside connect() at once: the first starts the one
// establishment (`pending`), the others join it, each waiting at most
// `linkWait`; a wait that runs out leaves the establishment going on, and a
// later call joins it. After stop() no link is made any more.
#pragma once
#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <chrono>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include "json/Json.h"
#include <optional>
#include <string>

#include "link/HandshakeListener.h"
#include "link/Link.h"
#include "link/PendingLink.h"

namespace platform {
class NotificationCenter;
class RunningApplications;
class ApplicationLauncher;
class SecureRandom;
}  // namespace platform
namespace peer {
class StudioPeer;
}  // namespace peer

namespace studiolink {

class HttpSession;
class LoopbackNetwork;

// The fixed durations of the link; tests shorten them, nothing else changes.
struct LinkDurations {
    std::chrono::steady_clock::duration linkWait = std::chrono::seconds(45);
    std::chrono::steady_clock::duration replyTimeout = std::chrono::seconds(600);
    std::chrono::steady_clock::duration notificationInterval = std::chrono::milliseconds(500);
    int notificationAttempts = 240;
    std::chrono::steady_clock::duration httpTimeout = std::chrono::seconds(600);

    // The defaults, except that the integration tests may shorten the wait
    // of one call (VSM_TEST_LINK_WAIT_MS) and the wait for Studio's reply
    // (VSM_TEST_REPLY_TIMEOUT_MS) of the real binary.
    static LinkDurations fromEnvironment(const std::map<std::string, std::string>& environment);
};

class StudioConnection : public std::enable_shared_from_this<StudioConnection> {
public:
    using Durations = LinkDurations;

    struct Services {
        platform::NotificationCenter& notifications;
        const platform::RunningApplications& running;
        platform::ApplicationLauncher& launcher;
        platform::SecureRandom& random;
        std::shared_ptr<const peer::StudioPeer> peer;
        HandshakeListener::VerifyPeer verifyPeer;  // the peer's studio() when empty
        std::string bundleIdentifier;
        std::string notificationName;
        std::string hello;
        // What the hand-over and the HTTP exchanges run over: the system's
        // TCP loopback when empty.
        std::shared_ptr<LoopbackNetwork> network = nullptr;

        // The Linux services, for the build `bundleIdentifier` names.
        static Services system(const std::string& bundleIdentifier);
    };

    // Studio's answer to a forwarded call: its tool result object, or the
    // message of a refusal (which the server makes an error-flagged result).
    struct Forwarded {
        std::optional<Json> result;
        std::string refusal;
    };

    static constexpr size_t nonceBytes = 32;

    // `strand` is the bridge's strand and `io` the I/O executor under it;
    // `clientName` is read on the strand whenever a hand-over announces the
    // agent. A given `link` never expires.
    static std::shared_ptr<StudioConnection> create(boost::asio::any_io_executor strand,
                                                    boost::asio::any_io_executor io,
                                                    std::optional<std::filesystem::path> app,
                                                    std::function<std::string()> clientName, Services services,
                                                    Durations durations = {}, std::optional<Link> link = {});
    ~StudioConnection();

    boost::asio::awaitable<Link> connect();
    boost::asio::awaitable<Forwarded> forward(Json arguments, std::string tool);
    // Called on the strand as an upload's bytes go out: bytes sent so far,
    // and the file's size.
    using UploadProgress = std::function<void(uint64_t sent, uint64_t total)>;
    boost::asio::awaitable<std::string> upload(std::filesystem::path file, Link link, UploadProgress progress = {});
    // Writes the export into a file beside `destination`, then renames it
    // into place (0644); the file is removed on every other way out, and a
    // folder at the destination is never written into.
    boost::asio::awaitable<void> download(std::string downloadId, std::filesystem::path destination, bool overwrite);

    // The shutdown: no new link from now on, the lifetime listeners stopped,
    // the link dropped, the pending establishment cancelled.
    void stop();

    // The task's link or error, or nothing when `duration` passes first; the
    // task goes on either way. Cancelling the wait cancels only the wait.
    static boost::asio::awaitable<std::optional<Link>> waiting(std::shared_ptr<PendingLink> task,
                                                               std::chrono::steady_clock::duration duration);

    int64_t nextId() const { return nextId_; }
    bool stopped() const { return stopped_; }
    bool hasPending() const { return pending_ != nullptr; }
    const std::optional<Link>& link() const { return link_; }
    HttpSession& session() { return *session_; }
    // How Studio is started and handed files (the workspace).
    platform::ApplicationLauncher& launcher() { return services_.launcher; }

private:
    StudioConnection(boost::asio::any_io_executor strand, boost::asio::any_io_executor io, std::optional<std::filesystem::path> app,
                     std::function<std::string()> clientName, Services services, Durations durations,
                     std::optional<Link> link);

    boost::asio::awaitable<Link> establish();
    static boost::asio::awaitable<void> establishing(std::shared_ptr<StudioConnection> self,
                                                    std::shared_ptr<PendingLink> task);
    static boost::asio::awaitable<void> announce(std::shared_ptr<StudioConnection> self,
                                                 std::weak_ptr<HandshakeListener> listener, std::string query,
                                                 std::shared_ptr<boost::asio::cancellation_signal> signal);
    boost::asio::awaitable<void> checkCancelled() const;
    std::string makeNonce();

    boost::asio::any_io_executor strand_;
    boost::asio::any_io_executor io_;
    std::optional<std::filesystem::path> app_;
    std::function<std::string()> clientName_;
    Services services_;
    Durations durations_;
    std::unique_ptr<HttpSession> session_;

    std::optional<Link> link_;
    std::shared_ptr<PendingLink> pending_;
    std::shared_ptr<HandshakeListener> lifetimeListener_;
    bool stopped_ = false;
    int64_t nextId_ = 0;
};

}  // namespace studiolink
