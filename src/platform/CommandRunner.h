// Runs a program as a child process and collects what it prints. The child
// gets no shell, the null device as its standard input, one pipe for its
// standard output and standard error together (in arrival order), the
// environment the runner was made with, and the temporary folder as its
// working directory, so that it never mistakes wherever the user happens to
// stand for a project. The calling thread blocks until the child has ended
// or the time limit has passed, and never longer than the limits below
// allow. Every child is reaped before `run` returns, except one that does not
// end even when killed (stuck in the kernel, or held by a tracer): that one
// is left to the system rather than waited for without end. The result is a
// value saying how the child ended; the words a person reads are made above.
#pragma once
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "platform/Environment.h"
#include "platform/SystemError.h"

namespace platform {

// Of a child's output only this much of its beginning and of its end is
// kept: enough for any answer a program gives, and a program that prints
// without end cannot fill our memory.
inline constexpr std::size_t keptOutputEnd = 64 * 1024;

struct CommandResult {
    // The program could not be started: "Could not start <program>: <reason>"
    // (or "Could not create a pipe for <program>...").
    std::optional<SystemError> failure;
    int status = -1;  // the exit status (the signal number when killed); -1: not started or stopped here
    // It ended on its own with an exit status: it did start, and it was
    // neither stopped here nor killed by a signal.
    bool exited = false;
    bool stopped = false;      // it outlived the time limit and was stopped here
    bool survivedKill = false; // stopped, and still there after SIGKILL

    // Standard output and error as printed, bytes as they came: all of it,
    // or, beyond twice keptOutputEnd, its first and last keptOutputEnd bytes
    // with `cut` bytes dropped between them. A character split by a cut goes
    // whole, so that neither end starts or stops inside one.
    std::string head;
    std::size_t cut = 0;
    std::string tail;
};

// How long a child has to go once asked to stop, how long a killed child may
// take to be gone, and how long its output pipe may stay open after it ended
// (a grandchild may hold it). Tests shorten them; the tool uses the defaults.
struct RunLimits {
    std::chrono::milliseconds grace{5000};
    std::chrono::milliseconds drain{2000};
    std::chrono::milliseconds killed{2000};
};

class CommandRunner {
public:
    virtual ~CommandRunner() = default;
    // A child that outlives `timeout` seconds is sent SIGTERM, then SIGKILL
    // after the grace period.
    virtual CommandResult run(const std::filesystem::path& program, const std::vector<std::string>& arguments,
                              double timeout) = 0;
};

// posix_spawn. The working folder is the environment's TMPDIR when that
// names a folder, else /tmp, else "/"; looked at on every run.
class LinuxCommandRunner final : public CommandRunner {
public:
    explicit LinuxCommandRunner(Environment environment, RunLimits limits = {})
        : environment_(std::move(environment)), limits_(limits) {}
    CommandResult run(const std::filesystem::path& program, const std::vector<std::string>& arguments,
                      double timeout) override;

private:
    Environment environment_;
    RunLimits limits_;
};

}  // namespace platform
