// The user's files as the tools see them: reading one whole, replacing one
// without ever leaving it half written, making folders, removing a file or an
// empty folder, and asking what lies at a path. Failures are SystemError
// values whose description names the path ("Could not write /x/y: Permission
// denied"); nothing here throws. An interface so that the code above can run
// against files that exist only in memory; the Linux implementation keeps no
// state, so any thread may call it.
#pragma once
#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "platform/SystemError.h"

namespace platform {

enum class FileKind {
    missing,  // nothing there (or a component of the path is not a folder)
    file,
    folder,
    link,     // only when links are not followed
    other,    // a device, a socket, a pipe
    unknown,  // it could not be examined: a loop of links, a folder we may not search
};

struct FileStatus {
    FileKind kind = FileKind::missing;
    mode_t permissions = 0;  // the permission bits (07777), when it exists

    bool exists() const { return kind != FileKind::missing && kind != FileKind::unknown; }
};

struct FileContents {
    std::optional<std::string> bytes;  // nothing when the file could not be read
    std::optional<SystemError> error;  // then: "Could not read <path>: <reason>"
};

class Files {
public:
    virtual ~Files() = default;

    // The whole file, links followed. A folder or a dangling link in the
    // file's place cannot be read.
    virtual FileContents read(const std::filesystem::path& file) const = 0;

    // Replaces the file (a link in its place included) with exactly these
    // bytes, or leaves it as it was: the bytes go to a temporary file in the
    // same folder, are flushed to the disk, and the temporary is renamed over
    // the file. `mode`: the new file's permission bits; the umask decides
    // when absent. Failure: "Could not write <file>: <reason>".
    virtual std::optional<SystemError> writeAtomically(const std::filesystem::path& file, std::string_view bytes,
                                                       std::optional<mode_t> mode = std::nullopt) = 0;

    // The folder and any missing folder above it; one that exists is fine.
    // Failure: "Could not create the folder <folder>: <reason>".
    virtual std::optional<SystemError> createFolders(const std::filesystem::path& folder) = 0;

    // A file, a link (not what it points at) or an empty folder; never a
    // folder's contents. Failure: "Could not remove <path>: <reason>".
    virtual std::optional<SystemError> remove(const std::filesystem::path& path) = 0;

    // What lies at the path, links followed (status) or not (linkStatus).
    virtual FileStatus status(const std::filesystem::path& path) const = 0;
    virtual FileStatus linkStatus(const std::filesystem::path& path) const = 0;

    // A regular file (links followed) this process may run.
    virtual bool isExecutable(const std::filesystem::path& path) const = 0;

    // Whether the file opens for reading: the one true test of permissions,
    // ACLs and file systems that refuse. Never waits on a pipe swapped in.
    virtual bool readable(const std::filesystem::path& path) const = 0;

    // The path with links resolved as far as it exists and no "." or ".."
    // left; nothing need exist. The part that exists is made absolute (a
    // relative path none of which exists stays relative), and a path that
    // cannot be followed (a loop of links) is only made absolute.
    virtual std::filesystem::path resolved(const std::filesystem::path& path) const = 0;
};

class LinuxFiles final : public Files {
public:
    FileContents read(const std::filesystem::path& file) const override;
    std::optional<SystemError> writeAtomically(const std::filesystem::path& file, std::string_view bytes,
                                               std::optional<mode_t> mode = std::nullopt) override;
    std::optional<SystemError> createFolders(const std::filesystem::path& folder) override;
    std::optional<SystemError> remove(const std::filesystem::path& path) override;
    FileStatus status(const std::filesystem::path& path) const override;
    FileStatus linkStatus(const std::filesystem::path& path) const override;
    bool isExecutable(const std::filesystem::path& path) const override;
    bool readable(const std::filesystem::path& path) const override;
    std::filesystem::path resolved(const std::filesystem::path& path) const override;
};

// The process-wide real instance.
Files& systemFiles();

// Writes all the bytes to a descriptor, going on after short writes and
// interruptions, and waiting for room when whoever handed the descriptor
// over left it non-blocking. Failure: "<what>: <reason>".
std::optional<SystemError> writeAll(int fd, std::string_view bytes, const std::string& what);

}  // namespace platform
