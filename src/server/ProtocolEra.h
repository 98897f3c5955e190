// The two eras of MCP that one bridge speaks at once. The handshake
// revisions agree a version in "initialize" and leave the agent's name with
// the bridge; the stateless revision 2026-07-28 carries its version, the
// client's capabilities and its identity in every request's
// params._meta, and the bridge keeps nothing of it between requests.
//
// The era belongs to a request: it is decided once, where the line is read,
// from that request alone, and travels with it to its handler. Handlers do
// the same work in both eras; only the framing differs: a stateless request
// is checked for its version and required keys before anything is done, its
// result carries "resultType", the server's identity and, for the lists and
// discovery, cache hints, and the methods that revision removed do not exist
// for it. Pure functions; any thread.
#pragma once
#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "server/JSONText.h"

namespace server {

namespace ProtocolEra {
enum class Era { handshake, stateless };

inline constexpr std::string_view statelessRevision = "2026-07-28";
inline const std::string versionKey = "io.modelcontextprotocol/protocolVersion";
inline const std::string capabilitiesKey = "io.modelcontextprotocol/clientCapabilities";
inline const std::string clientInfoKey = "io.modelcontextprotocol/clientInfo";
inline const std::string serverInfoKey = "io.modelcontextprotocol/serverInfo";

// Every revision the bridge speaks, newest first: what discovery offers
// and what a refused version is told.
inline constexpr std::array<std::string_view, 5> supportedVersions = {"2026-07-28", "2025-11-25", "2025-06-18",
                                                                     "2025-03-26", "2024-11-05"};

// Cache hints of the list results and of discovery. The catalog is read
// once at start and the identity with it, so the answers cannot change
// while this process lives; a client, though, may keep them beyond it,
// and the next bridge may serve an updated Studio. An hour keeps an
// agent from asking again for the same list within a working session at
// the price of one local, sub-millisecond request an hour. "private":
// the lists describe the Studio installed for this user on this machine
// (which build, which version, whether one was found at all), which no
// cache shared between users or machines should hand on.
inline constexpr std::int64_t listTtlMs = 3'600'000;
inline constexpr std::string_view listCacheScope = "private";

// The revision's own error codes.
inline constexpr int unsupportedVersion = -32022;
inline constexpr int invalidParams = -32602;

// Which era the request belongs to: the stateless one when its
// params._meta names a protocol version, and for "server/discover",
// which only that revision has (without the key it is then refused for
// lacking it, rather than taken for an unknown handshake method).
Era of(std::string_view method, const Json& params);

// What a stateless request tells about its client, once it is found
// well-formed.
struct Envelope {
    // The agent's display name from its clientInfo ("title", else
    // "name"), when it gave one.
    std::optional<std::string> clientName;
};
struct Refusal {
    int code;
    std::string message;
    Json data;  // null: no "data" member
};
// Checks a stateless request's _meta: a version that is not a string or
// a missing capabilities object is invalid params (naming the key), a
// version other than the stateless revision is refused with the
// supported list (handshake revisions too: they need "initialize").
std::variant<Envelope, Refusal> envelope(const Json& params);

// Whether a method exists for a stateless request. The handshake's own
// methods ("initialize", "ping") were removed by that revision.
bool servedStatelessly(std::string_view method);

// Whether a method's stateless result is cacheable (lists, discovery).
bool cacheable(std::string_view method);

// Frames a stateless result in place: "resultType" "complete" (the
// bridge never asks the client for more input), the server's identity
// in "_meta" beside whatever was there, and the cache hints when the
// method's result is cacheable.
void frame(Json& result, std::string_view method, const Json& serverInfo);

// The JSON-RPC error reply of a refusal.
Json errorReply(const Json& id, const Refusal& refusal);
}  // namespace ProtocolEra

}  // namespace server
