// Checks shared by the JSONC property tests and the JSONC fuzz target, free
// of any test framework (a failed check is a message): the invariants every
// parsed document keeps, its member paths, and the removal rules written out
// a second time, plainly, as an oracle for removingMember.
#pragma once
#include <algorithm>
#include <cctype>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "jsonc/JSONCDocument.h"
#include "jsonc/UTF8.h"

namespace jsonccheck {

using jsonc::JSONCDocument;
using Kind = JSONCDocument::Node::Kind;
using Range = JSONCDocument::Range;

// Empty when the node and everything below it keep the invariants.
inline std::string brokenInvariant(std::string_view bytes, const JSONCDocument::Node& node) {
    Range range = node.range();
    if (range.lowerBound >= range.upperBound || range.upperBound > bytes.size())
        return "a node's range is empty or runs past the text";
    char first = bytes[range.lowerBound], last = bytes[range.upperBound - 1];
    std::size_t after = range.lowerBound + 1;  // where the next member or element may start
    switch (node.kind()) {
    case Kind::object:
        if (first != '{' || last != '}') return "an object's range is not its braces";
        for (const auto& member : node.members()) {
            if (member.keyStart() < after || bytes[member.keyStart()] != '"')
                return "a key does not start at a quote after the previous member";
            if (member.keyStart() >= member.value().range().lowerBound) return "a key starts after its value";
            if (!jsonc::utf8::isWellFormed(member.key())) return "a decoded key is not well-formed UTF-8";
            if (std::string error = brokenInvariant(bytes, member.value()); !error.empty()) return error;
            after = member.value().range().upperBound;
            if (member.comma() && (*member.comma() < after || bytes[*member.comma()] != ','))
                return "a member's comma is not a comma after its value";
            if (member.comma()) after = *member.comma() + 1;
            else if (&member != &node.members().back()) return "a member other than the last has no comma";
        }
        return after > range.upperBound - 1 ? "a member runs past its object" : "";
    case Kind::array:
        if (first != '[' || last != ']') return "an array's range is not its brackets";
        for (const auto& element : node.elements()) {
            if (element.range().lowerBound < after) return "array elements overlap or are out of order";
            if (std::string error = brokenInvariant(bytes, element); !error.empty()) return error;
            after = element.range().upperBound;
        }
        return after > range.upperBound - 1 ? "an element runs past its array" : "";
    case Kind::string:
        if (first != '"' || last != '"' || range.size() < 2) return "a string's range is not its quotes";
        return jsonc::utf8::isWellFormed(node.string()) ? "" : "a decoded string is not well-formed UTF-8";
    case Kind::scalar:
        for (unsigned char c : bytes.substr(range.lowerBound, range.size()))
            if (!std::isalnum(c) && c != '+' && c != '-' && c != '.') return "a scalar holds a byte outside its run";
    }
    return {};
}

inline std::string brokenInvariant(const JSONCDocument& document) {
    return brokenInvariant(document.bytes(), document.root());
}

// Every distinct path that names a member, through objects only, in text
// order; at most `limit` of them.
inline std::vector<JSONCDocument::Path> memberPaths(const JSONCDocument& document, std::size_t limit = SIZE_MAX) {
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

// What removingMember must give: each member the path names removed in turn,
// the last duplicate first, until the path no longer resolves. Removing one
// deletes from its key to its comma (or value), and the comma before a last
// member written without one; whole lines go when nothing but blanks shares them.
inline std::optional<std::string> expectedRemoval(std::string text, const JSONCDocument::Path& path) {
    auto document = JSONCDocument::parse(text);
    if (!document || !document->member(path)) return std::nullopt;
    while (auto found = document->member(path)) {
        const auto& member = found->member();
        std::size_t start = member.keyStart(), end = member.comma() ? *member.comma() + 1 : member.value().range().upperBound;
        std::optional<std::size_t> comma;
        if (!member.comma() && found->index > 0) comma = *found->siblings[found->index - 1].comma();
        auto blank = [&](std::size_t i) { return text[i] == ' ' || text[i] == '\t' || text[i] == '\r'; };
        std::size_t before = start, after = end;
        while (before > 0 && blank(before - 1)) --before;
        while (after < text.size() && blank(after)) ++after;
        if ((before == 0 || text[before - 1] == '\n') && (after == text.size() || text[after] == '\n'))
            start = before, end = std::min(after + 1, text.size());
        text.erase(start, end - start);
        if (comma) text.erase(*comma, 1);  // before the member's line
        if (!(document = JSONCDocument::parse(text))) return std::nullopt;
    }
    return text;
}

inline std::string splicing(std::string_view text, Range range, std::string_view with) {
    return std::string(text.substr(0, range.lowerBound)).append(with).append(text.substr(range.upperBound));
}

}  // namespace jsonccheck
