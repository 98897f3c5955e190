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
#include <unistd.h>

#include <thread>

#include "Announcements.h"
#include "support/LinkSession.h"

using namespace testsupport;
using Settings = LinkSession::Settings;
using linkattack::nextAnnouncedPort;
namespace fs = std::filesystem;

namespace {

std::string studioExecutable() { return (bundle() / "Contents/MacOS/Vantoric Studio").string(); }

size_t count(const std::string& text, const std::string& part) {
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
    return n;
}

class HandoverAttack : public ::testing::Test {
protected:
    void SetUp() override {
        if (!available()) GTEST_SKIP() << "needs the bridge binary and the simulator bundle";
    }
    static bool linked(const std::optional<json>& answer) {
        return answer && answer->contains("result") && !(*answer)["result"].value("isError", false);
    }
    // The bridge started and asked for Studio by call 1: the port it
    // announced (0 when it announced none).
    static int handOverUnderWay(LinkSession& session) {
        session.startBridge();
        auto port = nextAnnouncedPort(session.busAddress());
        askForStudio(session, 1);
        return port.get();
    }
    static void askForStudio(LinkSession& session, int id) {
        session.send({{"jsonrpc", "2.0"}, {"id", id}, {"method", "tools/call"},
                      {"params", {{"name", "studio_status"}, {"arguments", json::object()}}}});
    }
};

// An attacker that lends its connection to a genuine Studio executable: it
// forks, the child execs the bundle's executable and is stopped before it
// runs a single instruction of its own, and the attacker connects.
enum class Holder { TracedAtExec, StoppedAfterExec };
// What the Studio executable holds: the very socket the attacker connects,
// or a socket of the other family with the same two port numbers.
enum class Lent { SameSocket, Ipv6SamePorts };

struct Attacker {
    Holder holder;
    Lent lent;
    bool foreignUser;  // the attacker and its Studio run as nobody
};

// In the forked attacker: system calls only, nothing allocated. The bytes
// the bridge sent before closing, or a negative setup step that failed.
int lendAndConnect(const Attacker& a, uint16_t port, char* const* argv, char* const* envp) {
    if (a.foreignUser &&
        (setgroups(0, nullptr) != 0 || setresgid(65534, 65534, 65534) != 0 || setresuid(65534, 65534, 65534) != 0))
        return -1;
    sockaddr_in bridge{};
    bridge.sin_family = AF_INET;
    bridge.sin_port = htons(port);
    bridge.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int v4 = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in own{};
    own.sin_family = AF_INET;
    own.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof own;
    if (bind(v4, reinterpret_cast<sockaddr*>(&own), sizeof own) != 0 ||
        getsockname(v4, reinterpret_cast<sockaddr*>(&own), &length) != 0)
        return -2;
    if (a.lent == Lent::Ipv6SamePorts) {
        // [::1]:<our port> -> [::1]:<the bridge's port>: the bridge listens on
        // IPv4 only, so the attacker can listen there itself.
        int listener = socket(AF_INET6, SOCK_STREAM, 0);
        sockaddr_in6 there{};
        there.sin6_family = AF_INET6;
        there.sin6_port = htons(port);
        there.sin6_addr = in6addr_loopback;
        if (bind(listener, reinterpret_cast<sockaddr*>(&there), sizeof there) != 0 || listen(listener, 1) != 0)
            return -3;
        int v6 = socket(AF_INET6, SOCK_STREAM, 0);
        sockaddr_in6 here{};
        here.sin6_family = AF_INET6;
        here.sin6_port = own.sin_port;
        here.sin6_addr = in6addr_loopback;
        if (bind(v6, reinterpret_cast<sockaddr*>(&here), sizeof here) != 0 ||
            connect(v6, reinterpret_cast<sockaddr*>(&there), sizeof there) != 0)
            return -4;
    }
    pid_t studio = fork();
    if (studio == 0) {
        if (a.lent == Lent::Ipv6SamePorts) close(v4);
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        execve(argv[0], argv, envp);
        _exit(127);
    }
    if (studio < 0) return -5;
    int status = 0;
    if (waitpid(studio, &status, 0) != studio || !WIFSTOPPED(status)) return -6;
    if (a.holder == Holder::StoppedAfterExec) {
        if (ptrace(PTRACE_DETACH, studio, nullptr, reinterpret_cast<void*>(static_cast<long>(SIGSTOP))) != 0)
            return -7;
        waitpid(studio, &status, WUNTRACED);
    }
    int result;
    if (connect(v4, reinterpret_cast<sockaddr*>(&bridge), sizeof bridge) != 0) {
        result = -1000 - errno;
    } else {
        pollfd p{v4, POLLIN, 0};
        char buffer[4096];
        if (poll(&p, 1, 10'000) != 1) result = -9;
        else result = static_cast<int>(recv(v4, buffer, sizeof buffer, 0));
    }
    kill(studio, SIGKILL);
    waitpid(studio, &status, 0);
    return result;
}

int runAttacker(const Attacker& attacker, int port, const Environment& environment) {
    std::vector<std::string> strings{studioExecutable()};
    for (auto& [name, value] : environment) strings.push_back(name + "=" + value);
    std::vector<char*> argv{strings[0].data(), nullptr};
    std::vector<char*> envp;
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
    int status;
    waitpid(child, &status, 0);
    return result;
}

}  // namespace

TEST_F(HandoverAttack, StudioExecutableLentToAnotherProcessVouchesForNothing) {
    struct Case {
        const char* what;
        Attacker attacker;
        bool studioRunsPaused;
    };
    const Case cases[] = {
        {"a Studio executable traced from its exec holds the socket too", {Holder::TracedAtExec, Lent::SameSocket, false},
         false},
        {"a stopped Studio executable holds the socket too", {Holder::StoppedAfterExec, Lent::SameSocket, false},
         false},
        {"the same, while the real Studio runs paused", {Holder::StoppedAfterExec, Lent::SameSocket, false}, true},
        {"a Studio executable holds the same ports over IPv6", {Holder::TracedAtExec, Lent::Ipv6SamePorts, false},
         false},
        {"another user's Studio executable holds the socket too", {Holder::TracedAtExec, Lent::SameSocket, true},
         false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        if (c.attacker.foreignUser && geteuid() != 0) {
            std::cerr << "skipped (needs root to run as nobody): " << c.what << "\n";
            continue;
        }
        // With Studio not running, the bridge launches it and announces at
        // once, before the new copy listens, so the attacker connects first;
        // a round where Studio was quicker proves nothing and is run again.
        for (int round = 0; round < 3; ++round) {
            LinkSession session;
            pid_t paused = 0;
            if (c.studioRunsPaused) {
                paused = session.startStudio();
                kill(paused, SIGSTOP);
            }
            int announced = handOverUnderWay(session);
            ASSERT_GT(announced, 0) << session.bridge().stderrText();
            int read = runAttacker(c.attacker, announced, session.environment());
            if (paused) kill(paused, SIGCONT);
            auto answer = session.reply(1, 30s);
            if (read == -1000 - ECONNREFUSED) continue;
            EXPECT_EQ(read, 0) << "the attacker must be closed without a byte";
            EXPECT_TRUE(linked(answer)) << (answer ? answer->dump() : session.bridge().stderrText());
            break;
        }
    }
}

TEST_F(HandoverAttack, ThousandConnectionsInABurstGetNoByteAndStudioStillLinks) {
    LinkSession session;
    int announced = handOverUnderWay(session);
    ASSERT_GT(announced, 0);
    auto start = std::chrono::steady_clock::now();
    std::vector<int> hostile;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(announced));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    for (int i = 0; i < 1000; ++i) {
        int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
        ASSERT_GE(fd, 0);
        int rc = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
        ASSERT_TRUE(rc == 0 || errno == EINPROGRESS) << i;
        hostile.push_back(fd);
    }
    auto answer = session.reply(1, 60s);
    EXPECT_TRUE(linked(answer)) << (answer ? answer->dump() : "no answer");

    size_t bytes = 0, open = 0;
    auto deadline = std::chrono::steady_clock::now() + 30s;
    for (int fd : hostile) {
        pollfd p{fd, POLLIN, 0};
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (poll(&p, 1, static_cast<int>(std::max<int64_t>(left.count(), 0))) != 1) {
            ++open;
        } else {
            char buffer[512];
            ssize_t n = recv(fd, buffer, sizeof buffer, 0);
            if (n > 0) bytes += static_cast<size_t>(n);
        }
        close(fd);
    }
    EXPECT_EQ(bytes, 0u) << "a hostile connection read the greeting";
    EXPECT_EQ(open, 0u) << "hostile connections left open";
    auto seconds = std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start).count();
    // Rejections are written at most once a second, each line with its count.
    EXPECT_LE(count(session.bridge().stderrText(), "hand-over connection"), static_cast<size_t>(seconds) + 2)
        << session.bridge().stderrText().substr(0, 2000);
}

TEST_F(HandoverAttack, SpoofedAnnouncementWhileStudioStartsCostsOneRoundNotTheLink) {
    LinkSession session;
    int announced = handOverUnderWay(session);
    ASSERT_GT(announced, 0);
    // Any client of the bus can post the notification with the bridge's port
    // and a challenge of its own; Studio, still starting, hears it first.
    sd_bus* bus = linkattack::openBus(session.busAddress());
    std::string spoof = "port=" + std::to_string(announced) + "&challenge=" + std::string(64, '0') + "&client=spoof";
    // Until Studio has answered one announcement: however slowly it starts,
    // the spoofs are what it hears first.
    for (auto until = std::chrono::steady_clock::now() + 10s;
         std::chrono::steady_clock::now() < until && session.studioEvents("greeting").empty();) {
        linkattack::postAnnouncement(bus, "com.lumenfold.vantoric.studio.agent-link", spoof);
        std::this_thread::sleep_for(5ms);
    }
    sd_bus_flush_close_unref(bus);
    auto answer = session.reply(1, 30s);
    EXPECT_TRUE(linked(answer)) << (answer ? answer->dump() : "no answer");
    bool spoofedRound = false;
    for (auto& greeting : session.studioEvents("greeting"))
        if (greeting.value("challenge", true) == false) spoofedRound = true;
    EXPECT_TRUE(spoofedRound) << "Studio never answered the spoofed announcement";
}

TEST_F(HandoverAttack, StudioOfAnotherSessionNeitherBlocksTheLaunchNorIsLinked) {
    LinkSession session(Settings{{"VSM_TEST_REPLY_TIMEOUT_MS", "5000"}});
    PrivateBus otherBus;
    TempDir otherHome;
    auto environment = otherBus.environment(session.environment());
    environment["STUDIO_SIM_HOME"] = otherHome.path().string();
    environment["STUDIO_SIM_LOG"] = (otherHome.path() / "studio.jsonl").string();
    environment["XDG_CONFIG_HOME"] = (otherHome.path() / ".config").string();
    ChildProcess elsewhere(
        ChildProcess::Options{.argv = {studioExecutable()}, .environment = environment, .workingDirectory = {}});
    auto ready = elsewhere.readLine(10s);
    ASSERT_TRUE(ready && ready->find("studio-sim ready") != std::string::npos);

    session.startBridge();
    auto result = session.call(1, "studio_status");
    EXPECT_FALSE(result.value("isError", false)) << result.dump();
    EXPECT_NE(session.bridge().stderrText().find("launching " + bundle().string()), std::string::npos)
        << session.bridge().stderrText();
    EXPECT_EQ(session.studioProcesses().size(), 1u);
}
