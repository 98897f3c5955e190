// The simulator's record of everything it received: one JSON object per line
// in the file named by STUDIO_SIM_LOG, each line written with a single
// write(2) on a descriptor opened with O_APPEND, so a test can read the file
// while the simulator runs and never sees half a line. Every object starts
// with "event". Without STUDIO_SIM_LOG nothing is written. Diagnostics for a
// person go to standard error through note(). Single-threaded use.
#pragma once
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace studiosim {

using Json = nlohmann::ordered_json;

class SimLog {
public:
    SimLog() = default;
    explicit SimLog(const std::string& path);  // throws std::runtime_error when the file can't be opened
    ~SimLog();
    SimLog(const SimLog&) = delete;
    SimLog& operator=(const SimLog&) = delete;

    // Writes {"event": name, ...fields}. fields must be an object (or null).
    void event(std::string_view name, const Json& fields = Json::object());

private:
    int fd_ = -1;
};

// One line on standard error, "studio-sim: <message>".
void note(std::string_view message);

}  // namespace studiosim
