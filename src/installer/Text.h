// Unicode text helpers the installer shares: trimming and splitting lines the
// way users see them, counting characters as people do (grapheme clusters),
// lower case and canonical composition. Checking and repairing UTF-8 is
// jsonc/UTF8.h's. Pure functions over UTF-8 strings; any thread may call them.
#pragma once
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace BridgeInstaller::text {

// Line feed, vertical tab, form feed, carriage return (CR LF counts as one),
// U+0085, U+2028 and U+2029 break lines; empty lines are dropped.
std::vector<std::string> lines(std::string_view text);

// Without white space at both ends: spaces and tabs (every Zs character),
// and, with newlines, line breaks and the other Z characters too.
std::string_view trimmed(std::string_view text, bool newlines);

// The first count user-perceived characters (extended grapheme clusters).
std::string prefixCharacters(std::string_view text, std::size_t count);

std::string joined(const std::vector<std::string>& words, std::string_view separator);

// Lower case, code point by code point.
std::string lowercased(std::string_view text);

// Canonical composition, so that canonically equivalent spellings compare
// equal; the text itself when it is not valid UTF-8.
std::string normalized(std::string_view text);

}  // namespace BridgeInstaller::text
