// Building a document: one forward pass over the bytes with one byte of
// look-ahead, recursing only into nested containers.
//
// Every node, member and decoded string lives in one arena owned by the
// document, so a parse costs a handful of large allocations rather than one
// per value. While a container is open its children collect on a scratch
// stack shared by all levels; when it closes they are copied into the arena
// in one piece, which keeps each container's children contiguous even though
// nested containers close first.
#include "jsonc/JSONCDocument.h"

#include <array>
#include <bit>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <locale.h>
#include <memory_resource>
#include <type_traits>

#include "jsonc/UTF8.h"

namespace jsonc {

struct JSONCDocument::Storage {
    std::string owned;  // empty when the bytes are borrowed
    std::string_view bytes;
    // Nodes take about twice the text's size; one block usually holds them.
    std::pmr::monotonic_buffer_resource arena;
    Node root;

    Storage(std::string ownedText, std::string_view text)
        : owned(std::move(ownedText)),
          bytes(owned.empty() ? text : owned),
          arena(std::max<std::size_t>(4096, 2 * bytes.size())) {}
};

namespace {

// Containers deeper than this are refused, which also bounds the recursion.
constexpr int maximumDepth = 255;

// Offsets and lengths are kept in 32 bits; a decoded string may be three
// times as long as its text (each ill-formed byte becomes three).
constexpr std::size_t maximumSize = std::size_t{1} << 30;

enum : std::uint8_t {
    whitespaceByte = 1,   // space, tab, line feed, carriage return; nothing else
    scalarByte = 2,       // ASCII letters and digits, "+", "-", "."
    plainStringByte = 4,  // copied as is: not a quote, backslash, line break or non-ASCII
};

constexpr std::array<std::uint8_t, 256> byteClasses = [] {
    std::array<std::uint8_t, 256> classes{};
    for (int c : {' ', '\t', '\n', '\r'}) classes[c] |= whitespaceByte;
    for (int c = 0; c < 256; ++c) {
        bool alnum = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
        if (alnum || c == '+' || c == '-' || c == '.') classes[c] |= scalarByte;
        if (c < 0x80 && c != '"' && c != '\\' && c != '\n' && c != '\r') classes[c] |= plainStringByte;
    }
    return classes;
}();

bool isDigit(unsigned char c) { return c >= '0' && c <= '9'; }

// A decimal number as the C library's conversion reads one: an optional
// sign, digits with at most one "." and at least one digit, and an optional
// exponent with at least one digit. Everything this admits the conversion
// consumes whole, so it can answer without calling it; what it refuses may
// still be a hexadecimal form or a word and goes to the conversion.
bool isDecimalNumber(std::string_view run) {
    auto p = run.begin(), end = run.end();
    if (p != end && (*p == '+' || *p == '-')) ++p;
    auto integer = p;
    while (p != end && isDigit(*p)) ++p;
    std::size_t digits = p - integer;
    if (p != end && *p == '.') {
        auto fraction = ++p;
        while (p != end && isDigit(*p)) ++p;
        digits += p - fraction;
    }
    if (digits == 0) return false;
    if (p != end && (*p == 'e' || *p == 'E')) {
        ++p;
        if (p != end && (*p == '+' || *p == '-')) ++p;
        auto exponent = p;
        while (p != end && isDigit(*p)) ++p;
        if (p == exponent) return false;
    }
    return p == end;
}

// The conversion must not depend on the process locale (a decimal comma
// would refuse "1.5"), so it always runs under the "C" locale.
locale_t cLocale() {
    static const locale_t locale = newlocale(LC_ALL_MASK, "C", locale_t{});
    return locale;
}

bool convertsWholeToDouble(std::string_view run) {
    locale_t locale = cLocale();
    if (run.empty() || locale == locale_t{}) return false;
    // The conversion reads up to a NUL and may read past the run (as in
    // "nan(...)"), so it gets a terminated copy of the run alone.
    char small[64];
    std::string large;
    char* text = small;
    if (run.size() < sizeof small) {
        std::memcpy(small, run.data(), run.size());
        small[run.size()] = '\0';
    } else {
        large.assign(run);
        text = large.data();
    }
    char* end = nullptr;
    strtod_l(text, &end, locale);
    return end == text + run.size();
}

bool isScalar(std::string_view run) {
    if (run == "true" || run == "false" || run == "null") return true;
    return isDecimalNumber(run) || convertsWholeToDouble(run);
}

// "+04A" and "-000" are numbers to the integer parser the \u rule follows:
// a sign, then at least one hexadecimal digit; a minus only before zero.
std::optional<std::uint16_t> hexUnit(const unsigned char* p) {
    std::size_t i = 0;
    bool negative = false;
    if (p[0] == '+' || p[0] == '-') {
        negative = p[0] == '-';
        i = 1;
    }
    std::uint32_t unit = 0;
    for (; i < 4; ++i) {
        unsigned char c = p[i];
        std::uint32_t digit;
        if (c >= '0' && c <= '9') digit = c - '0';
        else if (c >= 'a' && c <= 'f') digit = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F') digit = c - 'A' + 10;
        else return std::nullopt;
        unit = unit * 16 + digit;
    }
    if (negative && unit != 0) return std::nullopt;
    return static_cast<std::uint16_t>(unit);
}

}  // namespace

struct JSONCDocument::Parser {
    struct Failure {};

