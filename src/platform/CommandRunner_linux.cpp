#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <optional>
#include <string_view>
#include <system_error>

#include "platform/CommandRunner.h"
#include "platform/ExecStrings.h"

namespace platform {
namespace {

using Clock = std::chrono::steady_clock;

// The first and the last `keptOutputEnd` bytes of everything appended, and
// how much there was.
class KeptOutput {
public:
    void append(const char* bytes, std::size_t count) {
        total_ += count;
        std::size_t intoHead = std::min(count, keptOutputEnd - head_.size());
        head_.append(bytes, intoHead);
        tail_.append(bytes + intoHead, count - intoHead);
        // Trimmed only when twice the kept size, so that each byte is moved
        // at most once.
        if (tail_.size() >= 2 * keptOutputEnd) tail_.erase(0, tail_.size() - keptOutputEnd);
    }

    // Everything, or the two ends and how much lies between them. A
    // character split by a cut goes whole, so no cut shows up as U+FFFD.
    void into(CommandResult& result) const {
        if (total_ <= 2 * keptOutputEnd) {
            result.head = head_ + tail_;
            return;
        }
        std::string_view head = head_;
        std::string_view tail = std::string_view(tail_).substr(tail_.size() - keptOutputEnd);
        head = head.substr(0, completeSequencesEnd(head));
        for (int skipped = 0; skipped < 3 && !tail.empty() && isContinuation(tail.front()); ++skipped) tail.remove_prefix(1);
        result.head = head;
        result.tail = tail;
        result.cut = total_ - head.size() - tail.size();
    }

private:
    static bool isContinuation(char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }

    // Where the text ends without the start of a UTF-8 sequence whose
    // remaining bytes were cut off.
    static std::size_t completeSequencesEnd(std::string_view text) {
        std::size_t start = text.size();
        for (int back = 0; back < 3 && start > 0 && isContinuation(text[start - 1]); ++back) --start;
        if (start == 0) return text.size();
        unsigned char lead = static_cast<unsigned char>(text[start - 1]);
        std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 1;
        return text.size() - (start - 1) < length ? start - 1 : text.size();
    }

    std::string head_;
    std::string tail_;
    std::size_t total_ = 0;
};

// Where the child starts: the user's temporary folder, or /tmp when TMPDIR
// names no folder. Never our own current folder, which is wherever the user
// stands and which the program could take for a project.
std::string workingFolder(const Environment& environment) {
    std::error_code ec;
    auto named = nonEmpty(environment, "TMPDIR");
    if (named && std::filesystem::is_directory(*named, ec)) return *named;
    if (std::filesystem::is_directory("/tmp", ec)) return "/tmp";
    return "/";
}

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
    bool endedOnItsOwn() const { return endedOnItsOwn_; }
    bool outputEnded() const { return outputEnded_; }
    const KeptOutput& output() const { return kept_; }

