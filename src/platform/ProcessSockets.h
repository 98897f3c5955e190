// Who holds the other end of a loopback TCP connection: the stand-in for the
// process information interface's descriptor and socket records. The kernel
// is asked for the one socket with the connection's exact four-tuple, then
// processes are searched for descriptors of it. Stateless; any thread.
#pragma once
#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <vector>

namespace platform {

// A socket as the kernel names it: its inode, and the user that created it.
struct LoopbackSocket {
    uint64_t inode = 0;
    uid_t uid = 0;
};

class ProcessSockets {
public:
    virtual ~ProcessSockets() = default;
    // The established TCP socket whose own end is 127.0.0.1:localPort and
    // whose far end is 127.0.0.1:remotePort (an IPv6 socket with v4-mapped
    // addresses included), in this process's network namespace; nothing when
    // there is none or the kernel cannot be asked.
    virtual std::optional<LoopbackSocket> loopbackSocket(uint16_t localPort, uint16_t remotePort) const = 0;
    // The socket inodes among the process's descriptors; nothing when they
    // cannot be read.
    virtual std::optional<std::vector<uint64_t>> socketInodes(pid_t pid) const = 0;
    // Every process with a descriptor for the socket, by ascending pid;
    // nothing when a process of this user's could not be searched, since it
    // might hold one.
    virtual std::optional<std::vector<pid_t>> holders(uint64_t inode) const = 0;
};

// NETLINK_SOCK_DIAG (inet_diag, one exact lookup, no table scan) for the
// socket; /proc/PID/fd/* links "socket:[INODE]" for the descriptors.
// Processes of other users that cannot be read are passed over: they cannot
// have been handed a socket of ours without a process of ours lending it.
class LinuxProcessSockets final : public ProcessSockets {
public:
    explicit LinuxProcessSockets(std::filesystem::path proc = "/proc") : proc_(std::move(proc)) {}
    std::optional<LoopbackSocket> loopbackSocket(uint16_t localPort, uint16_t remotePort) const override;
    std::optional<std::vector<uint64_t>> socketInodes(pid_t pid) const override;
    std::optional<std::vector<pid_t>> holders(uint64_t inode) const override;

private:
    std::filesystem::path proc_;
};

// The process's own, never destroyed: work still running on a pool thread
// may use it while the process exits.
const ProcessSockets& systemProcessSockets();

// The processes listed in `proc`, by ascending pid.
std::vector<pid_t> processIdentifiers(const std::filesystem::path& proc);

}  // namespace platform
