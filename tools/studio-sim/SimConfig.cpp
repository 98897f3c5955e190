#include "SimConfig.h"

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string>

namespace studiosim {
namespace {

// The settings file: NAME=VALUE lines in
// $XDG_CONFIG_HOME/vantoric-studio-sim/settings. A bridge launches Studio
// with the session's variables only, so a copy it launches learns its test
// settings from there; the environment still wins.
const std::map<std::string, std::string>& settingsFile() {
    static const std::map<std::string, std::string> settings = [] {
        std::map<std::string, std::string> read;
        const char* config = std::getenv("XDG_CONFIG_HOME");
        if (!config || !*config) return read;
        std::ifstream in(std::string(config) + "/vantoric-studio-sim/settings");
        std::string line;
        while (std::getline(in, line)) {
            auto equals = line.find('=');
            if (equals != std::string::npos) read[line.substr(0, equals)] = line.substr(equals + 1);
        }
        return read;
    }();
    return settings;
}

std::optional<std::string> env(const char* name) {
    if (const char* value = std::getenv(name)) return std::string(value);
    auto setting = settingsFile().find(name);
    if (setting != settingsFile().end()) return setting->second;
    return std::nullopt;
}

// A set variable whose value is not empty; "" counts as unset for every
// control except the refusal text, where empty has its own meaning.
std::optional<std::string> nonEmpty(const char* name) {
    auto value = env(name);
    if (!value || value->empty()) return std::nullopt;
    return value;
}

template <typename Int>
std::optional<Int> integer(SimConfig& config, const char* name, Int low, Int high) {
    auto text = nonEmpty(name);
    if (!text) return std::nullopt;
    Int value{};
    auto [end, ec] = std::from_chars(text->data(), text->data() + text->size(), value);
    if (ec != std::errc() || end != text->data() + text->size() || value < low || value > high) {
        config.problems[name] = "not a whole number from " + std::to_string(low) + " to " + std::to_string(high);
        return std::nullopt;
    }
    return value;
}

std::optional<double> seconds(SimConfig& config, const char* name) {
    auto text = nonEmpty(name);
    if (!text) return std::nullopt;
    char* end = nullptr;
    double value = std::strtod(text->c_str(), &end);
    if (end != text->c_str() + text->size() || !std::isfinite(value) || value < 0 || value > 1e6) {
        config.problems[name] = "not a number of seconds";
        return std::nullopt;
    }
    return value;
}

std::chrono::milliseconds millis(double secondsValue) {
    return std::chrono::milliseconds(static_cast<long long>(std::llround(secondsValue * 1000.0)));
}

bool flag(SimConfig& config, const char* name) {
    auto text = nonEmpty(name);
    if (!text || *text == "0") return false;
    if (*text != "1") config.problems[name] = "use 1 or 0";
    return *text == "1";
}

}  // namespace

SimConfig readConfig() {
    SimConfig c;
    c.identifier = nonEmpty("STUDIO_SIM_IDENTIFIER");
    c.home = nonEmpty("STUDIO_SIM_HOME");
    if (auto port = integer<unsigned>(c, "STUDIO_SIM_HTTP_PORT", 0, 65535)) c.httpPort = static_cast<std::uint16_t>(*port);
    c.logPath = nonEmpty("STUDIO_SIM_LOG");

    c.refuse = env("STUDIO_SIM_REFUSE");
    if (auto ms = integer<long long>(c, "STUDIO_SIM_ASK_DELAY_MS", 0, 86'400'000)) c.askDelay = std::chrono::milliseconds(*ms);
    if (auto kind = nonEmpty("STUDIO_SIM_MALFORMED")) {
        if (*kind == "version2") c.malformed = Malformed::version2;
        else if (*kind == "short-token") c.malformed = Malformed::shortToken;
        else if (*kind == "localhost") c.malformed = Malformed::localhost;
        else if (*kind == "trailing-slash") c.malformed = Malformed::trailingSlash;
        else if (*kind == "files-slash") c.malformed = Malformed::filesSlash;
        else if (*kind == "bad-uuid") c.malformed = Malformed::badUuid;
        else c.problems["STUDIO_SIM_MALFORMED"] = "unknown kind " + *kind;
    }
    c.closeAfterReply = flag(c, "STUDIO_SIM_CLOSE_AFTER_REPLY");
    c.byteAfterReply = flag(c, "STUDIO_SIM_BYTE_AFTER_REPLY");
    c.neverAnswer = flag(c, "STUDIO_SIM_NEVER_ANSWER");
    c.splitReply = flag(c, "STUDIO_SIM_SPLIT_REPLY");
    c.replyTrailer = env("STUDIO_SIM_REPLY_TRAILER").value_or("");

    c.mcpStatus = integer<unsigned>(c, "STUDIO_SIM_HTTP_STATUS", 100, 599);
    c.mcpBody = env("STUDIO_SIM_MCP_BODY");
    if (auto ms = integer<long long>(c, "STUDIO_SIM_CALL_DELAY_MS", 0, 86'400'000)) c.callDelay = std::chrono::milliseconds(*ms);
    c.slowTool = nonEmpty("STUDIO_SIM_SLOW_TOOL");
    if (auto ms = integer<long long>(c, "STUDIO_SIM_SLOW_TOOL_MS", 0, 86'400'000)) c.slowToolDelay = std::chrono::milliseconds(*ms);
    c.uploadStatus = integer<unsigned>(c, "STUDIO_SIM_UPLOAD_STATUS", 100, 599);
    c.uploadError = nonEmpty("STUDIO_SIM_UPLOAD_ERROR");
    c.downloadStatus = integer<unsigned>(c, "STUDIO_SIM_DOWNLOAD_STATUS", 100, 599);
    c.downloadRate = integer<std::uint64_t>(c, "STUDIO_SIM_DOWNLOAD_RATE", 1024, std::uint64_t(1) << 40);

    if (auto s = seconds(c, "STUDIO_SIM_MAX_WAIT")) c.maxWait = millis(*s);
    if (auto bytes = integer<std::uint64_t>(c, "STUDIO_SIM_EXPORT_BYTES", 64, std::uint64_t(1) << 40)) c.exportBytes = *bytes;
    if (auto s = seconds(c, "STUDIO_SIM_EXPORT_SECONDS")) c.exportDuration = millis(*s);
    c.exportFail = flag(c, "STUDIO_SIM_EXPORT_FAIL");

    if (auto s = seconds(c, "STUDIO_SIM_IDLE_EXIT_SECONDS")) c.idleExit = millis(*s);
    return c;
}

}  // namespace studiosim
