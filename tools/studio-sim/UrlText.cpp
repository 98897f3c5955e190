#include "UrlText.h"

namespace studiosim {
namespace {

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

std::optional<std::string> percentDecode(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out.push_back(text[i]);
            continue;
        }
        if (i + 2 >= text.size()) return std::nullopt;
        int high = hexValue(text[i + 1]), low = hexValue(text[i + 2]);
        if (high < 0 || low < 0) return std::nullopt;
        out.push_back(static_cast<char>(high * 16 + low));
        i += 2;
    }
    return out;
}

std::optional<std::vector<std::pair<std::string, std::string>>> parseQuery(std::string_view query) {
    std::vector<std::pair<std::string, std::string>> items;
    while (!query.empty()) {
        auto amp = query.find('&');
        std::string_view item = query.substr(0, amp);
        query = amp == std::string_view::npos ? std::string_view() : query.substr(amp + 1);
        if (item.empty()) continue;
        auto eq = item.find('=');
        auto name = percentDecode(item.substr(0, eq));
        auto value = percentDecode(eq == std::string_view::npos ? std::string_view() : item.substr(eq + 1));
        if (!name || !value) return std::nullopt;
        items.emplace_back(std::move(*name), std::move(*value));
    }
    return items;
}

std::optional<std::string> queryValue(const std::vector<std::pair<std::string, std::string>>& items, std::string_view name) {
    for (auto& [key, value] : items)
        if (key == name) return value;
    return std::nullopt;
}

std::optional<std::filesystem::path> localPath(std::string_view text) {
    if (text.starts_with("/")) return std::filesystem::path(std::string(text));
    std::string_view rest;
    if (text.starts_with("file:///")) rest = text.substr(7);
    else if (text.starts_with("file://localhost/")) rest = text.substr(16);
    else return std::nullopt;
    auto decoded = percentDecode(rest);
    if (!decoded || decoded->find('\0') != std::string::npos) return std::nullopt;
    return std::filesystem::path(*decoded);
}

}  // namespace studiosim
