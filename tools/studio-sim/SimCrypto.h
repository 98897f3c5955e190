// The few cryptographic values Studio's side of the hand-over needs: the
// challenge check (lowercase hexadecimal SHA-256), fresh tokens and ids from
// the system's secure random source, and connection UUIDs. Stateless; any
// thread.
#pragma once
#include <cstddef>
#include <string>
#include <string_view>

namespace studiosim {

// SHA-256 of the bytes, as 64 lowercase hexadecimal digits.
std::string sha256Hex(std::string_view bytes);

// count random bytes as 2*count lowercase hexadecimal digits (getrandom(2)).
std::string randomHex(std::size_t count);

// A random (version 4) UUID in the upper-case form Studio writes,
// e.g. "3F2504E0-4F89-41D3-9A0C-0305E82C3301".
std::string randomUuid();

}  // namespace studiosim
