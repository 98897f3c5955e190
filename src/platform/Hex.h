// Bytes written as hexadecimal text, two digits a byte: lowercase for the
// hand-over's nonce and challenge and for D-Bus address escapes, uppercase
// for URL percent-escapes. Pure; any thread.
#pragma once
#include <cstdint>
#include <span>
#include <string>

namespace platform {

void appendHex(std::string& out, uint8_t byte, bool uppercase = false);
std::string hex(std::span<const uint8_t> bytes);

}  // namespace platform
