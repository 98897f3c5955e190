// Application bundles made on the spot for tests of the real platform layer:
// Name.app with an XML Info.plist and an executable in Contents/MacOS, copied
// from a program or written as a script.
#pragma once
#include <filesystem>
#include <string>

namespace testsupport {

struct TestBundle {
    std::filesystem::path app;
    std::filesystem::path executable;
};

// Writes <folder>/<name>.app naming <executableName> as its executable. The
// executable is a copy of `program` (a copy, so /proc/PID/exe points into the
// bundle), or, when `script` is not empty, that text made executable.
TestBundle makeBundle(const std::filesystem::path& folder, const std::string& name, const std::string& identifier,
                      const std::string& executableName, const std::filesystem::path& program,
                      const std::string& script = "");

}  // namespace testsupport
