// Temporary: the tools carried out with Studio. This build of the bridge has
// no link to Studio yet, so each of them fails with one clear message, which
// the agent receives as an error-flagged tool result. Each body is replaced
// when the link and the file tools land.
#include "link/BridgeError.h"
#include "server/StudioMCPBridge.h"

namespace {

[[noreturn]] void unreachable() {
    throw BridgeError("Vantoric Studio cannot be reached yet: this build of the bridge has no link to Studio.");
}

}  // namespace

StudioMCPBridge::Task<Json> StudioMCPBridge::forward(Json arguments, std::string tool) {
    // Named, not a temporary of the co_await: see StudioConnection::waiting.
    auto forwarding = studio->forward(std::move(arguments), std::move(tool));
    auto forwarded = co_await std::move(forwarding);
    if (forwarded.result) co_return std::move(*forwarded.result);
    co_return toolError(forwarded.refusal);
}

StudioMCPBridge::Task<Json> StudioMCPBridge::importMedia(Json) {
    unreachable();
    co_return Json();
}

StudioMCPBridge::Task<Json> StudioMCPBridge::series(Json) {
    unreachable();
    co_return Json();
}

StudioMCPBridge::Task<Json> StudioMCPBridge::openProject(Json) {
    unreachable();
    co_return Json();
}

StudioMCPBridge::Task<Json> StudioMCPBridge::exportVideo(Json) {
    unreachable();
    co_return Json();
}

StudioMCPBridge::Task<Json> StudioMCPBridge::deliverExport(Json) {
    unreachable();
    co_return Json();
}

void StudioMCPBridge::stopLink() {
    if (studio) studio->stop();
}
