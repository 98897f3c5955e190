// A user's machine in memory for installer tests: files (MemoryFiles), the
// programs of Claude Code, Codex and OpenCode as one recording double
// (FakeAgents) answering their "mcp" subcommands in their own words, and the
// installer run against both, touching no disk and starting no process (the
// real services: tests/unit/platform; the real agents: tests/integration/installer).
#pragma once
#include <gtest/gtest.h>

#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

#include "installer/BridgeInstaller.h"

// Results are written with designated initializers naming only the fields
// that matter; the others keep their defaults on purpose.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace installertest {

namespace fs = std::filesystem;
using platform::FileKind;
using platform::SystemError;

// Files, folders and links by absolute path, links followed as the kernel
// follows them. Every write is recorded; a write can be made to fail.
class MemoryFiles final : public platform::Files {
public:
    std::vector<fs::path> written;       // every file replaced, in order
    std::map<fs::path, int> failWrites;  // errno a write of that file fails with

    fs::path put(const fs::path& path, FileKind kind, std::string bytes = {}, mode_t mode = 0644) {  // a link's bytes: its target
        createFolders(path.parent_path());
        nodes_[path] = {kind, std::move(bytes), mode};
        return path;
    }
    fs::path write(const fs::path& path, std::string bytes, mode_t mode = 0644) { return put(path, FileKind::file, bytes, mode); }
    std::optional<std::string> text(const fs::path& path) const { return read(path).bytes; }

    platform::FileContents read(const fs::path& file) const override {
        auto [path, error] = walk(file, true);
        if (!error && nodes_.at(path).kind == FileKind::folder) error = EISDIR;
        if (error) return {std::nullopt, SystemError::fromErrno(error, "Could not read " + file.string())};
        return {nodes_.at(path).bytes, std::nullopt};
    }
    std::optional<SystemError> writeAtomically(const fs::path& file, std::string_view bytes, std::optional<mode_t> mode) override {
        auto [folder, error] = walk(file.parent_path(), true);
        fs::path path = folder / file.filename();
        if (!error && nodes_.at(folder).kind != FileKind::folder) error = ENOTDIR;
        if (!error && failWrites.count(file)) error = failWrites.at(file);
        if (!error && nodes_.count(path) && nodes_[path].kind == FileKind::folder) error = EISDIR;
        if (error) return SystemError::fromErrno(error, "Could not write " + file.string());
        nodes_[path] = {FileKind::file, std::string(bytes), mode.value_or(0644)};
        written.push_back(file);
        return std::nullopt;
    }
    std::optional<SystemError> createFolders(const fs::path& folder) override {
        fs::path prefix;
        for (const auto& part : folder) {
            auto [path, error] = walk(prefix /= part, true);
            if (error == ENOENT) nodes_[path] = {FileKind::folder, {}, 0755};
            else if (error || nodes_.at(path).kind != FileKind::folder)
                return SystemError::fromErrno(error ? error : prefix == folder ? EEXIST : ENOTDIR,
                                              "Could not create the folder " + folder.string());
        }
        return std::nullopt;
    }
    std::optional<SystemError> remove(const fs::path& given) override {
        auto [path, error] = walk(given, false);
        auto next = nodes_.upper_bound(path);
        if (!error && next != nodes_.end() && next->first.parent_path() == path) error = ENOTEMPTY;
        if (error) return SystemError::fromErrno(error, "Could not remove " + given.string());
        nodes_.erase(path);
        return std::nullopt;
    }
    platform::FileStatus status(const fs::path& path) const override { return statusOf(walk(path, true)); }
    platform::FileStatus linkStatus(const fs::path& path) const override { return statusOf(walk(path, false)); }
    bool isExecutable(const fs::path& path) const override { return readable(path) && (status(path).permissions & 0111); }
    bool readable(const fs::path& path) const override { return status(path).kind == FileKind::file; }
    fs::path resolved(const fs::path& path) const override {
        auto [resolved, error] = walk(path, true);
        return error == ELOOP ? path.lexically_normal() : resolved;
    }

private:
    struct Node { FileKind kind; std::string bytes; mode_t mode; };
    // Where the path leads, and errno when it leads nowhere; what is left of
    // it after a missing component is spelled out as it is.
    std::pair<fs::path, int> walk(const fs::path& path, bool followLast) const {
        std::vector<std::string> rest;  // a stack: the next component last
        auto push = [&](const fs::path& parts) { for (auto p = parts.end(); p != parts.begin();) rest.push_back((--p)->string()); };
        push(path.relative_path());
        fs::path at = "/";
        for (int links = 0; !rest.empty();) {
            std::string part = rest.back();
            rest.pop_back();
            if (part.empty() || part == ".") continue;
            if (part == "..") { at = at.parent_path(); continue; }
            auto node = nodes_.find(at / part);
            if (node == nodes_.end()) {
                for (at /= part; !rest.empty(); rest.pop_back()) at /= rest.back();
                return {at.lexically_normal(), ENOENT};
            }
            if (node->second.kind == FileKind::link && (followLast || !rest.empty())) {
                if (++links > 40) return {path, ELOOP};
                fs::path target = node->second.bytes;
                if (target.is_absolute()) at = "/";
                push(target.relative_path());
            } else if (!rest.empty() && node->second.kind != FileKind::folder) {
                return {path, ENOTDIR};
            } else {
                at /= part;
            }
        }
        return {at, 0};
    }
    platform::FileStatus statusOf(const std::pair<fs::path, int>& walked) const {
        if (walked.second) return {walked.second == ELOOP ? FileKind::unknown : FileKind::missing, 0};
        return {nodes_.at(walked.first).kind, nodes_.at(walked.first).mode};
    }

