// An agent's program that prints without end (`yes`), run the way the
// installer runs an agent's program until its time limit stops it:
//   installer_bench <seconds>
// Prints key=value lines: how many bytes the child printed, how many were
// kept, how long the run took, and this process's peak resident set
// (VmHWM) before and after the run.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "installer/Answer.h"

namespace {

long peakKiB() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmHWM:", 0) == 0) return std::atol(line.c_str() + 6);
    }
    return -1;
}

}  // namespace

int main(int argc, char** argv) {
    double seconds = argc > 1 ? std::atof(argv[1]) : 120;
    long before = peakKiB();
    auto start = std::chrono::steady_clock::now();
    const platform::Environment environment = platform::captureEnvironment();
    platform::LinuxCommandRunner commands(environment);
    BridgeInstaller::System system{platform::systemFiles(), commands, platform::systemUsers(), environment};
    auto result = BridgeInstaller::ask(system, "/usr/bin/yes", {}, seconds);
    double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    long after = peakKiB();

    const std::string marker = " bytes cut from the middle of this output)";
    auto at = result.output.find(marker);
    if (result.status != -1 || at == std::string::npos) {
        std::fprintf(stderr, "installer bench: the printer was not stopped with its output cut\n");
        return 1;
    }
    auto open = result.output.rfind('(', at);
    unsigned long long cut = std::strtoull(result.output.c_str() + open + 1, nullptr, 10);
    std::printf("printed_bytes=%llu\nkept_bytes=%zu\nseconds=%.2f\npeak_kib_before=%ld\npeak_kib_after=%ld\n",
                cut + 2 * platform::keptOutputEnd, result.output.size(), took, before, after);
    return 0;
}
