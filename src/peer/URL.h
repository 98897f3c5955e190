// An absolute URL taken apart into its components, as RFC 3986 writes them:
// nothing is decoded, so comparisons are of the exact text Studio sent. A
// plain value; any thread.
#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace peer {

struct URL {
    std::string scheme;
    std::optional<std::string> user;
    std::optional<std::string> password;
    std::optional<std::string> host;
    std::optional<uint16_t> port;
    std::string path;
    std::optional<std::string> query;
    std::optional<std::string> fragment;

    // Nothing for text that is not a URL: characters outside the URL set, a
    // bad percent escape, a port that is not a number up to 65535.
    static std::optional<URL> parse(std::string_view text);

    // The URL written out again.
    std::string absoluteString() const;
    // "host:port", as the Host header wants it.
    std::string authority() const;
    // The path and query, as an HTTP request line wants them ("/" for none).
    std::string target() const;

    // A new URL with one more path component, percent-encoded so that it
    // stays one component.
    URL appendingPathComponent(std::string_view component) const;

    bool operator==(const URL&) const = default;
};

// Percent-encodes everything but the unreserved characters and those that
// are safe inside a query value; "&", "=", "+" and "#" are always encoded.
std::string percentEncodeQueryValue(std::string_view value);

}  // namespace peer
