#include "support/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <utility>

extern char** environ;

namespace testsupport {

namespace {

using Clock = std::chrono::steady_clock;

// Sanitizer builds run many times slower; their runs stretch every deadline
// a test gives a child by VSM_TEST_TIME_SCALE, so that a slow answer is not
// mistaken for none.
Clock::time_point deadlineAfter(std::chrono::milliseconds timeout) {
    static const char* scale = std::getenv("VSM_TEST_TIME_SCALE");
    static const long factor = std::max(1L, scale ? std::strtol(scale, nullptr, 10) : 1L);
    return Clock::now() + timeout * factor;
}

[[noreturn]] void fail(const std::string& what, int error = errno) {
    throw std::runtime_error(what + ": " + strerror(error));
}

}  // namespace

Environment currentEnvironment() {
    Environment env;
    for (char** e = environ; *e; ++e)
        if (const char* eq = std::strchr(*e, '=')) env[std::string(*e, static_cast<size_t>(eq - *e))] = eq + 1;
    return env;
}

ChildProcess::ChildProcess(Options options) {
    signal(SIGPIPE, SIG_IGN);
    int input[2], output[2];
    if (pipe2(input, O_CLOEXEC) != 0 || pipe2(output, O_CLOEXEC) != 0) fail("pipe");
    if ((err_ = memfd_create("stderr", MFD_CLOEXEC)) < 0) fail("memfd_create");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input[0], 0);
    posix_spawn_file_actions_adddup2(&actions, output[1], 1);
    posix_spawn_file_actions_adddup2(&actions, err_, 2);
    if (!options.workingDirectory.empty())
        posix_spawn_file_actions_addchdir_np(&actions, options.workingDirectory.c_str());
    std::vector<std::string> entries;
    for (auto& [name, value] : options.environment) entries.push_back(name + "=" + value);
    std::vector<char*> argv, envp;
    for (auto& a : options.argv) argv.push_back(a.data());
    for (auto& e : entries) envp.push_back(e.data());
    argv.push_back(nullptr), envp.push_back(nullptr);
    int rc = posix_spawnp(&pid_, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    close(input[0]), close(output[1]);
    in_ = input[1], out_ = output[0];
    if (rc != 0) {
        for (int fd : {in_, out_, err_}) close(fd);
        fail("spawn " + options.argv[0], rc);
    }
}

ChildProcess::~ChildProcess() {
    closeStdin();
    if (!status_) {
        ::kill(pid_, SIGKILL);
        wait(std::chrono::seconds(5));
    }
    close(out_);
    close(err_);
}

void ChildProcess::write(const std::string& bytes) {
    for (size_t done = 0; done < bytes.size();) {
        ssize_t n = ::write(in_, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) fail("write to child");
        done += static_cast<size_t>(n);
    }
}

void ChildProcess::closeStdin() {
    if (in_ >= 0) close(std::exchange(in_, -1));
}

bool ChildProcess::readMore(Clock::time_point deadline) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (outEnded_ || left <= 0) return false;
    pollfd p{out_, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(left)) <= 0) return true;  // the deadline is looked at again
    char buf[65536];
    ssize_t n = ::read(out_, buf, sizeof buf);
    if (n > 0) outBuffer_.append(buf, static_cast<size_t>(n));
    else if (n == 0 || errno != EINTR) outEnded_ = true;
    return true;
}

std::optional<std::string> ChildProcess::readLine(std::chrono::milliseconds timeout) {
    for (auto deadline = deadlineAfter(timeout); outBuffer_.find('\n') == std::string::npos;)
        if (!readMore(deadline)) return std::nullopt;
    std::string line = outBuffer_.substr(0, outBuffer_.find('\n'));
    outBuffer_.erase(0, line.size() + 1);
    return line;
}

std::string ChildProcess::readRest(std::chrono::milliseconds timeout) {
    for (auto deadline = deadlineAfter(timeout); readMore(deadline);) continue;
    return std::exchange(outBuffer_, {});
}

std::optional<int> ChildProcess::wait(std::chrono::milliseconds timeout) {
    for (auto deadline = deadlineAfter(timeout); !status_; usleep(2000)) {
        int st = 0;
        pid_t r = waitpid(pid_, &st, WNOHANG);
        if (r == pid_) status_ = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
        else if ((r < 0 && errno != EINTR) || Clock::now() >= deadline) return std::nullopt;
    }
    return status_;
}

void ChildProcess::kill(int signal) { if (!status_) ::kill(pid_, signal); }

std::string ChildProcess::stderrText() const {
    std::string text;
    char buf[65536];
    for (ssize_t n; (n = pread(err_, buf, sizeof buf, static_cast<off_t>(text.size()))) > 0;)
        text.append(buf, static_cast<size_t>(n));
    return text;
}

bool ChildProcess::waitForStderr(const std::string& text, std::chrono::milliseconds timeout) const {
    for (auto deadline = deadlineAfter(timeout); stderrText().find(text) == std::string::npos; usleep(5000))
        if (Clock::now() >= deadline) return false;
    return true;
}

}  // namespace testsupport
