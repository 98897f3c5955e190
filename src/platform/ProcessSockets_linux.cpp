#include <dirent.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "platform/ProcessSockets.h"

namespace fs = std::filesystem;

namespace platform {

namespace {

std::optional<std::set<unsigned long>> socketInodes(const fs::path& fdFolder) {
    DIR* dir = opendir(fdFolder.c_str());
    if (!dir) return std::nullopt;
    std::set<unsigned long> inodes;
    char target[128];
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.') continue;
        ssize_t n = readlinkat(dirfd(dir), entry->d_name, target, sizeof target - 1);
        if (n <= 0) continue;
        target[n] = '\0';
        unsigned long inode = 0;
        if (std::sscanf(target, "socket:[%lu]", &inode) == 1) inodes.insert(inode);
    }
    closedir(dir);
    return inodes;
}

// "ADDRESS:PORT" with the port as four hexadecimal digits.
std::optional<uint16_t> portOf(const std::string& endpoint) {
    auto colon = endpoint.rfind(':');
    if (colon == std::string::npos) return std::nullopt;
    unsigned value = 0;
    const char* first = endpoint.data() + colon + 1;
    const char* last = endpoint.data() + endpoint.size();
    auto [end, ec] = std::from_chars(first, last, value, 16);
    if (ec != std::errc() || end != last || value > 0xffff) return std::nullopt;
    return static_cast<uint16_t>(value);
}

// Rows: sl local rem st tx:rx tr:when retrnsmt uid timeout inode ...
void collect(const fs::path& table, const std::set<unsigned long>& inodes, std::vector<TcpSocket>& out) {
    std::ifstream in(table);
    std::string line;
    std::getline(in, line);  // column titles
    while (std::getline(in, line)) {
        std::istringstream row(line);
        std::string sl, local, remote, state, queues, timer, retransmits, uid, timeout;
        unsigned long inode = 0;
        if (!(row >> sl >> local >> remote >> state >> queues >> timer >> retransmits >> uid >> timeout >> inode))
            continue;
        if (!inodes.count(inode)) continue;
        auto localPort = portOf(local);
        auto remotePort = portOf(remote);
        if (localPort && remotePort) out.push_back({*localPort, *remotePort});
    }
}

}  // namespace

std::optional<std::vector<TcpSocket>> LinuxProcessSockets::tcpSockets(pid_t pid) const {
    fs::path base = proc_ / std::to_string(pid);
    auto inodes = socketInodes(base / "fd");
    if (!inodes) return std::nullopt;
    std::vector<TcpSocket> sockets;
    if (inodes->empty()) return sockets;
    collect(base / "net" / "tcp", *inodes, sockets);
    collect(base / "net" / "tcp6", *inodes, sockets);
    return sockets;
}

const ProcessSockets& systemProcessSockets() {
    static LinuxProcessSockets sockets;
    return sockets;
}

}  // namespace platform
