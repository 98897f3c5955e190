// Which TCP sockets a process holds open: the stand-in for the process
// information interface's descriptor and socket records. Stateless; any
// thread.
#pragma once
#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <vector>

namespace platform {

struct TcpSocket {
    uint16_t localPort = 0;
    uint16_t remotePort = 0;
};

class ProcessSockets {
public:
    virtual ~ProcessSockets() = default;
    // The TCP sockets (IPv4 and IPv6) among the process's descriptors, or
    // nothing when its descriptors cannot be read.
    virtual std::optional<std::vector<TcpSocket>> tcpSockets(pid_t pid) const = 0;
};

// /proc/PID/fd/* links "socket:[INODE]" matched against the rows of
// /proc/PID/net/tcp and tcp6 (the process's own network namespace).
class LinuxProcessSockets final : public ProcessSockets {
public:
    explicit LinuxProcessSockets(std::filesystem::path proc = "/proc") : proc_(std::move(proc)) {}
    std::optional<std::vector<TcpSocket>> tcpSockets(pid_t pid) const override;

private:
    std::filesystem::path proc_;
};

const ProcessSockets& systemProcessSockets();

}  // namespace platform