    std::map<fs::path, Node> nodes_ = {{"/", {FileKind::folder, {}, 0755}}};
};

// Claude Code's answer to "mcp get NAME" for a stdio entry, word for word.
inline std::string claudeAnswer(const std::string& name, const std::string& command, const std::string& args) {
    return name + ":\n  Scope: User config (available in all your projects)\n  Status: \u2718 Failed to connect\n"
           "  Type: stdio\n  Command: " + command + "\n  Args:" + (args.empty() ? "" : " " + args) +
           "\n  Environment:\n\nTo remove this server, run: claude mcp remove " + name + " -s user\n";
}

// The programs of the three agents, each found at <bin>/<id>. Claude Code and
// Codex keep their servers here (name: the command's words); OpenCode writes
// its configuration file as the real one does. Every call's arguments are
// recorded, and a scripted result answers the calls whose arguments after
// "mcp" start with its prefix (the longest prefix wins).
class FakeAgents final : public platform::CommandRunner {
public:
    FakeAgents(MemoryFiles& files, fs::path openCodeFolder) : files_(files), openCodeFolder_(std::move(openCodeFolder)) {}

    std::map<std::string, std::map<std::string, std::vector<std::string>>> servers;
    std::map<std::string, std::vector<std::string>> calls;
    std::map<std::string, std::map<std::string, platform::CommandResult>> scripts;
    void script(const std::string& id, const std::string& prefix, std::string output, int status) { scripts[id][prefix] = answer(status, std::move(output)); }

    platform::CommandResult run(const fs::path& program, const std::vector<std::string>& args, double) override {
        std::string id = program.filename(), line = join(args.begin(), args.end());
        calls[id].push_back(line);
        const platform::CommandResult* scripted = nullptr;
        for (const auto& [prefix, result] : scripts[id])
            if (line.rfind("mcp " + prefix, 0) == 0) scripted = &result;
        if (scripted) return *scripted;
        auto dash = std::find(args.begin(), args.end(), "--");
        std::vector<std::string> words(dash == args.end() ? dash : dash + 1, args.end());
        std::string sub = args.at(1), name = id == "claude" && sub == "add" ? args.at(4) : args.at(2);
        if (id == "opencode") return openCodeAdd(args, name, words);
        auto& list = servers[id];
        if (sub == "get" && !list.count(name))
            return answer(1, id == "claude" ? "No MCP server named \"" + name + "\". Run `claude mcp add` to add one.\n"
                                            : "Error: No MCP server named '" + name + "' found.\n");
        if (sub == "get" && id == "claude") return answer(0, claudeAnswer(name, list[name].front(), join(list[name].begin() + 1, list[name].end())));
        if (sub == "get") {
            nlohmann::json transport = {{"type", "stdio"}, {"command", list[name].front()}, {"env", nullptr},
                                        {"args", std::vector<std::string>(list[name].begin() + 1, list[name].end())}};
            return answer(0, nlohmann::json{{"name", name}, {"enabled", true}, {"transport", transport}}.dump(2) + "\n");
        }
        if (sub == "add") list[name] = words;
        else list.erase(name);
        return answer(0, (sub == "add" ? "Added MCP server " : "Removed MCP server ") + name + "\n");
    }

private:
    static std::string join(auto begin, auto end) {
        std::string line;
        for (; begin != end; ++begin) line += (line.empty() ? "" : " ") + *begin;
        return line;
    }
    static platform::CommandResult answer(int status, std::string output) { return {.status = status, .exited = true, .head = std::move(output)}; }
    // Current OpenCode refuses --global with its help; the plain form writes
    // the global configuration, through a link if one is there.
    platform::CommandResult openCodeAdd(const std::vector<std::string>& args, const std::string& name,
                                        const std::vector<std::string>& command) {
        if (args.at(3) != "--") return answer(1, "opencode mcp add [name]\n\nadd an MCP server\n");
        fs::path file = openCodeFolder_ / "opencode.json";
        if (!files_.status(file).exists()) file = openCodeFolder_ / "opencode.jsonc";
        EXPECT_FALSE(files_.status(file).exists()) << "the double adds to new files only";
        std::string words;
        for (const auto& word : command) words += (words.empty() ? "\n        \"" : ",\n        \"") + word + "\"";
        files_.createFolders(openCodeFolder_);
        files_.writeAtomically(files_.resolved(file), "{\n  \"$schema\": \"https://opencode.ai/config.json\",\n  \"mcp\": {\n    \"" +
                                   name + "\": {\n      \"type\": \"local\",\n      \"command\": [" + words +
                                   "\n      ]\n    }\n  }\n}\n", std::nullopt);
        return answer(0, "\u2502\n\u25C6  MCP server \"" + name + "\" added to " + file.string() + "\n");
    }

