// Studio's side of the hand-over. When a bridge announces itself (the link
// notification: port, challenge, client), Studio connects back to
// 127.0.0.1:<port> once per announced port and challenge, reads the
// greeting line, checks "hello", "v" 3 and that SHA-256 of the nonce is the
// announced challenge (otherwise it closes without a word), "asks the person"
// (allowed at once unless a test control says otherwise), and writes one
// reply line with a fresh connection id, the HTTP endpoint, the files address
// and a 64-digit token. The connection then stays open as the link: each link
// has its own token, and a link whose connection ends (either side, or any
// byte from the bridge) is forgotten with its token.
//
// The test controls of SimConfig (refusal, delay, malformed replies, closing
// or sending a byte after the reply, never answering) apply here.
// Runs on the single-threaded io_context it is given; call from that thread.
#pragma once
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace boost::asio {
class io_context;
}

namespace studiosim {

struct SimConfig;
struct BundleIdentity;
class SimLog;

class HandOver {
public:
    HandOver(boost::asio::io_context& io, const SimConfig& config, const BundleIdentity& identity, SimLog& log);
    ~HandOver();
    HandOver(const HandOver&) = delete;
    HandOver& operator=(const HandOver&) = delete;

    // The port the replies name in "endpoint" and "files".
    void setHttpPort(std::uint16_t port);

    // One Posted signal (name, object) from the session bus. Names other than
    // this build's link notification are logged and ignored.
    void notification(const std::string& name, const std::string& object);

    // Whether a live link holds this token.
    bool isLiveToken(std::string_view token) const;
    std::size_t linkCount() const;

    // Ends every link (the connections are closed, the tokens forgotten).
    void closeAll();

    // Called with the new number of live links whenever it changes.
    void onLinksChanged(std::function<void(std::size_t)> callback);

private:
    struct Impl;
    std::shared_ptr<Impl> impl_;
};

}  // namespace studiosim
