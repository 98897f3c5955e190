#include "link/HandoverReply.h"

#include <cctype>

#include "base/BridgeError.h"
#include "peer/StudioPeer.h"

namespace studiolink {

namespace {

std::optional<std::string> stringMember(const Json& object, const char* name) {
    auto it = object.find(name);
    if (it == object.end() || !it->is_string()) return std::nullopt;
    return it->get<std::string>();
}

// Characters, not bytes: a continuation byte does not start one.
size_t characterCount(const std::string& text) {
    size_t count = 0;
    for (unsigned char c : text)
        if ((c & 0xC0) != 0x80) ++count;
    return count;
}

}  // namespace

bool HandoverReply::isUUID(const std::string& text) {
    if (text.size() != 36) return false;
    for (size_t i = 0; i < text.size(); ++i) {
        bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash ? text[i] != '-' : !std::isxdigit(static_cast<unsigned char>(text[i]))) return false;
    }
    return true;
}

HandoverReply HandoverReply::validated(const Json& reply) {
    auto ok = reply.find("ok");
    if (ok == reply.end() || !ok->is_boolean() || !ok->get<bool>()) {
        throw BridgeError(stringMember(reply, "error").value_or("Vantoric Studio refused the connection."));
    }
    const BridgeError unexpected("Vantoric Studio answered with an unexpected endpoint.");
    auto version = reply.find("v");
    if (version == reply.end() || !version->is_number() || version->get<double>() != protocolVersion)
        throw unexpected;
    auto connectionId = stringMember(reply, "connectionId");
    if (!connectionId || !isUUID(*connectionId)) throw unexpected;
    auto endpoint = peer::StudioPeer::loopback(stringMember(reply, "endpoint"), "/mcp");
    auto files = peer::StudioPeer::loopback(stringMember(reply, "files"));
    auto token = stringMember(reply, "token");
    if (!endpoint || !files || !token || characterCount(*token) < minimumTokenLength) throw unexpected;
    return {*endpoint, *files, *token};
}

}  // namespace studiolink
