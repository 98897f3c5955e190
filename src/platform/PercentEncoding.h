// Percent-encoding of URL parts (RFC 3986): the unreserved characters and
// the ones a caller names stay, every other byte becomes %XX in upper-case
// hex. Independent of the locale. Pure; any thread.
#pragma once
#include <string>
#include <string_view>

namespace platform {

// ASCII letters and digits, "-", ".", "_" and "~".
bool isUnreserved(unsigned char c);

std::string percentEncode(std::string_view text, std::string_view keep);

}  // namespace platform
