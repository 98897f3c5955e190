// Media on the agent's side of the machine: "import_media" and the series
// tool's "seriesMediaImport" name files that Studio cannot reach, so each
// file is checked (all of them before anything is sent), uploaded to
// Studio, and the call goes on with upload ids in place of the paths. One
// per bridge; used on its strand only.
#pragma once
#include <memory>

#include "link/StudioConnection.h"
#include "server/AgentPaths.h"
#include "server/Progress.h"
#include "server/Routes.h"

namespace server {

class MediaImport {
public:
    MediaImport(std::shared_ptr<studiolink::StudioConnection> studio, const AgentPaths& paths);

    Task<Json> importMedia(Json arguments, Progress progress);
    // A series call: one whose params.from names a path has that file
    // uploaded first; any other goes to Studio as it is.
    Task<Json> series(Json arguments, Progress progress);

private:
    std::shared_ptr<studiolink::StudioConnection> studio_;
    const AgentPaths& paths_;
};

}  // namespace server