    // Reads output until the child has ended or the time comes.
    void waitForExit(Clock::time_point until) {
        while (!reap()) {
            auto now = Clock::now();
            if (now >= until) return;
            int timeout = millisecondsUntil(until, now);
            if (exitSignal_.get() < 0) timeout = std::min(timeout, 20);
            if (pollOnce(timeout, true) && !reap()) {
                // Ended, yet not ours to reap: a tracer holds the remains.
                // The descriptor would stay readable, so tick instead.
                exitSignal_.reset();
            }
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

private:
    static int millisecondsUntil(Clock::time_point until, Clock::time_point now) {
        auto left = std::chrono::ceil<std::chrono::milliseconds>(until - now).count();
        return static_cast<int>(std::min<long long>(left, 60'000));
    }

    // Never blocks: every wait here has a deadline.
    bool reap() {
        if (status_) return true;
        int raw = 0;
        pid_t got;
        do {
            got = waitpid(pid_, &raw, WNOHANG);
        } while (got < 0 && errno == EINTR);
        if (got == 0) return false;
        if (got < 0) {
            // Someone else reaped it (SIGCHLD ignored): it has ended, with a
            // status we cannot know.
            status_ = -1;
        } else if (WIFEXITED(raw)) {
            status_ = WEXITSTATUS(raw);
            endedOnItsOwn_ = true;
        } else if (WIFSIGNALED(raw)) {
            status_ = WTERMSIG(raw);
        } else {
            return false;
        }
        exitSignal_.reset();
        return true;
    }

    // Whether the exit descriptor said the child has ended.
    bool pollOnce(int timeout, bool watchExit) {
        pollfd fds[2];
        nfds_t count = 0;
        int outputIndex = -1, exitIndex = -1;
        if (!outputEnded_) {
            outputIndex = static_cast<int>(count);
            fds[count++] = {output_, POLLIN, 0};
        }
        if (watchExit && exitSignal_.get() >= 0) {
            exitIndex = static_cast<int>(count);
            fds[count++] = {exitSignal_.get(), POLLIN, 0};
        }
        int ready = poll(fds, count, timeout);
        if (ready <= 0) return false;  // time is up, or a signal: the caller looks again
        if (outputIndex >= 0 && fds[outputIndex].revents) readAvailable();
        return exitIndex >= 0 && fds[exitIndex].revents;
    }

    void readAvailable() {
        char buffer[65536];
        ssize_t n;
        do {
            n = read(output_, buffer, sizeof buffer);
        } while (n < 0 && errno == EINTR);
        if (n > 0) {
            kept_.append(buffer, static_cast<std::size_t>(n));
        } else if (n == 0 || errno != EAGAIN) {
            outputEnded_ = true;
        }
    }

    pid_t pid_;
    int output_;
    Descriptor exitSignal_;
    std::optional<int> status_;
    bool endedOnItsOwn_ = false;
    bool outputEnded_ = false;
    KeptOutput kept_;
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

CommandResult LinuxCommandRunner::run(const std::filesystem::path& program, const std::vector<std::string>& arguments,
                                      double timeout) {
    CommandResult result;
    std::string programPath = program.string();
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        result.failure = SystemError::fromErrno(errno, "Could not create a pipe for " + programPath);
        return result;
    }
    Descriptor readEnd(aboveStandardStreams(ends[0]));
    Descriptor writeEnd(aboveStandardStreams(ends[1]));
    if (readEnd.get() < 0 || writeEnd.get() < 0) {
        result.failure = SystemError{errno, "Could not create a pipe for " + programPath};
        return result;
    }

    SpawnSetup setup;
    posix_spawn_file_actions_addopen(&setup.actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&setup.actions, writeEnd.get(), 1);
    posix_spawn_file_actions_adddup2(&setup.actions, writeEnd.get(), 2);
    std::string folder = workingFolder(environment_);
    posix_spawn_file_actions_addchdir_np(&setup.actions, folder.c_str());

    // The child starts with every signal at its default and none blocked,
    // whatever this process set up for itself.
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&setup.attributes, &none);
    posix_spawnattr_setsigdefault(&setup.attributes, &all);
    posix_spawnattr_setflags(&setup.attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    std::vector<std::string> words{programPath};
    words.insert(words.end(), arguments.begin(), arguments.end());
    ExecStrings argv(std::move(words));
    ExecStrings envp(environment_);

    pid_t pid = -1;
    int error = posix_spawn(&pid, programPath.c_str(), &setup.actions, &setup.attributes, argv.data(), envp.data());
    writeEnd.reset();
    if (error != 0) {
        result.failure = SystemError::fromErrno(error, "Could not start " + programPath);
        return result;
    }

    Child child(pid, readEnd.get());
    double seconds = std::isfinite(timeout) && timeout > 0 ? timeout : 0;
    auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    child.waitForExit(deadline);

    if (child.exited()) {
        result.status = child.status();
        result.exited = child.endedOnItsOwn();
    } else {
        result.stopped = true;
        child.signal(SIGTERM);
        child.waitForExit(Clock::now() + limits_.grace);
        if (!child.exited()) {
            child.signal(SIGKILL);
            // SIGKILL cannot be ignored, but a child stuck in the kernel or
            // held by a tracer is gone only when they let it go.
            child.waitForExit(Clock::now() + limits_.killed);
            result.survivedKill = !child.exited();
        }
    }
    child.drain(Clock::now() + limits_.drain);
    child.output().into(result);
    return result;
}

}  // namespace platform
