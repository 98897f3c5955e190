// Attacks on the hand-over from this machine, each against the real bridge
// and the simulator on a private bus: a process that is not Studio tries to
// be taken for it, or to keep Studio from linking.
#include <arpa/inet.h>
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <thread>

#include "support/LinkSession.h"
#include "support/Loopback.h"

using namespace testsupport;
namespace fs = std::filesystem;

namespace {

std::string studioExecutable() { return (bundle() / "Contents/MacOS/Vantoric Studio").string(); }

// The link notification as Studio sees it: a client of the session bus that
// hears the bridge's announcements and can post one of its own.
sd_bus* openBus(const std::string& address) {
    sd_bus* bus = nullptr;
    sd_bus_new(&bus);
    sd_bus_set_address(bus, address.c_str());
    sd_bus_set_bus_client(bus, 1);
    sd_bus_start(bus);
    const char* unique;  // waits for the greeting, so that what follows reaches the daemon
    sd_bus_get_unique_name(bus, &unique);
    return bus;
}

// What a connection to the bridge got before it was closed: the bytes, or
// -1 when it was still open at the deadline.
ssize_t heard(int fd, int milliseconds) {
    pollfd p{fd, POLLIN, 0};
    char buffer[4096];
    return poll(&p, 1, milliseconds) == 1 ? recv(fd, buffer, sizeof buffer, 0) : -1;
}

bool linked(const std::optional<json>& answer) {
    return answer && answer->contains("result") && !(*answer)["result"].value("isError", false);
}

// The bridge started and asking for Studio, which it launches since none
// runs: the port of its announcement on the bus (0 when none comes).
int handOverUnderWay(LinkSession& session) {
    session.startBridge();
    sd_bus* bus = openBus(session.busAddress());
    int port = 0;
    auto posted = [](sd_bus_message* m, void* port, sd_bus_error*) {
        const char *name = nullptr, *object = nullptr;
        if (sd_bus_message_read(m, "ss", &name, &object) >= 0 && !*static_cast<int*>(port))
            *static_cast<int*>(port) = std::atoi(object + 5);  // "port=<n>&..."
        return 0;
    };
    sd_bus_match_signal(bus, nullptr, nullptr, "/com/lumenfold/DistributedNotification",
                        "com.lumenfold.DistributedNotification", "Posted", posted, &port);
    session.send({{"jsonrpc", "2.0"}, {"id", 1}, {"method", "tools/call"},
                  {"params", {{"name", "studio_status"}, {"arguments", json::object()}}}});
    for (auto deadline = std::chrono::steady_clock::now() + 20s; !port && std::chrono::steady_clock::now() < deadline;)
        if (sd_bus_process(bus, nullptr) == 0) sd_bus_wait(bus, 20'000);
    sd_bus_flush_close_unref(bus);
    return port;
}

// An attacker that lends its connection to a genuine Studio executable: it
// forks, the child execs the bundle's executable and is stopped before it
// runs a single instruction of its own (traced from its exec, or stopped
// once past it), and the attacker connects.
struct Attacker {
    bool stoppedAfterExec;
    bool ipv6SamePorts;  // Studio holds not the attacker's socket but one over IPv6 with the same ports
    bool foreignUser;    // the attacker and its Studio run as nobody
};

// In the forked attacker: system calls only, nothing allocated. The bytes
// the bridge sent before closing, or a negative setup step that failed.
int lendAndConnect(const Attacker& a, uint16_t port, char* const* argv, char* const* envp) {
    if (a.foreignUser &&
        (setgroups(0, nullptr) != 0 || setresgid(65534, 65534, 65534) != 0 || setresuid(65534, 65534, 65534) != 0))
        return -1;
    int v4 = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in own = loopback(0);
    socklen_t length = sizeof own;
    if (bind(v4, reinterpret_cast<sockaddr*>(&own), sizeof own) != 0 ||
        getsockname(v4, reinterpret_cast<sockaddr*>(&own), &length) != 0)
        return -2;
    if (a.ipv6SamePorts) {
        // [::1]:<our port> -> [::1]:<the bridge's port>: the bridge listens on
        // IPv4 only, so the attacker can listen there itself.
        sockaddr_in6 there{AF_INET6, htons(port), 0, in6addr_loopback, 0}, here{AF_INET6, own.sin_port, 0, in6addr_loopback, 0};
        int listener = socket(AF_INET6, SOCK_STREAM, 0), v6 = socket(AF_INET6, SOCK_STREAM, 0);
        if (bind(listener, reinterpret_cast<sockaddr*>(&there), sizeof there) != 0 || listen(listener, 1) != 0 ||
            bind(v6, reinterpret_cast<sockaddr*>(&here), sizeof here) != 0 ||
            connect(v6, reinterpret_cast<sockaddr*>(&there), sizeof there) != 0)
            return -3;
    }
    pid_t studio = fork();
    if (studio == 0) {
        if (a.ipv6SamePorts) close(v4);
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        execve(argv[0], argv, envp);
        _exit(127);
    }
    int status = 0;
    if (studio < 0 || waitpid(studio, &status, 0) != studio || !WIFSTOPPED(status)) return -4;
    if (a.stoppedAfterExec) {
        if (ptrace(PTRACE_DETACH, studio, nullptr, reinterpret_cast<void*>(static_cast<long>(SIGSTOP))) != 0) return -5;
        waitpid(studio, &status, WUNTRACED);
    }
    sockaddr_in bridge = loopback(port);
    int result = connect(v4, reinterpret_cast<sockaddr*>(&bridge), sizeof bridge) != 0
                     ? -1000 - errno
                     : static_cast<int>(heard(v4, 10'000));
    kill(studio, SIGKILL);
    waitpid(studio, &status, 0);
    return result;
}

int runAttacker(const Attacker& attacker, int port, const Environment& environment) {
    std::vector<std::string> strings{studioExecutable()};
    for (auto& [name, value] : environment) strings.push_back(name + "=" + value);
    std::vector<char*> argv{strings[0].data(), nullptr}, envp;
    for (size_t i = 1; i < strings.size(); ++i) envp.push_back(strings[i].data());
    envp.push_back(nullptr);
    int report[2];
    if (pipe2(report, O_CLOEXEC) != 0) return -100;
    pid_t child = fork();
    if (child == 0) {
        int result = lendAndConnect(attacker, static_cast<uint16_t>(port), argv.data(), envp.data());
        (void)!write(report[1], &result, sizeof result);
        _exit(0);
    }
    close(report[1]);
    int result = -101;
    pollfd p{report[0], POLLIN, 0};
    if (poll(&p, 1, 30'000) == 1 && read(report[0], &result, sizeof result) != sizeof result) result = -102;
    close(report[0]);
    waitpid(child, nullptr, 0);
    return result;
}

}  // namespace

TEST(HandoverAttack, StudioExecutableLentToAnotherProcessVouchesForNothing) {
    struct Case {
        const char* what;
        Attacker attacker;
        bool studioRunsPaused;
    };
    const Case cases[] = {
        {"a Studio executable traced from its exec holds the socket too", {false, false, false}, false},
        {"a stopped Studio executable holds the socket too", {true, false, false}, false},
        {"the same, while the real Studio runs paused", {true, false, false}, true},
        {"a Studio executable holds the same ports over IPv6", {false, true, false}, false},
        {"another user's Studio executable holds the socket too", {false, false, true}, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        if (c.attacker.foreignUser && geteuid() != 0) {
            std::cerr << "skipped (needs root to run as nobody): " << c.what << "\n";
            continue;
        }
        // The bridge announces before the Studio it launched listens, so the
        // attacker connects first; a round where Studio was quicker proves
        // nothing and is run again, twice at most.
        for (int round = 0;; ++round) {
            LinkSession session;
            pid_t paused = c.studioRunsPaused ? session.startStudio() : 0;
            if (paused) kill(paused, SIGSTOP);
            int announced = handOverUnderWay(session);
            ASSERT_GT(announced, 0) << session.bridge().stderrText();
            int read = runAttacker(c.attacker, announced, session.environment());
            if (paused) kill(paused, SIGCONT);
            auto answer = session.reply(1, 30s);
            if (read == -1000 - ECONNREFUSED && round < 2) continue;
            EXPECT_EQ(read, 0) << "the attacker must be closed without a byte (refused: Studio linked first)";
            EXPECT_TRUE(linked(answer)) << (answer ? answer->dump() : session.bridge().stderrText());
            break;
        }
    }
}

TEST(HandoverAttack, ConnectionsOfOtherProcessesGetNoByteEvenInABurstAndStudioStillLinks) {
    LinkSession session;
    int announced = handOverUnderWay(session);
    ASSERT_GT(announced, 0);
    auto start = std::chrono::steady_clock::now();
    sockaddr_in address = loopback(static_cast<uint16_t>(announced));
    std::vector<int> hostile;
    for (int i = 0; i < 1000; ++i) {
        int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
        int rc = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
        ASSERT_TRUE(rc == 0 || errno == EINPROGRESS) << i;
        hostile.push_back(fd);
        // The first alone, then the burst.
        if (i == 0) {
            EXPECT_EQ(heard(fd, 5000), 0) << "closed without a byte";
            EXPECT_TRUE(session.bridge().waitForStderr(
                "vantoric-studio-mcp: closed a hand-over connection that was not Vantoric Studio\n"));
        }
    }
    EXPECT_TRUE(linked(session.reply(1, 60s)));
    size_t bytes = 0, open = 0;
    auto deadline = std::chrono::steady_clock::now() + 30s;
    for (int fd : hostile) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        ssize_t n = heard(fd, static_cast<int>(std::max<int64_t>(left.count(), 0)));
        if (n < 0) ++open;
        else bytes += static_cast<size_t>(n);
        close(fd);
    }
    EXPECT_EQ(bytes, 0u) << "a hostile connection read the greeting";
    EXPECT_EQ(open, 0u) << "hostile connections left open";
    // Rejections are written at most once a second, each line with its count.
    auto seconds = std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start).count();
    auto log = session.bridge().stderrText();
    size_t lines = 0;
    for (size_t at = log.find("hand-over connection"); at != std::string::npos; at = log.find("hand-over connection", at + 1))
        ++lines;
    EXPECT_LE(lines, static_cast<size_t>(seconds) + 3) << log.substr(0, 2000);
}

TEST(HandoverAttack, SpoofedAnnouncementWhileStudioStartsCostsOneRoundNotTheLink) {
    // Any client of the bus can post the notification with the bridge's port
    // and a challenge of its own. Studio, still starting, should hear the
    // spoofs first; a round where it was up in time for the bridge's own
    // announcement proves nothing and is run again.
    for (int round = 0; round < 3; ++round) {
        LinkSession session;
        int announced = handOverUnderWay(session);
        ASSERT_GT(announced, 0);
        sd_bus* bus = openBus(session.busAddress());
        std::string spoof = "port=" + std::to_string(announced) + "&challenge=" + std::string(64, '0') + "&client=spoof";
        for (auto until = std::chrono::steady_clock::now() + 10s;
             std::chrono::steady_clock::now() < until && session.studioEvents("greeting").empty();) {
            sd_bus_emit_signal(bus, "/com/lumenfold/DistributedNotification", "com.lumenfold.DistributedNotification",
                               "Posted", "ss", "com.lumenfold.vantoric.studio.agent-link", spoof.c_str());
            sd_bus_flush(bus);
            std::this_thread::sleep_for(5ms);
        }
        sd_bus_flush_close_unref(bus);
        auto answer = session.reply(1, 30s);
        EXPECT_TRUE(linked(answer)) << (answer ? answer->dump() : "no answer");
        bool spoofedRound = false;
        for (auto& greeting : session.studioEvents("greeting"))
            if (greeting.value("challenge", true) == false) spoofedRound = true;
        if (!spoofedRound && round < 2) continue;
        EXPECT_TRUE(spoofedRound) << "Studio never answered a spoofed announcement";
        break;
    }
}

TEST(HandoverAttack, StudioOfAnotherSessionNeitherBlocksTheLaunchNorIsLinked) {
    LinkSession session(LinkSession::Settings{{"VSM_TEST_REPLY_TIMEOUT_MS", "5000"}});
    PrivateBus otherBus;
    TempDir otherHome;
    auto environment = otherBus.environment(session.environment());
    environment["STUDIO_SIM_HOME"] = otherHome.path().string();
    environment["STUDIO_SIM_LOG"] = (otherHome.path() / "studio.jsonl").string();
    environment["XDG_CONFIG_HOME"] = (otherHome.path() / ".config").string();
    ChildProcess elsewhere({.argv = {studioExecutable()}, .environment = environment, .workingDirectory = {}});
    auto ready = elsewhere.readLine(10s);
    ASSERT_TRUE(ready && ready->find("studio-sim ready") != std::string::npos);
    session.startBridge();
    EXPECT_FALSE(session.call(1, "studio_status").value("isError", false));
    EXPECT_NE(session.bridge().stderrText().find("launching " + bundle().string()), std::string::npos);
    EXPECT_EQ(session.studioProcesses().size(), 1u);
}
