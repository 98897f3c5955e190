// What one installer step did for one agent, and the small text operations
// every installer step shares to say it: the agents' titles, detail lines
// indented under an agent, the sentence a system failure becomes, and JSON
// string literals for commands the user may have to type. Plain values and
// pure functions; any thread may call them.
#pragma once
#include <array>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "base/BridgeError.h"
#include "platform/SystemError.h"

namespace BridgeInstaller {

// Every per-agent loop and message goes in this order.
inline constexpr std::array<std::string_view, 3> agentIDs = {"claude", "codex", "opencode"};

struct Outcome {
    std::vector<std::string> parts;    // short phrases, in the order things happened
    std::vector<std::string> details;  // lines under the agent's line, already indented
    bool succeeded = true;

    // "Title: part, part." and then each detail line.
    void print(std::string_view title, std::ostream& out) const;
    // Records a failed part, what the failed action printed, and what the
    // user can do by hand instead.
    void fail(std::string part, const std::optional<std::string>& output = std::nullopt,
              const std::optional<std::string>& step = std::nullopt);
};

// Free text (a program's output, an error) as detail lines: trimmed, split at
// line breaks, empty lines dropped, each line prefixed with four spaces.
std::vector<std::string> indented(std::string_view text);

// The sentence the user reads for a failure at the system's boundary: its
// description, which names the path, and a full stop.
BridgeError because(const platform::SystemError& failure);

// "Claude Code", "Codex", "OpenCode"; any other identifier as it is.
std::string title(std::string_view id);

// The text as a JSON string literal, quotes included, slashes not escaped.
std::string jsonString(std::string_view text);

}  // namespace BridgeInstaller
