#include "server/StudioMCPBridge.h"

#include "platform/Environment.h"
#include "server/PathResolution.h"

BridgeTiming BridgeTiming::fromEnvironment(const std::map<std::string, std::string>& environment) {
    BridgeTiming timing;
    timing.link = LinkDurations::fromEnvironment(environment);
    if (auto wait = platform::milliseconds(environment, "VSM_TEST_EXPORT_WAIT_MS")) timing.exportWait = *wait;
    if (auto every = platform::milliseconds(environment, "VSM_TEST_PROGRESS_MS")) timing.progressEvery = *every;
    return timing;
}

std::shared_ptr<StudioMCPBridge> StudioMCPBridge::create(boost::asio::io_context::executor_type executor, std::optional<std::filesystem::path> app,
                                                         std::optional<std::string> catalog,
                                                         std::filesystem::path workingDirectory, Output output,
                                                         Timing timing, const platform::Bundles& bundles,
                                                         std::optional<StudioConnection::Services> services) {
    auto io = executor;
    auto bridge = std::shared_ptr<StudioMCPBridge>(new StudioMCPBridge(std::move(executor), std::move(app),
                                                                     std::move(catalog), std::move(workingDirectory),
                                                                     std::move(output), timing, bundles));
    // The link reads the agent's name when it announces itself; it may
    // outlive the bridge by a pending establishment, so it holds it weakly.
    std::weak_ptr<StudioMCPBridge> weak = bridge;
    bridge->studio = StudioConnection::create(
        bridge->strand_, io, bridge->app,
        [weak] {
            auto self = weak.lock();
            return self ? self->agentName() : std::string("A coding agent");
        },
        services ? std::move(*services) : StudioConnection::Services::system(), timing.link);
    return bridge;
}

StudioMCPBridge::StudioMCPBridge(boost::asio::io_context::executor_type executor, std::optional<std::filesystem::path> app,
                                 std::optional<std::string> catalog, std::filesystem::path workingDirectory,
                                 Output output, Timing timing, const platform::Bundles& bundles)
    : app(std::move(app)),
      catalog(std::move(catalog)),
      workingDirectory(std::move(workingDirectory)),
      output(std::move(output)),
      timing(timing),
      strand_(executor),
      bundles_(bundles) {}

void StudioMCPBridge::Call::cancel() {
    cancelled = true;
    signal.emit(boost::asio::cancellation_type::terminal);
}

std::filesystem::path StudioMCPBridge::resolvePath(std::string_view path) const {
    return PathResolution::resolve(path, workingDirectory, PathResolution::homeFolder());
}

std::string StudioMCPBridge::agentName() const {
    const Call* first = nullptr;
    for (const auto& [requestKey, entry] : calls)
        if (entry->toolCall && (!first || entry->order < first->order)) first = entry.get();
    if (first && first->era == Era::stateless) return first->agent.value_or("A coding agent");
    return clientName;
}
