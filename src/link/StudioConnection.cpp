#include "link/StudioConnection.h"

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/system/system_error.hpp>
#include <random>

#include "base/BridgeError.h"
#include "base/StudioLocation.h"
#include "link/BlockingWork.h"
#include "link/DownloadFile.h"
#include "link/HandoverReply.h"
#include "link/HttpSession.h"
#include "link/Once.h"
#include "peer/StudioPeer.h"
#include "platform/ApplicationLauncher.h"
#include "platform/Crypto.h"
#include "platform/Environment.h"
#include "platform/Hex.h"
#include "platform/Log.h"
#include "platform/NotificationCenter.h"
#include "platform/RunningApplications.h"

using peer::percentEncodeQueryValue;
using peer::StudioPeer;
using peer::URL;

namespace studiolink {

namespace asio = boost::asio;
namespace fs = std::filesystem;
using boost::system::error_code;

namespace {

[[noreturn]] void cancelled() { throw boost::system::system_error(asio::error::operation_aborted); }

bool isCancellation(const std::exception_ptr& failure) {
    try {
        std::rethrow_exception(failure);
    } catch (const boost::system::system_error& error) {
        return error.code() == asio::error::operation_aborted;
    } catch (...) {
        return false;
    }
}

}  // namespace

LinkDurations LinkDurations::fromEnvironment(const std::map<std::string, std::string>& environment) {
    LinkDurations durations;
    if (auto wait = platform::milliseconds(environment, "VSM_TEST_LINK_WAIT_MS")) durations.linkWait = *wait;
    if (auto reply = platform::milliseconds(environment, "VSM_TEST_REPLY_TIMEOUT_MS")) durations.replyTimeout = *reply;
    return durations;
}

StudioConnection::Services StudioConnection::Services::system(const std::string& bundleIdentifier) {
    return Services{
        .notifications = platform::systemNotificationCenter(),
        .running = platform::systemRunningApplications(),
        .launcher = platform::systemApplicationLauncher(),
        .random = platform::systemSecureRandom(),
        .peer = std::make_shared<StudioPeer>(bundleIdentifier),
        .verifyPeer = {},
        .bundleIdentifier = bundleIdentifier,
        .notificationName = StudioLocation::notificationName(bundleIdentifier),
        .hello = std::string(StudioLocation::hello),
    };
}

std::shared_ptr<StudioConnection> StudioConnection::create(asio::any_io_executor strand, asio::any_io_executor io,
                                                           std::optional<fs::path> app,
                                                           std::function<std::string()> clientName,
                                                           Services services, Durations durations,
                                                           std::optional<Link> link) {
    return std::shared_ptr<StudioConnection>(new StudioConnection(std::move(strand), std::move(io), std::move(app),
                                                                  std::move(clientName), std::move(services),
                                                                  durations, std::move(link)));
}

StudioConnection::StudioConnection(asio::any_io_executor strand, asio::any_io_executor io, std::optional<fs::path> app,
                                   std::function<std::string()> clientName, Services services, Durations durations,
                                   std::optional<Link> link)
    : strand_(std::move(strand)),
      io_(std::move(io)),
      app_(std::move(app)),
      clientName_(std::move(clientName)),
      services_(std::move(services)),
      durations_(durations),
      session_(std::make_unique<HttpSession>(strand_, durations.httpTimeout, services_.network)),
      link_(std::move(link)) {
    if (!services_.verifyPeer) {
        services_.verifyPeer = [peer = services_.peer](const fs::path& app, uint16_t peerPort, uint16_t localPort,
                                                       std::chrono::steady_clock::time_point acceptedAt) {
            return peer && peer->studio(app, peerPort, localPort, acceptedAt).has_value();
        };
    }
}

StudioConnection::~StudioConnection() = default;

// ---------------------------------------------------------------------------
// Waiting for an establishment

asio::awaitable<std::optional<Link>> StudioConnection::waiting(std::shared_ptr<PendingLink> task,
                                                               std::chrono::steady_clock::duration duration) {
    // The initiation is a named local, not a temporary of the co_await
    // expression: GCC 12 destroys such temporaries twice, and this one holds
    // the task.
    auto initiation = [task, duration](auto handler) {
            using Handler = decltype(handler);
            struct Race {
                Race(asio::any_io_executor executor, std::chrono::steady_clock::duration duration)
                    : timer(executor, duration) {}
                Once once;
                asio::steady_timer timer;
                std::optional<Handler> handler;
                asio::cancellation_slot slot;
            };
            auto race = std::make_shared<Race>(task->strand, duration);
            race->slot = asio::get_associated_cancellation_slot(handler);
            race->handler.emplace(std::move(handler));

            // Only the racer that claims the Once gets here.
            auto resume = [](const std::shared_ptr<Race>& race, std::exception_ptr error, std::optional<Link> link) {
                if (race->slot.is_connected()) race->slot.clear();
                Handler handler = std::move(*race->handler);
                race->handler.reset();
                auto executor = asio::get_associated_executor(handler, race->timer.get_executor());
                // Posted, never run inline: the finished task's racer runs
                // inside the initiation, before the waiting coroutine may be
                // resumed.
                asio::post(executor, [handler = std::move(handler), error, link = std::move(link)]() mutable {
                    std::move(handler)(error, std::move(link));
                });
            };
            task->onFinish([race, task, resume] {
                if (!race->once.claim()) return;
                race->timer.cancel();
                resume(race, task->error, task->link);
            });
            race->timer.async_wait([race, resume](error_code) {
                if (race->once.claim()) resume(race, nullptr, std::nullopt);
            });
            if (race->slot.is_connected()) {
                race->slot.assign([race, resume](asio::cancellation_type) {
                    asio::dispatch(race->timer.get_executor(), [race, resume] {
                        if (!race->once.claim()) return;
                        race->timer.cancel();
                        resume(race,
                               std::make_exception_ptr(
                                   boost::system::system_error(asio::error::operation_aborted)),
                               std::nullopt);
                    });
                });
            }
        };
    auto operation =
        asio::async_initiate<const asio::use_awaitable_t<>&, void(std::exception_ptr, std::optional<Link>)>(
        std::move(initiation), asio::use_awaitable);
    co_return co_await std::move(operation);
}

// ---------------------------------------------------------------------------
// Connecting

asio::awaitable<Link> StudioConnection::connect() {
    auto self = shared_from_this();
    if (stopped_) cancelled();
    if (link_) {
        if (!link_->lifetime || link_->lifetime->isAlive()) co_return *link_;
        link_.reset();
        throw BridgeError(
            "Studio closed this agent connection. Call again to request a new connection; no edit was retried.");
    }
    if (!pending_) {
        pending_ = std::make_shared<PendingLink>(strand_);
        auto task = pending_;
        asio::co_spawn(strand_, establishing(self, pending_),
                       asio::bind_cancellation_slot(pending_->cancel.slot(), asio::detached));
    }
    auto task = pending_;
    // A newer establishment may have replaced this one by the time the wait
    // ends; only the one waited for is cleared.
    auto clear = [this, &task] {
        if (pending_ == task) pending_.reset();
    };
    std::optional<Link> link;
    try {
        link = co_await waiting(task, durations_.linkWait);
    } catch (...) {
        // A cancelled wait cancels only this call; the establishment goes on.
        if (!isCancellation(std::current_exception()) || task->done) clear();
        throw;
    }
    if (!link) {
        throw BridgeError(
            "Waiting for permission in Vantoric Studio. Ask the person to choose Allow in Studio, then call this "
            "tool again.");
    }
    platform::log("connected to Studio at " + link->endpoint.absoluteString());
    if (stopped_) {
        if (link->lifetime) link->lifetime->stop();
        clear();
        cancelled();
    }
    link_ = *link;
    clear();
    co_return *link;
}

void StudioConnection::stop() {
    stopped_ = true;
    if (lifetimeListener_) {
        lifetimeListener_->stop();
        lifetimeListener_.reset();
    }
    if (link_ && link_->lifetime) link_->lifetime->stop();
    link_.reset();
    if (pending_) {
        pending_->cancel.emit(asio::cancellation_type::terminal);
        pending_.reset();
    }
}

asio::awaitable<void> StudioConnection::establishing(std::shared_ptr<StudioConnection> self,
                                                    std::shared_ptr<PendingLink> task) {
    std::optional<Link> link;
    std::exception_ptr failure;
    try {
        link = co_await self->establish();
    } catch (...) {
        failure = std::current_exception();
    }
    task->finish(failure, std::move(link));
}

asio::awaitable<void> StudioConnection::checkCancelled() const {
    auto state = co_await asio::this_coro::cancellation_state;
    if (state.cancelled() != asio::cancellation_type::none || stopped_) cancelled();
}

std::string StudioConnection::makeNonce() {
    std::array<uint8_t, nonceBytes> bytes{};
    if (!services_.random.fill(bytes)) {
        std::random_device fallback;
        for (auto& b : bytes) b = static_cast<uint8_t>(fallback());
    }
    return platform::hex(bytes);
}

// Announcements after the first, until Studio made contact, the attempts are
// used up, or the announcing is cancelled. A pause cut short only moves on.
asio::awaitable<void> StudioConnection::announce(std::shared_ptr<StudioConnection> self,
                                                 std::weak_ptr<HandshakeListener> weakListener, std::string query,
                                                 std::shared_ptr<asio::cancellation_signal> signal) {
    // `signal` is the one this task's cancellation slot belongs to; it must
    // outlive the task.
    asio::steady_timer pause(self->strand_);
    for (int attempt = 2; attempt <= self->durations_.notificationAttempts; ++attempt) {
        pause.expires_after(self->durations_.notificationInterval);
        co_await pause.async_wait(asio::as_tuple(asio::use_awaitable));
        auto state = co_await asio::this_coro::cancellation_state;
        if (state.cancelled() != asio::cancellation_type::none) co_return;
        auto listener = weakListener.lock();
        if (!listener) co_return;
        // Named, not a temporary of the co_await expression: GCC 12 destroys
        // such temporaries twice.
        auto post = [self, query] { return self->services_.notifications.post(self->services_.notificationName, query); };
        if (!listener->contacted()) co_await blocking::run(std::move(post));
    }
}

asio::awaitable<Link> StudioConnection::establish() {
    auto self = shared_from_this();
    co_await checkCancelled();
    if (!app_) {
        throw BridgeError("Vantoric Studio could not be found on this Mac. Install it from " +
                          std::string(StudioLocation::webSiteHost) + ", or set VANTORIC_STUDIO_APP to its path.");
    }
    const fs::path app = *app_;
    std::string nonce = makeNonce();
    auto listener =
        HandshakeListener::create(io_, nonce, services_.hello, app, services_.verifyPeer, services_.network);
    lifetimeListener_ = listener;

    auto announcing = std::make_shared<asio::cancellation_signal>();
    try {
        uint16_t port = co_await listener->start();
        co_await checkCancelled();

        std::string query = "port=" + std::to_string(port) + "&challenge=" + StudioPeer::challenge(nonce) +
                            "&client=" + percentEncodeQueryValue(clientName_ ? clientName_() : "A coding agent");

        // The running copies are looked up and the bus is asked off the I/O
        // thread: a stalled bus must not stall the bridge.
        // The calls are named locals, not temporaries of the co_await
        // expression: GCC 12 destroys such temporaries twice.
        auto prepare = [self, app]() -> std::optional<std::string> {
            const auto& services = self->services_;
            if (auto copy = services.peer ? services.peer->unusableCopy(app) : std::nullopt) {
                return "Another copy of Vantoric Studio is running (" + *copy +
                       ") and this agent's bridge cannot use it: it belongs to " + app.string() +
                       ". Quit that copy so this one can start, or add the bridge inside the running copy (its "
                       "Settings \u25B8 Agents).";
            }
            if (services.running.withBundleIdentifier(services.bundleIdentifier).empty()) {
                platform::log("launching " + app.string() + " in the background");
                if (auto failure = services.launcher.openApplication(app))
                    return "Could not launch Vantoric Studio: " + failure->description;
            }
            return std::nullopt;
        };
        if (auto refusal = co_await blocking::run(std::move(prepare))) throw BridgeError(*refusal);
        co_await checkCancelled();

        platform::log("asking Studio for its agent endpoint (it asks the person the first time)");
        // The first announcement goes out here, so that a session bus that
        // cannot be reached fails this call instead of leaving it waiting.
        auto firstPost = [self, query] {
            return self->services_.notifications.post(self->services_.notificationName, query);
        };
        if (auto failure = co_await blocking::run(std::move(firstPost))) {
            throw BridgeError(failure->description +
                              ". Vantoric Studio is asked for a link over the desktop session's bus: start the agent "
                              "inside the desktop session, or set DBUS_SESSION_BUS_ADDRESS to its bus.");
        }
        std::weak_ptr<HandshakeListener> weakListener = listener;
        asio::co_spawn(strand_, announce(self, weakListener, query, announcing),
                       asio::bind_cancellation_slot(announcing->slot(), asio::detached));

        auto reply = co_await listener->reply(durations_.replyTimeout);
        auto endpoints = HandoverReply::validated(reply);
        co_await checkCancelled();
        if (!listener->isAlive()) cancelled();
        announcing->emit(asio::cancellation_type::terminal);
        co_return Link{endpoints.endpoint, endpoints.files, endpoints.token, listener};
    } catch (...) {
        announcing->emit(asio::cancellation_type::terminal);
        listener->stop();
        // The shutdown stops the listener first, which ends the wait for the
        // reply like a silent Studio would; it is still a cancellation.
        if (stopped_) cancelled();
        throw;
    }
}

// ---------------------------------------------------------------------------
// Forwarding and files

namespace {

std::optional<std::string> stringMember(const Json& object, const char* name) {
    if (!object.is_object()) return std::nullopt;
    auto it = object.find(name);
    if (it == object.end() || !it->is_string()) return std::nullopt;
    return it->get<std::string>();
}

}  // namespace

asio::awaitable<StudioConnection::Forwarded> StudioConnection::forward(Json arguments,
                                                                       std::string tool) {
    auto self = shared_from_this();
    Link link = co_await connect();
    Json body = {{"jsonrpc", "2.0"},
                 {"id", nextId_ + 1},
                 {"method", "tools/call"},
                 {"params", {{"name", tool}, {"arguments", std::move(arguments)}}}};
    std::string text;
    try {
        text = body.dump();
    } catch (const Json::type_error&) {
        // JSON carries only UTF-8; a path of other bytes cannot be named to
        // Studio at all.
        throw BridgeError("This call names a path that is not valid UTF-8, which Vantoric Studio cannot read. "
                          "Rename or move it, then try again.");
    }
    ++nextId_;
    HttpRequest request{"POST",
                        link.endpoint,
                        {{"Authorization", "Bearer " + link.token},
                         {"Content-Type", "application/json"},
                         {"Accept", "application/json, text/event-stream"}},
                        std::move(text)};
    HttpResponse response = co_await session_->send(std::move(request));
    if (response.status != 200)
        throw BridgeError("Vantoric Studio answered with HTTP " + std::to_string(response.status) + ".");
    // Deeper JSON than the agent may send is refused before it is built:
    // checking, copying and writing a value recurse.
    if (!nestsWithinReadingDepth(response.body))
        throw BridgeError("Vantoric Studio answered with JSON nested too deeply.");
    auto parsed = parseObject(response.body);
    if (!parsed) throw BridgeError("Vantoric Studio answered with HTTP 200.");
    Json reply = std::move(*parsed);
    auto result = reply.find("result");
    if (result != reply.end() && result->is_object()) co_return Forwarded{std::move(*result), {}};
    auto error = reply.find("error");
    if (error != reply.end()) {
        if (auto message = stringMember(*error, "message")) co_return Forwarded{std::nullopt, *message};
    }
    co_return Forwarded{std::nullopt, "Vantoric Studio refused the call."};
}

asio::awaitable<std::string> StudioConnection::upload(fs::path file, Link link, UploadProgress progress) {
    auto self = shared_from_this();
    std::string name = file.filename().string();
    URL url = link.files.appendingPathComponent("uploads");
    url.query = "name=" + percentEncodeQueryValue(name);
    HttpRequest request{"PUT",
                        url,
                        {{"Authorization", "Bearer " + link.token}, {"Content-Type", "application/octet-stream"}},
                        {}};
    HttpResponse response = co_await session_->sendFile(std::move(request), file, std::move(progress));
    Json reply = parseObject(response.body).value_or(Json::object());
    if (response.status == 201) {
        if (auto id = stringMember(reply, "uploadId")) co_return *id;
    }
    throw BridgeError("Studio did not accept " + name + ": " + stringMember(reply, "error").value_or("upload failed") +
                      ".");
}

namespace {

// A download's bytes on their way to the agent's path, written off the I/O
// thread; an unfinished file is removed off it as well.
class DownloadSink : public HttpSession::FileSink {
public:
    DownloadSink(fs::path destination, bool overwrite) : destination_(std::move(destination)), overwrite_(overwrite) {}
    ~DownloadSink() override { blocking::discard(std::move(file_)); }

