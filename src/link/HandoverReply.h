// Studio's one reply line of the hand-over, judged: a refusal becomes
// Studio's own words, anything malformed becomes the one unexpected-endpoint
// message, and only a reply that names loopback addresses and a long enough
// token yields endpoints. Pure; any thread.
#pragma once
#include "json/Json.h"
#include <string>

#include "peer/URL.h"

namespace studiolink {

struct HandoverReply {
    static constexpr int protocolVersion = 3;
    static constexpr size_t minimumTokenLength = 32;

    peer::URL endpoint;
    peer::URL files;
    std::string token;

    // Throws BridgeError.
    static HandoverReply validated(const Json& reply);
    // 8-4-4-4-12 hexadecimal digits, either case.
    static bool isUUID(const std::string& text);
};

}  // namespace studiolink
