// The two edits. Both splice the bytes at offsets the document recorded and
// parse the result again before handing it out, so a caller never receives
// text it could not read back. The documents made here only look at texts
// this code holds, so they borrow those bytes instead of copying them.
#include <algorithm>

#include "jsonc/JSONCDocument.h"

namespace jsonc {

namespace {

bool isBlank(std::string_view bytes) {
    return std::all_of(bytes.begin(), bytes.end(),
                       [](char c) { return c == ' ' || c == '\t' || c == '\r'; });
}

}  // namespace

std::optional<std::string> JSONCDocument::replacingValue(const Path& at, std::string_view with,
                                                         std::string_view in) {
    std::optional<JSONCDocument> document = parseBorrowed(in);
    if (!document) return std::nullopt;
    std::optional<MemberLocation> found = document->member(at);
    if (!found) return std::nullopt;
    Range old = found->member().value().range();

    std::string edited;
    edited.reserve(in.size() - old.size() + with.size());
    edited.append(in.substr(0, old.lowerBound));
    edited.append(with);
    edited.append(in.substr(old.upperBound));

    std::optional<JSONCDocument> result = parseBorrowed(edited);
    if (!result || !result->member(at)) return std::nullopt;
    return edited;
}

std::vector<JSONCDocument::Range> JSONCDocument::removal(std::size_t of, std::span<const Member> in,
                                                         std::string_view bytes) {
    const Member& member = in[of];
    std::size_t start = member.keyStart();
    std::size_t end;
    std::optional<Range> previousComma;
    if (std::optional<std::size_t> comma = member.comma()) {
        end = *comma + 1;
    } else {
        // The member before becomes the last one and gives up its comma, so
        // that no trailing comma appears that the user did not write.
        end = member.value().range().upperBound;
        if (of > 0) {
            if (std::optional<std::size_t> before = in[of - 1].comma()) previousComma = Range{*before, *before + 1};
        }
    }

    std::size_t lineStart = 0;
    if (start > 0) {
        std::size_t lineFeed = bytes.rfind('\n', start - 1);
        if (lineFeed != std::string_view::npos) lineStart = lineFeed + 1;
    }
    std::size_t lineEnd = std::min(bytes.find('\n', end), bytes.size());
    if (isBlank(bytes.substr(lineStart, start - lineStart)) && isBlank(bytes.substr(end, lineEnd - end))) {
        start = lineStart;
        end = lineEnd < bytes.size() ? lineEnd + 1 : lineEnd;
    }

    std::vector<Range> ranges{{start, end}};
    if (previousComma) ranges.push_back(*previousComma);
    return ranges;
}

std::optional<std::string> JSONCDocument::removingMember(const Path& at, std::string_view from) {
    std::optional<JSONCDocument> document = parseBorrowed(from);
    if (!document) return std::nullopt;
    std::optional<MemberLocation> found = document->member(at);
    if (!found) return std::nullopt;

    // Each pass removes the member the path finds, the last of any duplicates;
    // the next pass finds the one before it, until the path is gone.
    std::string text;
    for (;;) {
        std::string_view bytes = document->bytes();
        std::vector<Range> ranges = removal(found->index, found->siblings, bytes);
        std::stable_sort(ranges.begin(), ranges.end(),
                         [](const Range& a, const Range& b) { return a.lowerBound < b.lowerBound; });
        std::vector<Range> merged;
        for (const Range& range : ranges) {
            if (!merged.empty() && range.lowerBound <= merged.back().upperBound)
                merged.back().upperBound = std::max(merged.back().upperBound, range.upperBound);
            else
                merged.push_back(range);
        }

        // Keeping what lies between the ranges is deleting the ranges.
        std::string edited;
        std::size_t removed = 0;
        for (const Range& range : merged) removed += range.size();
        edited.reserve(bytes.size() - removed);
        std::size_t kept = 0;
        for (const Range& range : merged) {
            edited.append(bytes.substr(kept, range.lowerBound - kept));
            kept = range.upperBound;
        }
        edited.append(bytes.substr(kept));

        // The old document borrows the old text: drop it before the text.
        document.reset();
        text = std::move(edited);
        document = parseBorrowed(text);
        if (!document) return std::nullopt;
        found = document->member(at);
        if (!found) return text;
    }
}

}  // namespace jsonc
