#include "jsonc/UTF8.h"

namespace jsonc::utf8 {

namespace {
const unsigned char* begin(std::string_view text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}
}  // namespace

bool isWellFormed(std::string_view text) {
    const unsigned char* p = begin(text);
    const unsigned char* end = p + text.size();
    while (p < end) {
        if (*p < 0x80) {
            ++p;
            continue;
        }
        Sequence sequence = sequenceAt(p, end);
        if (!sequence.wellFormed) return false;
        p += sequence.length;
    }
    return true;
}

void appendRepaired(std::string& out, std::string_view text) {
    const unsigned char* p = begin(text);
    const unsigned char* end = p + text.size();
    while (p < end) {
        Sequence sequence = sequenceAt(p, end);
        if (sequence.wellFormed) out.append(reinterpret_cast<const char*>(p), sequence.length);
        else append(out, replacementCharacter);
        p += sequence.length;
    }
}

void append(std::string& out, char32_t codePoint) {
    if (codePoint < 0x80) {
        out += static_cast<char>(codePoint);
    } else if (codePoint < 0x800) {
        out += static_cast<char>(0xC0 | (codePoint >> 6));
        out += static_cast<char>(0x80 | (codePoint & 0x3F));
    } else if (codePoint < 0x10000) {
        out += static_cast<char>(0xE0 | (codePoint >> 12));
        out += static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (codePoint & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (codePoint >> 18));
        out += static_cast<char>(0x80 | ((codePoint >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (codePoint & 0x3F));
    }
}

}  // namespace jsonc::utf8