    asio::awaitable<void> open() override {
        file_ = co_await blocking::run([this] { return DownloadFile::create(destination_, overwrite_); });
    }
    asio::awaitable<void> write(const char* data, std::size_t size) override {
        co_await blocking::run([this, data, size] { file_->write(data, size); });
    }
    asio::awaitable<void> commit() {
        co_await blocking::run([this] { file_->commit(); });
    }
    // Removes an unfinished file before the failure is reported, so that
    // whoever hears of it finds nothing left behind.
    asio::awaitable<void> abandon() {
        if (!file_) co_return;
        // Named, not temporaries of the co_await: GCC 12 destroys a lambda
        // that owns something twice there (see StudioConnection::waiting).
        std::shared_ptr<DownloadFile> file(std::move(file_));
        auto work = [file]() mutable { file.reset(); };
        file.reset();
        auto removing = blocking::run(std::move(work));
        co_await std::move(removing);
    }

private:
    fs::path destination_;
    bool overwrite_;
    std::unique_ptr<DownloadFile> file_;
};

}  // namespace

asio::awaitable<void> StudioConnection::download(std::string downloadId, fs::path destination, bool overwrite) {
    auto self = shared_from_this();
    Link link = co_await connect();
    URL url = link.files.appendingPathComponent("downloads").appendingPathComponent(downloadId);
    HttpRequest request{"GET", url, {{"Authorization", "Bearer " + link.token}}, {}};

    DownloadSink sink(std::move(destination), overwrite);
    std::exception_ptr failure;
    try {
        int status = co_await session_->receiveFile(std::move(request), 200, sink);
        if (status != 200)
            throw BridgeError("Studio could not hand over the export. It is still in the project's exports folder.");
        co_await sink.commit();
    } catch (...) {
        failure = std::current_exception();
    }
    if (!failure) co_return;
    // A cancelled call gives no answer; its file goes when the sink does.
    if (!isCancellation(failure)) co_await sink.abandon();
    std::rethrow_exception(failure);
}

}  // namespace studiolink
