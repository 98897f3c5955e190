#include "installer/Files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <random>

namespace fs = std::filesystem;

namespace BridgeInstaller::files {
namespace {

std::string because(const std::string& what, const fs::path& path, int error) {
    return "Could not " + what + " " + path.string() + ": " + std::strerror(error) + ".";
}

bool writeAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        ssize_t n = write(fd, bytes.data(), bytes.size());
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

}  // namespace

Contents read(const fs::path& file) {
    int fd;
    do {
        fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) return {std::nullopt, because("read", file, errno)};
    std::string bytes;
    char buffer[65536];
    while (true) {
        ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0) {
            if (errno == EINTR) continue;
            int error = errno;
            close(fd);
            return {std::nullopt, because("read", file, error)};
        }
        if (n == 0) break;
        bytes.append(buffer, static_cast<std::size_t>(n));
    }
    close(fd);
    return {std::move(bytes), {}};
}

std::optional<std::string> writeAtomically(const fs::path& file, std::string_view bytes, std::optional<mode_t> mode) {
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
        fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd < 0 && errno != EEXIST && errno != EINTR) return because("write", file, errno);
    }
    if (fd < 0) return because("write", file, EEXIST);

    int error = 0;
    if (!writeAll(fd, bytes) || fsync(fd) != 0) error = errno;
    if (!error && mode) fchmod(fd, *mode);  // best effort: the content matters more than the bits
    if (close(fd) != 0 && !error) error = errno;
    if (!error && rename(temporary.c_str(), file.c_str()) != 0) error = errno;
    if (error) {
        unlink(temporary.c_str());
        return because("write", file, error);
    }
    return std::nullopt;
}

}  // namespace BridgeInstaller::files
