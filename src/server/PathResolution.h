// Paths the agent gives, as the bridge understands them: a leading "~" is
// the home folder (or "~user" that user's), a path beginning with "/" is
// absolute, any other is relative to the bridge's working directory, and the
// result is standardised (no "." or ".." components, no trailing "/"). Pure
// apart from looking up the home folder; any thread.
#pragma once
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

struct PathResolution {
    static std::filesystem::path resolve(std::string_view path, const std::filesystem::path& workingDirectory,
                                         const std::optional<std::string>& home);
    // The home folder: $HOME when set and not empty, else the password
    // database's entry for this user.
    static std::optional<std::string> homeFolder();
    // Whether the path's extension, lower-cased, is "mp4".
    static bool isMP4(const std::filesystem::path& path);
};
