#include "link/DownloadFile.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <set>
#include <system_error>
#include <vector>

#include "base/BridgeError.h"

namespace studiolink {

namespace fs = std::filesystem;

namespace {

// The temporary files of this process's unfinished downloads.
std::mutex registryMutex;
std::set<std::string>& registry() {
    static auto* files = new std::set<std::string>;
    return *files;
}

void enroll(const std::string& path) {
    std::lock_guard lock(registryMutex);
    registry().insert(path);
}

void release(const std::string& path) {
    std::lock_guard lock(registryMutex);
    registry().erase(path);
}

std::string reason(int error) { return std::strerror(error); }

[[noreturn]] void throwExisting(const fs::path& destination) {
    struct stat info {};
    if (::stat(destination.c_str(), &info) == 0 && S_ISDIR(info.st_mode))
        throw BridgeError(destination.string() + " is a folder: name a file to export to.");
    throw BridgeError(destination.string() + " already exists.");
}

// Refuses what stands at the destination now.
void checkDestination(const fs::path& destination, bool overwrite) {
    struct stat info {};
    if (::lstat(destination.c_str(), &info) != 0) return;
    if (!overwrite) throwExisting(destination);
    struct stat target {};
    if (::stat(destination.c_str(), &target) == 0 && S_ISDIR(target.st_mode)) throwExisting(destination);
}

// The destination's folder, or the nearest of its ancestors that exists.
fs::path nearestFolder(const fs::path& destination) {
    fs::path folder = destination.parent_path();
    for (;;) {
        struct stat info {};
        if (::stat(folder.c_str(), &info) == 0) {
            if (!S_ISDIR(info.st_mode))
                throw BridgeError("Could not create the folder " + destination.parent_path().string() + ": " +
                                  reason(ENOTDIR) + ".");
            return folder;
        }
        if (errno != ENOENT || !folder.has_relative_path())
            throw BridgeError("Could not create a file in " + folder.string() + ": " + reason(errno) + ".");
        folder = folder.parent_path();
    }
}

bool temporaryName(std::string_view name) {
    constexpr std::string_view marker = ".download-";
    if (name.size() < 1 + marker.size() + 6 + 1 || name.front() != '.') return false;
    std::string_view stem = name.substr(0, name.size() - 6);
    if (stem.size() < marker.size() + 2 || stem.substr(stem.size() - marker.size()) != marker) return false;
    for (char c : name.substr(name.size() - 6))
        if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'))) return false;
    return true;
}

struct Descriptor {
    int fd;
    ~Descriptor() {
        if (fd >= 0) ::close(fd);
    }
};

// Removes temporary files of this naming in `folder` that are ours and
// that no process holds locked: their writer died without a chance to
// clean up. Skipped while another bridge is creating one there.
void sweep(int folder) {
    if (::flock(folder, LOCK_EX | LOCK_NB) != 0) return;
    int listing = ::openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* entries = listing >= 0 ? ::fdopendir(listing) : nullptr;
    if (!entries) {
        if (listing >= 0) ::close(listing);
        ::flock(folder, LOCK_UN);
        return;
    }
    while (dirent* entry = ::readdir(entries)) {
        if (!temporaryName(entry->d_name)) continue;
        Descriptor file{::openat(folder, entry->d_name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)};
        struct stat opened {}, named {};
        if (file.fd < 0 || ::fstat(file.fd, &opened) != 0 || !S_ISREG(opened.st_mode) || opened.st_uid != ::geteuid())
            continue;
        if (::flock(file.fd, LOCK_EX | LOCK_NB) != 0) continue;  // its writer is alive
        if (::fstatat(folder, entry->d_name, &named, AT_SYMLINK_NOFOLLOW) == 0 && named.st_ino == opened.st_ino &&
            named.st_dev == opened.st_dev)
            ::unlinkat(folder, entry->d_name, 0);
    }
    ::closedir(entries);
    ::flock(folder, LOCK_UN);
}

}  // namespace

std::string downloadPrefix(const fs::path& destination) {
    // The name's first bytes are enough to tell whose it is; the whole of a
    // long name would not fit beside the suffix.
    std::string name = destination.filename().string();
    if (name.size() > 200) name.resize(200);
    return "." + name + ".download-";
}

DownloadFile::DownloadFile(fs::path destination, bool overwrite)
    : destination_(std::move(destination)), overwrite_(overwrite) {}

std::unique_ptr<DownloadFile> DownloadFile::create(fs::path destination, bool overwrite) {
    std::unique_ptr<DownloadFile> file(new DownloadFile(std::move(destination), overwrite));
    const fs::path& target = file->destination_;
    fs::path folder = nearestFolder(target);
    if (folder == target.parent_path()) checkDestination(target, overwrite);

    Descriptor directory{::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    if (directory.fd < 0) throw BridgeError("Could not create a file in " + folder.string() + ": " + reason(errno) + ".");
    sweep(directory.fd);

    std::string pattern = (folder / (downloadPrefix(target) + "XXXXXX")).string();
    // Created and locked under the folder's shared lock, which a sweep
    // takes exclusively.
    ::flock(directory.fd, LOCK_SH);
    int fd = ::mkostemp(pattern.data(), O_CLOEXEC);
    int error = errno;
    if (fd >= 0) ::flock(fd, LOCK_EX | LOCK_NB);
    ::flock(directory.fd, LOCK_UN);
    if (fd < 0) throw BridgeError("Could not create a file in " + folder.string() + ": " + reason(error) + ".");
    file->fd_ = fd;
    file->temporary_ = pattern;
    enroll(pattern);
    ::fchmod(fd, 0644);  // a failure only leaves it private
    return file;
}

DownloadFile::~DownloadFile() {
    if (fd_ >= 0) ::close(fd_);
    if (!temporary_.empty()) {
        ::unlink(temporary_.c_str());
        release(temporary_.string());
    }
}

void DownloadFile::write(const char* data, std::size_t size) {
    while (size > 0) {
        ssize_t n = ::write(fd_, data, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) throw BridgeError("Could not write the downloaded file: " + reason(n < 0 ? errno : EIO) + ".");
        data += n;
        size -= static_cast<std::size_t>(n);
    }
}

void DownloadFile::commit() {
    if (::fsync(fd_) != 0 && errno != EINVAL)
        throw BridgeError("Could not write the downloaded file: " + reason(errno) + ".");

    // The folders that are missing, innermost last; made now, and removed
    // again should the file not get into them.
    std::vector<fs::path> missing;
    for (fs::path folder = destination_.parent_path();
         folder != temporary_.parent_path() && folder != folder.parent_path(); folder = folder.parent_path())
        missing.insert(missing.begin(), folder);
    std::vector<fs::path> made;
    auto unmake = [&made] {
        for (auto folder = made.rbegin(); folder != made.rend(); ++folder) ::rmdir(folder->c_str());
    };
    for (const auto& folder : missing) {
        if (::mkdir(folder.c_str(), 0777) == 0) {
            made.push_back(folder);
        } else if (errno != EEXIST) {
            int error = errno;
            unmake();
            throw BridgeError("Could not create the folder " + folder.string() + ": " + reason(error) + ".");
        }
    }

    try {
        checkDestination(destination_, overwrite_);
        unsigned flags = overwrite_ ? 0 : RENAME_NOREPLACE;
        if (::renameat2(AT_FDCWD, temporary_.c_str(), AT_FDCWD, destination_.c_str(), flags) == 0) {
            release(temporary_.string());
            temporary_.clear();
        } else {
            int error = errno;
            if (error == EEXIST) throwExisting(destination_);
            // A file system without RENAME_NOREPLACE: link() refuses to
            // replace; the temporary name goes with the destructor.
            if (!(error == EINVAL && !overwrite_)) throw std::system_error(error, std::generic_category());
            if (::link(temporary_.c_str(), destination_.c_str()) != 0) {
                if (errno == EEXIST) throwExisting(destination_);
                throw std::system_error(errno, std::generic_category());
            }
        }
    } catch (const std::system_error& failure) {
        unmake();
        throw BridgeError("Could not move the export to " + destination_.string() + ": " +
                          reason(failure.code().value()) + ".");
    } catch (...) {
        unmake();
        throw;
    }
}

void removeUnfinishedDownloads() {
    std::lock_guard lock(registryMutex);
    for (const auto& path : registry()) ::unlink(path.c_str());
    registry().clear();
}

}  // namespace studiolink
