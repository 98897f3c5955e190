#include "HandOver.h"

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>

#include <charconv>
#include <map>
#include <set>

#include "BundleIdentity.h"
#include "SimConfig.h"
#include "SimCrypto.h"
#include "SimLog.h"
#include "UrlText.h"

namespace studiosim {

namespace asio = boost::asio;
using asio::ip::tcp;
using namespace std::chrono_literals;

namespace {

constexpr auto tupled = asio::as_tuple(asio::use_awaitable);
constexpr std::size_t kMaxGreeting = 65536;
constexpr auto kGreetingWait = 10s;
// Long enough that the byte reaches the bridge as its own segment, after the
// reply line has been read.
constexpr auto kByteAfterReplyPause = 250ms;
constexpr auto kSplitReplyPause = 100ms;
constexpr const char* kHello = "vantoric-studio-link";

const char* malformedName(Malformed kind) {
    switch (kind) {
        case Malformed::none: return "none";
        case Malformed::version2: return "version2";
        case Malformed::shortToken: return "short-token";
        case Malformed::localhost: return "localhost";
        case Malformed::trailingSlash: return "trailing-slash";
        case Malformed::filesSlash: return "files-slash";
        case Malformed::badUuid: return "bad-uuid";
    }
    return "none";
}

}  // namespace

struct HandOver::Impl : std::enable_shared_from_this<Impl> {
    struct Link {
        std::string connectionId, token, client;
        std::uint16_t port = 0;
        std::shared_ptr<tcp::socket> socket;
    };

    asio::io_context& io;
    const SimConfig& config;
    const BundleIdentity& identity;
    SimLog& log;
    std::uint16_t httpPort = 0;
    std::set<std::pair<std::uint16_t, std::string>> answered;
    std::map<std::string, Link> links;  // by connection id
    std::function<void(std::size_t)> linksChanged;

    Impl(asio::io_context& io, const SimConfig& config, const BundleIdentity& identity, SimLog& log)
        : io(io), config(config), identity(identity), log(log) {}

    void changed() {
        if (linksChanged) linksChanged(links.size());
    }

    void forget(const std::string& connectionId, const char* reason) {
        auto it = links.find(connectionId);
        if (it == links.end()) return;
        boost::system::error_code ignored;
        it->second.socket->close(ignored);
        log.event("link-closed", {{"connectionId", connectionId}, {"port", it->second.port}, {"reason", reason}});
        links.erase(it);
        changed();
    }

    Json reply(const std::string& connectionId, const std::string& token) const {
        std::string base = "http://127.0.0.1:" + std::to_string(httpPort);
        Json r = Json::object();
        r["ok"] = true;
        r["v"] = config.malformed == Malformed::version2 ? 2 : 3;
        r["connectionId"] = config.malformed == Malformed::badUuid ? "not-a-uuid" : connectionId;
        r["endpoint"] = config.malformed == Malformed::localhost        ? "http://localhost:" + std::to_string(httpPort) + "/mcp"
                        : config.malformed == Malformed::trailingSlash ? base + "/mcp/"
                                                                       : base + "/mcp";
        r["files"] = config.malformed == Malformed::filesSlash ? base + "/" : base;
        r["token"] = config.malformed == Malformed::shortToken ? token.substr(0, 31) : token;
        return r;
    }

    asio::awaitable<void> pause(std::chrono::milliseconds duration) {
        asio::steady_timer timer(io, duration);
        co_await timer.async_wait(tupled);
    }

    // Waits until the bridge closes the connection or sends anything.
    static asio::awaitable<const char*> watch(tcp::socket& socket) {
        char byte;
        auto [ec, n] = co_await socket.async_read_some(asio::buffer(&byte, 1), tupled);
        co_return n > 0 ? "the bridge sent data" : "the bridge closed the connection";
    }

