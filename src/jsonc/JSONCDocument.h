// JSONCDocument: JSON with comments and trailing commas, parsed into a small
// tree in which every value remembers the exact bytes it occupies, every
// member where its key starts and where the comma after it lies; and two
// edits (replacing one member's value, removing one member) that splice those
// bytes so that everything else in the text (comments, order, indentation,
// line endings, a byte-order mark) comes out exactly as it went in.
//
// Ownership: a document is immutable once built. It owns a copy of the text's
// bytes and every node, member and decoded string; copies of a document share
// that storage. Node, Member, the spans they hand out and the decoded strings
// are views into it: they stay valid as long as the document they came from,
// or a copy of it, lives. Anything that must outlive the document (strings(),
// the edits' results) is returned as owned strings.
//
// Text is taken as raw bytes (normally UTF-8) and never re-encoded: every
// offset indexes bytes(), and the edits leave the bytes outside the edited
// range untouched, even ill-formed ones. Only decoded keys and string values
// have ill-formed UTF-8 replaced by U+FFFD.
//
// Threads: any thread may read any document at any time; nothing changes
// after parse(). The static operations touch no shared state.
#pragma once
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace jsonc {

class JSONCDocument {
    struct Parser;
    struct Storage;

public:
    // Keys from the root object down to one member.
    using Path = std::vector<std::string>;

    // Half-open byte range [lowerBound, upperBound) into bytes().
    struct Range {
        std::size_t lowerBound = 0;
        std::size_t upperBound = 0;
        std::size_t size() const { return upperBound - lowerBound; }
        bool operator==(const Range&) const = default;
    };

    class Member;

    // One value. A cheap view: copy it freely while the document lives.
    class Node {
    public:
        enum class Kind : std::uint8_t { object, array, string, scalar };

        Kind kind() const { return kind_; }
        // From the value's first byte (brace, bracket, quote, first character
        // of a scalar) to one past its last; never any whitespace or comment.
        Range range() const { return {lowerBound_, upperBound_}; }

        // An object's members in text order, duplicates kept; empty otherwise.
        std::span<const Member> members() const;
        // An array's elements in text order; empty otherwise.
        std::span<const Node> elements() const;
        // A string's decoded text (escapes resolved, ill-formed UTF-8 replaced
        // by U+FFFD); empty otherwise. A scalar's text is bytes() at range().
        std::string_view string() const;

    private:
        friend struct JSONCDocument::Parser;

        // Offsets are kept in 32 bits (documents are limited to 1 GiB) so
        // that the tree of a large document stays small.
        const void* payload_ = nullptr;  // Member[], Node[] or char[], by kind
        std::uint32_t lowerBound_ = 0;
        std::uint32_t upperBound_ = 0;
        std::uint32_t count_ = 0;
        Kind kind_ = Kind::scalar;
    };

    class Member {
    public:
        // Decoded, like a string value.
        std::string_view key() const { return {key_, keySize_}; }
        // Offset of the key's opening quote.
        std::size_t keyStart() const { return keyStart_; }
        const Node& value() const { return value_; }
        // Offset of the comma after the value (after any whitespace and
        // comments); absent for a last member written without one.
        std::optional<std::size_t> comma() const {
            if (comma_ == noComma) return std::nullopt;
            return comma_;
        }

    private:
        friend struct JSONCDocument::Parser;
        static constexpr std::uint32_t noComma = UINT32_MAX;

        Node value_;
        const char* key_ = nullptr;
        std::uint32_t keySize_ = 0;
        std::uint32_t keyStart_ = 0;
        std::uint32_t comma_ = noComma;
    };

    // Where a path leads: the members of the object holding the last key, and
    // the position of the found member among them.
    struct MemberLocation {
        std::span<const Member> siblings;
        std::size_t index = 0;
        const Member& member() const { return siblings[index]; }
    };

    // The document, or nothing when the text is not acceptable JSONC (or is
    // 1 GiB or longer). Nothing says why: callers decide what an unreadable
    // document means.
    static std::optional<JSONCDocument> parse(std::string_view text);

    // The text exactly as given, a leading byte-order mark included.
    std::string_view bytes() const;
    const Node& root() const;

    // Follows the path through objects only, comparing decoded keys byte for
    // byte; among duplicate keys the last one counts. Nothing for an empty
    // path or one that does not resolve.
    std::optional<MemberLocation> member(const Path& path) const;
    // The value of the member the path names.
    std::optional<Node> value(const Path& path) const;
    // The decoded strings of the array the path names; nothing unless every
    // element is a string (an empty array gives an empty list).
    std::optional<std::vector<std::string>> strings(const Path& path) const;

    // The text with the value of the member at the path replaced by `with`,
    // inserted exactly as given (JSONC source, such as a written-out array,
    // not a bare string to be quoted). Nothing when the text does not parse,
    // the path does not resolve, or the result does not parse or has lost the
    // path.
    static std::optional<std::string> replacingValue(const Path& at, std::string_view with,
                                                     std::string_view in);
    // The text without the member at the path (every duplicate of it), whole
    // lines taken when the member stands on lines of its own. Nothing when
    // the text does not parse or the path does not resolve.
    static std::optional<std::string> removingMember(const Path& at, std::string_view from);

private:
    explicit JSONCDocument(std::shared_ptr<const Storage> storage);
    // A document over bytes it does not own, for the edits' own checks: it
    // must not outlive `text`.
    static std::optional<JSONCDocument> parseBorrowed(std::string_view text);
    static std::optional<JSONCDocument> build(std::shared_ptr<Storage> storage);
    // The byte ranges that removing member `of` of the object `in` deletes:
    // the member's own (widened to whole lines when it stands alone on them)
    // and, for a last member without a comma, the comma of the one before.
    static std::vector<Range> removal(std::size_t of, std::span<const Member> in,
                                      std::string_view bytes);

    std::shared_ptr<const Storage> storage_;
};

inline std::span<const JSONCDocument::Member> JSONCDocument::Node::members() const {
    if (kind_ != Kind::object) return {};
    return {static_cast<const Member*>(payload_), count_};
}

inline std::span<const JSONCDocument::Node> JSONCDocument::Node::elements() const {
    if (kind_ != Kind::array) return {};
    return {static_cast<const Node*>(payload_), count_};
}

inline std::string_view JSONCDocument::Node::string() const {
    if (kind_ != Kind::string) return {};
    return {static_cast<const char*>(payload_), count_};
}

}  // namespace jsonc
