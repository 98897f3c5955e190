#include "server/StudioMCPBridge.h"

#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/system/system_error.hpp>

#include "base/BridgeError.h"
#include "base/StudioLocation.h"
#include "platform/Log.h"
#include "server/Catalog.h"
#include "server/Forwarding.h"
#include "server/Framing.h"
#include "server/SessionSetup.h"
#include "server/ToolResults.h"

using studiolink::LinkDurations;
using studiolink::StudioConnection;

namespace server {

namespace {

using Fault = ProtocolEra::Refusal;
constexpr const char* anyAgent = "A coding agent";

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

}  // namespace

BridgeTiming BridgeTiming::fromEnvironment(const platform::Environment& environment) {
    BridgeTiming timing;
    timing.link = LinkDurations::fromEnvironment(environment);
    if (auto wait = platform::milliseconds(environment, "VSM_TEST_EXPORT_WAIT_MS")) timing.exportWait = *wait;
    if (auto every = platform::milliseconds(environment, "VSM_TEST_PROGRESS_MS")) timing.progressEvery = *every;
    return timing;
}

std::shared_ptr<StudioMCPBridge> StudioMCPBridge::create(boost::asio::io_context::executor_type executor, Setup setup) {
    auto bridge = std::shared_ptr<StudioMCPBridge>(new StudioMCPBridge(executor, setup));
    // The link reads the agent's name when it announces itself; it may
    // outlive the bridge by a pending establishment, so it holds it weakly.
    std::weak_ptr<StudioMCPBridge> weak = bridge;
    bridge->studio_ = StudioConnection::create(
        bridge->strand_, executor, bridge->app_,
        [weak] {
            auto self = weak.lock();
            return self ? self->agentName() : std::string(anyAgent);
        },
        setup.services ? std::move(*setup.services) : StudioConnection::Services::system(bridge->bundleIdentifier_),
        setup.timing.link,
        std::move(setup.link));
    bridge->media_.emplace(bridge->studio_, bridge->paths_);
    bridge->projects_.emplace(bridge->studio_, bridge->paths_, bridge->app_);
    bridge->export_.emplace(bridge->studio_, bridge->paths_, setup.timing.exportWait);
    bridge->routes_ = bridge->routes();
    return bridge;
}

StudioMCPBridge::StudioMCPBridge(boost::asio::io_context::executor_type executor, Setup& setup)
    : strand_(executor),
      app_(std::move(setup.app)),
      bundleIdentifier_(std::move(setup.bundleIdentifier)),
      catalog_(std::move(setup.catalog)),
      output_(std::move(setup.output)),
      timing_(setup.timing),
      bundles_(*setup.bundles),
      paths_(std::move(setup.workingDirectory), std::move(setup.home)) {}

// Every request the bridge answers and every tool call it carries out
// itself; a tool call not named here goes to Studio as it is.
Routes StudioMCPBridge::routes() {
    Routes table;
    table.method("initialize", [this](Request& request) -> Answer {
        if (auto name = SessionSetup::clientNameIn(request.params)) clientName_ = std::move(*name);
        return SessionSetup::initializeResult(request.params, identity(), catalog_, bundleIdentifier_);
    });
    table.method("ping", [](Request&) -> Answer { return Json::object(); });
    // Never waits for anything, the link least of all: clients probe with
    // it on a copy of the process that they throw away.
    table.method("server/discover", [this](Request&) -> Answer {
        return SessionSetup::discoverResult(catalog_, bundleIdentifier_);
    });
    table.method("tools/list", [this](Request&) -> Answer {
        return Json::object({{"tools", Catalog::toolsIn(catalog_)}});
    });
    table.method("resources/list", [](Request&) -> Answer { return Json::object({{"resources", Json::array()}}); });
    table.method("prompts/list", [this](Request&) -> Answer {
        return Json::object({{"prompts", Catalog::listedPromptsIn(catalog_)}});
    });
    table.method("prompts/get", [this](Request& request) -> Answer {
        try {
            return Catalog::promptIn(catalog_, request.params);
        } catch (const std::exception& failure) {
            return Fault{-32602, failure.what(), nullptr};
        }
    });
    table.method("tools/call", [this](Request& request) { return callTool(request); });

    table.tool("import_media", "*", [this](Json arguments, Progress progress) {
        return media_->importMedia(std::move(arguments), std::move(progress));
    });
    table.tool("series", "*", [this](Json arguments, Progress progress) {
        return media_->series(std::move(arguments), std::move(progress));
    });
    table.tool("project", "open", [this](Json arguments, Progress) { return projects_->open(std::move(arguments)); });
    for (const char* start : {"", "start"})
        table.tool("export_video", start, [this](Json arguments, Progress progress) {
            return export_->start(std::move(arguments), std::move(progress));
        });
    table.tool("export_video", "status", [this](Json arguments, Progress) { return export_->status(std::move(arguments)); });
    return table;
}

// ---- lines in, requests started and cancelled ----

void StudioMCPBridge::receive(std::string_view line) {
    auto parsed = parseJSON(line);
    if (!parsed) {
        send(Framing::parseErrorReply());
        return;
    }
    // A batch is never answered as a batch: each element stands alone.
    if (parsed->is_array()) {
        for (auto& element : *parsed) handle(std::move(element));
    } else {
        handle(std::move(*parsed));
    }
}

void StudioMCPBridge::handle(Json message) {
    const std::string* method = stringMember(message, "method");
    if (!method) return;  // replies from the agent land here

    if (const Json* id = memberOf(message, "id"); id && !id->is_null()) {
        static const Json noParams = Json::object();
        const Json* params = memberOf(message, "params");
        auto era = ProtocolEra::of(*method, params ? *params : noParams);
        Json idValue = *id;
        start(std::move(message), idValue, era);
        return;
    }
    if (*method != "notifications/cancelled") return;
    if (const Json* params = memberOf(message, "params"))
        if (const Json* requestId = memberOf(*params, "requestId")) requests_.cancel(Framing::key(*requestId));
}

void StudioMCPBridge::start(Json request, const Json& id, ProtocolEra::Era era) {
    // Filed before its task can run, so that the task's own removal at the
    // end always finds it.
    auto call = requests_.add(Framing::key(id), era);
    // Posted, not dispatched: the task starts only after this line has been
    // handled to its end, so a cancellation later in the same batch reaches
    // it before it replies.
    boost::asio::post(strand_, [strand = strand_, weak = weak_from_this(), request = std::move(request), call]() mutable {
        boost::asio::co_spawn(strand, run(std::move(weak), std::move(request), call),
                              boost::asio::bind_cancellation_slot(call->signal.slot(), boost::asio::detached));
        // A cancellation that came before the task was spawned found no
        // task to abort; pass it on now.
        if (call->cancelled) call->signal.emit(boost::asio::cancellation_type::terminal);
    });
}

Task<void> StudioMCPBridge::run(std::weak_ptr<StudioMCPBridge> bridge, Json request,
                                std::shared_ptr<RequestTable::Call> call) {
    auto self = bridge.lock();
    if (!self) co_return;
    co_await self->answer(std::move(request), std::move(call));
}

Task<void> StudioMCPBridge::drain() {
    if (studio_) studio_->stop();
    requests_.cancelAll();
    // Each finishing request takes itself out of the table.
    co_await requests_.settled(timing_.drainWithin, timing_.drainPoll);
}

// ---- answering ----

Task<void> StudioMCPBridge::answer(Json message, std::shared_ptr<RequestTable::Call> call) {
    const std::string* method = stringMember(message, "method");
    const Json* id = memberOf(message, "id");
    if (!method || !id) co_return;
    Request request{*method, Json::object(), call, std::nullopt};
    const Json idValue = *id;
    const std::string key = Framing::key(idValue);
    if (Json* params = memberOf(message, "params"); params && params->is_object()) request.params = std::move(*params);

    const bool stateless = call->era == ProtocolEra::Era::stateless;
    std::optional<Answer> answered;
    if (stateless) {
        // Version and required keys first, then whether the method exists in
        // that revision, as the revision orders its checks.
        auto checked = ProtocolEra::envelope(request.params);
        if (auto* refusal = std::get_if<Fault>(&checked))
            answered = std::move(*refusal);
        else if (!ProtocolEra::servedStatelessly(request.method))
            answered = Fault{-32601, "Method not found: " + request.method, nullptr};
        else
            request.envelope = std::move(std::get<ProtocolEra::Envelope>(checked));
    }
    if (!answered) {
        const Routes::MethodHandler* handler = routes_.forMethod(request.method);
        if (!handler) {
            answered = Fault{-32601, "Method not found: " + request.method, nullptr};
        } else {
            try {
                auto answering = (*handler)(request);
                answered = co_await std::move(answering);
            } catch (const std::exception& failure) {
                // Nothing above is expected to throw; should it, the request
                // still leaves the table and the server carries on.
                platform::log(std::string("request failed: ") + failure.what());
            }
        }
    }

    if (answered) {
        if (auto* fault = std::get_if<Fault>(&*answered)) {
            // A handshake request's fault is written even when cancelled;
            // the stateless revision allows no message at all then.
            if (!(stateless && call->cancelled)) send(ProtocolEra::errorReply(idValue, *fault));
        } else if (!call->cancelled) {
            Json& result = std::get<Json>(*answered);
            if (stateless) ProtocolEra::frame(result, request.method, identity());
            sendLine(Framing::successLine(idValue, result));
        }
    }
    call->toolCall = false;
    requests_.finish(key, call);
}

Task<Answer> StudioMCPBridge::callTool(Request& request) {
    const std::string* name = stringMember(request.params, "name");
    if (!name) co_return Fault{-32602, "tools/call needs a name.", nullptr};
    const std::string tool = *name;
    Json arguments = Json::object();
    if (Json* given = memberOf(request.params, "arguments"); given && given->is_object()) arguments = std::move(*given);

    Progress progress;
    if (auto token = Progress::tokenIn(request.params)) {
        std::weak_ptr<StudioMCPBridge> weak = shared_from_this();
        progress = Progress(std::move(*token), [weak, call = request.call](const Json& notification) {
            auto self = weak.lock();
            if (self && !call->cancelled) self->send(notification);
        });
    }
    ProgressBeat beat(co_await boost::asio::this_coro::executor, progress, timing_.progressEvery,
                      "Waiting for Vantoric Studio to carry out " + tool + ".");
    request.call->toolCall = true;
    if (request.envelope) request.call->agent = request.envelope->clientName.value_or(anyAgent);
    try {
        auto carrying = carryOut(tool, std::move(arguments), std::move(progress));
        co_return co_await std::move(carrying);
    } catch (const std::exception& failure) {
        co_return ToolResults::toolError(agentMessage(failure));
    }
}

Task<Json> StudioMCPBridge::carryOut(std::string tool, Json arguments, Progress progress) {
    if (auto refusal = Catalog::unknownParameters(tool, arguments, Catalog::toolsIn(catalog_)))
        co_return ToolResults::toolError(*refusal);
    if (const Routes::ToolHandler* handler = routes_.forTool(tool, arguments)) {
        auto handling = (*handler)(std::move(arguments), std::move(progress));
        co_return co_await std::move(handling);
    }
    co_return co_await forward(*studio_, std::move(arguments), std::move(tool));
}

// ---- session ----

const Json& StudioMCPBridge::identity() {
    // Read once: the catalog is fixed for the life of the process, and the
    // identity is what tells a client's cache which catalog it holds. Every
    // stateless result carries it, so it must not cost a file read each.
    if (!identity_) identity_ = SessionSetup::serverInfo(app_, bundleIdentifier_, bundles_);
    return *identity_;
}

std::string StudioMCPBridge::agentName() const {
    const RequestTable::Call* first = requests_.firstToolCall();
    if (first && first->era == ProtocolEra::Era::stateless) return first->agent.value_or(anyAgent);
    return clientName_;
}

void StudioMCPBridge::send(const Json& message) { sendLine(Framing::messageLine(message)); }

void StudioMCPBridge::sendLine(const std::optional<std::string>& line) {
    if (line) output_(*line);
}

}  // namespace server
