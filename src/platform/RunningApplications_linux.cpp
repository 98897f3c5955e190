#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <system_error>

#include "platform/Bundle.h"
#include "platform/ProcessSockets.h"
#include "platform/RunningApplications.h"
#include "platform/SessionBus.h"

namespace fs = std::filesystem;

namespace platform {

namespace {

constexpr std::string_view deletedSuffix = " (deleted)";

// The variables of the process's environment block; nothing when unreadable.
std::optional<Environment> environmentOf(const fs::path& proc, pid_t pid) {
    std::ifstream in(proc / std::to_string(pid) / "environ", std::ios::binary);
    if (!in) return std::nullopt;
    std::string block((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    Environment environment;
    size_t start = 0;
    while (start < block.size()) {
        size_t end = block.find('\0', start);
        if (end == std::string::npos) end = block.size();
        std::string entry = block.substr(start, end - start);
        auto equals = entry.find('=');
        if (equals != std::string::npos) environment.emplace(entry.substr(0, equals), entry.substr(equals + 1));
        start = end + 1;
    }
    return environment;
}

}  // namespace

std::optional<ProcessStatus> processStatus(const fs::path& proc, pid_t pid) {
    std::ifstream in(proc / std::to_string(pid) / "status");
    if (!in) return std::nullopt;
    ProcessStatus status;
    bool uid = false, state = false, tracer = false;
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("State:", 0) == 0) {
            auto letter = line.find_first_not_of(" \t", 6);
            if (letter == std::string::npos) return std::nullopt;
            // T stopped, t traced, Z and X: gone in all but name.
            char c = line[letter];
            if (c == 'T' || c == 't' || c == 'Z' || c == 'X' || c == 'x') status.stoppedOrTraced = true;
            state = true;
        } else if (line.rfind("TracerPid:", 0) == 0) {
            if (std::strtol(line.c_str() + 10, nullptr, 10) != 0) status.stoppedOrTraced = true;
            tracer = true;
        } else if (line.rfind("Uid:", 0) == 0) {
            char* end = nullptr;
            unsigned long value = std::strtoul(line.c_str() + 4, &end, 10);
            if (end == line.c_str() + 4) return std::nullopt;
            status.realUid = static_cast<uid_t>(value);
            uid = true;
        }
    }
    if (!uid || !state || !tracer) return std::nullopt;
    return status;
}

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

LinuxRunningApplications::LinuxRunningApplications(const Bundles& bundles, LinuxSessionBus& bus, fs::path proc)
    : bundles_(bundles), bus_(bus), proc_(std::move(proc)) {}

std::vector<RunningApplication> LinuxRunningApplications::withBundleIdentifier(const std::string& identifier) const {
    uid_t own = getuid();
    std::vector<RunningApplication> copies;
    for (pid_t pid : processIdentifiers(proc_)) {
        std::error_code ec;
        fs::path link = fs::read_symlink(proc_ / std::to_string(pid) / "exe", ec);
        if (ec) continue;
        auto bundle = bundleOfExecutable(link.string(), bundles_);
        if (!bundle || bundle->identifier != identifier) continue;
        auto status = processStatus(proc_, pid);
        if (status && status->realUid == own) copies.push_back({pid, bundle->app});
    }
    if (copies.empty()) return copies;

    std::optional<pid_t> owner = bus_.ownerProcess(identifier);
    std::string ours = busIdentity(bus_.address());
    std::vector<RunningApplication> found;
    for (auto& copy : copies) {
        bool inSession = owner == copy.processIdentifier;
        if (!inSession) {
            auto environment = environmentOf(proc_, copy.processIdentifier);
            inSession = environment && busIdentity(sessionBusAddress(*environment)) == ours;
        }
        if (inSession) found.push_back(std::move(copy));
    }
    return found;
}

std::vector<pid_t> LinuxRunningApplications::runningFrom(const fs::path& app) const {
    auto info = bundles_.open(app);
    if (!info) return {};
    auto executable = info->executablePath();
    if (!executable) return {};
    std::error_code ec;
    fs::path canonical = fs::weakly_canonical(*executable, ec);
    if (ec) return {};
    const std::string expected = canonical.string();

    int proc = open(proc_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (proc < 0) return {};
    uid_t own = getuid();
    std::vector<pid_t> found;
    std::string target(expected.size() + 1, '\0');
    for (pid_t pid : processIdentifiers(proc_)) {
        char name[32];
        std::snprintf(name, sizeof name, "%d", pid);
        // The folder's owner first: one stat passes over other users'
        // processes without the dearer look at their executable. As root
        // nearly every process is ours, and the stat only costs.
        struct stat owner {};
        if (own != 0 && (fstatat(proc, name, &owner, 0) != 0 || owner.st_uid != own)) continue;
        std::strncat(name, "/exe", sizeof name - std::strlen(name) - 1);
        ssize_t n = readlinkat(proc, name, target.data(), target.size());
        if (n == static_cast<ssize_t>(expected.size()) && target.compare(0, expected.size(), expected) == 0)
            found.push_back(pid);
    }
    ::close(proc);
    return found;
}

const RunningApplications& systemRunningApplications() {
    static const auto* running = new LinuxRunningApplications(systemBundles(), systemSessionBus());
    return *running;
}

}  // namespace platform
