// Video export: Studio renders into the project's own exports folder; the
// bridge remembers where the agent wants the video, waits a bounded time for
// a started export to settle, and copies a completed one there. Methods of
// the bridge, run on its strand; `exportDestination` is touched only here
// and in the status route.
#include <sys/stat.h>

#include <algorithm>
#include <cmath>

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

    auto deadline = std::chrono::steady_clock::now() + timing.exportWait;
    while (std::chrono::steady_clock::now() < deadline && !exportSettled(latest)) {
        Json poll = Json::object();
        poll["action"] = "status";
        poll["wait_seconds"] = 15;
        latest = co_await forward(std::move(poll), "export_video");
        if (flaggedError(latest)) co_return latest;
        reportExport(progress, payload(latest));
    }
    co_return co_await deliverExport(std::move(latest));
}

StudioMCPBridge::Task<Json> StudioMCPBridge::deliverExport(Json studioResult) {
    auto status = payload(studioResult);
    if (!status) co_return studioResult;
    std::string phase = phaseOf(*status);
    auto file = status->find("file");
    bool hasFile = file != status->end() && file->is_object();

    if (hasFile) {
        auto id = file->find("downloadId");
        if (phase == "completed" && exportDestination && id != file->end() && id->is_string()) {
            // Cleared before the copy starts: one completion, one copy.
            ExportDestination destination = std::move(*exportDestination);
            exportDestination.reset();
            auto downloading = studio->download(id->get<std::string>(), destination.url, destination.overwrite);
            co_await std::move(downloading);
            (*file)["savedTo"] = destination.url.string();
        }
        file->erase("downloadId");
        co_return result(*status);
    }

    if (phase == "failed" || phase == "cancelled") {
        exportDestination.reset();
    } else if (phase != "completed" && exportDestination) {
        (*status)["note"] = "Still exporting. Call export_video {action:\"status\", wait_seconds:40}; the copy is saved to " +
                            exportDestination->url.string() + " when it completes.";
    }
    co_return result(*status);
}
