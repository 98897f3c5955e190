// "export_video": Studio renders into the project's own exports folder; the
// bridge remembers where the agent wants the video, waits a bounded time for
// a started export to settle, and copies a completed one there. The
// destination stays remembered until its copy has succeeded, so a copy cut
// off (the agent's time limit, a shutdown) or failed is made by the next
// status call that sees the export completed; a status call that comes
// while a copy runs waits for that copy instead of making another.
// One per bridge; used on its strand only.
#pragma once
#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <boost/asio/steady_timer.hpp>

#include "link/StudioConnection.h"
#include "server/AgentPaths.h"
#include "server/Progress.h"
#include "server/Routes.h"

namespace server {

class VideoExport {
public:
    VideoExport(std::shared_ptr<studiolink::StudioConnection> studio, const AgentPaths& paths,
                std::chrono::steady_clock::duration wait);

    // action "start" (or none): starts the export, waits up to the bridge's
    // export wait for it to settle, and copies a completed one.
    Task<Json> start(Json arguments, Progress progress);
    // action "status": Studio's status, with the copy made when it
    // completed and a destination waits, download ids removed, and a note
    // on how to go on while it runs.
    Task<Json> status(Json arguments);

    // Whether Studio's export status says the export is no longer running.
    static bool settled(const Json& studioResult);

private:
    struct Destination {
        std::filesystem::path url;
        bool overwrite = false;
    };
    struct Copy {
        std::string downloadId;
        Destination destination;
        bool finished = false;
        std::optional<std::string> failure;
        std::vector<std::weak_ptr<boost::asio::steady_timer>> waiting;  // woken when it ends
    };

    Task<Json> deliver(Json studioResult, std::chrono::steady_clock::duration wait);
    // Where the completed export was saved, or nothing when there is no
    // destination or the copy under way did not end within `wait`.
    Task<std::optional<std::filesystem::path>> copy(std::string downloadId, std::chrono::steady_clock::duration wait);

    std::shared_ptr<studiolink::StudioConnection> studio_;
    const AgentPaths& paths_;
    const std::chrono::steady_clock::duration wait_;
    std::optional<Destination> destination_;
    std::shared_ptr<Copy> copy_;
};

}  // namespace server
