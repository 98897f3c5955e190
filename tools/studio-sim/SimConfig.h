// Everything the simulator can be told, read once from the environment at
// start-up into a plain value. The STUDIO_SIM_* variables are the test
// controls documented in README.md; nothing else reads the environment later,
// so a running simulator behaves the same from start to exit. Built on the
// main thread before the event loop runs; read-only afterwards.
#pragma once
#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace studiosim {

// How the hand-over reply is deliberately spoiled (STUDIO_SIM_MALFORMED).
enum class Malformed { none, version2, shortToken, localhost, trailingSlash, filesSlash, badUuid };

struct SimConfig {
    // Identity and places.
    std::optional<std::string> identifier;  // STUDIO_SIM_IDENTIFIER
    std::optional<std::string> home;        // STUDIO_SIM_HOME
    std::uint16_t httpPort = 0;             // STUDIO_SIM_HTTP_PORT, 0 = ephemeral
    std::optional<std::string> logPath;     // STUDIO_SIM_LOG

    // The hand-over.
    std::optional<std::string> refuse;  // STUDIO_SIM_REFUSE (empty text: refusal without "error")
    std::chrono::milliseconds askDelay{0};
    Malformed malformed = Malformed::none;
    bool closeAfterReply = false;
    bool byteAfterReply = false;
    bool neverAnswer = false;
    bool splitReply = false;
    std::string replyTrailer;  // bytes written right after the reply line, same write

    // HTTP.
    std::optional<unsigned> mcpStatus;       // STUDIO_SIM_HTTP_STATUS
    std::optional<std::string> mcpBody;      // STUDIO_SIM_MCP_BODY
    std::chrono::milliseconds callDelay{0};  // STUDIO_SIM_CALL_DELAY_MS
    std::optional<std::string> slowTool;     // STUDIO_SIM_SLOW_TOOL
    std::chrono::milliseconds slowToolDelay{5000};
    std::optional<unsigned> uploadStatus;      // STUDIO_SIM_UPLOAD_STATUS
    std::optional<std::string> uploadError;    // STUDIO_SIM_UPLOAD_ERROR
    std::optional<unsigned> downloadStatus;    // STUDIO_SIM_DOWNLOAD_STATUS
    std::optional<std::uint64_t> downloadRate;  // STUDIO_SIM_DOWNLOAD_RATE, bytes a second

    // The project model.
    std::chrono::milliseconds maxWait{2000};  // STUDIO_SIM_MAX_WAIT (seconds)
    std::uint64_t exportBytes = 1 << 20;      // STUDIO_SIM_EXPORT_BYTES
    std::chrono::milliseconds exportDuration{1000};  // STUDIO_SIM_EXPORT_SECONDS
    bool exportFail = false;

    // Lifetime.
    std::optional<std::chrono::milliseconds> idleExit;  // STUDIO_SIM_IDLE_EXIT_SECONDS

    // Unknown or unreadable values are reported here (variable -> reason) and
    // the default is kept, so a typo in a test shows up in the log instead of
    // silently changing nothing.
    std::map<std::string, std::string> problems;
};

// Reads the process environment.
SimConfig readConfig();

}  // namespace studiosim
