// Video export: Studio renders into the project's own exports folder; the
// bridge remembers where the agent wants the video, waits a bounded time for
// a started export to settle, and copies a completed one there. Methods of
// the bridge, run on its strand; `exportDestination` and `exportCopy` are
// touched only here and in the status route.
#include <sys/stat.h>

#include <algorithm>
#include <cmath>

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/system/system_error.hpp>

#include "base/BridgeError.h"
#include "link/HttpSession.h"

#include "server/PathResolution.h"
#include "server/StudioMCPBridge.h"

namespace fs = std::filesystem;

namespace {

const Json* memberOf(const Json& object, const char* name) {
    if (!object.is_object()) return nullptr;
    auto member = object.find(name);
    return member == object.end() ? nullptr : &*member;
}

bool flaggedError(const Json& result) {
    const Json* flag = memberOf(result, "isError");
    return flag && flag->is_boolean() && flag->get<bool>();
}

std::string phaseOf(const Json& payload) {
    const Json* phase = memberOf(payload, "phase");
    return phase && phase->is_string() ? phase->get<std::string>() : std::string();
}

bool settledPhase(const std::string& phase) {
    return phase == "completed" || phase == "failed" || phase == "cancelled" || phase == "none";
}

bool existsAt(const fs::path& path) {
    struct stat info {};
    return ::lstat(path.c_str(), &info) == 0;
}

// How far an export is, in percent, and what it is doing, as the agent's
// client shows it.
void reportExport(Progress& progress, const std::optional<Json>& payload) {
    if (!progress.wanted() || !payload) return;
    std::string phase = phaseOf(*payload);
    if (phase.empty()) return;
    uint64_t percent = 0;
    std::string message = "Export " + phase;
    if (settledPhase(phase)) {
        percent = 100;
    } else if (const Json* file = memberOf(*payload, "file")) {
        const Json* level = memberOf(*file, "level");
        if (level && level->is_number()) {
            double fraction = std::clamp(level->get<double>(), 0.0, 1.0);
            percent = static_cast<uint64_t>(std::floor(fraction * 100));
            message += ", " + std::to_string(percent) + "%";
        }
    }
    progress.report(percent, 100, message);
}

}  // namespace

bool StudioMCPBridge::exportSettled(const Json& studioResult) {
    auto status = payload(studioResult);
    if (!status || !settledPhase(phaseOf(*status))) return false;
    const Json* file = memberOf(*status, "file");
    return !file || !file->is_object() || !file->contains("level");
}

StudioMCPBridge::Task<Json> StudioMCPBridge::exportVideo(Json arguments, Progress progress) {
    std::optional<ExportDestination> destination;
    if (const Json* path = memberOf(arguments, "path"); path && path->is_string()) {
        fs::path url = resolvePath(path->get_ref<const std::string&>());
        if (!PathResolution::isMP4(url)) co_return toolError("path must end in .mp4.");
        if (url.native().find('\0') != std::string::npos)
            co_return toolError(displayable(url.native()) + " cannot be saved to: a path cannot hold a NUL byte.");
        const Json* overwrite = memberOf(arguments, "overwrite");
        bool replace = overwrite && overwrite->is_boolean() && overwrite->get<bool>();
        if (existsAt(url) && !replace)
            co_return toolError(url.string() +
                                " already exists. Pass overwrite:true to replace it, or choose another path.");
        destination = ExportDestination{std::move(url), replace};
    }

    Json start = Json::object();
    start["action"] = "start";
    if (const Json* label = memberOf(arguments, "include_ai_label")) start["include_ai_label"] = *label;
    Json latest = co_await forward(std::move(start), "export_video");
    if (flaggedError(latest)) co_return latest;
    exportDestination = std::move(destination);
    reportExport(progress, payload(latest));

    // Each poll asks Studio to wait no longer than the time left: an agent
    // that cuts calls off at a minute must get this one back before that,
    // copy included.
    auto deadline = std::chrono::steady_clock::now() + timing.exportWait;
    while (!exportSettled(latest)) {
        double left = std::chrono::duration<double>(deadline - std::chrono::steady_clock::now()).count();
        double wait = std::min(15.0, std::floor(left * 10) / 10);
        if (wait <= 0) break;
        Json poll = Json::object();
        poll["action"] = "status";
        poll["wait_seconds"] = wait;
        latest = co_await forward(std::move(poll), "export_video");
        if (flaggedError(latest)) co_return latest;
        reportExport(progress, payload(latest));
    }
    co_return co_await deliverExport(std::move(latest), timing.exportWait);
}