    const unsigned char* bytes;
    std::size_t size;
    std::size_t index = 0;
    int depth = 0;

    std::pmr::memory_resource& arena;
    // Children of the containers open right now, innermost last.
    std::vector<Member> openMembers;
    std::vector<Node> openElements;
    // A string with escapes or ill-formed UTF-8, while it is being decoded.
    std::string decoded;
    std::string repaired;

    explicit Parser(Storage& storage)
        : bytes(reinterpret_cast<const unsigned char*>(storage.bytes.data())),
          size(storage.bytes.size()),
          arena(storage.arena) {}

    Node document() {
        if (size >= 3 && bytes[0] == 0xEF && bytes[1] == 0xBB && bytes[2] == 0xBF) index = 3;
        Node root = value();
        skipTrivia();
        if (index != size) throw Failure{};
        return root;
    }

    void skipTrivia() {
        for (;;) {
            while (index < size && (byteClasses[bytes[index]] & whitespaceByte)) ++index;
            if (index + 1 >= size || bytes[index] != '/') return;
            if (bytes[index + 1] == '/') {
                auto lineFeed = static_cast<const unsigned char*>(
                    std::memchr(bytes + index + 2, '\n', size - index - 2));
                index = lineFeed ? lineFeed - bytes : size;
            } else if (bytes[index + 1] == '*') {
                // The closing "*/" may not reuse the "*" of the opening "/*".
                std::size_t from = index + 2;
                for (;;) {
                    auto star = static_cast<const unsigned char*>(
                        std::memchr(bytes + from, '*', size - from));
                    if (!star || star + 1 >= bytes + size) throw Failure{};
                    if (star[1] == '/') {
                        index = star + 2 - bytes;
                        break;
                    }
                    from = star + 1 - bytes;
                }
            } else {
                return;
            }
        }
    }

    static Node made(Node::Kind kind, std::size_t lowerBound, std::size_t upperBound,
                     const void* payload = nullptr, std::size_t count = 0) {
        Node node;
        node.kind_ = kind;
        node.lowerBound_ = static_cast<std::uint32_t>(lowerBound);
        node.upperBound_ = static_cast<std::uint32_t>(upperBound);
        node.payload_ = payload;
        node.count_ = static_cast<std::uint32_t>(count);
        return node;
    }

    Node value() {
        skipTrivia();
        if (index >= size) throw Failure{};
        switch (bytes[index]) {
        case '"': {
            std::size_t start = index;
            std::string_view text = string();
            return made(Node::Kind::string, start, index, text.data(), text.size());
        }
        case '[':
            return array();
        case '{':
            return object();
        default:
            return scalar();
        }
    }

    void open() {
        ++index;
        if (++depth > maximumDepth) throw Failure{};
    }