    asio::awaitable<void> serve(std::uint16_t port, std::string challenge, std::string client) {
        auto self = shared_from_this();
        auto socket = std::make_shared<tcp::socket>(io);
        auto [connectError] = co_await socket->async_connect(tcp::endpoint(asio::ip::address_v4::loopback(), port), tupled);
        if (connectError) {
            log.event("handover", {{"port", port}, {"outcome", "connect-failed"}, {"error", connectError.message()}});
            co_return;
        }
        boost::system::error_code ignored;
        socket->set_option(tcp::no_delay(true), ignored);

        // The greeting, one line, within a bounded time.
        asio::steady_timer guard(io, kGreetingWait);
        guard.async_wait([socket](boost::system::error_code ec) {
            boost::system::error_code ignored;
            if (!ec) socket->close(ignored);
        });
        std::string buffer;
        auto [readError, lineLength] = co_await asio::async_read_until(*socket, asio::dynamic_buffer(buffer, kMaxGreeting), '\n', tupled);
        guard.cancel();
        if (readError) {
            log.event("greeting", {{"port", port}, {"received", false}, {"error", readError.message()}});
            co_return;
        }
        Json greeting = Json::parse(buffer.substr(0, lineLength - 1), nullptr, false);
        bool isObject = greeting.is_object();
        bool helloOk = isObject && greeting.contains("hello") && greeting["hello"] == kHello;
        bool versionOk = isObject && greeting.contains("v") && greeting["v"].is_number() && greeting["v"] == 3;
        bool challengeOk = isObject && greeting.contains("nonce") && greeting["nonce"].is_string() &&
                           sha256Hex(greeting["nonce"].get<std::string>()) == challenge;
        bool accepted = helloOk && versionOk && challengeOk;
        log.event("greeting", {{"port", port}, {"received", true}, {"json", isObject}, {"hello", helloOk},
                               {"version", versionOk}, {"challenge", challengeOk}, {"accepted", accepted}});
        if (!accepted) {
            note("closed a hand-over on port " + std::to_string(port) + ": the greeting did not prove the announced challenge");
            socket->close(ignored);
            co_return;
        }

        // "Ask the person."
        log.event("ask", {{"port", port}, {"client", client}, {"delayMs", config.askDelay.count()}});
        if (config.askDelay.count() > 0) co_await pause(config.askDelay);

        if (config.neverAnswer) {
            log.event("reply", {{"port", port}, {"sent", false}});
            co_await watch(*socket);
            co_return;
        }

        if (config.refuse) {
            Json refusal = Json::object();
            refusal["ok"] = false;
            if (!config.refuse->empty()) refusal["error"] = *config.refuse;
            std::string line = refusal.dump() + "\n";
            co_await asio::async_write(*socket, asio::buffer(line), tupled);
            log.event("reply", {{"port", port}, {"sent", true}, {"ok", false}});
            socket->shutdown(tcp::socket::shutdown_send, ignored);
            co_await watch(*socket);
            co_return;
        }

        Link link;
        link.connectionId = randomUuid();
        link.token = randomHex(32);
        link.client = client;
        link.port = port;
        link.socket = socket;
        std::string line = reply(link.connectionId, link.token).dump() + "\n";
        std::string connectionId = link.connectionId;
        // Registered before the reply leaves, so the bridge's first request finds it.
        links.emplace(connectionId, std::move(link));
        changed();

        boost::system::error_code writeError;
        if (config.splitReply) {
            std::size_t half = line.size() / 2;
            std::tie(writeError, std::ignore) = co_await asio::async_write(*socket, asio::buffer(line.data(), half), tupled);
            co_await pause(kSplitReplyPause);
            if (!writeError)
                std::tie(writeError, std::ignore) = co_await asio::async_write(*socket, asio::buffer(line.data() + half, line.size() - half), tupled);
        } else {
            line += config.replyTrailer;
            std::tie(writeError, std::ignore) = co_await asio::async_write(*socket, asio::buffer(line), tupled);
        }
        Json replied = {{"port", port}, {"sent", !writeError}, {"ok", true}, {"connectionId", connectionId},
                        {"endpoint", "http://127.0.0.1:" + std::to_string(httpPort) + "/mcp"}, {"client", client}};
        if (config.malformed != Malformed::none) replied["malformed"] = malformedName(config.malformed);
        log.event("reply", replied);
        if (writeError) {
            forget(connectionId, "the reply could not be sent");
            co_return;
        }
        if (config.closeAfterReply) {
            forget(connectionId, "closed after the reply (STUDIO_SIM_CLOSE_AFTER_REPLY)");
            co_return;
        }
        if (config.byteAfterReply) {
            co_await pause(kByteAfterReplyPause);
            if (links.count(connectionId)) {
                static const char byte = '\n';
                co_await asio::async_write(*socket, asio::buffer(&byte, 1), tupled);
                log.event("byte-after-reply", {{"connectionId", connectionId}});
            }
        }
        if (!links.count(connectionId)) co_return;
        const char* reason = co_await watch(*socket);
        forget(connectionId, reason);
    }
};

HandOver::HandOver(asio::io_context& io, const SimConfig& config, const BundleIdentity& identity, SimLog& log)
    : impl_(std::make_shared<Impl>(io, config, identity, log)) {}

HandOver::~HandOver() {
    impl_->linksChanged = nullptr;
}

void HandOver::setHttpPort(std::uint16_t port) {
    impl_->httpPort = port;
}

void HandOver::onLinksChanged(std::function<void(std::size_t)> callback) {
    impl_->linksChanged = std::move(callback);
}

void HandOver::notification(const std::string& name, const std::string& object) {
    Json fields = {{"name", name}};
    if (name != impl_->identity.linkNotification()) {
        fields["ours"] = false;
        impl_->log.event("notification", fields);
        return;
    }
    fields["ours"] = true;
    auto items = parseQuery(object);
    auto portText = items ? queryValue(*items, "port") : std::nullopt;
    auto challenge = items ? queryValue(*items, "challenge") : std::nullopt;
    auto client = items ? queryValue(*items, "client") : std::nullopt;
    unsigned port = 0;
    bool portOk = false;
    if (portText) {
        auto [end, ec] = std::from_chars(portText->data(), portText->data() + portText->size(), port);
        portOk = ec == std::errc() && end == portText->data() + portText->size() && port > 0 && port <= 65535;
    }
    if (portOk) fields["port"] = port;
    fields["client"] = client ? Json(*client) : Json();
    if (!portOk || !challenge || challenge->empty()) {
        fields["error"] = "the object is not port=..&challenge=..&client=..";
        impl_->log.event("notification", fields);
        return;
    }
    auto key = std::make_pair(static_cast<std::uint16_t>(port), *challenge);
    bool repeat = !impl_->answered.insert(key).second;
    fields["repeat"] = repeat;
    impl_->log.event("notification", fields);
    if (repeat) return;
    asio::co_spawn(impl_->io, impl_->serve(static_cast<std::uint16_t>(port), *challenge, client.value_or("")), asio::detached);
}

bool HandOver::isLiveToken(std::string_view token) const {
    for (auto& [id, link] : impl_->links)
        if (link.token == token) return true;
    return false;
}

std::size_t HandOver::linkCount() const {
    return impl_->links.size();
}

void HandOver::closeAll() {
    std::vector<std::string> ids;
    for (auto& [id, link] : impl_->links) ids.push_back(id);
    // Closing the socket also ends the link's watch, which then finds nothing left to forget.
    for (auto& id : ids) impl_->forget(id, "closed by the simulator");
}

}  // namespace studiosim
