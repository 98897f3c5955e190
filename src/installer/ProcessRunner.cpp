#include "installer/ProcessRunner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <optional>
#include <system_error>

#include "installer/Text.h"

extern char** environ;

namespace BridgeInstaller {
namespace {

using Clock = std::chrono::steady_clock;

std::string reason(int error) { return std::strerror(error); }

// Keeps a descriptor open for exactly as long as this object lives.
class Descriptor {
public:
    explicit Descriptor(int fd = -1) : fd_(fd) {}
    ~Descriptor() { reset(); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return fd_; }
    void reset(int fd = -1) {
        if (fd_ >= 0) close(fd_);
        fd_ = fd;
    }

private:
    int fd_;
};

// Moves a descriptor above the standard three, so that the child's dup2s
// never land on it even when our own standard streams are closed.
int aboveStandardStreams(int fd) {
    if (fd > 2) return fd;
    int moved = fcntl(fd, F_DUPFD_CLOEXEC, 3);
    close(fd);
    return moved;
}

// One started child: its output pipe and its reaping.
class Child {
public:
    Child(pid_t pid, int output) : pid_(pid), output_(output) {
#ifdef SYS_pidfd_open
        // A descriptor that becomes readable when the child ends lets one
        // poll wait for output and exit together; without it we tick.
        exitSignal_.reset(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
#endif
    }

    bool exited() const { return status_.has_value(); }
    int status() const { return *status_; }
    bool outputEnded() const { return outputEnded_; }
    std::string& data() { return data_; }

    // Reads output until the child has ended or the time comes.
    void waitForExit(Clock::time_point until) {
        while (!reap(false)) {
            auto now = Clock::now();
            if (now >= until) return;
            int timeout = millisecondsUntil(until, now);
            if (exitSignal_.get() < 0) timeout = std::min(timeout, 20);
            pollOnce(timeout, true);
        }
    }

    // Reads output until the pipe ends or the time comes.
    void drain(Clock::time_point until) {
        while (!outputEnded_) {
            auto now = Clock::now();
            if (now >= until) return;
            pollOnce(millisecondsUntil(until, now), false);
        }
    }

    void signal(int number) {
        if (!exited()) kill(pid_, number);
    }

    // Blocks until the child is gone; used after SIGKILL, which cannot be
    // ignored.
    void reapNow() { reap(true); }

private:
    static int millisecondsUntil(Clock::time_point until, Clock::time_point now) {
        auto left = std::chrono::ceil<std::chrono::milliseconds>(until - now).count();
        return static_cast<int>(std::min<long long>(left, 60'000));
    }

    bool reap(bool block) {
        if (status_) return true;
        int raw = 0;
        pid_t got;
        do {
            got = waitpid(pid_, &raw, block ? 0 : WNOHANG);
        } while (got < 0 && errno == EINTR);
        if (got == 0) return false;
        if (got < 0) {
            // Someone else reaped it (SIGCHLD ignored): it has ended, with a
            // status we cannot know.
            status_ = -1;
        } else if (WIFEXITED(raw)) {
            status_ = WEXITSTATUS(raw);
        } else if (WIFSIGNALED(raw)) {
            status_ = WTERMSIG(raw);
        } else {
            return false;
        }
        exitSignal_.reset();
        return true;
    }

    void pollOnce(int timeout, bool watchExit) {
        pollfd fds[2];
        nfds_t count = 0;
        int outputIndex = -1;
        if (!outputEnded_) {
            outputIndex = static_cast<int>(count);
            fds[count++] = {output_, POLLIN, 0};
        }
        if (watchExit && exitSignal_.get() >= 0) fds[count++] = {exitSignal_.get(), POLLIN, 0};
        int ready = poll(fds, count, timeout);
        if (ready <= 0) return;  // time is up, or a signal: the caller looks again
        if (outputIndex >= 0 && fds[outputIndex].revents) readAvailable();
    }

    void readAvailable() {
        char buffer[65536];
        ssize_t n;
        do {
            n = read(output_, buffer, sizeof buffer);
        } while (n < 0 && errno == EINTR);
        if (n > 0) {
            data_.append(buffer, static_cast<std::size_t>(n));
        } else if (n == 0 || errno != EAGAIN) {
            outputEnded_ = true;
        }
    }

    pid_t pid_;
    int output_;
    Descriptor exitSignal_;
    std::optional<int> status_;
    bool outputEnded_ = false;
    std::string data_;
};

// posix_spawn's attribute and file-action objects, destroyed on every path.
struct SpawnSetup {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    SpawnSetup() {
        posix_spawn_file_actions_init(&actions);
        posix_spawnattr_init(&attributes);
    }
    ~SpawnSetup() {
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attributes);
    }
};

}  // namespace

CommandResult run(const std::filesystem::path& program, const std::vector<std::string>& arguments, double timeout,
                  const RunLimits& limits) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return {-1, "Could not create a pipe for " + program.string() + ": " + reason(errno) + "."};
    Descriptor readEnd(aboveStandardStreams(ends[0]));
    Descriptor writeEnd(aboveStandardStreams(ends[1]));
    if (readEnd.get() < 0 || writeEnd.get() < 0) return {-1, "Could not create a pipe for " + program.string() + "."};

    SpawnSetup setup;
    posix_spawn_file_actions_addopen(&setup.actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&setup.actions, writeEnd.get(), 1);
    posix_spawn_file_actions_adddup2(&setup.actions, writeEnd.get(), 2);
    std::error_code ec;
    auto temporary = std::filesystem::temp_directory_path(ec);
    if (!ec) posix_spawn_file_actions_addchdir_np(&setup.actions, temporary.c_str());

    // The child starts with every signal at its default and none blocked,
    // whatever this process set up for itself.
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&setup.attributes, &none);
    posix_spawnattr_setsigdefault(&setup.attributes, &all);
    posix_spawnattr_setflags(&setup.attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    std::string programPath = program.string();
    std::vector<char*> argv;
    argv.push_back(programPath.data());
    std::vector<std::string> words = arguments;
    for (auto& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);

    pid_t pid = -1;
    int error = posix_spawn(&pid, programPath.c_str(), &setup.actions, &setup.attributes, argv.data(), environ);
    writeEnd.reset();
    if (error != 0) return {-1, "Could not start " + programPath + ": " + reason(error) + "."};

    Child child(pid, readEnd.get());
    double seconds = std::isfinite(timeout) && timeout > 0 ? timeout : 0;
    auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    child.waitForExit(deadline);

    std::string note;
    int status;
    if (child.exited()) {
        status = child.status();
    } else {
        child.signal(SIGTERM);
        child.waitForExit(Clock::now() + limits.grace);
        if (!child.exited()) {
            child.signal(SIGKILL);
            child.reapNow();
        }
        status = -1;
        note = "\n(stopped after " + std::to_string(static_cast<long long>(seconds)) + " s without an answer)";
    }
    child.drain(Clock::now() + limits.drain);
    return {status, text::decodedUTF8(child.data()) + note};
}

}  // namespace BridgeInstaller
