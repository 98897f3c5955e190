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

namespace server {

class AgentPaths {
public:
    AgentPaths(std::filesystem::path workingDirectory, std::optional<std::string> home);

    // The home folder of the environment: $HOME when set and not empty, else
    // the password database's entry for this user.
    static std::optional<std::string> homeIn(const platform::Environment& environment);

    std::filesystem::path resolve(std::string_view path) const;

    // The resolved path of a regular file that opens for reading; a
    // BridgeError naming it otherwise. Only a regular file has an end: a
    // pipe or a device would be read forever.
    std::filesystem::path existingFile(std::string_view path) const;

    // Whether the path names a folder (a NUL in it names none).
    static bool isFolder(const std::filesystem::path& path);
    // Whether something, a dangling link included, is at the path.
    static bool occupied(const std::filesystem::path& path);
    // Whether the path's extension, lower-cased, is "mp4".
    static bool isMP4(const std::filesystem::path& path);

    const std::filesystem::path& workingDirectory() const { return workingDirectory_; }

private:
    std::filesystem::path workingDirectory_;
    std::optional<std::string> home_;
};

}  // namespace server
