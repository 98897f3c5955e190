// Checks shared by the JSONC property tests and the JSONC fuzz target: the
// structural invariants every parsed document must keep, every member path
// of a document, and the removal rules written out a second time, plainly,
// as an oracle for removingMember.
// Header-only and free of any test framework: a failed check is a message.
#pragma once
#include <algorithm>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "jsonc/JSONCDocument.h"
#include "jsonc/UTF8.h"

namespace jsonccheck {

using Kind = JSONCDocument::Node::Kind;
using Range = JSONCDocument::Range;

// Empty when the node and everything below it keep the invariants.
inline std::string brokenInvariant(std::string_view bytes, const JSONCDocument::Node& node) {
    Range range = node.range();
    if (range.lowerBound >= range.upperBound || range.upperBound > bytes.size())
        return "a node's range is empty or runs past the text";
    char first = bytes[range.lowerBound], last = bytes[range.upperBound - 1];
    switch (node.kind()) {
    case Kind::object: {
        if (first != '{' || last != '}') return "an object's range is not its braces";
        std::size_t after = range.lowerBound + 1;
        for (const auto& member : node.members()) {
            if (member.keyStart() < after || bytes[member.keyStart()] != '"')
                return "a key does not start at a quote after the previous member";
            if (member.keyStart() >= member.value().range().lowerBound) return "a key starts after its value";
            if (!utf8::isWellFormed(member.key())) return "a decoded key is not well-formed UTF-8";
            if (std::string error = brokenInvariant(bytes, member.value()); !error.empty()) return error;
            after = member.value().range().upperBound;
            if (member.comma()) {
                if (*member.comma() < after || bytes[*member.comma()] != ',')
                    return "a member's comma is not a comma after its value";
                after = *member.comma() + 1;
            } else if (&member != &node.members().back()) {
                return "a member other than the last has no comma";
            }
        }
        if (after > range.upperBound - 1) return "a member runs past its object";
        break;
    }
    case Kind::array: {
        if (first != '[' || last != ']') return "an array's range is not its brackets";
        std::size_t after = range.lowerBound + 1;
        for (const auto& element : node.elements()) {
            if (element.range().lowerBound < after) return "array elements overlap or are out of order";
            if (std::string error = brokenInvariant(bytes, element); !error.empty()) return error;
            after = element.range().upperBound;
        }
        if (after > range.upperBound - 1) return "an element runs past its array";
        break;
    }
    case Kind::string:
        if (first != '"' || last != '"' || range.size() < 2) return "a string's range is not its quotes";
        if (!utf8::isWellFormed(node.string())) return "a decoded string is not well-formed UTF-8";
        break;
    case Kind::scalar:
        for (std::size_t i = range.lowerBound; i < range.upperBound; ++i) {
            char c = bytes[i];
            bool alnum = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
            if (!alnum && c != '+' && c != '-' && c != '.') return "a scalar holds a byte outside its run";
        }
        break;
    }
    return {};
}

inline std::string brokenInvariant(const JSONCDocument& document) {
    return brokenInvariant(document.bytes(), document.root());
}

// Every distinct path that names a member, through objects only, in text
// order; at most `limit` of them.
inline std::vector<JSONCDocument::Path> memberPaths(const JSONCDocument& document,
                                                     std::size_t limit = SIZE_MAX) {
    std::vector<JSONCDocument::Path> paths;
    std::set<JSONCDocument::Path> seen;
    JSONCDocument::Path path;
    auto visit = [&](auto& self, const JSONCDocument::Node& node) -> void {
        for (const auto& member : node.members()) {
            if (paths.size() >= limit) return;
            path.emplace_back(member.key());
            if (seen.insert(path).second) paths.push_back(path);
            self(self, member.value());
            path.pop_back();
        }
    };
    visit(visit, document.root());
    return paths;
}

inline std::string deleting(std::string_view text, std::vector<Range> ranges) {
    std::sort(ranges.begin(), ranges.end(),
              [](const Range& a, const Range& b) { return a.lowerBound < b.lowerBound; });
    std::vector<bool> gone(text.size(), false);
    for (const Range& range : ranges)
        for (std::size_t i = range.lowerBound; i < range.upperBound; ++i) gone[i] = true;
    std::string kept;
    for (std::size_t i = 0; i < text.size(); ++i)
        if (!gone[i]) kept += text[i];
    return kept;
}

// The ranges removing the member at the path deletes, by the rules: the key
// to the member's comma (or value), the comma before a last member written
// without one, whole lines when nothing but blanks shares them.
inline std::vector<Range> expectedRemovalRanges(const JSONCDocument& document,
                                                const JSONCDocument::Path& path) {
    auto found = document.member(path);
    std::string_view bytes = document.bytes();
    const auto& member = found->member();
    std::vector<Range> ranges;
    std::size_t start = member.keyStart();
    std::size_t end = member.comma() ? *member.comma() + 1 : member.value().range().upperBound;
    if (!member.comma() && found->index > 0) {
        std::size_t comma = *found->siblings[found->index - 1].comma();
        ranges.push_back({comma, comma + 1});
    }
    auto blank = [&](std::size_t i) { return bytes[i] == ' ' || bytes[i] == '\t' || bytes[i] == '\r'; };
    std::size_t before = start;
    while (before > 0 && blank(before - 1)) --before;
    std::size_t after = end;
    while (after < bytes.size() && blank(after)) ++after;
    bool lineBefore = before == 0 || bytes[before - 1] == '\n';
    bool lineAfter = after == bytes.size() || bytes[after] == '\n';
    if (lineBefore && lineAfter) {
        start = before;
        end = after == bytes.size() ? after : after + 1;
    }
    ranges.push_back({start, end});
    return ranges;
}

// What removingMember must give: each member the path names removed in turn,
// the last duplicate first, until the path no longer resolves.
inline std::optional<std::string> expectedRemoval(std::string text, const JSONCDocument::Path& path) {
    auto document = JSONCDocument::parse(text);
    if (!document || !document->member(path)) return std::nullopt;
    while (document->member(path)) {
        text = deleting(text, expectedRemovalRanges(*document, path));
        document = JSONCDocument::parse(text);
        if (!document) return std::nullopt;
    }
    return text;
}

inline std::string splicing(std::string_view text, Range range, std::string_view with) {
    std::string spliced(text.substr(0, range.lowerBound));
    spliced += with;
    spliced += text.substr(range.upperBound);
    return spliced;
}

}  // namespace jsonccheck
