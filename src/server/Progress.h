// Progress of one tool call, for an agent that asked for it: a "tools/call"
// whose params carry "_meta"."progressToken" (MCP's progress utility) gets
// "notifications/progress" lines with that token while long work goes on, so
// a client that times out quiet requests keeps waiting for a healthy upload
// or export. A call without a token gets a reporter that writes nothing.
//
// Copies share one state: the progress told so far only ever grows (a report
// that does not advance it is dropped), and a report that moves it by less
// than a hundredth of the total and says nothing new is dropped too, so a
// gigabyte upload makes about a hundred lines, not thousands. Used on the
// bridge's strand only.
#pragma once
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/steady_timer.hpp>

#include "server/JSONText.h"

namespace server {

class Progress {
public:
    // Writes one notification message.
    using Send = std::function<void(const Json& notification)>;

    // Reports nothing.
    Progress() = default;
    Progress(Json token, Send send);

    // The progress token of a request's params: "_meta"."progressToken" when
    // it is a string or an integer.
    static std::optional<Json> tokenIn(const Json& params);

    // Whether anybody listens; work that is only done to be reported (adding
    // up sizes, say) can be skipped otherwise.
    bool wanted() const { return state_ != nullptr; }

    void report(uint64_t progress, uint64_t total, const std::string& message);
    // Says that the work still goes on without having advanced: the last
    // message (or `waiting` before any), with the progress moved on by a
    // thousandth, since every notification must advance it.
    void stillWaiting(const std::string& waiting);

private:
    struct State {
        Json token;
        Send send;
        std::optional<double> told;
        std::optional<uint64_t> total;
        std::string message;
    };
    void send(State& state);
    std::shared_ptr<State> state_;
};

// While it lives, tells the agent at every interval that its call still
// waits (on Studio's answer, a status poll, a copy), so that a client that
// gives up on quiet requests does not give up on a long one. Nothing is sent
// for a call without a progress token. Created and destroyed on the strand
// whose executor it is given.
class ProgressBeat {
public:
    ProgressBeat(const boost::asio::any_io_executor& executor, Progress progress,
                 std::chrono::steady_clock::duration every, std::string waiting);
    ~ProgressBeat();
    ProgressBeat(const ProgressBeat&) = delete;
    ProgressBeat& operator=(const ProgressBeat&) = delete;

private:
    std::shared_ptr<boost::asio::steady_timer> timer_;
};

}  // namespace server
