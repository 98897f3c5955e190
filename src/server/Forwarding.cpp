#include "server/Forwarding.h"

#include "server/ToolResults.h"

namespace server {

Task<Json> forward(studiolink::StudioConnection& studio, Json arguments, std::string tool) {
    // Named, not a temporary of the co_await: see StudioConnection::waiting.
    auto forwarding = studio.forward(std::move(arguments), std::move(tool));
    auto forwarded = co_await std::move(forwarding);
    if (forwarded.result) co_return std::move(*forwarded.result);
    co_return ToolResults::toolError(forwarded.refusal);
}

}  // namespace server
