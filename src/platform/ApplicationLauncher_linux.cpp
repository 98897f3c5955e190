#include <fcntl.h>
#include <linux/close_range.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <string_view>
#include <vector>

#include "platform/ApplicationLauncher.h"
#include "platform/Bundle.h"
#include "platform/ExecStrings.h"
#include "platform/PercentEncoding.h"
#include "platform/SessionBus.h"

namespace fs = std::filesystem;

namespace platform {

namespace {

constexpr std::string_view displayVariables[] = {"DISPLAY", "WAYLAND_DISPLAY", "XAUTHORITY"};

// What an application needs of the session, and nothing of the agent's:
// the agent's environment holds its API keys and its own settings, which
// are none of Studio's business.
bool sessionVariable(std::string_view name) {
    static constexpr std::string_view exact[] = {"HOME", "USER", "LOGNAME", "PATH", "LANG",
                                                 "DBUS_SESSION_BUS_ADDRESS"};
    for (auto allowed : exact)
        if (name == allowed) return true;
    for (auto display : displayVariables)
        if (name == display) return true;
    return name.starts_with("LC_") || name.starts_with("XDG_");
}

// Everything between fork and exec must be async-signal-safe: this process
// has other threads, whose locks the child inherits in whatever state.

[[noreturn]] void becomeApplication(const char* path, char* const* argv, char* const* envp, int reportFd) {
    if (setsid() < 0) {
        int error = errno;
        (void)!write(reportFd, &error, sizeof error);
        _exit(127);
    }
    pid_t grandchild = fork();
    if (grandchild != 0) {
        if (grandchild < 0) {
            int error = errno;
            (void)!write(reportFd, &error, sizeof error);
        }
        _exit(grandchild < 0 ? 127 : 0);
    }
    int null = open("/dev/null", O_RDWR);
    if (null >= 0) {
        dup2(null, 0);
        dup2(null, 1);
        dup2(null, 2);
        if (null > 2) close(null);
    }
    // Sockets and files of ours (the hand-over listener among them) must not
    // live on in the application; only the report pipe is kept, and it closes
    // on exec by itself.
    if (syscall(SYS_close_range, 3, ~0U, CLOSE_RANGE_CLOEXEC) != 0) {
        long limit = sysconf(_SC_OPEN_MAX);
        for (int fd = 3; fd < limit; ++fd)
            if (fd != reportFd) fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
    struct sigaction standard {};
    standard.sa_handler = SIG_DFL;
    for (int sig = 1; sig < NSIG; ++sig) sigaction(sig, &standard, nullptr);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (chdir("/") != 0) {
        // Not worth failing for: the application gets our folder instead.
    }
    execve(path, argv, envp);
    int error = errno;
    (void)!write(reportFd, &error, sizeof error);
    _exit(127);
}

}  // namespace

Environment LinuxApplicationLauncher::launchEnvironment(const Environment& environment, LinuxSessionBus& bus) {
    Environment launch;
    for (const auto& [name, value] : environment)
        if (sessionVariable(name)) launch.emplace(name, value);
    for (auto display : displayVariables)
        if (launch.contains(std::string(display))) return launch;
    // Agents may start the bridge with a bare environment (no desktop
    // variables); an application started without them has no screen. Only a
    // running manager is asked: a question to a name nobody owns would have
    // the bus try to start it.
    const std::string service = "org.freedesktop.systemd1";
    if (!bus.hasOwner(service).owned) return launch;
    auto manager = bus.stringsProperty(service, "/org/freedesktop/systemd1", "org.freedesktop.systemd1.Manager",
                                       "Environment");
    for (const auto& entry : manager.value_or(std::vector<std::string>{})) {
        auto equals = entry.find('=');
        std::string_view name = std::string_view(entry).substr(0, equals);
        for (auto display : displayVariables)
            if (equals != std::string::npos && name == display) launch.emplace(name, entry.substr(equals + 1));
    }
    return launch;
}

std::optional<SystemError> LinuxApplicationLauncher::spawnDetached(const fs::path& executable,
                                                                   const std::vector<std::string>& arguments,
                                                                   const Environment& environment) {
    std::string path = executable.string();
    std::vector<std::string> words{path};
    words.insert(words.end(), arguments.begin(), arguments.end());
    ExecStrings argv(std::move(words));
    ExecStrings envp(environment);

    int report[2];
    if (pipe2(report, O_CLOEXEC) != 0) return SystemError::fromErrno(errno, "Could not start " + path);
    pid_t child = fork();
    if (child == 0) becomeApplication(path.c_str(), argv.data(), envp.data(), report[1]);
    int forkError = errno;
    close(report[1]);
    if (child < 0) {
        close(report[0]);
        return SystemError::fromErrno(forkError, "Could not start " + path);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    // The pipe ends when the exec succeeded (close-on-exec) or the child
    // died; an errno arrives only from a failure.
    int error = 0;
    ssize_t n;
    do {
        n = read(report[0], &error, sizeof error);
    } while (n < 0 && errno == EINTR);
    close(report[0]);
    if (n == static_cast<ssize_t>(sizeof error)) return SystemError::fromErrno(error, "Could not start " + path);
    return std::nullopt;
}

std::string LinuxApplicationLauncher::fileURI(const fs::path& path) {
    return "file://" + percentEncode(path.string(), "/");
}

std::string LinuxApplicationLauncher::objectPath(const std::string& identifier) {
    std::string path = "/";
    for (char c : identifier) {
        if (c == '.') path.push_back('/');
        else if (isUnreserved(static_cast<unsigned char>(c)) && c != '~') path.push_back(c == '-' ? '_' : c);
        else path.push_back('_');
    }
    return path;
}

std::optional<SystemError> LinuxApplicationLauncher::openApplication(const fs::path& app) {
    auto bundle = bundles_.open(app);
    if (!bundle) return SystemError{ENOENT, "The application at " + app.string() + " could not be opened."};
    auto executable = bundle->executablePath();
    if (!executable) return SystemError{ENOEXEC, "The application at " + app.string() + " names no executable."};
    return spawnDetached(*executable, {}, launchEnvironment(environment_, bus_));
}

std::optional<SystemError> LinuxApplicationLauncher::openURLs(const std::vector<fs::path>& files,
                                                              const fs::path& app) {
    auto bundle = bundles_.open(app);
    if (!bundle) return SystemError{ENOENT, "The application at " + app.string() + " could not be opened."};
    if (bundle->identifier && !bundle->identifier->empty()) {
        auto owner = bus_.hasOwner(*bundle->identifier);
        if (owner.owned) {
            std::vector<std::string> uris;
            for (const auto& file : files) uris.push_back(fileURI(file));
            return bus_.openURIs(*bundle->identifier, objectPath(*bundle->identifier), uris);
        }
    }
    auto executable = bundle->executablePath();
    if (!executable) return SystemError{ENOEXEC, "The application at " + app.string() + " names no executable."};
    std::vector<std::string> paths;
    for (const auto& file : files) paths.push_back(file.string());
    return spawnDetached(*executable, paths, launchEnvironment(environment_, bus_));
}

ApplicationLauncher& systemApplicationLauncher() {
    static auto* launcher = new LinuxApplicationLauncher(systemBundles(), systemSessionBus(), processEnvironment());
    return *launcher;
}

}  // namespace platform
