#include "peer/URL.h"

#include <cctype>

#include "platform/PercentEncoding.h"

namespace peer {

namespace {

bool isHex(char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; }

bool allowedInURL(unsigned char c) {
    static const std::string_view other = ":/?#[]@!$&'()*+,;=%";
    return platform::isUnreserved(c) || other.find(static_cast<char>(c)) != std::string_view::npos;
}

}  // namespace

std::optional<URL> URL::parse(std::string_view text) {
    if (text.empty()) return std::nullopt;
    for (size_t i = 0; i < text.size(); ++i) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        if (!allowedInURL(c)) return std::nullopt;
        if (c == '%' && (i + 2 >= text.size() || !isHex(text[i + 1]) || !isHex(text[i + 2]))) return std::nullopt;
    }

    URL url;
    std::string_view rest = text;
    // scheme = ALPHA *( ALPHA / DIGIT / "+" / "-" / "." ), then ":".
    size_t colon = rest.find(':');
    if (colon != std::string_view::npos && colon > 0 && std::isalpha(static_cast<unsigned char>(rest[0]))) {
        bool scheme = true;
        for (size_t i = 0; i < colon; ++i) {
            unsigned char c = static_cast<unsigned char>(rest[i]);
            if (!(std::isalnum(c) || c == '+' || c == '-' || c == '.')) scheme = false;
        }
        if (scheme) {
            url.scheme = std::string(rest.substr(0, colon));
            rest.remove_prefix(colon + 1);
        }
    }
    if (url.scheme.empty()) return std::nullopt;

    if (rest.substr(0, 2) == "//") {
        rest.remove_prefix(2);
        size_t end = rest.find_first_of("/?#");
        std::string_view authority = rest.substr(0, end);
        rest = end == std::string_view::npos ? std::string_view() : rest.substr(end);

        size_t at = authority.rfind('@');
        if (at != std::string_view::npos) {
            std::string_view info = authority.substr(0, at);
            authority.remove_prefix(at + 1);
            size_t split = info.find(':');
            url.user = std::string(info.substr(0, split));
            if (split != std::string_view::npos) url.password = std::string(info.substr(split + 1));
        }
        std::string_view host = authority;
        std::optional<std::string_view> port;
        if (!authority.empty() && authority[0] == '[') {
            size_t close = authority.find(']');
            if (close == std::string_view::npos) return std::nullopt;
            host = authority.substr(0, close + 1);
            std::string_view after = authority.substr(close + 1);
            if (!after.empty()) {
                if (after[0] != ':') return std::nullopt;
                port = after.substr(1);
            }
        } else {
            size_t split = authority.rfind(':');
            if (split != std::string_view::npos) {
                host = authority.substr(0, split);
                port = authority.substr(split + 1);
            }
        }
        if (host.find_first_of("[]") != std::string_view::npos && (host.front() != '[' || host.back() != ']'))
            return std::nullopt;
        // A colon belongs to the port; a name may not hold one.
        if (!host.empty() && host.front() != '[' && host.find(':') != std::string_view::npos) return std::nullopt;
        url.host = std::string(host);
        if (port && !port->empty()) {
            unsigned value = 0;
            for (char c : *port) {
                if (!std::isdigit(static_cast<unsigned char>(c))) return std::nullopt;
                value = value * 10 + static_cast<unsigned>(c - '0');
                if (value > 65535) return std::nullopt;
            }
            url.port = static_cast<uint16_t>(value);
        }
    }

    size_t hash = rest.find('#');
    if (hash != std::string_view::npos) {
        url.fragment = std::string(rest.substr(hash + 1));
        rest = rest.substr(0, hash);
    }
    size_t question = rest.find('?');
    if (question != std::string_view::npos) {
        url.query = std::string(rest.substr(question + 1));
        rest = rest.substr(0, question);
    }
    if (rest.find_first_of("[]") != std::string_view::npos) return std::nullopt;
    url.path = std::string(rest);
    return url;
}

std::string URL::authority() const {
    std::string text = host.value_or("");
    if (port) text += ":" + std::to_string(*port);
    return text;
}

std::string URL::absoluteString() const {
    std::string text = scheme + ":";
    if (host) {
        text += "//";
        if (user) {
            text += *user;
            if (password) text += ":" + *password;
            text += "@";
        }
        text += authority();
    }
    text += path;
    if (query) text += "?" + *query;
    if (fragment) text += "#" + *fragment;
    return text;
}

std::string URL::target() const {
    std::string text = path.empty() ? "/" : path;
    if (query) text += "?" + *query;
    return text;
}

URL URL::appendingPathComponent(std::string_view component) const {
    URL next = *this;
    if (next.path.empty() || next.path.back() != '/') next.path.push_back('/');
    next.path += platform::percentEncode(component, "!$'()*,;:@");
    return next;
}

std::string percentEncodeQueryValue(std::string_view value) { return platform::percentEncode(value, "!$'()*,;:@/?"); }

}  // namespace peer
