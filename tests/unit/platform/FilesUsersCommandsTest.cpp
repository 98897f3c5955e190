// The real files, users and child processes: LinuxFiles against a temporary
// folder, LinuxUsers against this machine's password database, and
// LinuxCommandRunner against /bin/sh scripts that print without end, hang,
// ignore SIGTERM, outlive SIGKILL or leave a grandchild holding the pipe.
#include <fcntl.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cstdlib>

#include "platform/CommandRunner.h"
#include "platform/Files.h"
#include "platform/Users.h"
#include "support/TempDir.h"

namespace fs = std::filesystem;
using platform::FileKind;
using Clock = std::chrono::steady_clock;

namespace {

std::string failure(const std::optional<platform::SystemError>& error) { return error ? error->description : "none"; }

platform::CommandResult shell(const std::string& script, double timeout = 10, platform::RunLimits limits = {},
                              platform::Environment environment = {{"PATH", "/usr/bin:/bin"}}) {
    return platform::LinuxCommandRunner(std::move(environment), limits).run("/bin/sh", {"-c", script}, timeout);
}

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// No child of this test process is left unreaped.
bool noZombies() {
    int status;
    return waitpid(-1, &status, WNOHANG) <= 0;
}

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

TEST(LinuxFiles, WholeFilesAreReadAndReplacedAtomicallyOrLeftAsTheyWere) {
    testsupport::TempDir dir;
    platform::LinuxFiles files;
    fs::path file = dir / "config.json", target = dir.write("target", "kept");
    ASSERT_FALSE(files.writeAtomically(file, std::string(200000, 'x')));
    EXPECT_EQ(files.read(file).bytes, std::string(200000, 'x'));
    EXPECT_EQ(files.status(file).permissions & 0004, 0004u) << "the umask decides";
    ASSERT_FALSE(files.writeAtomically(file, "two", 0640));
    EXPECT_EQ(testsupport::readFile(file), "two");
    EXPECT_EQ(files.status(file).permissions, 0640u);
    fs::create_symlink(target, dir / "link");
    ASSERT_FALSE(files.writeAtomically(dir / "link", "new"));
    EXPECT_EQ(files.linkStatus(dir / "link").kind, FileKind::file) << "a link in the file's place is replaced";
    EXPECT_EQ(testsupport::readFile(target), "kept");

    fs::create_directories(dir / "folder" / "inside");
    fs::create_symlink("nowhere", dir / "dangling");
    EXPECT_EQ(failure(files.read(dir / "folder").error), "Could not read " + (dir / "folder").string() + ": Is a directory");
    EXPECT_EQ(failure(files.read(dir / "dangling").error), "Could not read " + (dir / "dangling").string() + ": No such file or directory");
    EXPECT_EQ(failure(files.writeAtomically(dir / "folder", "x")), "Could not write " + (dir / "folder").string() + ": Is a directory");
    EXPECT_EQ(files.writeAtomically(dir / "missing" / "f", "x")->code, ENOENT);
    EXPECT_EQ(failure(platform::writeAll(-1, "x", "Could not write out")), "Could not write out: Bad file descriptor");
    // No temporary file is left behind, whatever happened.
    EXPECT_EQ(testsupport::namesIn(dir.path()), (std::vector<std::string>{"config.json", "dangling", "folder", "link", "target"}));
}

TEST(LinuxFiles, FoldersLinksAndWhatLiesAtAPath) {
    testsupport::TempDir dir;
    platform::LinuxFiles files;
    fs::path script = dir.write("script", "#!/bin/sh\n");
    EXPECT_FALSE(files.createFolders(dir / "a" / "b" / "c"));
    EXPECT_FALSE(files.createFolders(dir / "a" / "b"));
    EXPECT_EQ(failure(files.createFolders(script / "sub")), "Could not create the folder " + (script / "sub").string() + ": Not a directory");
    EXPECT_EQ(failure(files.remove(dir / "a")), "Could not remove " + (dir / "a").string() + ": Directory not empty");
    EXPECT_FALSE(files.remove(dir / "a" / "b" / "c"));
    for (auto [link, target] : {std::pair{"link", "script"}, {"dangling", "nowhere"}, {"loop", "loop"}, {"gone", "script"}})
        fs::create_symlink(target, dir / link);
    EXPECT_FALSE(files.remove(dir / "gone"));
    EXPECT_TRUE(fs::exists(script)) << "a link goes, not what it points at";
    struct Case {
        fs::path path;
        FileKind followed, notFollowed;
    };
    for (const auto& c : std::vector<Case>{{script, FileKind::file, FileKind::file},
                                           {dir.path(), FileKind::folder, FileKind::folder},
                                           {dir / "link", FileKind::file, FileKind::link},
                                           {dir / "dangling", FileKind::missing, FileKind::link},
                                           {dir / "loop", FileKind::unknown, FileKind::link},
                                           {dir / "gone", FileKind::missing, FileKind::missing},
                                           {script / "below", FileKind::missing, FileKind::missing},
                                           {"/dev/null", FileKind::other, FileKind::other}}) {
        EXPECT_EQ(files.status(c.path).kind, c.followed) << c.path;
        EXPECT_EQ(files.linkStatus(c.path).kind, c.notFollowed) << c.path;
    }
    EXPECT_FALSE(files.isExecutable(script));
    fs::permissions(script, fs::perms::owner_exec, fs::perm_options::add);
    EXPECT_TRUE(files.isExecutable(dir / "link"));
    EXPECT_FALSE(files.isExecutable(dir.path()));
    fs::create_directory_symlink(dir / "a", dir / "linked");
    EXPECT_EQ(files.resolved(dir / "linked" / "." / "x" / ".." / "y"), dir / "a" / "y");
    EXPECT_EQ(files.resolved(dir / "loop" / ".." / "z"), dir / "z") << "a loop is spelled out, not followed";
}

TEST(UserHomes, TildeNamesTheHomeFolderOrAUsersAndHomeComesFromTheEnvironmentFirst) {
    struct Homes final : platform::Users {
        std::optional<std::string> homeOf(const std::string& user) const override {
            return user.empty() ? std::optional<std::string>("/home/me") : user == "bob" ? "/srv/bob" : std::optional<std::string>();
        }
    } users;
    platform::Environment withHome = {{"HOME", "/env/home"}};
    EXPECT_EQ(platform::homeFolder(withHome, users), "/env/home");
    EXPECT_EQ(platform::homeFolder({{"HOME", ""}}, users), "/home/me");
    for (auto [path, withHomeSet, without] : std::vector<std::array<std::string, 3>>{
             {"~", "/env/home", "/home/me"}, {"~/bin/x", "/env/home/bin/x", "/home/me/bin/x"}, {"~bob/x", "/srv/bob/x", "/srv/bob/x"},
             {"~bob", "/srv/bob", "/srv/bob"}, {"~nobody/x", "~nobody/x", "~nobody/x"}, {"/a/~", "/a/~", "/a/~"}, {"", "", ""}}) {
        EXPECT_EQ(platform::expandingTilde(path, withHome, users), withHomeSet) << path;
        EXPECT_EQ(platform::expandingTilde(path, {}, users), without) << path;
    }
    platform::LinuxUsers real;
    EXPECT_EQ(real.homeOf("root"), "/root");
    EXPECT_TRUE(real.homeOf(""));
    EXPECT_FALSE(real.homeOf("no-such-user-vsm"));
}

TEST(ChildProcesses, OutputInArrivalOrderStatusArgumentsAndEnvironmentExactlyAsGiven) {
    auto result = shell("echo one; echo two >&2; printf 'thr\\377ee'; cat; exit 3");
    EXPECT_EQ(result.status, 3);
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(result.head, "one\ntwo\nthr\xFF" "ee") << "bytes as they came; the null device as input";
    auto killed = shell("kill -9 $$");
    EXPECT_EQ(killed.status, 9) << "a killed child gives its signal number";
    EXPECT_FALSE(killed.exited);
    platform::LinuxCommandRunner runner(platform::Environment{{"A", "1"}, {"B", "x=y"}});
    EXPECT_EQ(runner.run("/usr/bin/printf", {"[%s]", "a b", "$HOME", "'q'", ""}, 10).head, "[a b][$HOME]['q'][]");
    EXPECT_EQ(runner.run("/usr/bin/env", {}, 10).head, "A=1\nB=x=y\n");
    auto missing = runner.run("/nothing-here", {}, 10);
    EXPECT_EQ(missing.status, -1);
    EXPECT_EQ(failure(missing.failure), "Could not start /nothing-here: No such file or directory");
    EXPECT_EQ(failure(runner.run("/", {}, 10).failure), "Could not start /: Permission denied");
    EXPECT_TRUE(noZombies());
}

TEST(ChildProcesses, RunWithOurStandardStreamsClosedAndFailWhenNoDescriptorIsLeft) {
    // A pipe end that lands on 0, 1 or 2 would be overwritten by the child's
    // own standard streams.
    int input = dup(0), output = dup(1);
    close(0), close(1);
    auto fine = shell("echo fine");
    dup2(input, 0), dup2(output, 1);
    close(input), close(output);
    EXPECT_EQ(fine.head, "fine\n");
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    rlimit tight = {64, limit.rlim_max};
    std::vector<int> filling;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
    for (int fd; (fd = dup(2)) >= 0;) filling.push_back(fd);
    auto starved = shell("echo never");
    for (int fd : filling) close(fd);
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_EQ(failure(starved.failure), "Could not create a pipe for /bin/sh: Too many open files");
}

TEST(ChildProcesses, StartInTheTemporaryFolderNeverWhereTheUserStands) {
    testsupport::TempDir dir;
    fs::path file = dir.write("file", "");
    std::string tmp = fs::canonical("/tmp").string() + "\n";
    auto here = fs::current_path();
    fs::current_path(dir.path());
    for (const auto& [tmpdir, expected] : std::vector<std::pair<std::optional<std::string>, std::string>>{
             {dir.path().string(), dir.path().string() + "\n"}, {std::nullopt, tmp}, {"", tmp},
             {(dir / "missing").string(), tmp}, {file.string(), tmp}}) {
        platform::Environment environment;
        if (tmpdir) environment["TMPDIR"] = *tmpdir;
        EXPECT_EQ(shell("pwd -P", 10, {}, environment).head, expected) << "TMPDIR=" << tmpdir.value_or("(unset)");
    }
    fs::current_path(here);
}

TEST(ChildProcesses, LongOutputKeepsItsFirstAndLast64KiBAndCountsWhatWasCut) {
    const std::size_t half = platform::keptOutputEnd;
    auto printed = [](std::size_t count, char c) { return "head -c " + std::to_string(count) + " /dev/zero | tr '\\0' " + c + "; "; };
    struct Case {
        std::string script;
        std::size_t head, cut, tail;
    };
    for (const auto& c : std::vector<Case>{
             {printed(2 * half, 'a'), 2 * half, 0, 0},
             {printed(half, 'a') + "printf m; " + printed(half, 'z'), half, 1, half},
             {printed(half, 'a') + printed(3'000'000, 'm') + printed(half, 'z'), half, 3'000'000, half},
             // A character that straddles a cut goes whole.
             {printed(half - 1, 'a') + "printf '\\303\\251'; " + printed(1000, 'm') + "printf '\\342\\202\\254'; " +
                  printed(half - 1, 'z'), half - 1, 1005, half - 1}}) {
        auto result = shell(c.script);
        EXPECT_EQ(result.status, 0);
        EXPECT_TRUE(result.head == std::string(c.head, 'a') && result.tail == std::string(c.tail, 'z'))
            << c.script << "\ngave " << result.head.size() << " + " << result.tail.size() << " bytes";
        EXPECT_EQ(result.cut, c.cut) << c.script;
    }
    auto endless = shell("exec yes", 0.3);
    EXPECT_TRUE(endless.stopped);
    EXPECT_EQ(endless.status, -1);
    EXPECT_EQ(endless.head.substr(0, 4), "y\ny\n");
    EXPECT_GT(endless.cut, 0u);
    EXPECT_LE(endless.head.size() + endless.tail.size(), 2 * half);
    EXPECT_TRUE(noZombies());
}

TEST(ChildProcesses, HangingChildIsStoppedOneIgnoringTerminationKilledAGrandchildHoldingThePipeWaitedForOnlyBriefly) {
    auto start = Clock::now();
    auto hanging = shell("echo started; exec sleep 60", 0.5);
    EXPECT_LT(secondsSince(start), 5);
    EXPECT_TRUE(hanging.stopped && !hanging.survivedKill && hanging.status == -1 && hanging.head == "started\n");
    start = Clock::now();
    // The trap is set before "ready" is printed, so SIGTERM finds it in place.
    auto stubborn = shell("trap '' TERM; echo ready; while :; do sleep 0.05; done", 0.5, {std::chrono::milliseconds(300), std::chrono::milliseconds(300)});
    EXPECT_LT(secondsSince(start), 4);
    EXPECT_TRUE(stubborn.stopped && !stubborn.survivedKill && stubborn.head == "ready\n");
    start = Clock::now();
    auto parent = shell("echo parent; (sleep 30; echo late) & exit 0", 20, {std::chrono::milliseconds(5000), std::chrono::milliseconds(400)});
    EXPECT_GE(secondsSince(start), 0.35);
    EXPECT_LT(secondsSince(start), 3);
    EXPECT_EQ(parent.status, 0);
    EXPECT_EQ(parent.head, "parent\n");
    EXPECT_TRUE(noZombies());
}

TEST(ChildProcesses, ChildThatOutlivesSIGKILLIsGivenUpAfterABoundedWait) {
    testsupport::TempDir dir;
    std::string pidFile = (dir / "pid").string();
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
    platform::RunLimits limits{std::chrono::milliseconds(200), std::chrono::milliseconds(200), std::chrono::milliseconds(300)};
    auto result = shell(script, 2, limits);
    int status;
    pid_t tracerGone = waitpid(tracer, &status, WNOHANG);
    if (tracerGone == tracer && WIFEXITED(status) && WEXITSTATUS(status) == 1)
        GTEST_SKIP() << "this system does not let one process trace another of the same user (Yama ptrace_scope)";
    EXPECT_EQ(result.status, -1);
    EXPECT_TRUE(result.survivedKill);
    EXPECT_EQ(result.head, "traced\n");
    EXPECT_EQ(tracerGone, 0) << "the runner returned only once the tracer had gone";

    kill(tracer, SIGKILL), waitpid(tracer, &status, 0);
    pid_t child = static_cast<pid_t>(std::stol(testsupport::readFile(pidFile)));
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(noZombies());
}
