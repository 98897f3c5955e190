#include "installer/Outcome.h"

#include <nlohmann/json.hpp>

#include "installer/Text.h"

namespace BridgeInstaller {

void Outcome::print(std::string_view title, std::ostream& out) const {
    out << title << ": ";
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (i) out << ", ";
        out << parts[i];
    }
    out << ".\n";
    for (const auto& line : details) out << line << '\n';
}

void Outcome::fail(std::string part, const std::optional<std::string>& output, const std::optional<std::string>& step) {
    parts.push_back(std::move(part));
    succeeded = false;
    if (output) {
        for (auto& line : indented(*output)) details.push_back(std::move(line));
    }
    if (step) details.push_back("    " + *step);
}

std::vector<std::string> indented(std::string_view text) {
    std::vector<std::string> result;
    for (auto& line : text::lines(text::trimmed(text, true))) result.push_back("    " + line);
    return result;
}

BridgeError because(const platform::SystemError& failure) { return BridgeError(failure.description + "."); }

std::string title(std::string_view id) {
    if (id == "claude") return "Claude Code";
    if (id == "codex") return "Codex";
    if (id == "opencode") return "OpenCode";
    return std::string(id);
}

std::string jsonString(std::string_view text) {
    try {
        // The writer escapes quotes, backslashes and control characters and
        // leaves slashes alone, which keeps paths readable in suggestions.
        return nlohmann::json(std::string(text)).dump();
    } catch (const nlohmann::json::exception&) {
        return "\"" + std::string(text) + "\"";
    }
}

}  // namespace BridgeInstaller
