#include "support/ChildProcess.h"

#include <cstdlib>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

extern char** environ;

namespace testsupport {

namespace {

// Sanitizer builds run many times slower; their runs stretch every deadline
// a test gives a child by VSM_TEST_TIME_SCALE, so that a slow answer is not
// mistaken for none.
std::chrono::milliseconds scaled(std::chrono::milliseconds timeout) {
    static const long factor = [] {
        const char* value = std::getenv("VSM_TEST_TIME_SCALE");
        long parsed = value ? std::strtol(value, nullptr, 10) : 1;
        return parsed > 1 ? parsed : 1L;
    }();
    return timeout * factor;
}

}  // namespace

Environment currentEnvironment() {
    Environment env;
    for (char** e = environ; *e; ++e) {
        std::string entry = *e;
        auto eq = entry.find('=');
        if (eq != std::string::npos) env[entry.substr(0, eq)] = entry.substr(eq + 1);
    }
    return env;
}

namespace {
void makePipe(int fds[2]) {
    if (pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error(std::string("pipe: ") + strerror(errno));
}
}  // namespace

ChildProcess::ChildProcess(Options options) {
    signal(SIGPIPE, SIG_IGN);
    int inPipe[2], outPipe[2], errPipe[2];
    makePipe(inPipe);
    makePipe(outPipe);
    makePipe(errPipe);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, inPipe[0], 0);
    posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
    posix_spawn_file_actions_adddup2(&actions, errPipe[1], 2);
    if (!options.workingDirectory.empty())
        posix_spawn_file_actions_addchdir_np(&actions, options.workingDirectory.c_str());

    std::vector<char*> argv;
    for (auto& a : options.argv) argv.push_back(a.data());
    argv.push_back(nullptr);
    std::vector<std::string> envStrings;
    for (auto& [k, v] : options.environment) envStrings.push_back(k + "=" + v);
    std::vector<char*> envp;
    for (auto& e : envStrings) envp.push_back(e.data());
    envp.push_back(nullptr);

    int rc = posix_spawnp(&pid_, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    close(inPipe[0]);
    close(outPipe[1]);
    close(errPipe[1]);
    if (rc != 0) {
        close(inPipe[1]);
        close(outPipe[0]);
        close(errPipe[0]);
        throw std::runtime_error("spawn " + options.argv[0] + ": " + strerror(rc));
    }
    in_ = inPipe[1];
    out_ = outPipe[0];
    err_ = errPipe[0];
    errReader_ = std::thread([this] {
        char buf[4096];
        for (;;) {
            ssize_t n = ::read(err_, buf, sizeof buf);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            std::lock_guard lock(errMutex_);
            errText_.append(buf, static_cast<size_t>(n));
        }
    });
}

ChildProcess::~ChildProcess() {
    closeStdin();
    if (!status_) {
        ::kill(pid_, SIGKILL);
        wait(std::chrono::seconds(5));
    }
    if (errReader_.joinable()) errReader_.join();
    if (out_ >= 0) close(out_);
    if (err_ >= 0) close(err_);
}

void ChildProcess::write(const std::string& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::write(in_, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) throw std::runtime_error(std::string("write to child: ") + strerror(errno));
        done += static_cast<size_t>(n);
    }
}

void ChildProcess::closeStdin() {
    if (in_ >= 0) close(in_);
    in_ = -1;
}

std::optional<std::string> ChildProcess::readLine(std::chrono::milliseconds timeout) {
    timeout = scaled(timeout);
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        auto nl = outBuffer_.find('\n');
        if (nl != std::string::npos) {
            std::string line = outBuffer_.substr(0, nl);
            outBuffer_.erase(0, nl + 1);
            return line;
        }
        if (outEnded_) return std::nullopt;
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return std::nullopt;
        pollfd p{out_, POLLIN, 0};
        int r = poll(&p, 1, static_cast<int>(left.count()));
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) continue;
        char buf[65536];
        ssize_t n = ::read(out_, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            outEnded_ = true;
            continue;
        }
        outBuffer_.append(buf, static_cast<size_t>(n));
    }
}

std::string ChildProcess::readRest(std::chrono::milliseconds timeout) {
    timeout = scaled(timeout);
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!outEnded_) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) break;
        pollfd p{out_, POLLIN, 0};
        int r = poll(&p, 1, static_cast<int>(left.count()));
        if (r <= 0) continue;
        char buf[65536];
        ssize_t n = ::read(out_, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) outEnded_ = true;
        else outBuffer_.append(buf, static_cast<size_t>(n));
    }
    std::string rest;
    rest.swap(outBuffer_);
    return rest;
}

std::optional<int> ChildProcess::wait(std::chrono::milliseconds timeout) {
    timeout = scaled(timeout);
    if (status_) return status_;
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        int st = 0;
        pid_t r = waitpid(pid_, &st, WNOHANG);
        if (r == pid_) {
            status_ = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
            return status_;
        }
        if (r < 0 && errno != EINTR) return std::nullopt;
        if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
        usleep(2000);
    }
}

void ChildProcess::kill(int signal) {
    if (!status_) ::kill(pid_, signal);
}

std::string ChildProcess::stderrText() const {
    std::lock_guard lock(errMutex_);
    return errText_;
}

bool ChildProcess::waitForStderr(const std::string& text, std::chrono::milliseconds timeout) const {
    timeout = scaled(timeout);
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (stderrText().find(text) != std::string::npos) return true;
        usleep(5000);
    }
    return stderrText().find(text) != std::string::npos;
}

}  // namespace testsupport
