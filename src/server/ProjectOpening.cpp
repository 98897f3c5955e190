// Opening a project folder that the agent names: Studio is asked to open
// it, and when Studio has no access to the folder yet, the folder is handed
// to Studio through the workspace (which grants that access) and Studio is
// asked again. A method of the bridge, run on its strand.
#include <sys/stat.h>

#include <boost/asio/async_result.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <thread>

#include "base/BridgeError.h"
#include "platform/ApplicationLauncher.h"
#include "platform/Log.h"
#include "server/StudioMCPBridge.h"

namespace asio = boost::asio;
namespace fs = std::filesystem;

namespace {

using Outcome = std::optional<platform::SystemError>;

// The workspace's answer, waited for on a thread of its own: handing files
// over may wait on the session bus or on a starting application, and the
// strand serves other requests meanwhile. The caller resumes on its strand.
asio::awaitable<Outcome> handOver(platform::ApplicationLauncher& launcher, fs::path folder, fs::path app) {
    auto initiation = [&launcher, folder = std::move(folder), app = std::move(app)](auto handler) mutable {
        auto executor = asio::get_associated_executor(handler);
        // Keeps the event loop waiting for the answer.
        auto work = asio::make_work_guard(executor);
        std::thread([&launcher, folder = std::move(folder), app = std::move(app), handler = std::move(handler),
                     work = std::move(work)]() mutable {
            Outcome outcome = launcher.openURLs({folder}, app);
            auto executor = work.get_executor();
            asio::post(executor, [handler = std::move(handler), outcome = std::move(outcome)]() mutable {
                std::move(handler)(std::move(outcome));
            });
        }).detach();
    };
    // Named, not a temporary of the co_await: see StudioConnection::waiting.
    auto operation =
        asio::async_initiate<const asio::use_awaitable_t<>&, void(Outcome)>(std::move(initiation), asio::use_awaitable);
    co_return co_await std::move(operation);
}

bool isFolder(const fs::path& path) {
    struct stat info {};
    return path.native().find('\0') == std::string::npos && ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

}  // namespace

StudioMCPBridge::Task<Json> StudioMCPBridge::openProject(Json arguments) {
    auto path = arguments.find("path");
    if (path == arguments.end() || !path->is_string()) co_return co_await forward(std::move(arguments), "project");

    fs::path folder = resolvePath(path->get_ref<const std::string&>());
    if (!isFolder(folder))
        co_return toolError("No project at " + displayable(folder.native()) +
                            ". Pass a .vantoric folder, an id from studio_status, or create one.");
    *path = folder.string();

    Json answer = co_await forward(arguments, "project");
    auto studioSaid = payload(answer);
    if (!studioSaid) co_return answer;
    auto needsGrant = studioSaid->find("needsGrant");
    if (needsGrant == studioSaid->end() || !needsGrant->is_boolean() || !needsGrant->get<bool>()) co_return answer;

    if (!app) throw BridgeError("Vantoric Studio could not be found on this Mac.");
    platform::log(folder.string() + " is outside Studio's sandbox; opening it with Studio through Launch Services");
    if (auto failure = co_await handOver(studio->launcher(), folder, *app)) throw BridgeError(failure->description);

    arguments["await_open"] = true;
    co_return co_await forward(std::move(arguments), "project");
}
