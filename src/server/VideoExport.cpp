#include "server/VideoExport.h"

#include <algorithm>
#include <cmath>

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/system/system_error.hpp>

#include "base/BridgeError.h"
#include "link/HttpSession.h"
#include "server/Forwarding.h"
#include "server/ToolResults.h"

namespace fs = std::filesystem;

namespace server {

namespace {

using ToolResults::payload;
using ToolResults::toolError;

std::string phaseOf(const Json& payload) {
    const std::string* phase = stringMember(payload, "phase");
    return phase ? *phase : std::string();
}

bool settledPhase(const std::string& phase) {
    return phase == "completed" || phase == "failed" || phase == "cancelled" || phase == "none";
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

VideoExport::VideoExport(std::shared_ptr<studiolink::StudioConnection> studio, const AgentPaths& paths,
                         std::chrono::steady_clock::duration wait)
    : studio_(std::move(studio)), paths_(paths), wait_(wait) {}

bool VideoExport::settled(const Json& studioResult) {
    auto status = payload(studioResult);
    if (!status || !settledPhase(phaseOf(*status))) return false;
    const Json* file = memberOf(*status, "file");
    return !file || !file->is_object() || !file->contains("level");
}

Task<Json> VideoExport::start(Json arguments, Progress progress) {
    std::optional<Destination> destination;
    if (const std::string* path = stringMember(arguments, "path")) {
        fs::path url = paths_.resolve(*path);
        if (!AgentPaths::isMP4(url)) co_return toolError("path must end in .mp4.");
        if (url.native().find('\0') != std::string::npos)
            co_return toolError(displayable(url.native()) + " cannot be saved to: a path cannot hold a NUL byte.");
        bool replace = isTrue(arguments, "overwrite");
        if (paths_.occupied(url) && !replace)
            co_return toolError(url.string() +
                                " already exists. Pass overwrite:true to replace it, or choose another path.");
        destination = Destination{std::move(url), replace};
    }

    Json begin = Json::object();
    begin["action"] = "start";
    if (const Json* label = memberOf(arguments, "include_ai_label")) begin["include_ai_label"] = *label;
    Json latest = co_await forward(*studio_, std::move(begin), "export_video");
    if (isTrue(latest, "isError")) co_return latest;
    destination_ = std::move(destination);
    reportExport(progress, payload(latest));

    // Each poll asks Studio to wait no longer than the time left: an agent
    // that cuts calls off at a minute must get this one back before that,
    // copy included.
    auto deadline = std::chrono::steady_clock::now() + wait_;
    while (!settled(latest)) {
        double left = std::chrono::duration<double>(deadline - std::chrono::steady_clock::now()).count();
        double wait = std::min(15.0, std::floor(left * 10) / 10);
        if (wait <= 0) break;
        Json poll = Json::object();
        poll["action"] = "status";
        poll["wait_seconds"] = wait;
        latest = co_await forward(*studio_, std::move(poll), "export_video");
        if (isTrue(latest, "isError")) co_return latest;
        reportExport(progress, payload(latest));
    }
    co_return co_await deliver(std::move(latest), wait_);
}

Task<Json> VideoExport::status(Json arguments) {
    if (const std::string* path = stringMember(arguments, "path")) {
        auto url = paths_.resolve(*path);
        if (!AgentPaths::isMP4(url)) co_return toolError("path must end in .mp4.");
        destination_ = Destination{std::move(url), isTrue(arguments, "overwrite")};
    }
    arguments.erase("path");
    arguments.erase("overwrite");
    // How long the agent asked Studio to wait is also how long it waits for
    // a copy under way.
    std::chrono::steady_clock::duration wait = std::chrono::seconds(15);
    if (const Json* seconds = memberOf(arguments, "wait_seconds"); seconds && seconds->is_number())
        wait = std::chrono::milliseconds(static_cast<int64_t>(std::clamp(seconds->get<double>(), 1.0, 60.0) * 1000));
    Json studio = co_await forward(*studio_, std::move(arguments), "export_video");
    co_return co_await deliver(std::move(studio), wait);
}

Task<Json> VideoExport::deliver(Json studioResult, std::chrono::steady_clock::duration wait) {
    auto status = payload(studioResult);
    if (!status) co_return studioResult;
    std::string phase = phaseOf(*status);
    Json* file = memberOf(*status, "file");
    bool hasFile = file && file->is_object();

    if (hasFile) {
        const std::string* id = stringMember(*file, "downloadId");
        if (phase == "completed" && id) {
            if (auto saved = co_await copy(*id, wait)) (*file)["savedTo"] = saved->string();
        }
        file->erase("downloadId");
    }

    if (phase == "failed" || phase == "cancelled") {
        destination_.reset();
    } else if (phase != "completed" && destination_) {
        // Also while a file is being written: whoever returns before the
        // export is done says how to go on.
        (*status)["note"] = "Still exporting. Call export_video {action:\"status\", wait_seconds:40}; the copy is saved to " +
                            destination_->url.string() + " when it completes.";
    } else if (phase == "completed" && copy_ && hasFile && !file->contains("savedTo")) {
        (*status)["note"] = "Still copying the video to " + copy_->destination.url.string() +
                            ". Call export_video {action:\"status\"} to see it saved.";
    }
    co_return ToolResults::result(*status);
}

Task<std::optional<fs::path>> VideoExport::copy(std::string downloadId, std::chrono::steady_clock::duration wait) {
    // A copy of this export already under way (a start call still copying
    // when the agent asks for the status): its outcome is this call's too.
    if (copy_ && copy_->downloadId == downloadId) {
        auto running = copy_;
        auto timer = std::make_shared<boost::asio::steady_timer>(co_await boost::asio::this_coro::executor);
        timer->expires_after(wait);
        running->waiting.push_back(timer);
        co_await timer->async_wait(boost::asio::as_tuple(boost::asio::use_awaitable_t<boost::asio::any_io_executor>{}));
        if (!running->finished) {
            if ((co_await boost::asio::this_coro::cancellation_state).cancelled() != boost::asio::cancellation_type::none)
                throw boost::system::system_error(boost::asio::error::operation_aborted);
            co_return std::nullopt;  // still copying: the payload says so
        }
        if (running->failure) throw BridgeError(*running->failure);
        co_return running->destination.url;
    }
    if (!destination_) co_return std::nullopt;

    auto made = std::make_shared<Copy>();
    made->downloadId = downloadId;
    made->destination = *destination_;
    copy_ = made;
    auto finish = [this, made](std::optional<std::string> failure) {
        made->finished = true;
        made->failure = std::move(failure);
        for (auto& waiting : made->waiting)
            if (auto timer = waiting.lock()) timer->cancel();
        if (copy_ == made) copy_.reset();
    };
    try {
        auto downloading = studio_->download(downloadId, made->destination.url, made->destination.overwrite);
        co_await std::move(downloading);
    } catch (const studiolink::TransportError&) {
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
    if (destination_ && destination_->url == made->destination.url) destination_.reset();
    co_return made->destination.url;
}

}  // namespace server
