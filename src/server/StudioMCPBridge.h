// StudioMCPBridge: the one bridge of a server run, an actor. Its state is
// touched only on its strand: the input loop calls receive there, and every
// request runs there as a task of its own (a coroutine that frees the
// strand whenever it waits), filed in the request table until it ends. The
// bridge is held by std::shared_ptr; a task holds it while it runs. Output
// goes through the Output function, one whole line per call, only from the
// strand.
//
// Where things are: the framing of lines (Framing), requests in flight and
// their cancellation (RequestTable), which handler answers a method or a
// tool call (Routes, filled in by routes() below), the file tools that own
// their state (MediaImport, ProjectOpening, VideoExport), and everything that
// talks to Studio (link/StudioConnection).
#pragma once
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <boost/asio/io_context.hpp>
#include <boost/asio/strand.hpp>

#include "base/StudioLocation.h"
#include "link/StudioConnection.h"
#include "platform/Bundle.h"
#include "platform/Environment.h"
#include "server/AgentPaths.h"
#include "server/MediaImport.h"
#include "server/ProjectOpening.h"
#include "server/RequestTable.h"
#include "server/Routes.h"
#include "server/VideoExport.h"

namespace server {

// The fixed durations of the server. Tests shorten them; nothing else
// changes with them.
struct BridgeTiming {
    // How long the shutdown waits at most for requests in flight.
    std::chrono::milliseconds drainWithin{5000};
    // How often the shutdown looks whether they have finished.
    std::chrono::milliseconds drainPoll{20};
    // How often a call with a progress token hears that it still waits.
    std::chrono::steady_clock::duration progressEvery = std::chrono::seconds(5);
    // The longest a call that starts an export waits for it to settle.
    std::chrono::steady_clock::duration exportWait = std::chrono::seconds(45);
    // The link's waits (45 s for a call, 600 s for Studio's reply, ...).
    studiolink::LinkDurations link{};

    // The defaults, except that the integration tests of the real binary may
    // shorten the export wait (VSM_TEST_EXPORT_WAIT_MS), the progress
    // interval (VSM_TEST_PROGRESS_MS) and the link's waits
    // (LinkDurations::fromEnvironment).
    static BridgeTiming fromEnvironment(const platform::Environment& environment);
};

class StudioMCPBridge : public std::enable_shared_from_this<StudioMCPBridge> {
public:
    using Strand = boost::asio::strand<boost::asio::io_context::executor_type>;
    // Writes one complete message line; called only from the strand.
    using Output = std::function<void(std::string_view line)>;

    // What a bridge is made of. Tests replace the platform's services and
    // may hand over a live link.
    struct Setup {
        std::optional<std::filesystem::path> app;
        // The build served (StudioLocation::studioIdentifier).
        std::string bundleIdentifier = std::string(StudioLocation::releaseIdentifier);
        std::optional<std::string> catalog;
        std::filesystem::path workingDirectory;
        std::optional<std::string> home;
        Output output;
        BridgeTiming timing{};
        const platform::Bundles* bundles = &platform::systemBundles();
        std::optional<studiolink::StudioConnection::Services> services;
        std::optional<studiolink::Link> link;
    };

    static std::shared_ptr<StudioMCPBridge> create(boost::asio::io_context::executor_type executor, Setup setup);

    StudioMCPBridge(const StudioMCPBridge&) = delete;
    StudioMCPBridge& operator=(const StudioMCPBridge&) = delete;

    const Strand& strand() const { return strand_; }

    // One input line (without its line feed): a request starts its task, a
    // "notifications/cancelled" cancels one. Synchronous; on the strand.
    void receive(std::string_view line);

    // Shuts the server down: no new link from now on, every request in
    // flight cancelled, and a wait of at most the drain's for them to end.
    Task<void> drain();
    // Whether no request is in flight.
    bool idle() const { return requests_.empty(); }

private:
    StudioMCPBridge(boost::asio::io_context::executor_type executor, Setup& setup);

    Routes routes();
    void handle(Json message);
    void start(Json request, const Json& id, ProtocolEra::Era era);
    static Task<void> run(std::weak_ptr<StudioMCPBridge> bridge, Json request, std::shared_ptr<RequestTable::Call> call);
    // Answers one request and, last of all, takes it out of the table.
    Task<void> answer(Json request, std::shared_ptr<RequestTable::Call> call);
    Task<Answer> callTool(Request& request);
    Task<Json> carryOut(std::string tool, Json arguments, Progress progress);

    // The server's name, title and Studio's version, read on first use.
    const Json& identity();
    // The name Studio shows during a hand-over: that of the tool call that
    // has waited longest for Studio, from its own request when stateless,
    // else the one the last "initialize" gave.
    std::string agentName() const;

    void send(const Json& message);
    void sendLine(const std::optional<std::string>& line);

    Strand strand_;
    const std::optional<std::filesystem::path> app_;
    const std::string bundleIdentifier_;
    const std::optional<std::string> catalog_;
    const Output output_;
    const BridgeTiming timing_;
    const platform::Bundles& bundles_;
    const AgentPaths paths_;
    std::shared_ptr<studiolink::StudioConnection> studio_;
    RequestTable requests_;
    std::optional<MediaImport> media_;
    std::optional<ProjectOpening> projects_;
    std::optional<VideoExport> export_;
    Routes routes_;
    std::string clientName_ = "A coding agent";
    std::optional<Json> identity_;
};

}  // namespace server
