// Whatever an agent's program prints reaches the installer's readers: UTF-8
// repair, detail lines, Claude Code's and Codex's answer parsers and the
// status report. None may crash, and what they give back must stay
// well-formed: valid UTF-8, single lines, parsable JSON.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "installer/BridgeInstaller.h"
#include "jsonc/UTF8.h"

using namespace BridgeInstaller;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const platform::Environment environment;
    static platform::LinuxCommandRunner commands(environment);
    static const System system{platform::systemFiles(), commands, platform::systemUsers(), environment};
    std::string_view bytes(reinterpret_cast<const char*>(data), size);
    std::string output;
    jsonc::utf8::appendRepaired(output, bytes);
    if (!jsonc::utf8::isWellFormed(output)) std::abort();
    if (jsonc::utf8::isWellFormed(bytes) && output != bytes) std::abort();

    for (const auto& line : indented(output)) {
        if (line.size() < 5 || line.compare(0, 4, "    ") != 0) std::abort();
        if (line.find_first_of("\n\r\v\f") != std::string::npos) std::abort();
    }

    const std::filesystem::path bridge = "/opt/studio/vantoric-studio-mcp";
    auto claude = claudeRegistration(0, output, bridge, system);
    auto codex = codexRegistration(0, output, bridge, system);
    auto missing = claudeRegistration(1, output, bridge, system);
    if (missing.kind != Registration::Kind::absent && missing.kind != Registration::Kind::unknown) std::abort();

    auto report = statusJSON({{"claude", "Claude Code", claude}, {"codex", "Codex", codex},
                              {"opencode", "OpenCode", Registration::unknown(output)}},
                             bridge);
    auto parsed = nlohmann::json::parse(report, nullptr, false);
    if (parsed.is_discarded() || parsed["agents"].size() != 3) std::abort();
    auto detail = parsed["agents"][2]["detail"].get<std::string>();
    if (output.compare(0, detail.size(), detail) != 0) std::abort();
    return 0;
}