    MemoryFiles& files_;
    fs::path openCodeFolder_;
};

inline const std::string skillText = "# Vantoric Studio\n\nMake videos with Studio.\n";
inline const std::string advice =
    "\nStart a new session in your agent and ask it to make a demo video with Vantoric Studio.\n"
    "The first time, Studio asks you once to allow the agent.\n";

// HOME is always set, so only "~user" paths ask for a user, and none exists.
struct NoOtherUsers final : platform::Users {
    std::optional<std::string> homeOf(const std::string&) const override { return std::nullopt; }
};

class Machine {
public:
    const fs::path root = "/m", home = root / "home", bin = root / "bin";
    const fs::path app = root / "Applications/Vantoric Studio.app", bridge = app / "Contents/MacOS/vantoric-studio-mcp";
    fs::path openCodeFolder() const { return home / ".config/opencode"; }

    MemoryFiles files;
    FakeAgents agents{files, openCodeFolder()};
    NoOtherUsers users;
    platform::Environment variables;  // besides HOME and PATH (bin only)
    double timeout = 30;
    std::optional<fs::path> studio = app;  // the located Studio bundle

    Machine() {
        files.createFolders(home);
        files.createFolders(bin);
        files.write(app / "Contents/Resources/AgentLink/vantoric-studio-skill.md", skillText);
        files.write(bridge, "#!/bin/sh\n", 0755);
    }
    void installAgent(const std::string& id) { files.write(bin / id, "", 0755); }
    BridgeInstaller::Settings settings() const { return {"vantoric-studio", true, timeout, ""}; }
    BridgeInstaller::System system() {
        environment_ = variables;
        environment_["HOME"] = home.string();
        environment_["PATH"] = bin.string();
        return {files, agents, users, environment_};
    }
    BridgeInstaller::Agent agent(const std::string& id) {
        for (auto& agent : BridgeInstaller::detect(system()))
            if (agent.id == id) return agent;
        throw std::runtime_error(id + " is not installed on this machine");
    }

    struct Result { std::vector<std::string> arguments; int status; std::string output; };
    Result run(const std::vector<std::string>& arguments, std::optional<fs::path> bridge = {}) {
        std::ostringstream out;
        int status = BridgeInstaller::run(arguments, bridge.value_or(this->bridge), studio, system(), settings(), out);
        return {arguments, status, out.str()};
    }
    // Runs the installer with each command line in turn and checks its exit
    // status and everything it printed.
    void expect(const std::vector<Result>& runs) {
        for (const auto& expected : runs) {
            auto result = run(expected.arguments);
            EXPECT_EQ(result.status, expected.status) << testing::PrintToString(expected.arguments);
            EXPECT_EQ(result.output, expected.output) << testing::PrintToString(expected.arguments);
        }
    }

private:
    platform::Environment environment_;
};

}  // namespace installertest
