#include "link/UploadFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/BridgeError.h"

namespace studiolink {

std::unique_ptr<UploadFile> UploadFile::open(const std::filesystem::path& path) {
    std::unique_ptr<UploadFile> file(new UploadFile(path));
    file->fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    struct stat info {};
    if (file->fd_ < 0 || ::fstat(file->fd_, &info) != 0) file->fail(errno);
    if (!S_ISREG(info.st_mode)) throw BridgeError("Cannot read " + path.string() + ".");
    file->size_ = static_cast<uint64_t>(info.st_size);
    ::posix_fadvise(file->fd_, 0, 0, POSIX_FADV_SEQUENTIAL);
    return file;
}

UploadFile::~UploadFile() {
    if (fd_ >= 0) ::close(fd_);
}

std::size_t UploadFile::read(char* into, std::size_t capacity, uint64_t offset) const {
    auto want = static_cast<std::size_t>(std::min<uint64_t>(capacity, size_ - offset));
    for (;;) {
        ssize_t got = ::pread(fd_, into, want, static_cast<off_t>(offset));
        if (got > 0) return static_cast<std::size_t>(got);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) fail(errno);
        shrank();
    }
}

void UploadFile::fail(int error) const {
    throw BridgeError("Could not read " + path_.string() + ": " + std::strerror(error) + ".");
}

void UploadFile::shrank() const {
    throw BridgeError("Could not read " + path_.string() + ": it became shorter while it was being uploaded.");
}

}  // namespace studiolink
