// What one of an agent's programs answered, as the installer shows it: its
// output as UTF-8 text (each ill-formed sequence replaced), with a line where
// a long output was cut and a note when the program had to be stopped or
// could not be started, and how it ended. Synchronous: `ask` blocks while
// the program runs (platform/CommandRunner.h sets the bounds).
#pragma once
#include <filesystem>
#include <string>
#include <vector>

#include "installer/System.h"

namespace BridgeInstaller {

struct Answer {
    int status = -1;  // the exit status (the signal number when killed); -1: not started or stopped
    std::string output;
    // It ended on its own with an exit status: it did start, and it was
    // neither stopped nor killed by a signal.
    bool exited = false;
};

Answer ask(const System& system, const std::filesystem::path& program, const std::vector<std::string>& arguments,
           double timeout);

// The answer of a finished run that was given `timeout` seconds.
Answer answer(const platform::CommandResult& result, double timeout);

}  // namespace BridgeInstaller
