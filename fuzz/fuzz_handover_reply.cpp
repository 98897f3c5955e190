// Studio's hand-over reply as the listener takes it: the bytes before the
// first line feed, parsed as JSON, judged when an object. Whatever comes in,
// the judgement either throws the bridge's error or yields loopback
// addresses and a long enough token.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "base/BridgeError.h"
#include "link/HandoverReply.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string bytes(reinterpret_cast<const char*>(data), size);
    auto newline = bytes.find('\n');
    std::string line = newline == std::string::npos ? bytes : bytes.substr(0, newline);
    auto value = Json::parse(line, nullptr, false);
    if (value.is_discarded() || !value.is_object()) return 0;
    try {
        auto reply = studiolink::HandoverReply::validated(value);
        if (reply.endpoint.host != "127.0.0.1" || reply.files.host != "127.0.0.1") abort();
        if (reply.endpoint.path != "/mcp" || !reply.files.path.empty()) abort();
        if (!reply.endpoint.port || *reply.endpoint.port < 1024) abort();
        if (reply.token.size() < studiolink::HandoverReply::minimumTokenLength) abort();
    } catch (const BridgeError&) {
    }
    return 0;
}
