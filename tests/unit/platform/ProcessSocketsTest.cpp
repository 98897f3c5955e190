// The real Linux layer that names the process at the other end of a loopback
// connection: the kernel's exact socket lookup, the holders of a socket, and
// what /proc says of a process's user and state. Real sockets, real children.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "platform/ProcessSockets.h"
#include "platform/RunningApplications.h"
#include "support/Loopback.h"

using namespace std::chrono_literals;
using testsupport::loopback;

namespace {

struct Fd {
    explicit Fd(int fd = -1) : fd(fd) {}
    ~Fd() { close(fd); }
    int fd;
};

uint16_t portOf(int fd) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.ss_family == AF_INET ? reinterpret_cast<sockaddr_in*>(&address)->sin_port
                                              : reinterpret_cast<sockaddr_in6*>(&address)->sin6_port);
}

// A listener on 127.0.0.1 and one connection to it from `family` (AF_INET6:
// a v4-mapped address), accepted.
struct Connection {
    explicit Connection(int family = AF_INET) {
        sockaddr_in address = loopback(0);
        bind(listener.fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
        listen(listener.fd, 4);
        address.sin_port = htons(portOf(listener.fd));
        sockaddr_in6 mapped{AF_INET6, address.sin_port, 0, {}, 0};
        inet_pton(AF_INET6, "::ffff:127.0.0.1", &mapped.sin6_addr);
        client.fd = socket(family, SOCK_STREAM, 0);
        if (family == AF_INET) connect(client.fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
        else connect(client.fd, reinterpret_cast<sockaddr*>(&mapped), sizeof mapped);
        accepted.fd = accept(listener.fd, nullptr, nullptr);
    }
    uint16_t listening() const { return portOf(listener.fd); }
    uint16_t peer() const { return portOf(client.fd); }
    Fd listener{socket(AF_INET, SOCK_STREAM, 0)};
    Fd client, accepted;
};

const platform::LinuxProcessSockets sockets;

}  // namespace

TEST(LoopbackSocketLookup, FindsTheClientEndByItsExactFourTuple) {
    for (int family : {AF_INET, AF_INET6}) {
        Connection c(family);
        ASSERT_GE(c.accepted.fd, 0);
        auto found = sockets.loopbackSocket(c.peer(), c.listening());
        ASSERT_TRUE(found) << family;
        EXPECT_EQ(found->uid, getuid());
        auto mine = sockets.socketInodes(getpid());
        ASSERT_TRUE(mine);
        EXPECT_NE(std::find(mine->begin(), mine->end(), found->inode), mine->end());
        // The bridge's own end has the ports the other way round; a port
        // nobody connected from has no socket.
        auto own = sockets.loopbackSocket(c.listening(), c.peer());
        ASSERT_TRUE(own);
        EXPECT_NE(own->inode, found->inode);
        EXPECT_FALSE(sockets.loopbackSocket(c.peer(), static_cast<uint16_t>(c.listening() + 1)));
    }
}

TEST(LoopbackSocketLookup, SamePortsOverIPv6AreAnotherConnection) {
    // [::1]:P -> [::1]:L does not answer for 127.0.0.1:P -> 127.0.0.1:L.
    Fd listener(socket(AF_INET6, SOCK_STREAM, 0));
    sockaddr_in6 address{AF_INET6, 0, 0, in6addr_loopback, 0};
    ASSERT_EQ(bind(listener.fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    listen(listener.fd, 1);
    address.sin6_port = htons(portOf(listener.fd));
    Fd client(socket(AF_INET6, SOCK_STREAM, 0));
    ASSERT_EQ(connect(client.fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_FALSE(sockets.loopbackSocket(portOf(client.fd), portOf(listener.fd)));
}

TEST(LoopbackSocketLookup, SocketMadeByAnotherUserIsTheirs) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to make a socket as nobody";
    Connection c;
    int report[2];
    ASSERT_EQ(pipe(report), 0);
    pid_t child = fork();
    if (child == 0) {
        // Connects as nobody and waits to be killed.
        if (setresuid(65534, 65534, 65534) != 0) _exit(1);
        int fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address = loopback(c.listening());
        if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) _exit(2);
        uint16_t port = portOf(fd);
        (void)!write(report[1], &port, sizeof port);
        pause();
        _exit(0);
    }
    uint16_t port = 0;
    ASSERT_EQ(read(report[0], &port, sizeof port), static_cast<ssize_t>(sizeof port));
    auto found = sockets.loopbackSocket(port, c.listening());
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    close(report[0]), close(report[1]);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->uid, 65534u);
}

TEST(SocketHolders, EveryProcessWithADescriptorAndWhetherItIsStoppedOrTraced) {
    Connection c;
    auto socket = sockets.loopbackSocket(c.peer(), c.listening());
    ASSERT_TRUE(socket);
    EXPECT_EQ(sockets.holders(socket->inode), std::vector<pid_t>{getpid()});

    struct Case {
        const char* what;
        int stop;  // 0: runs, SIGSTOP, or -1: traced
    };
    for (const Case& k : {Case{"running", 0}, Case{"stopped", SIGSTOP}, Case{"traced", -1}}) {
        pid_t child = fork();
        if (child == 0) {
            if (k.stop == -1) {
                ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
                raise(SIGSTOP);  // a tracee stops for its tracer at every signal
            }
            for (;;) pause();
        }
        if (k.stop == SIGSTOP) {
            kill(child, SIGSTOP);
            waitpid(child, nullptr, WUNTRACED);
        } else if (k.stop == -1) {
            waitpid(child, nullptr, 0);
        } else {
            std::this_thread::sleep_for(20ms);
        }
        auto holders = sockets.holders(socket->inode);
        auto status = platform::processStatus("/proc", child);
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        std::vector<pid_t> both{getpid(), child};
        std::sort(both.begin(), both.end());
        EXPECT_EQ(holders, both) << k.what;
        ASSERT_TRUE(status) << k.what;
        EXPECT_EQ(status->realUid, getuid());
        EXPECT_EQ(status->stoppedOrTraced, k.stop != 0) << k.what;
    }
    EXPECT_FALSE(platform::processStatus("/proc", 0x7ffffff0));
}
