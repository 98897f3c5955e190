// DownloadFile: where a download's bytes wait until they are whole, and the
// only way they reach the agent's path.
//
// The bytes go to a hidden temporary file, named ".<name>.download-XXXXXX"
// and locked with flock for as long as it is written, in the destination's
// folder or, while that does not exist yet, in its nearest existing
// ancestor: missing folders are made only once the file is complete, and
// they are on the same file system as that ancestor, so the final move is
// still a rename (atomic, never a copy). Nothing but a complete file ever
// appears at the destination:
// - a download that fails or is cancelled removes its temporary file, and
//   a move that fails removes the folders made for it;
// - a process that ends short of SIGKILL removes what is still registered
//   (removeUnfinishedDownloads);
// - after a SIGKILL, the next download into the same folder removes
//   temporary files of this naming that no live process holds locked. Two
//   agents' bridges may write into one folder at once, so an unlocked file
//   is the only sign of a dead writer; a shared lock on the folder while a
//   file is created and locked keeps a sweep from mistaking a file that is
//   being born for one whose writer died.
//
// Every member blocks on the file system: call them off the I/O thread
// (blocking::run), and destroy an unfinished one there too
// (blocking::discard). Failures are BridgeErrors in the user's words.
#pragma once
#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>

namespace studiolink {

class DownloadFile {
public:
    // Makes the locked temporary file. Refuses a destination that is a folder, or that exists when it may
    // not be replaced, before any byte is fetched.
    static std::unique_ptr<DownloadFile> create(std::filesystem::path destination, bool overwrite);
    ~DownloadFile();
    DownloadFile(const DownloadFile&) = delete;
    DownloadFile& operator=(const DownloadFile&) = delete;

    void write(const char* data, std::size_t size);
    // Syncs the bytes, makes the destination's missing folders and moves
    // the file there, readable by all. Checks the destination again: it may
    // have changed while the bytes came.
    void commit();

private:
    DownloadFile(std::filesystem::path destination, bool overwrite);

    std::filesystem::path destination_;
    bool overwrite_;
    std::filesystem::path temporary_;
    int fd_ = -1;
};

// Removes the temporary file of every download of this process that has not
// completed. Any thread; for the way out of the process.
void removeUnfinishedDownloads();

// The hidden name a download into `destination` is written under before it
// is complete, without its random suffix (".<name>.download-").
std::string downloadPrefix(const std::filesystem::path& destination);

}  // namespace studiolink
