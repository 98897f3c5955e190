// StudioMCPBridge: the one bridge object of a server run, an actor. It owns
// every piece of server state, and all of it is touched only on its strand:
// receive is called there by the input loop, and every operation below that
// returns an awaitable runs there as a coroutine, freeing the strand for
// other requests whenever it waits. The bridge is held by std::shared_ptr;
// each request runs in a task of its own, spawned onto the strand holding the
// bridge weakly, registered in `calls` before it can run, and cancellable by
// its request key. Output goes through `output`, one whole line per call,
// only from the strand.
//
// Its static members are the identity values of the served Studio build
// (StudioLocation) and the pure rules of the protocol (Transport,
// ToolResults, SessionSetup, Catalog), so `StudioMCPBridge::serverName()` or
// `StudioMCPBridge::toolError(...)` read as one type's.
#pragma once
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/cancellation_signal.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>

#include "link/StudioConnection.h"
#include "base/StudioLocation.h"
#include "platform/Bundle.h"
#include "server/Catalog.h"
#include "server/JSONText.h"
#include "server/Progress.h"
#include "server/ProtocolEra.h"
#include "server/SessionSetup.h"
#include "server/ToolResults.h"
#include "server/Transport.h"

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
    LinkDurations link{};

    // The defaults, except that the integration tests of the real binary may
    // shorten the export wait (VSM_TEST_EXPORT_WAIT_MS), the progress
    // interval (VSM_TEST_PROGRESS_MS) and the link's waits
    // (LinkDurations::fromEnvironment).
    static BridgeTiming fromEnvironment(const std::map<std::string, std::string>& environment);
};

