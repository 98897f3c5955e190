// Parses arbitrary bytes as JSONC; when they parse, checks the tree's
// invariants and applies both edits to every member path (up to a bound),
// checking that each changes exactly the bytes it must.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "../tests/unit/jsonc/JSONCChecks.h"
#include "jsonc/JSONCDocument.h"

namespace {

void require(bool condition, const char* what) {
    if (condition) return;
    std::fprintf(stderr, "fuzz_jsonc: %s\n", what);
    std::abort();
}

// Scalars and strings never deepen the tree, so they always fit where a
// value was; a container may not (255 open containers at most).
constexpr std::string_view alwaysFitting[] = {"0", "\"x\\u00e9\""};
constexpr std::string_view container = "[1, {\"k\": null} /* c */]";

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    auto document = jsonc::JSONCDocument::parse(text);
    if (!document) return 0;
    require(document->bytes() == text, "the document's bytes differ from the text");
    require(jsonccheck::brokenInvariant(*document).empty(), jsonccheck::brokenInvariant(*document).c_str());

    for (const auto& path : jsonccheck::memberPaths(*document, 24)) {
        auto found = document->member(path);

        auto removed = jsonc::JSONCDocument::removingMember(path, text);
        require(removed.has_value() == found.has_value(), "removal and lookup disagree");
        if (removed) {
            auto after = jsonc::JSONCDocument::parse(*removed);
            require(after.has_value(), "the text after a removal does not parse");
            require(!after->member(path), "the path survived its removal");
            require(*removed == jsonccheck::expectedRemoval(std::string(text), path),
                    "the removal deleted other bytes than the member's ranges");
        }

        for (std::string_view with : alwaysFitting) {
            auto replaced = jsonc::JSONCDocument::replacingValue(path, with, text);
            require(replaced.has_value() == found.has_value(), "replacing a scalar failed");
            if (replaced)
                require(*replaced == jsonccheck::splicing(text, found->member().value().range(), with),
                        "a replacement changed bytes outside the value");
        }
        auto replaced = jsonc::JSONCDocument::replacingValue(path, container, text);
        if (!found) {
            require(!replaced, "a replacement succeeded without its path");
        } else {
            std::string spliced = jsonccheck::splicing(text, found->member().value().range(), container);
            if (replaced) {
                require(*replaced == spliced, "a replacement changed bytes outside the value");
            } else {
                auto after = jsonc::JSONCDocument::parse(spliced);
                require(!after || !after->member(path), "a replacement that parses was refused");
            }
        }
    }
    return 0;
}
