// A fresh folder under the system's temporary folder, removed with everything
// in it when the object goes away. Each test that touches the disk makes one.
#pragma once
#include <filesystem>
#include <string>
#include <vector>

namespace testsupport {

class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

    // Writes a whole file, creating its parent folders.
    std::filesystem::path write(const std::string& relative, const std::string& contents) const;

private:
    std::filesystem::path path_;
};

std::string readFile(const std::filesystem::path& path);

// The names in a folder, sorted.
std::vector<std::string> namesIn(const std::filesystem::path& folder);

}  // namespace testsupport
