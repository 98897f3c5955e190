#include "platform/Environment.h"

#include <cstdlib>

extern char** environ;

namespace platform {

Environment captureEnvironment() {
    Environment env;
    for (char** e = environ; e && *e; ++e) {
        std::string entry = *e;
        auto eq = entry.find('=');
        if (eq == std::string::npos) continue;
        env.emplace(entry.substr(0, eq), entry.substr(eq + 1));
    }
    return env;
}

namespace {
std::optional<Environment>& handedOver() {
    static std::optional<Environment> environment;
    return environment;
}
}  // namespace

void useProcessEnvironment(Environment environment) { handedOver() = std::move(environment); }

const Environment& processEnvironment() {
    static const Environment& environment = handedOver() ? *handedOver() : handedOver().emplace(captureEnvironment());
    return environment;
}

std::optional<std::string> nonEmpty(const Environment& environment, const std::string& name) {
    auto it = environment.find(name);
    if (it == environment.end() || it->second.empty()) return std::nullopt;
    return it->second;
}

std::optional<std::chrono::milliseconds> milliseconds(const Environment& environment, const std::string& name) {
    auto it = environment.find(name);
    if (it == environment.end()) return std::nullopt;
    char* end = nullptr;
    long long value = std::strtoll(it->second.c_str(), &end, 10);
    if (end == it->second.c_str() || *end != '\0' || value <= 0) return std::nullopt;
    return std::chrono::milliseconds(value);
}

}  // namespace platform
