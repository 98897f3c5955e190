// Reading the small pieces of URL text that reach Studio: the percent-encoded
// query of the link notification, the "name" query of an upload, file URIs
// handed over by Open. Pure functions; any thread.
#pragma once
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace studiosim {

// Decodes %XX escapes; nothing when an escape is broken. "+" stays "+" (the
// platform's query builder writes a blank as %20).
std::optional<std::string> percentDecode(std::string_view text);

// "a=1&b=x%20y" -> {{"a","1"},{"b","x y"}}, in order; nothing when any part
// fails to decode. An item without "=" has an empty value.
std::optional<std::vector<std::pair<std::string, std::string>>> parseQuery(std::string_view query);

// The first value of name in the list, if any.
std::optional<std::string> queryValue(const std::vector<std::pair<std::string, std::string>>& items, std::string_view name);

// "file:///a%20b/c" (or "file://localhost/...") -> "/a b/c"; a plain absolute
// path is taken as it is; anything else gives nothing.
std::optional<std::filesystem::path> localPath(std::string_view uriOrPath);

}  // namespace studiosim
