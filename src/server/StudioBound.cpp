// Tool calls that Studio carries out as the agent sent them, and the link's
// part of the shutdown.
#include "server/StudioMCPBridge.h"

StudioMCPBridge::Task<Json> StudioMCPBridge::forward(Json arguments, std::string tool) {
    // Named, not a temporary of the co_await: see StudioConnection::waiting.
    auto forwarding = studio->forward(std::move(arguments), std::move(tool));
    auto forwarded = co_await std::move(forwarding);
    if (forwarded.result) co_return std::move(*forwarded.result);
    co_return toolError(forwarded.refusal);
}

void StudioMCPBridge::stopLink() {
    if (studio) studio->stop();
}
