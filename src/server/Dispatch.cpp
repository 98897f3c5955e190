// Answering requests and routing tool calls: methods of the bridge, run on
// its strand.
#include <algorithm>

#include <boost/asio/error.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/system/system_error.hpp>

#include "base/BridgeError.h"
#include "platform/Log.h"
#include "server/PathResolution.h"
#include "server/StudioMCPBridge.h"

namespace {

// A protocol fault: for a handshake request it is written whether or not
// the request was cancelled; the stateless revision allows no message at all
// for a cancelled request.
using Fault = ProtocolEra::Refusal;

// What the agent reads for a failed call: our own sentences as they are.
// A library's text (a wait cut short, a JSON or file-system exception) means
// nothing to the person behind the agent; it goes to the log, and the agent
// gets a sentence of ours.
std::string agentMessage(const std::exception& failure) {
    if (dynamic_cast<const BridgeError*>(&failure)) return failure.what();
    platform::log(std::string("a call failed: ") + failure.what());
    auto* system = dynamic_cast<const boost::system::system_error*>(&failure);
    if (system && system->code() == boost::asio::error::operation_aborted)
        return "The call was stopped before Vantoric Studio finished it.";
    return "The bridge could not carry out this call.";
}

const std::string* actionIn(const Json& arguments) {
    auto action = arguments.find("action");
    if (action == arguments.end() || !action->is_string()) return nullptr;
    return &action->get_ref<const std::string&>();
}

}  // namespace

StudioMCPBridge::Task<void> StudioMCPBridge::answer(Json request, std::shared_ptr<Call> entry) {
    if (!request.is_object()) co_return;
    auto methodMember = request.find("method");
    auto idMember = request.find("id");
    if (methodMember == request.end() || !methodMember->is_string() || idMember == request.end()) co_return;
    const std::string method = methodMember->get<std::string>();
    const Json id = *idMember;
    static const Json noParams = Json::object();
    Json* given = nullptr;
    if (auto member = request.find("params"); member != request.end() && member->is_object()) given = &*member;
    const Json& params = given ? *given : noParams;

    const bool stateless = entry->era == Era::stateless;
    std::optional<Json> computed;
    std::optional<Fault> fault;
    std::optional<Envelope> envelope;
    if (stateless) {
        // Version and required keys first, then whether the method exists in
        // that revision, as the revision orders its checks.
        auto checked = ProtocolEra::envelope(params);
        if (auto* refusal = std::get_if<Refusal>(&checked))
            fault = std::move(*refusal);
        else if (!servedStatelessly(method))
            fault = Fault{-32601, "Method not found: " + method, nullptr};
        else
            envelope = std::move(std::get<Envelope>(checked));
    }
    if (!fault) try {
        if (method == "initialize") {
            computed = initialize(params);
        } else if (method == "ping") {
            computed = Json::object();
        } else if (method == "server/discover") {
            // Never waits for anything, the link least of all: clients probe
            // with it on a copy of the process that they throw away.
            computed = discoverResult(catalog, bundleIdentifier());
        } else if (method == "tools/list") {
            computed = Json::object({{"tools", tools()}});
        } else if (method == "tools/call") {
            auto name = params.find("name");
            if (name == params.end() || !name->is_string()) {
                fault = Fault{-32602, "tools/call needs a name.", nullptr};
            } else {
                Json arguments = Json::object();
                if (auto member = given->find("arguments"); member != given->end() && member->is_object())
                    arguments = std::move(*member);
                Progress progress;
                if (auto token = Progress::tokenIn(*given)) {
                    std::weak_ptr<StudioMCPBridge> weak = shared_from_this();
                    progress = Progress(std::move(*token), [weak, entry](const Json& notification) {
                        auto self = weak.lock();
                        if (self && !entry->cancelled) self->send(notification);
                    });
                }
                const std::string& tool = name->get_ref<const std::string&>();
                ProgressBeat beat(co_await boost::asio::this_coro::executor, progress, timing.progressEvery,
                                  "Waiting for Vantoric Studio to carry out " + tool + ".");
                entry->toolCall = true;
                if (envelope) entry->agent = envelope->clientName.value_or("A coding agent");
                try {
                    computed = co_await call(tool, std::move(arguments), std::move(progress));
                } catch (const std::exception& failure) {
                    computed = toolError(agentMessage(failure));
                }
            }
        } else if (method == "resources/list") {
            computed = Json::object({{"resources", Json::array()}});
        } else if (method == "prompts/list") {
            computed = Json::object({{"prompts", listedPrompts()}});
        } else if (method == "prompts/get") {
            try {
                computed = prompt(params);
            } catch (const std::exception& failure) {
                fault = Fault{-32602, failure.what(), nullptr};
            }
        } else {
            fault = Fault{-32601, "Method not found: " + method, nullptr};
        }
    } catch (const std::exception& failure) {
        // Nothing above is expected to throw; should it, the request still
        // leaves the table and the server carries on.
        platform::log(std::string("request failed: ") + failure.what());
    }

    if (fault) {
        if (!(stateless && entry->cancelled)) send(ProtocolEra::errorReply(id, *fault));
    } else if (computed && !entry->cancelled) {
        if (stateless) frame(*computed, method, identity());
        sendLine(successLine(id, *computed));
    }
    entry->toolCall = false;
    calls.erase(key(id));
}

StudioMCPBridge::Task<Json> StudioMCPBridge::call(std::string tool, Json arguments, Progress progress) {
    if (auto refusal = unknownParameters(tool, arguments, tools())) co_return toolError(*refusal);

    const std::string* action = actionIn(arguments);
    if (tool == "import_media") co_return co_await importMedia(std::move(arguments), std::move(progress));
    if (tool == "project" && action && *action == "open" && arguments.contains("path"))
        co_return co_await openProject(std::move(arguments));
    if (tool == "export_video" && (!action || *action == "start"))
        co_return co_await exportVideo(std::move(arguments), std::move(progress));
    if (tool == "export_video" && *action == "status") co_return co_await exportStatus(std::move(arguments));
    if (tool == "series") co_return co_await series(std::move(arguments), std::move(progress));
    co_return co_await forward(std::move(arguments), std::move(tool));
}

StudioMCPBridge::Task<Json> StudioMCPBridge::exportStatus(Json arguments) {
    if (auto path = arguments.find("path"); path != arguments.end() && path->is_string()) {
        auto url = resolvePath(path->get_ref<const std::string&>());
        if (!PathResolution::isMP4(url)) co_return toolError("path must end in .mp4.");
        auto overwrite = arguments.find("overwrite");
        bool replace = overwrite != arguments.end() && overwrite->is_boolean() && overwrite->get<bool>();
        exportDestination = ExportDestination{std::move(url), replace};
    }
    arguments.erase("path");
    arguments.erase("overwrite");
    // How long the agent asked Studio to wait is also how long it waits for
    // a copy under way.
    std::chrono::steady_clock::duration wait = std::chrono::seconds(15);
    if (auto seconds = arguments.find("wait_seconds"); seconds != arguments.end() && seconds->is_number())
        wait = std::chrono::milliseconds(static_cast<int64_t>(std::clamp(seconds->get<double>(), 1.0, 60.0) * 1000));
    Json studio = co_await forward(std::move(arguments), "export_video");
    co_return co_await deliverExport(std::move(studio), wait);
}
