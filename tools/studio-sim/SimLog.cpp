#include "SimLog.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace studiosim {
namespace {

void writeAll(int fd, const std::string& line) {
    const char* p = line.data();
    size_t left = line.size();
    while (left > 0) {
        ssize_t n = ::write(fd, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        p += n;
        left -= static_cast<size_t>(n);
    }
}

}  // namespace

SimLog::SimLog(const std::string& path) {
    fd_ = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd_ < 0) throw std::runtime_error("cannot open the log " + path + ": " + std::strerror(errno));
}

SimLog::~SimLog() {
    if (fd_ >= 0) ::close(fd_);
}

void SimLog::event(std::string_view name, const Json& fields) {
    if (fd_ < 0) return;
    Json line = Json::object();
    line["event"] = name;
    if (fields.is_object())
        for (auto& [key, value] : fields.items()) line[key] = value;
    // Invalid UTF-8 from the network is replaced rather than aborting the dump.
    std::string text = line.dump(-1, ' ', false, Json::error_handler_t::replace);
    text.push_back('\n');
    writeAll(fd_, text);
}

void note(std::string_view message) {
    std::string line = "studio-sim: ";
    line.append(message);
    line.push_back('\n');
    writeAll(STDERR_FILENO, line);
}

}  // namespace studiosim
