#include "server/ProjectOpening.h"

#include "base/BridgeError.h"
#include "link/BlockingWork.h"
#include "platform/ApplicationLauncher.h"
#include "platform/Log.h"
#include "server/Forwarding.h"
#include "server/ToolResults.h"

namespace fs = std::filesystem;

namespace server {

ProjectOpening::ProjectOpening(std::shared_ptr<studiolink::StudioConnection> studio, const AgentPaths& paths,
                               std::optional<fs::path> app)
    : studio_(std::move(studio)), paths_(paths), app_(std::move(app)) {}

Task<Json> ProjectOpening::open(Json arguments) {
    const std::string* path = stringMember(arguments, "path");
    if (!path) co_return co_await forward(*studio_, std::move(arguments), "project");

    fs::path folder = paths_.resolve(*path);
    if (!paths_.isFolder(folder))
        co_return ToolResults::toolError("No project at " + displayable(folder.native()) +
                                         ". Pass a .vantoric folder, an id from studio_status, or create one.");
    arguments["path"] = folder.string();

    Json answer = co_await forward(*studio_, arguments, "project");
    auto studioSaid = ToolResults::payload(answer);
    if (!studioSaid || !isTrue(*studioSaid, "needsGrant")) co_return answer;

    if (!app_) throw BridgeError("Vantoric Studio could not be found on this Mac.");
    platform::log(folder.string() + " is outside Studio's sandbox; opening it with Studio through Launch Services");
    // Handing files over may wait on the session bus or on a starting
    // application; the strand serves other requests meanwhile.
    auto handing = studiolink::blocking::run([&launcher = studio_->launcher(), folder, app = *app_] {
        return launcher.openURLs({folder}, app);
    });
    if (auto failure = co_await std::move(handing)) throw BridgeError(failure->description);

    arguments["await_open"] = true;
    co_return co_await forward(*studio_, std::move(arguments), "project");
}

}  // namespace server
