// Writes the file an export produces: an ISO base media (.mp4) header, an
// "ftyp" box and an "mdat" box spanning the rest, with the first few MiB of
// the media data filled with a fixed byte pattern and the remainder left as a
// hole (ftruncate), so that a multi-gigabyte export takes no time and no disk
// blocks. The file is complete in a temporary file in the destination's folder
// and then renamed into place. Any thread; no shared state.
#pragma once
#include <cstdint>
#include <filesystem>

namespace studiosim {

// The smallest size writeMovie accepts: the header plus a little media data.
inline constexpr std::uint64_t kMovieMinimumBytes = 64;
// How much of the media data carries the pattern; the rest reads as zeros.
inline constexpr std::uint64_t kMoviePatternBytes = 4u << 20;

// Writes exactly `bytes` bytes (at least kMovieMinimumBytes) at `destination`,
// which must not exist yet. Throws std::filesystem::filesystem_error on
// failure, leaving nothing behind.
void writeMovie(const std::filesystem::path& destination, std::uint64_t bytes);

// The byte writeMovie puts at a file offset (for tests that check contents).
unsigned char movieByteAt(std::uint64_t offset, std::uint64_t bytes);

}  // namespace studiosim
