#include "server/Progress.h"

Progress::Progress(Json token, Send send)
    : state_(std::make_shared<State>(State{std::move(token), std::move(send), std::nullopt, {}})) {}

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
        if (!news && progress - *state.told < total / 100) return;
    }
    state.told = progress;
    state.message = message;
    Json params = Json::object();
    params["progressToken"] = state.token;
    params["progress"] = progress;
    params["total"] = total;
    params["message"] = message;
    state.send(Json{{"jsonrpc", "2.0"}, {"method", "notifications/progress"}, {"params", std::move(params)}});
}
