// vantoric-studio-mcp: with no argument an MCP server on standard input and
// output, with any argument the installer. The environment is read once and
// Studio located once, so both modes see the same bundle.
#include <malloc.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/io_context.hpp>

#include "installer/BridgeInstaller.h"
#include "link/DownloadFile.h"
#include "platform/Environment.h"
#include "platform/Executable.h"
#include "platform/Files.h"
#include "platform/Log.h"
#include "platform/Users.h"
#include "base/StudioLocation.h"
#include "server/Catalog.h"
#include "server/InputLoop.h"
#include "server/StudioMCPBridge.h"

namespace fs = std::filesystem;

namespace {

// One unbuffered write of the whole line. A reader that went away is not an
// error of ours: the line is dropped.
void writeToStandardOutput(std::string_view line) { platform::writeAll(STDOUT_FILENO, line, "standard output"); }

fs::path currentFolder() {
    std::error_code ec;
    fs::path folder = fs::current_path(ec);
    return ec ? fs::path("/") : folder;
}

}  // namespace

int main(int argc, char** argv) {
    // A write to an agent that closed its end must fail, not end the process.
    std::signal(SIGPIPE, SIG_IGN);
    // Two threads, one of which only reads: a second malloc arena would cost
    // start-up time (a fresh heap mapped and faulted in) and buy nothing.
    mallopt(M_ARENA_MAX, 1);

    const platform::Environment environment = platform::captureEnvironment();
    platform::useProcessEnvironment(environment);
    const std::optional<fs::path> executable = platform::ownExecutable();
    const std::optional<fs::path> app = StudioLocation::locateApp(executable, environment);

    if (argc > 1 && executable) {
        std::error_code ec;
        fs::path bridge = fs::canonical(*executable, ec);
        if (ec) bridge = *executable;
        std::vector<std::string> arguments(argv + 1, argv + argc);
        std::exit(BridgeInstaller::run(arguments, bridge, app, environment));
    }

    boost::asio::io_context context(1);
    server::StudioMCPBridge::Setup setup;
    setup.app = app;
    setup.bundleIdentifier = StudioLocation::studioIdentifier(StudioLocation::appCandidate(executable, environment));
    setup.catalog = server::Catalog::catalogData(app, environment);
    setup.workingDirectory = currentFolder();
    setup.home = platform::homeFolder(environment, platform::systemUsers());
    setup.output = writeToStandardOutput;
    setup.timing = server::BridgeTiming::fromEnvironment(environment);
    auto bridge = server::StudioMCPBridge::create(context.get_executor(), std::move(setup));
    if (!app) platform::log("Vantoric Studio was not found; set VANTORIC_STUDIO_APP.");

    // The run ends at the end of input or at SIGINT, SIGTERM or SIGHUP
    // (the agents stop their servers with these), whichever comes first,
    // and the same way: no new link, everything in flight cancelled, at
    // most the drain's wait. A signal during that exits at once. Either way
    // no download leaves its temporary file behind.
    auto work = boost::asio::make_work_guard(context);
    bool ending = false;  // I/O thread only
    auto end = [&] {
        if (ending) return;
        ending = true;
        boost::asio::co_spawn(bridge->strand(), bridge->drain(), [&](std::exception_ptr) {
            work.reset();
            context.stop();
        });
    };
    boost::asio::signal_set signals(context, SIGINT, SIGTERM, SIGHUP);
    std::function<void(const boost::system::error_code&, int)> onSignal = [&](const boost::system::error_code& ec,
                                                                              int signal) {
        if (ec) return;
        if (ending) {
            studiolink::removeUnfinishedDownloads();
            std::exit(128 + signal);
        }
        end();
        signals.async_wait(onSignal);
    };
    signals.async_wait(onSignal);

    std::thread reader = server::startInputLoop(STDIN_FILENO, bridge, [&] { boost::asio::post(context, end); });
    context.run();
    studiolink::removeUnfinishedDownloads();
    // After a signal the reader may still wait for input that never comes;
    // it holds nothing that must be released. Requests still running after
    // the drain are abandoned, not awaited.
    reader.detach();
    std::exit(0);
}