    // Moves the children collected since `from` into the arena, in one piece.
    template <class T>
    const T* keep(std::vector<T>& open, std::size_t from) {
        static_assert(std::is_trivially_copyable_v<T> && std::is_trivially_destructible_v<T>);
        std::size_t count = open.size() - from;
        if (count == 0) return nullptr;
        void* place = arena.allocate(count * sizeof(T), alignof(T));
        std::memcpy(place, open.data() + from, count * sizeof(T));
        open.resize(from);
        return static_cast<const T*>(place);
    }

    Node array() {
        std::size_t start = index;
        open();
        std::size_t from = openElements.size();
        for (;;) {
            skipTrivia();
            if (index >= size) throw Failure{};
            if (bytes[index] == ']') break;
            Node element = value();
            openElements.push_back(element);
            skipTrivia();
            if (index >= size) throw Failure{};
            if (bytes[index] == ',') {
                ++index;
                continue;
            }
            if (bytes[index] == ']') break;
            throw Failure{};
        }
        ++index;
        --depth;
        std::size_t count = openElements.size() - from;
        return made(Node::Kind::array, start, index, keep(openElements, from), count);
    }

    Node object() {
        std::size_t start = index;
        open();
        std::size_t from = openMembers.size();
        for (;;) {
            skipTrivia();
            if (index >= size) throw Failure{};
            if (bytes[index] == '}') break;
            if (bytes[index] != '"') throw Failure{};
            Member member;
            member.keyStart_ = static_cast<std::uint32_t>(index);
            std::string_view key = string();
            member.key_ = key.data();
            member.keySize_ = static_cast<std::uint32_t>(key.size());
            skipTrivia();
            if (index >= size || bytes[index] != ':') throw Failure{};
            ++index;
            member.value_ = value();
            skipTrivia();
            if (index >= size) throw Failure{};
            if (bytes[index] == ',') {
                member.comma_ = static_cast<std::uint32_t>(index);
                openMembers.push_back(member);
                ++index;
                continue;
            }
            if (bytes[index] != '}') throw Failure{};
            openMembers.push_back(member);
            break;
        }
        ++index;
        --depth;
        std::size_t count = openMembers.size() - from;
        return made(Node::Kind::object, start, index, keep(openMembers, from), count);
    }

    Node scalar() {
        std::size_t start = index;
        while (index < size && (byteClasses[bytes[index]] & scalarByte)) ++index;
        std::string_view run(reinterpret_cast<const char*>(bytes + start), index - start);
        if (!isScalar(run)) throw Failure{};
        return made(Node::Kind::scalar, start, index);
    }

    // Advances index over bytes a string holds as they are, eight at a time
    // while eight remain.
    void skipPlainStringBytes() {
        constexpr std::uint64_t ones = 0x0101010101010101ull, highs = 0x8080808080808080ull;
        auto holds = [&](std::uint64_t word, unsigned char c) {
            std::uint64_t x = word ^ (ones * c);
            return (x - ones) & ~x & highs;
        };
        while (size - index >= 8) {
            std::uint64_t word;
            std::memcpy(&word, bytes + index, 8);
            // The lowest flagged byte is exact; flags above it may be spurious.
            std::uint64_t special = holds(word, '"') | holds(word, '\\') | holds(word, '\n') |
                                    holds(word, '\r') | (word & highs);
            if (special) {
                if constexpr (std::endian::native == std::endian::little) {
                    index += std::countr_zero(special) / 8;
                    return;
                }
                break;
            }
            index += 8;
        }
        while (index < size && (byteClasses[bytes[index]] & plainStringByte)) ++index;
    }

    // Reads the string whose opening quote is at index and leaves index one
    // past its closing quote. Most strings need no decoding: the text is then
    // a view of the bytes themselves; others are decoded into the arena.
    std::string_view string() {
        std::size_t start = ++index;
        for (;;) {
            skipPlainStringBytes();
            if (index >= size) throw Failure{};
            unsigned char c = bytes[index];
            if (c == '"') {
                ++index;
                return {reinterpret_cast<const char*>(bytes + start), index - 1 - start};
            }
            if (c == '\n' || c == '\r') throw Failure{};
            if (c == '\\') break;
            utf8::Sequence sequence = utf8::sequenceAt(bytes + index, bytes + size);
            if (!sequence.wellFormed) break;
            index += sequence.length;
        }
        decoded.assign(reinterpret_cast<const char*>(bytes + start), index - start);
        return decodeRest();
    }

