// "project" with "action" "open" and a path: a project folder on the
// agent's side of the machine. Studio is asked to open it, and when Studio
// has no access to the folder yet, the folder is handed to Studio through
// the workspace (which grants that access) and Studio is asked again. One
// per bridge; used on its strand only.
#pragma once
#include <filesystem>
#include <memory>
#include <optional>

#include "link/StudioConnection.h"
#include "server/AgentPaths.h"
#include "server/Routes.h"

namespace server {

class ProjectOpening {
public:
    ProjectOpening(std::shared_ptr<studiolink::StudioConnection> studio, const AgentPaths& paths,
                   std::optional<std::filesystem::path> app);

    Task<Json> open(Json arguments);

private:
    std::shared_ptr<studiolink::StudioConnection> studio_;
    const AgentPaths& paths_;
    const std::optional<std::filesystem::path> app_;
};

}  // namespace server
