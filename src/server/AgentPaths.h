// Paths the agent gives, as the bridge understands them: a leading "~" is
// the home folder (or "~user" that user's), a path beginning with "/" is
// absolute, any other is relative to the bridge's working directory, and the
// result is standardised (no "." or ".." components, no trailing "/"). The
// working directory and the home folder are fixed when the bridge starts.
// Resolving is pure apart from looking up another user's home folder;
// existingFile touches the disk and may block. Any thread.
#pragma once
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Environment.h"
#include "platform/Files.h"
#include "platform/Users.h"

namespace server {

class AgentPaths {
public:
    AgentPaths(std::filesystem::path workingDirectory, std::optional<std::string> home,
               const platform::Users& users = platform::systemUsers(),
               const platform::Files& files = platform::systemFiles());

    std::filesystem::path resolve(std::string_view path) const;

    // The resolved path of a regular file that opens for reading; a
    // BridgeError naming it otherwise. Only a regular file has an end: a
    // pipe or a device would be read forever.
    std::filesystem::path existingFile(std::string_view path) const;

    // Whether the path names a folder (a NUL in it names none).
    bool isFolder(const std::filesystem::path& path) const;
    // Whether something, a dangling link included, is at the path.
    bool occupied(const std::filesystem::path& path) const;
    // Whether the path's extension, lower-cased, is "mp4".
    static bool isMP4(const std::filesystem::path& path);

    const std::filesystem::path& workingDirectory() const { return workingDirectory_; }

private:
    std::filesystem::path workingDirectory_;
    std::optional<std::string> home_;
    const platform::Users& users_;
    const platform::Files& files_;
};

}  // namespace server
