// The process environment as a plain map, captured once at start and passed
// explicitly to whatever reads it, so tests can hand in any environment.
#pragma once
#include <chrono>
#include <map>
#include <optional>
#include <string>

namespace platform {

using Environment = std::map<std::string, std::string>;

// The environment of this process, as it is now.
Environment captureEnvironment();

// The process-wide services (the session bus, the launcher) read the one
// capture main makes, handed over before their first use. A process that
// hands none over (a benchmark) gets a capture made at that first use.
void useProcessEnvironment(Environment environment);
const Environment& processEnvironment();

// The value of a variable that is set and not empty.
std::optional<std::string> nonEmpty(const Environment& environment, const std::string& name);

// A variable holding a positive whole number of milliseconds; anything else
// counts as unset.
std::optional<std::chrono::milliseconds> milliseconds(const Environment& environment, const std::string& name);

}  // namespace platform
