#include "server/Progress.h"

namespace server {

Progress::Progress(Json token, Send send)
    : state_(std::make_shared<State>(State{std::move(token), std::move(send), std::nullopt, {}, {}})) {}

std::optional<Json> Progress::tokenIn(const Json& params) {
    if (!params.is_object()) return std::nullopt;
    auto meta = params.find("_meta");
    if (meta == params.end() || !meta->is_object()) return std::nullopt;
    auto token = meta->find("progressToken");
    if (token == meta->end() || !(token->is_string() || token->is_number_integer())) return std::nullopt;
    return *token;
}

void Progress::report(uint64_t progress, uint64_t total, const std::string& message) {
    if (!state_) return;
    State& state = *state_;
    if (state.told) {
        if (progress <= *state.told) return;
        bool news = message != state.message || progress >= total;
        if (!news && progress - *state.told < total / 100.0) return;
    }
    state.told = static_cast<double>(progress);
    state.total = total;
    state.message = message;
    send(state);
}

void Progress::stillWaiting(const std::string& waiting) {
    if (!state_) return;
    State& state = *state_;
    state.told = state.told ? *state.told + 0.001 : 0.0;
    if (state.message.empty()) state.message = waiting;
    send(state);
}

void Progress::send(State& state) {
    Json params = Json::object();
    params["progressToken"] = state.token;
    params["progress"] = *state.told;
    if (state.total) params["total"] = *state.total;
    params["message"] = state.message;
    state.send(Json{{"jsonrpc", "2.0"}, {"method", "notifications/progress"}, {"params", std::move(params)}});
}

namespace {

void beat(const std::shared_ptr<boost::asio::steady_timer>& timer, Progress progress,
          std::chrono::steady_clock::duration every, std::string waiting) {
    timer->expires_after(every);
    std::weak_ptr<boost::asio::steady_timer> weak = timer;
    timer->async_wait([weak, progress, every, waiting](const boost::system::error_code& ec) mutable {
        auto timer = weak.lock();
        if (ec || !timer) return;
        progress.stillWaiting(waiting);
        beat(timer, std::move(progress), every, std::move(waiting));
    });
}

}  // namespace

ProgressBeat::ProgressBeat(const boost::asio::any_io_executor& executor, Progress progress,
                           std::chrono::steady_clock::duration every, std::string waiting) {
    if (!progress.wanted()) return;
    timer_ = std::make_shared<boost::asio::steady_timer>(executor);
    beat(timer_, std::move(progress), every, std::move(waiting));
}

ProgressBeat::~ProgressBeat() {
    if (timer_) timer_->cancel();
}

}  // namespace server
