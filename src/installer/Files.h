// Reading a user's file whole and replacing one without ever leaving it half
// written: the new bytes go to a temporary file in the same folder, which is
// then renamed over the old one. Failures come back as sentences for the
// user, naming the file and the system's reason. Any thread may call these.
#pragma once
#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace BridgeInstaller::files {

struct Contents {
    std::optional<std::string> bytes;  // nothing when the file could not be read
    std::string failure;               // then: why
};

// The whole file. A folder or a dangling link in the file's place counts as
// unreadable.
Contents read(const std::filesystem::path& file);

// Nothing on success, else why the file was left as it was. `mode`: the
// permission bits the new file gets (the umask's choice when absent).
std::optional<std::string> writeAtomically(const std::filesystem::path& file, std::string_view bytes,
                                           std::optional<mode_t> mode = std::nullopt);

}  // namespace BridgeInstaller::files
