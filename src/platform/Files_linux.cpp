#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <random>
#include <system_error>

#include "platform/Files.h"

namespace fs = std::filesystem;

namespace platform {
namespace {

FileStatus statusFrom(int result, const struct stat& info) {
    if (result != 0) return {errno == ENOENT || errno == ENOTDIR ? FileKind::missing : FileKind::unknown, 0};
    FileKind kind = S_ISREG(info.st_mode)   ? FileKind::file
                    : S_ISDIR(info.st_mode) ? FileKind::folder
                    : S_ISLNK(info.st_mode) ? FileKind::link
                                            : FileKind::other;
    return {kind, static_cast<mode_t>(info.st_mode & 07777)};
}

int openRetrying(const char* path, int flags, mode_t mode = 0) {
    int fd;
    do {
        fd = ::open(path, flags, mode);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

}  // namespace

std::optional<SystemError> writeAll(int fd, std::string_view bytes, const std::string& what) {
    while (!bytes.empty()) {
        ssize_t n = ::write(fd, bytes.data(), bytes.size());
        if (n < 0) {
            if (errno == EINTR) continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                pollfd writable{fd, POLLOUT, 0};
                ::poll(&writable, 1, -1);
                continue;
            }
            return SystemError::fromErrno(errno, what);
        }
        bytes.remove_prefix(static_cast<std::size_t>(n));
    }
    return std::nullopt;
}

FileContents LinuxFiles::read(const fs::path& file) const {
    std::string what = "Could not read " + file.string();
    int fd = openRetrying(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return {std::nullopt, SystemError::fromErrno(errno, what)};
    std::string bytes;
    char buffer[65536];
    while (true) {
        ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0) {
            if (errno == EINTR) continue;
            int error = errno;
            ::close(fd);
            return {std::nullopt, SystemError::fromErrno(error, what)};
        }
        if (n == 0) break;
        bytes.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(fd);
    return {std::move(bytes), std::nullopt};
}

std::optional<SystemError> LinuxFiles::writeAtomically(const fs::path& file, std::string_view bytes,
                                                       std::optional<mode_t> mode) {
    std::string what = "Could not write " + file.string();
    fs::path folder = file.parent_path();
    if (folder.empty()) folder = ".";
    std::random_device random;
    fs::path temporary;
    int fd = -1;
    for (int attempt = 0; attempt < 100 && fd < 0; ++attempt) {
        char suffix[17];
        std::snprintf(suffix, sizeof suffix, "%08x%08x", random(), random());
        temporary = folder / ("." + file.filename().string() + "." + suffix + ".tmp");
        // 0666 lets the umask decide, as for any new file of the user's.
        fd = openRetrying(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd < 0 && errno != EEXIST) return SystemError::fromErrno(errno, what);
    }
    if (fd < 0) return SystemError::fromErrno(EEXIST, what);

    std::optional<SystemError> failure = writeAll(fd, bytes, what);
    if (!failure && ::fsync(fd) != 0) failure = SystemError::fromErrno(errno, what);
    if (!failure && mode) ::fchmod(fd, *mode);  // best effort: the content matters more than the bits
    if (::close(fd) != 0 && !failure) failure = SystemError::fromErrno(errno, what);
    if (!failure && ::rename(temporary.c_str(), file.c_str()) != 0) failure = SystemError::fromErrno(errno, what);
    if (failure) ::unlink(temporary.c_str());
    return failure;
}

std::optional<SystemError> LinuxFiles::createFolders(const fs::path& folder) {
    std::error_code ec;
    fs::create_directories(folder, ec);
    if (ec) return SystemError::fromErrno(ec.value(), "Could not create the folder " + folder.string());
    return std::nullopt;
}

std::optional<SystemError> LinuxFiles::remove(const fs::path& path) {
    // remove(3): unlink, and rmdir when it is a folder.
    if (std::remove(path.c_str()) != 0) return SystemError::fromErrno(errno, "Could not remove " + path.string());
    return std::nullopt;
}

FileStatus LinuxFiles::status(const fs::path& path) const {
    struct stat info;
    return statusFrom(::stat(path.c_str(), &info), info);
}

FileStatus LinuxFiles::linkStatus(const fs::path& path) const {
    struct stat info;
    return statusFrom(::lstat(path.c_str(), &info), info);
}

bool LinuxFiles::readable(const fs::path& path) const {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) return false;
    ::close(fd);
    return true;
}

bool LinuxFiles::isExecutable(const fs::path& path) const {
    return status(path).kind == FileKind::file && ::access(path.c_str(), X_OK) == 0;
}

fs::path LinuxFiles::resolved(const fs::path& path) const {
    std::error_code ec;
    fs::path resolved = fs::weakly_canonical(path, ec);
    if (ec) resolved = fs::absolute(path, ec).lexically_normal();
    return resolved;
}

Files& systemFiles() {
    static LinuxFiles files;
    return files;
}

}  // namespace platform
