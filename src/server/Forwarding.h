// A tool call that Studio carries out as it is sent: Studio's tool result,
// or its refusal as an error-flagged result (ToolResults). Every tool unit
// reaches Studio through this. Called on the bridge's strand.
#pragma once
#include <string>

#include "link/StudioConnection.h"
#include "server/Routes.h"

namespace server {

Task<Json> forward(studiolink::StudioConnection& studio, Json arguments, std::string tool);

}  // namespace server