class StudioMCPBridge : public StudioLocation,
                        public Transport,
                        public ToolResults,
                        public SessionSetup,
                        public ProtocolEra,
                        public Catalog,
                        public std::enable_shared_from_this<StudioMCPBridge> {
public:
    // Coroutines see the strand through the type-erased executor; the strand
    // wraps the io_context's own executor, which keeps it small enough to be
    // held inline there (no allocation at each suspension).
    using Executor = boost::asio::any_io_executor;
    using Strand = boost::asio::strand<boost::asio::io_context::executor_type>;
    template <typename T>
    using Task = boost::asio::awaitable<T, Executor>;
    // Writes one complete message line; called only from the strand.
    using Output = std::function<void(std::string_view line)>;

    using Timing = BridgeTiming;

    // Where a finished export is to be copied.
    struct ExportDestination {
        std::filesystem::path url;
        bool overwrite = false;
    };

    // The copy of a completed export while it runs, so that a status call
    // arriving meanwhile waits for it instead of copying again.
    struct ExportCopy {
        std::string downloadId;
        ExportDestination destination;
        bool finished = false;
        std::optional<std::string> failure;
        std::vector<std::weak_ptr<boost::asio::steady_timer>> waiting;  // woken when it ends
    };

    // A request being answered: the handle by which its task is cancelled.
    // Cancelling sets the flag that the task looks at before it replies, and
    // aborts whatever asynchronous wait the task is suspended in.
    struct Call {
        boost::asio::cancellation_signal signal;
        bool cancelled = false;
        // Decided from the request alone when its line is read.
        Era era = Era::handshake;
        // In arrival order, so that the hand-over can tell which waiting
        // tool call came first.
        std::uint64_t order = 0;
        // Set while a tool call runs: the name the hand-over shows for it,
        // or nothing for a handshake call (the name "initialize" left).
        bool toolCall = false;
        std::optional<std::string> agent;
        void cancel();
    };

    static std::shared_ptr<StudioMCPBridge> create(boost::asio::io_context::executor_type executor, std::optional<std::filesystem::path> app,
                                                   std::optional<std::string> catalog,
                                                   std::filesystem::path workingDirectory, Output output,
                                                   Timing timing = {},
                                                   const platform::Bundles& bundles = platform::systemBundles(),
                                                   std::optional<StudioConnection::Services> services = std::nullopt);

    StudioMCPBridge(const StudioMCPBridge&) = delete;
    StudioMCPBridge& operator=(const StudioMCPBridge&) = delete;

    const Strand& strand() const { return strand_; }

    // ---- the stdio transport ----

    // One input line (without its line feed). Parses it, starts one task per
    // request and acts on "notifications/cancelled". Synchronous; call it on
    // the strand.
    void receive(std::string_view line);

    // Shuts the server down: no new link from now on, every request in
    // flight cancelled, and a wait of at most `within` for them to finish.
    Task<void> drain(std::chrono::steady_clock::duration within);
    Task<void> drain() { return drain(timing.drainWithin); }

    // ---- call routing and results ----

    // Answers one request and, last of all, removes its entry from `calls`.
    Task<void> answer(Json request, std::shared_ptr<Call> entry);
    // Routes one tool call: refuses unknown parameters, sends the file tools
    // to the bridge's own handlers and everything else to Studio. `progress`
    // hears about long work (uploads, an export being waited for).
    Task<Json> call(std::string tool, Json arguments, Progress progress = {});

    // ---- session set-up and catalog ----

    // The result of "initialize"; stores the agent's name when given.
    Json initialize(const Json& params);
    // The server's name, title and Studio's version, read on first use.
    const Json& identity();
    // The name Studio shows during a hand-over: that of the tool call that
    // has waited longest for Studio, taken from its own request when it is
    // stateless, else the one the last "initialize" gave.
    std::string agentName() const;
    Json tools() const { return toolsIn(catalog); }
    Json prompts() const { return promptsIn(catalog); }
    Json listedPrompts() const { return listedPromptsIn(catalog); }
    Json prompt(const Json& params) const { return promptIn(catalog, params); }

    // ---- tools carried out with Studio ----

    Task<Json> forward(Json arguments, std::string tool);
    // Media on this machine: each file checked, then uploaded to Studio, and
    // the call forwarded with upload ids in place of the paths.
    Task<Json> importMedia(Json arguments, Progress progress = {});
    Task<Json> series(Json arguments, Progress progress = {});
    // A project folder on this machine, handed to Studio through the
    // workspace when Studio has no access to it yet.
    Task<Json> openProject(Json arguments);
    // Starts an export, waits up to `timing.exportWait` for it to settle, and
    // copies a completed one to the agent's path.
    Task<Json> exportVideo(Json arguments, Progress progress = {});
    // Studio's export status for the agent: the copy made when it completed
    // and a destination waits (or the outcome of the copy already under way,
    // waited for up to `wait`), download ids removed, a reminder while it
    // runs.
    Task<Json> deliverExport(Json studioResult, std::chrono::steady_clock::duration wait);
    // The copy of a completed export to the remembered destination; where it
    // was saved, or nothing when there is no destination or the copy under
    // way did not end within `wait`.
    Task<std::optional<std::filesystem::path>> copyExport(std::string downloadId,
                                                          std::chrono::steady_clock::duration wait);
    // "export_video" with "action" "status".
    Task<Json> exportStatus(Json arguments);
    // Whether Studio's export status says the export is no longer running.
    static bool exportSettled(const Json& studioResult);

    // A path the agent gave, resolved against the working directory.
    std::filesystem::path resolvePath(std::string_view path) const;
    // A path to a file that must be there and readable; a BridgeError
    // otherwise.
    std::filesystem::path resolveFile(std::string_view path) const;

    // ---- state (strand only) ----

    const std::optional<std::filesystem::path> app;
    const std::optional<std::string> catalog;
    const std::filesystem::path workingDirectory;
    const Output output;
    std::string clientName = "A coding agent";
    // The link to Studio: the live link, the establishment in progress, the
    // listener watching the link's lifetime, the JSON-RPC id counter towards
    // Studio and the HTTP session, all on this strand.
    std::shared_ptr<StudioConnection> studio;
    std::map<std::string, std::shared_ptr<Call>> calls;
    std::optional<ExportDestination> exportDestination;
    std::shared_ptr<ExportCopy> exportCopy;
    bool stopped = false;
    const Timing timing;

private:
    StudioMCPBridge(boost::asio::io_context::executor_type executor, std::optional<std::filesystem::path> app, std::optional<std::string> catalog,
                    std::filesystem::path workingDirectory, Output output, Timing timing,
                    const platform::Bundles& bundles);

    // One message of a line (an element of a batch, or the line's object).
    void handle(Json message);
    // Registers the request under its key, then lets its task run.
    void start(Json request, const Json& id, Era era);
    // Writes one message as one line.
    void send(const Json& message);
    void sendLine(const std::optional<std::string>& line);
    // Stops what the link started (drain steps for the lifetime listener, the
    // link and the pending establishment).
    void stopLink();

    static Task<void> run(std::weak_ptr<StudioMCPBridge> bridge, Json request, std::shared_ptr<Call> entry);

    Strand strand_;
    const platform::Bundles& bundles_;
    std::optional<Json> identity_;
    std::uint64_t received_ = 0;
};