    // Continues a string that needs decoding, from its first escape or
    // ill-formed byte, collecting bytes in `decoded`.
    std::string_view decodeRest() {
        std::uint16_t highSurrogate = 0;  // none held; no surrogate is zero
        auto flush = [&] {
            if (highSurrogate) utf8::append(decoded, utf8::replacementCharacter);
            highSurrogate = 0;
        };
        for (;;) {
            if (index >= size) throw Failure{};
            unsigned char c = bytes[index];
            if (c == '"') {
                ++index;
                flush();
                break;
            }
            if (c == '\n' || c == '\r') throw Failure{};
            if (c != '\\') {
                flush();
                std::size_t run = index++;
                while (index < size && bytes[index] != '"' && bytes[index] != '\\' &&
                       bytes[index] != '\n' && bytes[index] != '\r')
                    ++index;
                decoded.append(reinterpret_cast<const char*>(bytes + run), index - run);
                continue;
            }
            if (index + 1 >= size) throw Failure{};
            unsigned char escape = bytes[index + 1];
            index += 2;
            if (escape == 'u') {
                if (size - index < 4) throw Failure{};
                std::optional<std::uint16_t> unit = hexUnit(bytes + index);
                if (!unit) throw Failure{};
                index += 4;
                if (*unit >= 0xD800 && *unit <= 0xDBFF) {
                    flush();
                    highSurrogate = *unit;
                } else if (*unit >= 0xDC00 && *unit <= 0xDFFF) {
                    if (highSurrogate) {
                        char32_t scalar = 0x10000 + (char32_t(highSurrogate - 0xD800) << 10) +
                                          (*unit - 0xDC00);
                        highSurrogate = 0;
                        utf8::append(decoded, scalar);
                    } else {
                        utf8::append(decoded, utf8::replacementCharacter);
                    }
                } else {
                    flush();
                    utf8::append(decoded, *unit);
                }
                continue;
            }
            flush();
            switch (escape) {
            case '"': decoded += '"'; break;
            case '\\': decoded += '\\'; break;
            case '/': decoded += '/'; break;
            case 'b': decoded += '\b'; break;
            case 'f': decoded += '\f'; break;
            case 'n': decoded += '\n'; break;
            case 'r': decoded += '\r'; break;
            case 't': decoded += '\t'; break;
            default: throw Failure{};
            }
        }
        std::string_view text = decoded;
        if (!utf8::isWellFormed(text)) {
            repaired.clear();
            utf8::appendRepaired(repaired, text);
            text = repaired;
        }
        if (text.empty()) return {};
        void* place = arena.allocate(text.size(), 1);
        std::memcpy(place, text.data(), text.size());
        return {static_cast<const char*>(place), text.size()};
    }
};

JSONCDocument::JSONCDocument(std::shared_ptr<const Storage> storage) : storage_(std::move(storage)) {}

std::optional<JSONCDocument> JSONCDocument::parse(std::string_view text) {
    if (text.size() >= maximumSize) return std::nullopt;
    return build(std::make_shared<Storage>(std::string(text), std::string_view{}));
}

std::optional<JSONCDocument> JSONCDocument::parseBorrowed(std::string_view text) {
    if (text.size() >= maximumSize) return std::nullopt;
    return build(std::make_shared<Storage>(std::string{}, text));
}

std::optional<JSONCDocument> JSONCDocument::build(std::shared_ptr<Storage> storage) {
    try {
        Parser parser(*storage);
        storage->root = parser.document();
    } catch (const Parser::Failure&) {
        return std::nullopt;
    }
    return JSONCDocument(std::move(storage));
}

std::string_view JSONCDocument::bytes() const { return storage_->bytes; }

const JSONCDocument::Node& JSONCDocument::root() const { return storage_->root; }

}  // namespace jsonc
