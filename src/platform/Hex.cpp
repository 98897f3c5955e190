#include "platform/Hex.h"

namespace platform {

void appendHex(std::string& out, uint8_t byte, bool uppercase) {
    const char* digits = uppercase ? "0123456789ABCDEF" : "0123456789abcdef";
    out.push_back(digits[byte >> 4]);
    out.push_back(digits[byte & 15]);
}

std::string hex(std::span<const uint8_t> bytes) {
    std::string out;
    out.reserve(bytes.size() * 2);
    for (uint8_t byte : bytes) appendHex(out, byte);
    return out;
}

}  // namespace platform
