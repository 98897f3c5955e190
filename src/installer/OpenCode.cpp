#include "installer/OpenCode.h"

#include <algorithm>
#include <map>

#include "installer/Text.h"
#include "jsonc/JSONCDocument.h"

namespace fs = std::filesystem;

namespace BridgeInstaller {
namespace {

constexpr std::string_view withoutCommand = "a server without a command";
constexpr std::string_view keySeparator = " \u203A ";

std::vector<std::vector<std::string>> keyPaths(const std::string& serverName) {
    return {{"mcp", "servers", serverName}, {"mcp", serverName}};
}

std::string describe(const std::optional<std::vector<std::string>>& command) {
    return command ? text::joined(*command, " ") : std::string(withoutCommand);
}

// Entries grouped by their file, the groups ordered by the file's path and
// each keeping scan order.
std::map<std::string, std::vector<OpenCodeEntry>> byFile(const std::vector<OpenCodeEntry>& entries) {
    std::map<std::string, std::vector<OpenCodeEntry>> groups;
    for (const auto& entry : entries) groups[entry.file.string()].push_back(entry);
    return groups;
}

// OpenCode's own add command. Current OpenCode refuses "--global" and prints
// its help, while the plain form writes the global configuration anyway when
// run outside a project (the runner starts it in the temporary folder); so
// the plain form is the fallback, and the files say whether it worked.
// OpenCode gives no sign of its own for an unknown option, so any failure it
// exits with counts as a refusal. One that hung, was killed or never started
// is not retried: the plain form would fare no better, and the first answer
// is the one that says why.
Answer addToOpenCode(const Agent& agent, const fs::path& bridge, const Settings& settings, const System& system) {
    auto added = add(agent, bridge, settings, system);
    if (added.status == 0 || !added.exited) return added;
    auto plain = ask(system, agent.executable, {"mcp", "add", settings.serverName, "--", bridge.string()}, settings.timeout);
    if (plain.status != 0) plain.output = added.output + "\nWithout --global:\n" + plain.output;
    return plain;
}

}  // namespace

Registration OpenCodeScan::registration(const fs::path& bridge, const System& system) const {
    if (!unreadable.empty()) return Registration::unknown(unreadable.front().string() + " could not be read as JSON.");
    if (entries.empty()) return Registration::absent();
    for (const auto& entry : entries) {
        if (!launches(entry.command, bridge, system)) return Registration::other(describe(entry.command));
    }
    return Registration::current();
}

std::vector<fs::path> openCodeConfigs(const Agent& agent, const platform::Files& files) {
    std::vector<fs::path> found;
    if (!agent.configFolder) return found;
    for (const char* name : {"opencode.json", "opencode.jsonc"}) {
        fs::path file = *agent.configFolder / name;
        // A link that leads nowhere is a file that does not exist yet, as it
        // is for OpenCode, which writes through it. Anything else in the
        // file's place counts, and is unreadable when it cannot be read (a
        // folder, a loop of links).
        if (!files.linkStatus(file).exists()) continue;
        if (files.status(file).kind == platform::FileKind::missing) continue;
        found.push_back(file);
    }
    return found;
}

std::optional<std::vector<OpenCodeEntry>> openCodeEntries(std::string_view text, const fs::path& file,
                                                          const std::string& serverName) {
    auto document = jsonc::JSONCDocument::parse(text);
    if (!document) return std::nullopt;
    std::vector<OpenCodeEntry> entries;
    for (auto& path : keyPaths(serverName)) {
        if (!document->member(path)) continue;
        auto commandPath = path;
        commandPath.push_back("command");
        entries.push_back({file, path, document->strings(commandPath)});
    }
    return entries;
}

OpenCodeScan openCodeScan(const Agent& agent, const Settings& settings, const System& system) {
    OpenCodeScan scan;
    for (const auto& file : openCodeConfigs(agent, system.files)) {
        auto contents = system.files.read(file);
        if (!contents.bytes) {
            scan.unreadable.push_back(file);
            continue;
        }
        // The bytes as they are: the parser keeps ill-formed UTF-8 outside
        // strings as it stands and repairs it inside decoded strings.
        const std::string& text = *contents.bytes;
        if (auto entries = openCodeEntries(text, file, settings.serverName)) {
            scan.entries.insert(scan.entries.end(), entries->begin(), entries->end());
        } else if (text.find("\"" + settings.serverName + "\"") != std::string::npos) {
            // Broken, and about us: guessing could lose the user's entry.
            scan.unreadable.push_back(file);
        }
    }
    return scan;
}

std::optional<BridgeError> editConfig(const fs::path& file, const ConfigEdit& edit, platform::Files& files) {
    // The link's target is what changes; the link stays a link.
    fs::path target = files.resolved(file);
    auto contents = files.read(target);
    if (!contents.bytes) return BridgeError("It could not be read.");
    // Not decoded: every byte outside the edited entry is the user's and
    // stays as it is, even one that is not UTF-8.
    auto edited = edit(*contents.bytes);
    if (!edited) return BridgeError("It could not be edited safely (Studio edits only JSON with comments it can read back).");
    std::optional<mode_t> mode;
    if (auto status = files.status(target); status.exists()) mode = status.permissions;
    if (auto failure = files.writeAtomically(target, *edited, mode)) return because(*failure);
    return std::nullopt;
}

namespace {

// One write of a file for all of its entries: each edit applies to the text
// the previous one left; one that fails leaves the file untouched.
template <typename Edit>
std::optional<BridgeError> editEntries(const fs::path& file, const std::vector<OpenCodeEntry>& entries,
                                       platform::Files& files, Edit edit) {
    return editConfig(file, [&](const std::string& original) -> std::optional<std::string> {
        std::optional<std::string> text = original;
        for (const auto& entry : entries) {
            text = edit(entry, *text);
            if (!text) return std::nullopt;
        }
        return text;
    }, files);
}

}  // namespace

Outcome installOpenCode(const Agent& agent, const fs::path& bridge, const Settings& settings, const System& system) {
    Outcome outcome;
    auto scan = openCodeScan(agent, settings, system);
    std::string commandText = "[" + jsonString(bridge.string()) + "]";

    if (!scan.unreadable.empty()) {
        for (const auto& file : scan.unreadable) {
            outcome.fail("could not read " + file.string(), std::nullopt,
                         "Check by hand that its \"" + settings.serverName + "\" MCP server runs " + commandText + ".");
        }
        return outcome;
    }

    if (scan.entries.empty()) {
        auto added = addToOpenCode(agent, bridge, settings, system);
        if (added.status != 0) {
            outcome.fail("could not add Studio's MCP server", added.output);
        } else if (openCodeScan(agent, settings, system).registration(bridge, system) == Registration::current()) {
            outcome.parts.push_back("Studio's MCP server added");
        } else {
            outcome.fail("OpenCode said it added Studio's MCP server, but its global config does not show it",
                         added.output);
        }
        return outcome;
    }

    std::vector<OpenCodeEntry> stale;
    for (const auto& entry : scan.entries) {
        if (!launches(entry.command, bridge, system)) stale.push_back(entry);
    }
    if (stale.empty()) {
        outcome.parts.push_back("Studio's MCP server already set up");
        return outcome;
    }

    for (const auto& group : byFile(stale)) {
        const auto& file = group.first;
        const auto& entries = group.second;
        const auto& first = entries.front();
        auto failure = editEntries(first.file, entries, system.files, [&](const OpenCodeEntry& entry, const std::string& text) {
            auto commandPath = entry.path;
            commandPath.push_back("command");
            return jsonc::JSONCDocument::replacingValue(commandPath, commandText, text);
        });
        if (!failure) {
            outcome.parts.push_back("Studio's MCP server updated (it ran " + describe(first.command) + ")");
        } else {
            outcome.fail("could not update " + file, failure->message(),
                         "Set the \"command\" of " + text::joined(first.path, keySeparator) + " there to " +
                             commandText + ".");
        }
    }
    return outcome;
}

Outcome uninstallOpenCode(const Agent& agent, const fs::path& bridge, const Settings& settings, const System& system) {
    Outcome outcome;
    auto scan = openCodeScan(agent, settings, system);
    for (const auto& file : scan.unreadable) {
        outcome.parts.push_back("could not read " + file.string());
        outcome.details.push_back("    Remove \"" + settings.serverName + "\" from its \"mcp\" section by hand.");
        outcome.succeeded = false;
    }
    if (scan.entries.empty()) {
        if (scan.unreadable.empty()) outcome.parts.push_back("no MCP server to remove");
        return outcome;
    }
    for (const auto& group : byFile(scan.entries)) {
        const auto& file = group.first;
        const auto& entries = group.second;
        const auto& first = entries.front();
        auto failure = editEntries(first.file, entries, system.files, [](const OpenCodeEntry& entry, const std::string& text) {
            return jsonc::JSONCDocument::removingMember(entry.path, text);
        });
        if (!failure) {
            outcome.parts.push_back("MCP server removed");
        } else {
            std::vector<std::string> holder(first.path.begin(), first.path.end() - 1);
            outcome.fail("could not edit " + file, failure->message(),
                         "Remove \"" + settings.serverName + "\" from " + text::joined(holder, keySeparator) +
                             " there by hand.");
        }
    }
    return outcome;
}

}  // namespace BridgeInstaller
