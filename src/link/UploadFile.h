// UploadFile: the file an upload's bytes come from, open for as long as they
// are sent and closed on every way out.
//
// It is opened without blocking (a named pipe or a device in place of the
// file would otherwise hold the open until someone writes to it) and only
// when it is a regular file; its size is taken then, and a file that ends
// before that size while it is sent is a failure, not a short body. Opening
// blocks on the file system: call open() off the I/O thread
// (blocking::run). Failures are BridgeErrors in the user's words.
#pragma once
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>

namespace studiolink {

class UploadFile {
public:
    static std::unique_ptr<UploadFile> open(const std::filesystem::path& path);
    ~UploadFile();
    UploadFile(const UploadFile&) = delete;
    UploadFile& operator=(const UploadFile&) = delete;

    uint64_t size() const { return size_; }
    int fd() const { return fd_; }

    // The next bytes at `offset`, as many as fit, never none.
    std::size_t read(char* into, std::size_t capacity, uint64_t offset) const;

    // The failures of sending it, in the user's words.
    [[noreturn]] void fail(int error) const;
    [[noreturn]] void shrank() const;

private:
    explicit UploadFile(std::filesystem::path path) : path_(std::move(path)) {}

    std::filesystem::path path_;
    int fd_ = -1;
    uint64_t size_ = 0;
};

}  // namespace studiolink
