// Runs one of an agent's programs as a child process and collects what it
// prints. The child gets no shell, the null device as its standard input,
// one pipe for its standard output and standard error together (in arrival
// order), and the temporary folder as its working directory, so that it
// never mistakes wherever the user happens to stand for a project. The
// calling thread blocks until the child has ended or the time limit has
// passed, and never longer than the limits below allow. Every child is
// reaped before `run` returns, except one that does not end even when
// killed (stuck in the kernel, or held by a tracer): that one is left to
// the system rather than waited for without end.
#pragma once
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

namespace BridgeInstaller {

// Of a child's output only this much of its beginning and of its end is
// kept: enough for any answer an agent gives, and a program that prints
// without end cannot fill our memory.
inline constexpr std::size_t keptOutputEnd = 64 * 1024;

struct CommandResult {
    int status = -1;  // the exit status (the signal number when killed); -1: not started or stopped
    // Standard output and error as UTF-8, ill-formed bytes replaced; beyond
    // twice `keptOutputEnd`, the middle is replaced by a line saying how
    // many bytes were cut.
    std::string output;
    // The program ran and ended on its own with an exit status: it did
    // start, and it was neither stopped here nor killed by a signal.
    bool exited = false;
};

// How long a child has to go once asked to stop, how long a killed child may
// take to be gone, and how long its output pipe may stay open after it ended
// (a grandchild may hold it). Tests shorten them; the installer uses the
// defaults.
struct RunLimits {
    std::chrono::milliseconds grace{5000};
    std::chrono::milliseconds drain{2000};
    std::chrono::milliseconds killed{2000};
};

// A child that outlives `timeout` seconds is sent SIGTERM, then SIGKILL after
// the grace period, and gives status -1 with a note at the end of its output.
// A program that cannot be started gives status -1 and the reason.
CommandResult run(const std::filesystem::path& program, const std::vector<std::string>& arguments, double timeout,
                  const RunLimits& limits = {});

}  // namespace BridgeInstaller
