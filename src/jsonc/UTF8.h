// UTF-8 as the JSONC parser needs it: recognising well-formed sequences,
// encoding code points, and repairing ill-formed text the way Unicode
// recommends (each maximal subpart of an ill-formed sequence becomes one
// U+FFFD), so that decoded keys and strings are always valid text.
// Plain functions over bytes; any thread may call them.
#pragma once
#include <cstddef>
#include <string>
#include <string_view>

namespace jsonc::utf8 {

constexpr char32_t replacementCharacter = 0xFFFD;

struct Sequence {
    std::size_t length;  // well formed: its length; else the maximal subpart's (at least 1)
    bool wellFormed;
};

// The sequence starting at `p` (p < end).
inline Sequence sequenceAt(const unsigned char* p, const unsigned char* end) {
    unsigned char lead = p[0];
    if (lead < 0x80) return {1, true};
    std::size_t continuations;
    unsigned char low = 0x80, high = 0xBF;  // bounds of the second byte
    if (lead >= 0xC2 && lead <= 0xDF) {
        continuations = 1;
    } else if (lead == 0xE0) {
        continuations = 2;
        low = 0xA0;
    } else if (lead == 0xED) {
        continuations = 2;
        high = 0x9F;
    } else if (lead >= 0xE1 && lead <= 0xEF) {
        continuations = 2;
    } else if (lead == 0xF0) {
        continuations = 3;
        low = 0x90;
    } else if (lead == 0xF4) {
        continuations = 3;
        high = 0x8F;
    } else if (lead >= 0xF1 && lead <= 0xF3) {
        continuations = 3;
    } else {
        return {1, false};
    }
    for (std::size_t i = 1; i <= continuations; ++i) {
        if (p + i >= end || p[i] < low || p[i] > high) return {i, false};
        low = 0x80;
        high = 0xBF;
    }
    return {continuations + 1, true};
}

bool isWellFormed(std::string_view text);

// Appends `text` with every maximal subpart of an ill-formed sequence
// replaced by U+FFFD.
void appendRepaired(std::string& out, std::string_view text);

// Appends the encoding of a code point (surrogates are the caller's affair).
void append(std::string& out, char32_t codePoint);

}  // namespace jsonc::utf8