StudioMCPBridge::Task<Json> StudioMCPBridge::deliverExport(Json studioResult, std::chrono::steady_clock::duration wait) {
    auto status = payload(studioResult);
    if (!status) co_return studioResult;
    std::string phase = phaseOf(*status);
    auto file = status->find("file");
    bool hasFile = file != status->end() && file->is_object();

    if (hasFile) {
        auto id = file->find("downloadId");
        if (phase == "completed" && id != file->end() && id->is_string()) {
            if (auto saved = co_await copyExport(id->get<std::string>(), wait)) (*file)["savedTo"] = saved->string();
        }
        file->erase("downloadId");
    }

    if (phase == "failed" || phase == "cancelled") {
        exportDestination.reset();
    } else if (phase != "completed" && exportDestination) {
        // Also while a file is being written: whoever returns before the
        // export is done says how to go on.
        (*status)["note"] = "Still exporting. Call export_video {action:\"status\", wait_seconds:40}; the copy is saved to " +
                            exportDestination->url.string() + " when it completes.";
    } else if (phase == "completed" && exportCopy && hasFile && !file->contains("savedTo")) {
        (*status)["note"] = "Still copying the video to " + exportCopy->destination.url.string() +
                            ". Call export_video {action:\"status\"} to see it saved.";
    }
    co_return result(*status);
}

StudioMCPBridge::Task<std::optional<fs::path>> StudioMCPBridge::copyExport(std::string downloadId,
                                                                         std::chrono::steady_clock::duration wait) {
    // A copy of this export already under way (a start call still copying
    // when the agent asks for the status): its outcome is this call's too.
    if (exportCopy && exportCopy->downloadId == downloadId) {
        auto copy = exportCopy;
        auto timer = std::make_shared<boost::asio::steady_timer>(co_await boost::asio::this_coro::executor);
        timer->expires_after(wait);
        copy->waiting.push_back(timer);
        co_await timer->async_wait(boost::asio::as_tuple(boost::asio::use_awaitable_t<Executor>{}));
        if (!copy->finished) {
            if ((co_await boost::asio::this_coro::cancellation_state).cancelled() != boost::asio::cancellation_type::none)
                throw boost::system::system_error(boost::asio::error::operation_aborted);
            co_return std::nullopt;  // still copying: the payload says so
        }
        if (copy->failure) throw BridgeError(*copy->failure);
        co_return copy->destination.url;
    }
    if (!exportDestination) co_return std::nullopt;

    // The destination stays remembered until its copy has succeeded: a copy
    // cut off (the agent's time limit, a shutdown) or failed is made again
    // by the next status call that sees the export completed.
    auto copy = std::make_shared<ExportCopy>();
    copy->downloadId = downloadId;
    copy->destination = *exportDestination;
    exportCopy = copy;
    auto finish = [this, copy](std::optional<std::string> failure) {
        copy->finished = true;
        copy->failure = std::move(failure);
        for (auto& waiting : copy->waiting)
            if (auto timer = waiting.lock()) timer->cancel();
        if (exportCopy == copy) exportCopy.reset();
    };
    try {
        auto downloading = studio->download(downloadId, copy->destination.url, copy->destination.overwrite);
        co_await std::move(downloading);
    } catch (const TransportError&) {
        // Cut short by the connection: stopped, as a cancelled copy is.
        finish("The copy of the export was stopped before it was complete.");
        throw;
    } catch (const BridgeError& failure) {
        finish(failure.what());
        throw;
    } catch (...) {
        finish("The copy of the export was stopped before it was complete.");
        throw;
    }
    finish(std::nullopt);
    if (exportDestination && exportDestination->url == copy->destination.url) exportDestination.reset();
    co_return copy->destination.url;
}
