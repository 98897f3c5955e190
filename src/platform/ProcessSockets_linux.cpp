#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/ProcessSockets.h"

namespace fs = std::filesystem;

namespace platform {

namespace {

struct Descriptor {
    explicit Descriptor(int fd) : fd(fd) {}
    ~Descriptor() {
        if (fd >= 0) ::close(fd);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int fd;
};

bool isLoopback(const inet_diag_msg& reply, const __be32* address) {
    if (reply.idiag_family == AF_INET) return address[0] == htonl(INADDR_LOOPBACK);
    // ::ffff:127.0.0.1
    return reply.idiag_family == AF_INET6 && address[0] == 0 && address[1] == 0 && address[2] == htonl(0xffff) &&
           address[3] == htonl(INADDR_LOOPBACK);
}

// Calls `each` with every descriptor link of the process; false when the
// folder cannot be read (`error` then holds why).
template <class Each>
bool forEachDescriptor(int procFd, const char* pid, int& error, Each each) {
    char path[64];
    std::snprintf(path, sizeof path, "%s/fd", pid);
    int fd = openat(procFd, path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        error = errno;
        return false;
    }
    DIR* dir = fdopendir(fd);
    if (!dir) {
        error = errno;
        ::close(fd);
        return false;
    }
    char target[64];
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.') continue;
        ssize_t n = readlinkat(fd, entry->d_name, target, sizeof target - 1);
        if (n <= 0) continue;
        target[n] = '\0';
        each(target);
    }
    closedir(dir);
    return true;
}

}  // namespace

std::vector<pid_t> processIdentifiers(const fs::path& proc) {
    std::vector<pid_t> pids;
    DIR* dir = opendir(proc.c_str());
    if (!dir) return pids;
    while (dirent* entry = readdir(dir)) {
        char* end = nullptr;
        long value = std::strtol(entry->d_name, &end, 10);
        if (end != entry->d_name && *end == '\0' && value > 0) pids.push_back(static_cast<pid_t>(value));
    }
    closedir(dir);
    std::sort(pids.begin(), pids.end());
    return pids;
}

std::optional<LoopbackSocket> LinuxProcessSockets::loopbackSocket(uint16_t localPort, uint16_t remotePort) const {
    // The socket is created here, so the kernel answers for this process's
    // network namespace: a namesake connection in another one is not seen.
    Descriptor diag(::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
    if (diag.fd < 0) return std::nullopt;
    timeval patience{1, 0};
    setsockopt(diag.fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);

    struct {
        nlmsghdr header;
        inet_diag_req_v2 request;
    } message{};
    message.header.nlmsg_len = sizeof message;
    message.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    // No NLM_F_DUMP: the kernel looks the one socket up by its four-tuple.
    message.header.nlmsg_flags = NLM_F_REQUEST;
    message.request.sdiag_family = AF_INET;
    message.request.sdiag_protocol = IPPROTO_TCP;
    message.request.idiag_states = 1u << TCP_ESTABLISHED;
    message.request.id.idiag_sport = htons(localPort);
    message.request.id.idiag_dport = htons(remotePort);
    message.request.id.idiag_src[0] = htonl(INADDR_LOOPBACK);
    message.request.id.idiag_dst[0] = htonl(INADDR_LOOPBACK);
    message.request.id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
    message.request.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    if (sendto(diag.fd, &message, sizeof message, 0, reinterpret_cast<sockaddr*>(&kernel), sizeof kernel) !=
        static_cast<ssize_t>(sizeof message))
        return std::nullopt;

    alignas(nlmsghdr) char buffer[8192];
    ssize_t n;
    do {
        n = recv(diag.fd, buffer, sizeof buffer, 0);
    } while (n < 0 && errno == EINTR);
    if (n <= 0) return std::nullopt;
    auto* header = reinterpret_cast<nlmsghdr*>(buffer);
    int left = static_cast<int>(n);
    for (; NLMSG_OK(header, left); header = NLMSG_NEXT(header, left)) {
        if (header->nlmsg_type != SOCK_DIAG_BY_FAMILY) return std::nullopt;  // NLMSG_ERROR: no such socket
        if (header->nlmsg_len < NLMSG_LENGTH(sizeof(inet_diag_msg))) return std::nullopt;
        const auto& reply = *static_cast<const inet_diag_msg*>(NLMSG_DATA(header));
        // The lookup may fall back on other sockets (a listener on the
        // port); only the exact connection, established, is it.
        if (reply.idiag_state != TCP_ESTABLISHED || reply.id.idiag_sport != htons(localPort) ||
            reply.id.idiag_dport != htons(remotePort) || !isLoopback(reply, reply.id.idiag_src) ||
            !isLoopback(reply, reply.id.idiag_dst) || reply.idiag_inode == 0)
            return std::nullopt;
        return LoopbackSocket{reply.idiag_inode, reply.idiag_uid};
    }
    return std::nullopt;
}

std::optional<std::vector<uint64_t>> LinuxProcessSockets::socketInodes(pid_t pid) const {
    Descriptor proc(open(proc_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (proc.fd < 0) return std::nullopt;
    std::vector<uint64_t> inodes;
    int error = 0;
    std::string name = std::to_string(pid);
    bool read = forEachDescriptor(proc.fd, name.c_str(), error, [&](const char* target) {
        unsigned long long inode = 0;
        if (std::sscanf(target, "socket:[%llu]", &inode) == 1) inodes.push_back(inode);
    });
    if (!read) return std::nullopt;
    return inodes;
}

std::optional<std::vector<pid_t>> LinuxProcessSockets::holders(uint64_t inode) const {
    Descriptor proc(open(proc_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (proc.fd < 0) return std::nullopt;
    char wanted[48];
    std::snprintf(wanted, sizeof wanted, "socket:[%llu]", static_cast<unsigned long long>(inode));
    uid_t own = getuid();
    std::vector<pid_t> found;
    for (pid_t pid : processIdentifiers(proc_)) {
        char name[16];
        std::snprintf(name, sizeof name, "%d", pid);
        bool holds = false;
        int error = 0;
        if (forEachDescriptor(proc.fd, name, error, [&](const char* target) {
                if (std::strcmp(target, wanted) == 0) holds = true;
            })) {
            if (holds) found.push_back(pid);
            continue;
        }
        if (error == ENOENT || error == ESRCH) continue;  // gone meanwhile
        struct stat owner {};
        if (fstatat(proc.fd, name, &owner, 0) != 0) continue;
        if (owner.st_uid == own) return std::nullopt;
    }
    return found;
}

const ProcessSockets& systemProcessSockets() {
    static const auto* sockets = new LinuxProcessSockets;
    return *sockets;
}

}  // namespace platform
