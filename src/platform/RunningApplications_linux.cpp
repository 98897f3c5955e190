#include <dirent.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <system_error>

#include "platform/Bundle.h"
#include "platform/RunningApplications.h"

namespace fs = std::filesystem;

namespace platform {

namespace {

constexpr std::string_view deletedSuffix = " (deleted)";

std::vector<pid_t> processIdentifiers(const fs::path& proc) {
    std::vector<pid_t> pids;
    DIR* dir = opendir(proc.c_str());
    if (!dir) return pids;
    while (dirent* entry = readdir(dir)) {
        char* end = nullptr;
        long value = std::strtol(entry->d_name, &end, 10);
        if (end != entry->d_name && *end == '\0' && value > 0) pids.push_back(static_cast<pid_t>(value));
    }
    closedir(dir);
    std::sort(pids.begin(), pids.end());
    return pids;
}

}  // namespace

std::optional<ExecutableBundle> bundleOfExecutable(const std::string& exeLink, const Bundles& bundles) {
    std::string target = exeLink;
    bool replaced = false;
    if (target.size() > deletedSuffix.size() &&
        target.compare(target.size() - deletedSuffix.size(), deletedSuffix.size(), deletedSuffix) == 0) {
        target.resize(target.size() - deletedSuffix.size());
        replaced = true;
    }
    fs::path exe(target);
    fs::path macos = exe.parent_path();
    fs::path contents = macos.parent_path();
    fs::path app = contents.parent_path();
    if (macos.filename() != "MacOS" || contents.filename() != "Contents" || app.extension() != ".app")
        return std::nullopt;
    auto info = bundles.open(app);
    if (!info || info->executable != exe.filename().string()) return std::nullopt;
    return ExecutableBundle{app, info->identifier, replaced};
}

LinuxRunningApplications::LinuxRunningApplications(const Bundles& bundles, fs::path proc)
    : bundles_(bundles), proc_(std::move(proc)) {}

std::vector<RunningApplication> LinuxRunningApplications::withBundleIdentifier(const std::string& identifier) const {
    std::vector<RunningApplication> found;
    for (pid_t pid : processIdentifiers(proc_)) {
        std::error_code ec;
        fs::path link = fs::read_symlink(proc_ / std::to_string(pid) / "exe", ec);
        if (ec) continue;
        auto bundle = bundleOfExecutable(link.string(), bundles_);
        if (bundle && bundle->identifier == identifier) found.push_back({pid, bundle->app});
    }
    return found;
}

const RunningApplications& systemRunningApplications() {
    static LinuxRunningApplications running(systemBundles());
    return running;
}

}  // namespace platform
