// A real child process with pipes on its standard input and output, for tests
// that drive the bridge, the simulator or a helper program the way an agent
// would. Standard error goes to an in-memory file, so that a chatty child never
// blocks on it; standard output is read line by line with a deadline, so a
// test fails instead of hanging. Used from one test thread.
#pragma once
#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace testsupport {

using Environment = std::map<std::string, std::string>;

// The test process's own environment, to start from and adjust.
Environment currentEnvironment();

class ChildProcess {
public:
    struct Options {
        std::vector<std::string> argv;
        Environment environment = currentEnvironment();
        std::filesystem::path workingDirectory = {};  // empty: inherit
    };

    explicit ChildProcess(Options options);
    ~ChildProcess();  // kills and reaps the child if it still runs
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return pid_; }

    void write(const std::string& bytes);
    void closeStdin();

    // The next line of standard output without its line feed, or nothing when
    // the deadline passes or the output ends first.
    std::optional<std::string> readLine(std::chrono::milliseconds timeout = std::chrono::seconds(10));
    // Everything left on standard output until it ends (or the deadline).
    std::string readRest(std::chrono::milliseconds timeout = std::chrono::seconds(10));

    // Waits for the exit; the exit status, 128+signal, or nothing on timeout.
    std::optional<int> wait(std::chrono::milliseconds timeout = std::chrono::seconds(10));
    void kill(int signal);

    std::string stderrText() const;
    // Waits until standard error contains the text, or the deadline passes.
    bool waitForStderr(const std::string& text, std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

private:
    // One read of standard output; false once nothing more can come in time.
    bool readMore(std::chrono::steady_clock::time_point deadline);

    pid_t pid_ = -1;
    int in_ = -1, out_ = -1, err_ = -1;
    std::string outBuffer_;
    bool outEnded_ = false;
    std::optional<int> status_;
};

}  // namespace testsupport
