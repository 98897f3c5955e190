#include "platform/PercentEncoding.h"

#include "platform/Hex.h"

namespace platform {

bool isUnreserved(unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
           c == '_' || c == '~';
}

std::string percentEncode(std::string_view text, std::string_view keep) {
    std::string out;
    out.reserve(text.size());
    for (unsigned char c : text) {
        if (isUnreserved(c) || keep.find(static_cast<char>(c)) != std::string_view::npos) {
            out.push_back(static_cast<char>(c));
        } else {
            out.push_back('%');
            appendHex(out, c, true);
        }
    }
    return out;
}

}  // namespace platform
