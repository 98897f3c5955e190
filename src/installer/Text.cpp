#include "installer/Text.h"

#include <utf8proc.h>

#include <cstdlib>

namespace BridgeInstaller::text {
namespace {

// Decodes the code point at i of valid UTF-8 text; -1 and one byte when the
// text is not valid there.
utf8proc_int32_t codePointAt(std::string_view text, std::size_t i, std::size_t& length) {
    utf8proc_int32_t cp = -1;
    auto n = utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(text.data() + i),
                              static_cast<utf8proc_ssize_t>(text.size() - i), &cp);
    if (n <= 0) {
        length = 1;
        return -1;
    }
    length = static_cast<std::size_t>(n);
    return cp;
}

bool isLineBreak(utf8proc_int32_t cp) {
    return (cp >= 0x0A && cp <= 0x0D) || cp == 0x85 || cp == 0x2028 || cp == 0x2029;
}

bool isWhitespace(utf8proc_int32_t cp, bool newlines) {
    if (cp < 0) return false;
    if (cp == '\t') return true;
    auto category = utf8proc_category(cp);
    if (category == UTF8PROC_CATEGORY_ZS) return true;
    if (!newlines) return false;
    return isLineBreak(cp) || category == UTF8PROC_CATEGORY_ZL || category == UTF8PROC_CATEGORY_ZP;
}

void append(std::string& out, utf8proc_int32_t cp) {
    utf8proc_uint8_t buffer[4];
    auto n = utf8proc_encode_char(cp, buffer);
    out.append(reinterpret_cast<const char*>(buffer), static_cast<std::size_t>(n));
}

}  // namespace

std::vector<std::string> lines(std::string_view text) {
    std::vector<std::string> result;
    std::size_t start = 0, i = 0;
    auto cut = [&](std::size_t end) {
        if (end > start) result.emplace_back(text.substr(start, end - start));
    };
    while (i < text.size()) {
        std::size_t length;
        auto cp = codePointAt(text, i, length);
        if (isLineBreak(cp)) {
            cut(i);
            i += length;
            if (cp == '\r' && i < text.size() && text[i] == '\n') ++i;
            start = i;
        } else {
            i += length;
        }
    }
    cut(text.size());
    return result;
}

std::string_view trimmed(std::string_view text, bool newlines) {
    std::size_t begin = 0;
    while (begin < text.size()) {
        std::size_t length;
        if (!isWhitespace(codePointAt(text, begin, length), newlines)) break;
        begin += length;
    }
    std::size_t end = text.size();
    while (end > begin) {
        std::size_t start = end - 1;
        while (start > begin && (static_cast<unsigned char>(text[start]) & 0xC0) == 0x80) --start;
        std::size_t length;
        auto cp = codePointAt(text, start, length);
        if (start + length != end || !isWhitespace(cp, newlines)) break;
        end = start;
    }
    return text.substr(begin, end - begin);
}

std::string prefixCharacters(std::string_view text, std::size_t count) {
    if (count == 0) return {};
    std::size_t clusters = 0, i = 0;
    utf8proc_int32_t previous = -1, state = 0;
    while (i < text.size()) {
        std::size_t length;
        auto cp = codePointAt(text, i, length);
        if (previous < 0 || cp < 0 || utf8proc_grapheme_break_stateful(previous, cp, &state)) {
            if (clusters == count) return std::string(text.substr(0, i));
            ++clusters;
        }
        previous = cp < 0 ? 0xFFFD : cp;
        i += length;
    }
    return std::string(text);
}

std::string joined(const std::vector<std::string>& words, std::string_view separator) {
    std::string line;
    for (std::size_t i = 0; i < words.size(); ++i) {
        if (i) line += separator;
        line += words[i];
    }
    return line;
}

std::string lowercased(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    std::size_t i = 0;
    while (i < text.size()) {
        std::size_t length;
        auto cp = codePointAt(text, i, length);
        if (cp < 0) {
            out.append(text.substr(i, length));
        } else {
            append(out, utf8proc_tolower(cp));
        }
        i += length;
    }
    return out;
}

std::string normalized(std::string_view text) {
    std::string copy(text);
    utf8proc_uint8_t* composed = utf8proc_NFC(reinterpret_cast<const utf8proc_uint8_t*>(copy.c_str()));
    if (!composed) return copy;
    std::string result(reinterpret_cast<const char*>(composed));
    std::free(composed);
    return result;
}

}  // namespace BridgeInstaller::text
