// Looking up members by key path.
#include "jsonc/JSONCDocument.h"

namespace jsonc {

std::optional<JSONCDocument::MemberLocation> JSONCDocument::member(const Path& path) const {
    if (path.empty()) return std::nullopt;
    const Node* current = &root();
    MemberLocation found;
    for (const std::string& key : path) {
        if (current->kind() != Node::Kind::object) return std::nullopt;
        std::span<const Member> members = current->members();
        // From the back: of duplicate keys the last one is the one that counts.
        std::size_t index = members.size();
        while (index > 0 && members[index - 1].key() != key) --index;
        if (index == 0) return std::nullopt;
        found = {members, index - 1};
        current = &found.member().value();
    }
    return found;
}

std::optional<JSONCDocument::Node> JSONCDocument::value(const Path& path) const {
    std::optional<MemberLocation> found = member(path);
    if (!found) return std::nullopt;
    return found->member().value();
}

std::optional<std::vector<std::string>> JSONCDocument::strings(const Path& path) const {
    std::optional<Node> array = value(path);
    if (!array || array->kind() != Node::Kind::array) return std::nullopt;
    std::vector<std::string> texts;
    texts.reserve(array->elements().size());
    for (const Node& element : array->elements()) {
        if (element.kind() != Node::Kind::string) return std::nullopt;
        texts.emplace_back(element.string());
    }
    return texts;
}

}  // namespace jsonc
