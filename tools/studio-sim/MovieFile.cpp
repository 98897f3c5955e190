#include "MovieFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <system_error>
#include <vector>

namespace studiosim {
namespace {

constexpr std::uint64_t kFtypBytes = 32;

std::uint64_t mdatHeaderBytes(std::uint64_t total) {
    return total - kFtypBytes > 0xFFFFFFFFull ? 16 : 8;
}

void putBE32(unsigned char* p, std::uint32_t v) {
    p[0] = static_cast<unsigned char>(v >> 24);
    p[1] = static_cast<unsigned char>(v >> 16);
    p[2] = static_cast<unsigned char>(v >> 8);
    p[3] = static_cast<unsigned char>(v);
}

// The fixed leading bytes: ftyp (isom, minor 0x200, isom iso2 avc1 mp41) and
// the mdat header, with a 64-bit size when the box is over 4 GiB.
std::vector<unsigned char> header(std::uint64_t total) {
    std::vector<unsigned char> h(kFtypBytes + mdatHeaderBytes(total));
    putBE32(h.data(), static_cast<std::uint32_t>(kFtypBytes));
    std::memcpy(h.data() + 4, "ftypisom", 8);
    putBE32(h.data() + 12, 0x200);
    std::memcpy(h.data() + 16, "isomiso2avc1mp41", 16);
    std::uint64_t mdat = total - kFtypBytes;
    if (mdatHeaderBytes(total) == 8) {
        putBE32(h.data() + 32, static_cast<std::uint32_t>(mdat));
        std::memcpy(h.data() + 36, "mdat", 4);
    } else {
        putBE32(h.data() + 32, 1);
        std::memcpy(h.data() + 36, "mdat", 4);
        putBE32(h.data() + 40, static_cast<std::uint32_t>(mdat >> 32));
        putBE32(h.data() + 44, static_cast<std::uint32_t>(mdat));
    }
    return h;
}

unsigned char patternByte(std::uint64_t offset) {
    // A cheap sequence that does not repeat within a small window, so a
    // misplaced or repeated block in a transfer shows up.
    std::uint64_t x = offset * 0x9E3779B97F4A7C15ull;
    return static_cast<unsigned char>((x >> 56) ^ (offset >> 12));
}

[[noreturn]] void fail(const std::string& what, const std::filesystem::path& path, int error) {
    throw std::filesystem::filesystem_error(what, path, std::error_code(error, std::generic_category()));
}

void writeAt(int fd, const unsigned char* data, std::size_t size, std::uint64_t offset, const std::filesystem::path& path) {
    while (size > 0) {
        ssize_t n = ::pwrite(fd, data, size, static_cast<off_t>(offset));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) fail("cannot write the export", path, n < 0 ? errno : EIO);
        data += n;
        size -= static_cast<std::size_t>(n);
        offset += static_cast<std::uint64_t>(n);
    }
}

}  // namespace

unsigned char movieByteAt(std::uint64_t offset, std::uint64_t bytes) {
    auto h = header(bytes);
    if (offset < h.size()) return h[offset];
    if (offset < h.size() + kMoviePatternBytes) return patternByte(offset);
    return 0;
}

void writeMovie(const std::filesystem::path& destination, std::uint64_t bytes) {
    bytes = std::max(bytes, kMovieMinimumBytes);
    auto temporary = destination.parent_path() / ("." + destination.filename().string() + ".part");
    int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) fail("cannot create the export", temporary, errno);
    try {
        auto h = header(bytes);
        writeAt(fd, h.data(), h.size(), 0, temporary);
        std::uint64_t end = std::min<std::uint64_t>(bytes, h.size() + kMoviePatternBytes);
        std::vector<unsigned char> block(1 << 20);
        for (std::uint64_t offset = h.size(); offset < end;) {
            std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(block.size(), end - offset));
            for (std::size_t i = 0; i < n; ++i) block[i] = patternByte(offset + i);
            writeAt(fd, block.data(), n, offset, temporary);
            offset += n;
        }
        if (::ftruncate(fd, static_cast<off_t>(bytes)) != 0) fail("cannot size the export", temporary, errno);
        if (::close(fd) != 0) {
            fd = -1;
            fail("cannot write the export", temporary, errno);
        }
        fd = -1;
        // link+unlink rather than rename: an export never replaces a file.
        if (::link(temporary.c_str(), destination.c_str()) != 0) fail("cannot place the export", destination, errno);
        ::unlink(temporary.c_str());
    } catch (...) {
        if (fd >= 0) ::close(fd);
        ::unlink(temporary.c_str());
        throw;
    }
}

}  // namespace studiosim
