#include "support/TestBundle.h"

#include <fstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace testsupport {

TestBundle makeBundle(const fs::path& folder, const std::string& name, const std::string& identifier,
                      const std::string& executableName, const fs::path& program, const std::string& script) {
    fs::path app = folder / (name + ".app");
    fs::create_directories(app / "Contents" / "MacOS");
    fs::create_directories(app / "Contents" / "Resources");
    {
        std::ofstream plist(app / "Contents" / "Info.plist");
        plist << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                 "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
                 "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
                 "<plist version=\"1.0\"><dict>\n"
                 "<key>CFBundleIdentifier</key><string>"
              << identifier
              << "</string>\n"
                 "<key>CFBundleExecutable</key><string>"
              << executableName
              << "</string>\n"
                 "<key>CFBundleShortVersionString</key><string>1.0</string>\n"
                 "</dict></plist>\n";
        if (!plist) throw std::runtime_error("could not write Info.plist in " + app.string());
    }
    fs::path executable = app / "Contents" / "MacOS" / executableName;
    if (script.empty()) {
        fs::copy_file(program, executable, fs::copy_options::overwrite_existing);
    } else {
        std::ofstream out(executable);
        out << script;
    }
    fs::permissions(executable, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                                    fs::perms::others_read | fs::perms::others_exec);
    return {app, executable};
}

}  // namespace testsupport
