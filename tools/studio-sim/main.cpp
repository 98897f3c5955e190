// studio-sim: Studio's side of the agent link, for tests, benchmarks and the
// demo. Started as Contents/MacOS/"Vantoric Studio" inside a simulator bundle
// (or bare, as the release build). Arguments are paths or file URIs to open,
// the platform's way of handing folders to an application that is not on the
// bus yet. Runs until SIGTERM or SIGINT, until its session bus goes away, or
// (with STUDIO_SIM_IDLE_EXIT_SECONDS) after that long without a link.
// SIGUSR1 ends every link. Exit status: 0 after a signal or idle time, 2 when
// it can't start, 3 when the session bus went away. See README.md.
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>

#include "BundleIdentity.h"
#include "HandOver.h"
#include "HttpServer.h"
#include "ProjectModel.h"
#include "SimBus.h"
#include "SimConfig.h"
#include "SimLog.h"
#include "UrlText.h"

namespace asio = boost::asio;
namespace fs = std::filesystem;
using namespace studiosim;

namespace {

constexpr int kExitStartFailure = 2;
constexpr int kExitBusLost = 3;
// How often a quiet simulator looks at a running export; an export also
// moves on with every tool call.
constexpr auto kExportTick = std::chrono::milliseconds(100);

std::optional<fs::path> makeTemporaryHome() {
    std::error_code ec;
    fs::path base = fs::temp_directory_path(ec);
    if (ec) base = "/tmp";
    std::string pattern = (base / "studio-sim-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) return std::nullopt;
    return fs::path(pattern);
}

}  // namespace

int main(int argc, char** argv) {
    ::signal(SIGPIPE, SIG_IGN);
    SimConfig config = readConfig();
    BundleIdentity identity = readIdentity(config.identifier);

    std::unique_ptr<SimLog> log;
    try {
        log = config.logPath ? std::make_unique<SimLog>(*config.logPath) : std::make_unique<SimLog>();
    } catch (const std::exception& error) {
        note(error.what());
        return kExitStartFailure;
    }

    fs::path home;
    bool temporaryHome = false;
    if (config.home) {
        home = *config.home;
    } else if (auto made = makeTemporaryHome()) {
        home = *made;
        temporaryHome = true;
    } else {
        note("cannot make a temporary home folder");
        return kExitStartFailure;
    }

    Json arguments = Json::array();
    for (int i = 0; i < argc; ++i) arguments.push_back(argv[i]);
    log->event("launch", {{"argv", arguments},
                          {"pid", ::getpid()},
                          {"identifier", identity.identifier},
                          {"version", identity.version},
                          {"bundle", identity.bundle ? Json(identity.bundle->string()) : Json()},
                          {"home", home.string()}});
    for (auto& [variable, problem] : config.problems) {
        log->event("config-problem", {{"variable", variable}, {"problem", problem}});
        note(variable + ": " + problem + "; the default is used");
    }

    asio::io_context io(1);
    int exitStatus = 0;
    try {
        ProjectModel model({.home = home,
                            .identifier = identity.identifier,
                            .version = identity.version,
                            .maxWait = config.maxWait,
                            .exportBytes = config.exportBytes,
                            .exportDuration = config.exportDuration,
                            .exportFail = config.exportFail},
                           *log);
        HandOver handOver(io, config, identity, *log);
        HttpServer http(io, config, model, *log, [&handOver](std::string_view token) { return handOver.isLiveToken(token); });
        handOver.setHttpPort(http.port());

        auto openUris = [&](const std::vector<std::string>& uris, const char* via) {
            Json granted = Json::array();
            for (auto& uri : uris)
                if (auto path = localPath(uri)) {
                    model.grant(*path);
                    granted.push_back(path->string());
                }
            log->event("open", {{"uris", uris}, {"via", via}, {"granted", granted}});
        };

        std::unique_ptr<SimBus> bus;
        try {
            bus = std::make_unique<SimBus>(io, identity,
                                           SimBus::Handlers{
                                               .posted = [&](const std::string& name, const std::string& object) { handOver.notification(name, object); },
                                               .open = [&](const std::vector<std::string>& uris) { openUris(uris, "bus"); },
                                               .lost =
                                                   [&](const std::string& why) {
                                                       note(why);
                                                       log->event("exit", {{"reason", "bus-lost"}, {"detail", why}});
                                                       exitStatus = kExitBusLost;
                                                       io.stop();
                                                   },
                                           });
        } catch (const std::exception& error) {
            note(error.what());
            log->event("exit", {{"reason", "no-bus"}, {"detail", error.what()}});
            exitStatus = kExitStartFailure;
        }

        if (bus) {
            if (argc > 1) openUris(std::vector<std::string>(argv + 1, argv + argc), "argv");

            asio::signal_set stopSignals(io, SIGTERM, SIGINT);
            stopSignals.async_wait([&](const boost::system::error_code& ec, int signal) {
                if (ec) return;
                log->event("exit", {{"reason", "signal"}, {"signal", signal}});
                io.stop();
            });
            asio::signal_set closeSignal(io, SIGUSR1);
            std::function<void()> awaitClose = [&] {
                closeSignal.async_wait([&](const boost::system::error_code& ec, int) {
                    if (ec) return;
                    handOver.closeAll();
                    awaitClose();
                });
            };
            awaitClose();

            asio::steady_timer idle(io);
            auto linksChanged = [&](std::size_t links) {
                model.setAgentCount(links);
                if (!config.idleExit) return;
                if (links > 0) {
                    idle.cancel();
                    return;
                }
                idle.expires_after(*config.idleExit);
                idle.async_wait([&](const boost::system::error_code& ec) {
                    if (ec) return;
                    log->event("exit", {{"reason", "idle"}});
                    io.stop();
                });
            };
            handOver.onLinksChanged(linksChanged);
            linksChanged(0);

            asio::steady_timer ticker(io);
            std::function<void()> tick = [&] {
                model.advance();
                auto next = model.nextChange();
                auto soon = std::chrono::steady_clock::now() + kExportTick;
                ticker.expires_at(next && *next < soon ? *next : soon);
                ticker.async_wait([&](const boost::system::error_code& ec) {
                    if (!ec) tick();
                });
            };
            tick();

            log->event("ready", {{"identifier", identity.identifier},
                                 {"objectPath", identity.objectPath()},
                                 {"busName", bus->ownsName()},
                                 {"httpPort", http.port()}});
            std::printf("studio-sim ready %s http://127.0.0.1:%u\n", identity.identifier.c_str(), static_cast<unsigned>(http.port()));
            std::fflush(stdout);
            io.run();
            handOver.onLinksChanged(nullptr);
        }
    } catch (const std::exception& error) {
        note(error.what());
        log->event("exit", {{"reason", "error"}, {"detail", error.what()}});
        exitStatus = kExitStartFailure;
    }
    if (temporaryHome) {
        std::error_code ignored;
        fs::remove_all(home, ignored);
    }
    return exitStatus;
}
