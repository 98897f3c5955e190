// The child-process runner against real programs: /bin/sh scripts that
// print without end, hang, ignore SIGTERM, outlive SIGKILL or leave a
// grandchild holding the pipe.
#include <fcntl.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>

#include "installer/ProcessRunner.h"
#include "support/TempDir.h"

using BridgeInstaller::run;
using BridgeInstaller::RunLimits;
using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

namespace {

BridgeInstaller::CommandResult shell(const std::string& script, double timeout = 10, RunLimits limits = {}) {
    return run("/bin/sh", {"-c", script}, timeout, limits);
}

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// No child of this test process is left unreaped.
bool noZombies() {
    int status;
    return waitpid(-1, &status, WNOHANG) <= 0;
}

}  // namespace

TEST(ChildProcessRunner, CollectsBothOutputsInArrivalOrderWithTheStatus) {
    auto result = shell("echo one; echo two >&2; printf three; exit 3");
    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(result.output, "one\ntwo\nthree");
    EXPECT_EQ(shell("printf 'a\\377b\\342\\202c'").output, "a\xEF\xBF\xBD" "b\xEF\xBF\xBD" "c") << "invalid UTF-8 is replaced";
    EXPECT_EQ(shell("kill -9 $$").status, 9) << "a killed child gives its signal number";
    EXPECT_TRUE(noZombies());
}

TEST(ChildProcessRunner, LongOutputKeepsItsFirstAndLast64KiBAndSaysHowMuchWasCut) {
    const std::size_t half = 64 * 1024;
    auto printed = [](std::size_t count, char c) {
        return "head -c " + std::to_string(count) + " /dev/zero | tr '\\0' " + c + "; ";
    };
    auto cut = [](std::size_t bytes) { return "\n(" + std::to_string(bytes) + " bytes cut from the middle of this output)\n"; };
    struct Case {
        std::string script;
        std::string expected;
    };
    std::vector<Case> cases = {
        {printed(2 * half, 'x'), std::string(2 * half, 'x')},
        {printed(half, 'a') + "printf m; " + printed(half, 'z'), std::string(half, 'a') + cut(1) + std::string(half, 'z')},
        {printed(half, 'a') + printed(3'000'000, 'm') + printed(half, 'z'),
         std::string(half, 'a') + cut(3'000'000) + std::string(half, 'z')},
        // A character that straddles a cut goes whole, so no cut shows as
        // U+FFFD.
        {printed(half - 1, 'a') + "printf '\\303\\251'; " + printed(1000, 'm') + "printf '\\342\\202\\254'; " +
             printed(half - 1, 'z'),
         std::string(half - 1, 'a') + cut(1005) + std::string(half - 1, 'z')},
    };
    for (const auto& c : cases) {
        auto result = shell(c.script);
        EXPECT_EQ(result.status, 0);
        EXPECT_TRUE(result.output == c.expected) << c.script << "\ngave " << result.output.size() << " bytes, "
                                                 << result.output.substr(half - 8, 80);
    }
}

TEST(ChildProcessRunner, EndlessPrinterIsStoppedWithBoundedOutput) {
    auto result = shell("exec yes", 0.3);
    EXPECT_EQ(result.status, -1);
    EXPECT_LT(result.output.size(), 2 * 64 * 1024 + 200u);
    EXPECT_EQ(result.output.substr(0, 4), "y\ny\n");
    EXPECT_NE(result.output.find(" bytes cut from the middle of this output)\n"), std::string::npos);
    std::string stop = "\n(stopped after 0 s without an answer)";
    EXPECT_EQ(result.output.substr(result.output.size() - stop.size()), stop);
    EXPECT_TRUE(noZombies());
}

TEST(ChildProcessRunner, ArgumentsWordForWordEmptyInput) {
    EXPECT_EQ(run("/usr/bin/printf", {"[%s]", "a b", "$HOME", "'q'", ""}, 10).output, "[a b][$HOME]['q'][]");
    EXPECT_EQ(shell("cat; echo done").output, "done\n");
}

TEST(ChildProcessRunner, ChildRunsInTheTemporaryFolderOrInTmpNeverWhereTheUserStands) {
    testsupport::TempDir dir;
    fs::path file = dir.write("file", "");
    const char* saved = std::getenv("TMPDIR");
    std::optional<std::string> before = saved ? std::optional<std::string>(saved) : std::nullopt;
    std::string tmp = fs::canonical("/tmp").string() + "\n";
    std::vector<std::pair<std::optional<std::string>, std::string>> cases = {
        {dir.path().string(), dir.path().string() + "\n"},
        {std::nullopt, tmp},
        {"", tmp},
        {(dir.path() / "missing").string(), tmp},
        {file.string(), tmp},
    };
    auto here = fs::current_path();
    fs::current_path(dir.path());
    for (const auto& [tmpdir, expected] : cases) {
        if (tmpdir) setenv("TMPDIR", tmpdir->c_str(), 1);
        else unsetenv("TMPDIR");
        EXPECT_EQ(shell("pwd -P").output, expected) << "TMPDIR=" << tmpdir.value_or("(unset)");
    }
    fs::current_path(here);
    if (before) setenv("TMPDIR", before->c_str(), 1);
    else unsetenv("TMPDIR");
}

TEST(ChildProcessRunner, ProgramThatCannotStartGivesMinusOneAndTheReason) {
    testsupport::TempDir dir;
    auto missing = run(dir.path() / "nothing-here", {}, 10);
    EXPECT_EQ(missing.status, -1);
    EXPECT_EQ(missing.output, "Could not start " + (dir.path() / "nothing-here").string() + ": No such file or directory.");
    auto folder = run(dir.path(), {}, 10);
    EXPECT_EQ(folder.status, -1);
    EXPECT_EQ(folder.output, "Could not start " + dir.path().string() + ": Permission denied.");
    EXPECT_TRUE(noZombies());
}

TEST(ChildProcessRunner, HangingChildIsStoppedWithANoteNamingWholeSeconds) {
    auto start = Clock::now();
    auto result = shell("echo started; exec sleep 60", 0.5);
    EXPECT_LT(secondsSince(start), 5);
    EXPECT_EQ(result.status, -1);
    EXPECT_EQ(result.output, "started\n\n(stopped after 0 s without an answer)");
    EXPECT_EQ(shell("exec sleep 60", 1.9).output, "\n(stopped after 1 s without an answer)");
    EXPECT_TRUE(noZombies());
}

TEST(ChildProcessRunner, ChildIgnoringTerminationIsKilledAfterTheGracePeriod) {
    auto start = Clock::now();
    RunLimits limits{std::chrono::milliseconds(300), std::chrono::milliseconds(300)};
    // The trap is set before "ready" is printed, so SIGTERM finds it in place.
    auto result = shell("trap '' TERM; echo ready; while :; do sleep 0.05; done", 0.5, limits);
    EXPECT_LT(secondsSince(start), 4);
    EXPECT_EQ(result.status, -1);
    EXPECT_EQ(result.output, "ready\n\n(stopped after 0 s without an answer)");
    EXPECT_TRUE(noZombies());
}

namespace {

// A process that traces the process whose pid appears in `pidFile` and then
// does nothing: a traced child that dies is reported to its tracer, not to
// its parent, so for its parent it outlives SIGKILL for as long as the tracer
// lives. The tracer gives up after 20 s, so that a runner that waits without
// bound still returns in the end.
pid_t startTracer(const std::string& pidFile) {
    pid_t tracer = fork();
    if (tracer != 0) return tracer;
    alarm(20);
    for (;;) {
        int fd = open(pidFile.c_str(), O_RDONLY);
        if (fd >= 0) {
            char digits[32];
            ssize_t n = read(fd, digits, sizeof digits - 1);
            close(fd);
            if (n > 0 && digits[n - 1] == '\n') {
                digits[n] = '\0';
                if (ptrace(PTRACE_SEIZE, static_cast<pid_t>(std::atol(digits)), nullptr, nullptr) != 0) _exit(1);
                for (;;) pause();
            }
        }
        usleep(1000);
    }
}

}  // namespace

TEST(ChildProcessRunner, ChildThatOutlivesSIGKILLIsGivenUpAfterABoundedWait) {
    testsupport::TempDir dir;
    std::string pidFile = (dir.path() / "pid").string();
    pid_t tracer = startTracer(pidFile);
    ASSERT_GT(tracer, 0);
    // Shell built-ins only until it is traced, so that no child's end stops
    // it early (a traced process stops at each signal it receives); the pid
    // is written in one write, which the tracer sees whole or not at all.
    std::string script = "echo $$ > '" + pidFile + "'\n"
                         "traced() { while read -r key value; do\n"
                         "  [ \"$key\" = TracerPid: ] && [ \"$value\" != 0 ] && return 0; done < /proc/$$/status; return 1; }\n"
                         "until traced; do :; done\n"
                         "echo traced; exec sleep 60\n";
    RunLimits limits{std::chrono::milliseconds(200), std::chrono::milliseconds(200), std::chrono::milliseconds(300)};
    auto result = shell(script, 2, limits);
    int status;
    pid_t tracerGone = waitpid(tracer, &status, WNOHANG);
    if (tracerGone == tracer && WIFEXITED(status) && WEXITSTATUS(status) == 1)
        GTEST_SKIP() << "this system does not let one process trace another of the same user (Yama ptrace_scope)";
    EXPECT_EQ(result.status, -1);
    EXPECT_EQ(result.output, "traced\n\n(no answer after 2 s, and it did not end when killed)");
    EXPECT_EQ(tracerGone, 0) << "the runner returned only once the tracer had gone";

    kill(tracer, SIGKILL);
    waitpid(tracer, &status, 0);
    pid_t child = static_cast<pid_t>(std::stol(testsupport::readFile(pidFile)));
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(noZombies());
}

TEST(ChildProcessRunner, GrandchildHoldingThePipeDelaysTheResultOnlyByTheDrain) {
    auto start = Clock::now();
    RunLimits limits{std::chrono::milliseconds(5000), std::chrono::milliseconds(400)};
    auto result = shell("echo parent; (sleep 30; echo late) & exit 0", 20, limits);
    double took = secondsSince(start);
    EXPECT_GE(took, 0.35);
    EXPECT_LT(took, 3);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "parent\n");
}
