// Moves big files between an agent's folder and a running Studio simulator,
// through the bridge and with curl, side by side:
//   files_bench <bridge> <work folder> <Studio's home> <runs>
// (the clients' standard error goes to <work folder>/clients.log)
// Import: one file of `VSM_BENCH_FILE_BYTES` (2 GiB) uploaded by `curl -T`
// to Studio's upload address, against the same file imported through the
// bridge (import_media). Export: one export of the simulator's export size
// (2 GiB; STUDIO_SIM_EXPORT_BYTES) fetched by `curl -o` from Studio's
// download address, against export_video saving it through the bridge. Each
// bridge run is a fresh process: its peak resident set (VmHWM) is the whole
// run's.
// Between runs the files are deleted and the disk synced, so every run
// starts from the same state. VANTORIC_STUDIO_APP names the simulator's
// bundle and DBUS_SESSION_BUS_ADDRESS its bus; the simulator must run.
// Output: a table on standard output.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/use_future.hpp>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include "json/Json.h"
#include <thread>
#include <vector>

#include "link/StudioConnection.h"
#include "base/StudioLocation.h"
#include "platform/Environment.h"
#include "platform/Executable.h"
#include "support/IoThread.h"

namespace asio = boost::asio;
namespace fs = std::filesystem;
using json = Json;
using Clock = std::chrono::steady_clock;
using studiolink::Link;
using studiolink::StudioConnection;

extern char** environ;

namespace {

constexpr uint64_t defaultBytes = 2ull << 30;

double seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

using bench::Io;

// The bench's own link to Studio, for the calls around the transfers and
// for curl's token.
class StudioLink {
public:
    StudioLink() {
        auto environment = platform::captureEnvironment();
        auto app = StudioLocation::locateApp(platform::ownExecutable(), environment);
        connection_ = StudioConnection::create(io_.strand, io_.io.get_executor(), app,
                                               [] { return std::string("files_bench"); },
                                               StudioConnection::Services::system(StudioLocation::studioIdentifier(app)));
        link_ = asio::co_spawn(io_.strand, connection_->connect(), asio::use_future).get();
    }
    ~StudioLink() {
        asio::post(io_.strand, [c = connection_] { c->stop(); });
    }
    const Link& link() const { return link_; }

    json payload(const std::string& tool, json arguments) {
        auto forwarded =
            asio::co_spawn(io_.strand, connection_->forward(std::move(arguments), tool), asio::use_future).get();
        if (!forwarded.result || forwarded.result->value("isError", false))
            throw std::runtime_error(tool + " failed: " + (forwarded.result ? forwarded.result->dump() : forwarded.refusal));
        return json::parse((*forwarded.result)["content"].back()["text"].get<std::string>());
    }

    // A completed export's download id.
    std::string export_() {
        payload("export_video", {{"action", "start"}});
        for (;;) {
            json status = payload("export_video", {{"action", "status"}, {"wait_seconds", 15}});
            if (status["phase"] == "completed") return status["file"]["downloadId"];
            if (status["phase"] != "queued" && status["phase"] != "rendering")
                throw std::runtime_error("export ended " + status.dump());
        }
    }

private:
    Io io_;
    std::shared_ptr<StudioConnection> connection_;
    Link link_;
};

struct Finished {
    int status = -1;
    std::string output;
};

// A child with its standard output collected and its standard error in
// `log` (appended).
class Child {
public:
    Child(const std::vector<std::string>& arguments, bool withInput, const fs::path& log) {
        int out[2], in[2] = {-1, -1};
        if (pipe2(out, O_CLOEXEC) != 0 || (withInput && pipe2(in, O_CLOEXEC) != 0)) throw std::runtime_error("pipe");
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        if (withInput) posix_spawn_file_actions_adddup2(&actions, in[0], 0);
        else posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&actions, 2, log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        std::vector<char*> argv;
        for (auto& a : arguments) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        if (posix_spawnp(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0)
            throw std::runtime_error("could not start " + arguments[0]);
        posix_spawn_file_actions_destroy(&actions);
        close(out[1]);
        out_ = out[0];
        if (withInput) {
            close(in[0]);
            in_ = in[1];
        }
    }
    ~Child() {
        if (pid_ > 0) finish();
    }

    void send(const json& message) {
        std::string bytes = message.dump() + "\n";
        if (write(in_, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
            throw std::runtime_error("write to the bridge failed");
    }
    // The next message that answers a request (notifications are skipped).
    json reply() {
        for (;;) {
            auto newline = buffer_.find('\n');
            if (newline != std::string::npos) {
                auto message = json::parse(buffer_.substr(0, newline));
                buffer_.erase(0, newline + 1);
                if (message.contains("id")) return message;
                continue;
            }
            char chunk[65536];
            ssize_t n = read(out_, chunk, sizeof chunk);
            if (n <= 0) throw std::runtime_error("the bridge ended its output");
            buffer_.append(chunk, static_cast<size_t>(n));
        }
    }

    // The child's peak resident set so far. (The rusage of a child that
    // posix_spawn started counts the parent's pages from before the exec.)
    long peakKB() const {
        std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
        std::string line;
        while (std::getline(status, line))
            if (line.rfind("VmHWM:", 0) == 0) return std::atol(line.c_str() + 6);
        return 0;
    }

    // Closes the input, reads the rest of the output, reaps the child.
    Finished finish() {
        if (in_ >= 0) close(in_);
        in_ = -1;
        Finished done;
        char chunk[4096];
        ssize_t n;
        while ((n = read(out_, chunk, sizeof chunk)) > 0) buffer_.append(chunk, static_cast<size_t>(n));
        close(out_);
        int status = 0;
        while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
        }
        pid_ = -1;
        done.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        done.output = std::move(buffer_);
        return done;
    }

private:
    pid_t pid_ = -1;
    int in_ = -1, out_ = -1;
    std::string buffer_;
};

struct Run {
    double seconds;
    long peakKB = 0;
};

// The bridge linked (its first call makes the link, untimed), then the one
// timed tool call, answered.
Run throughBridge(const std::string& binary, const std::string& tool, const json& arguments, const fs::path& log) {
    Child bridge({binary}, true, log);
    bridge.send({{"jsonrpc", "2.0"}, {"id", 0}, {"method", "initialize"},
                 {"params", {{"protocolVersion", "2025-06-18"}, {"capabilities", json::object()},
                             {"clientInfo", {{"name", "files_bench"}, {"version", "1"}}}}}});
    bridge.reply();
    bridge.send({{"jsonrpc", "2.0"}, {"method", "notifications/initialized"}});
    bridge.send({{"jsonrpc", "2.0"}, {"id", 1}, {"method", "tools/call"},
                 {"params", {{"name", "studio_status"}, {"arguments", json::object()}}}});
    if (bridge.reply()["result"].value("isError", false)) throw std::runtime_error("the bridge got no link");

    auto start = Clock::now();
    bridge.send({{"jsonrpc", "2.0"}, {"id", 2}, {"method", "tools/call"},
                 {"params", {{"name", tool}, {"arguments", arguments}}}});
    json answer = bridge.reply();
    double took = seconds(Clock::now() - start);
    if (answer["result"].value("isError", false)) throw std::runtime_error(tool + " failed: " + answer.dump());
    long peak = bridge.peakKB();
    bridge.finish();
    return {took, peak};
}

// curl's own total time (its start-up excluded, like the bridge's).
Run throughCurl(std::vector<std::string> arguments, const std::string& wantedStatus, const fs::path& log) {
    arguments.insert(arguments.begin(), {"curl", "-sS", "-w", "%{http_code} %{time_total}"});
    Child curl(arguments, false, log);
    auto finished = curl.finish();
    double took = 0;
    char code[8] = {};
    if (finished.status != 0 || std::sscanf(finished.output.c_str(), "%7s %lf", code, &took) != 2 || wantedStatus != code)
        throw std::runtime_error("curl failed: " + finished.output);
    return {took, 0};
}

void makeFile(const fs::path& path, uint64_t bytes) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) throw std::runtime_error("cannot create " + path.string());
    std::vector<char> block(8 << 20);
    for (size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>(i * 131 + 7);
    for (uint64_t done = 0; done < bytes;) {
        size_t n = static_cast<size_t>(std::min<uint64_t>(block.size(), bytes - done));
        if (::write(fd, block.data(), n) != static_cast<ssize_t>(n)) throw std::runtime_error("cannot write the file");
        done += n;
    }
    ::close(fd);
}

// What one run left behind goes, and the disk catches up before the next.
void settle(const std::vector<fs::path>& leftovers) {
    for (const auto& folder : leftovers) {
        std::error_code ec;
        if (fs::is_directory(folder, ec)) {
            for (auto& entry : fs::directory_iterator(folder, ec)) fs::remove_all(entry.path(), ec);
        } else {
            fs::remove(folder, ec);
        }
    }
    ::sync();
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        std::fprintf(stderr, "usage: files_bench <bridge> <work folder> <Studio's home> [runs]\n");
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    const std::string bridge = argv[1];
    const fs::path work = argv[2];
    const fs::path studioHome = argv[3];
    const fs::path log = work / "clients.log";
    const int runs = argc > 4 ? std::max(1, std::atoi(argv[4])) : 5;
    uint64_t bytes = defaultBytes;
    if (const char* size = std::getenv("VSM_BENCH_FILE_BYTES")) bytes = std::strtoull(size, nullptr, 10);
    const double mebibytes = static_cast<double>(bytes) / (1 << 20);

    try {
        StudioLink studio;
        const Link& link = studio.link();
        const std::string auth = "Authorization: Bearer " + link.token;
        studio.payload("project", {{"action", "create"}, {"name", "Bench"}});
        const fs::path media = studioHome / "Projects/Bench.vantoric/Media";

        fs::path source = work / "footage.mov";
        makeFile(source, bytes);
        ::sync();
        std::string uploadURL = link.files.absoluteString() + "/uploads?name=footage.mov";

        std::vector<double> curlUp, bridgeUp, curlDown, bridgeDown;
        long peakUp = 0, peakDown = 0;
        // Who goes first alternates, so neither always meets the disk as the
        // other left it.
        for (int run = 0; run < runs; ++run) {
            for (int turn = 0; turn < 2; ++turn) {
                if ((turn + run) % 2 == 0) {
                    curlUp.push_back(throughCurl({"-T", source.string(), "-H", auth, "-H",
                                                  "Content-Type: application/octet-stream", "-o", "/dev/null", uploadURL},
                                                 "201", log)
                                         .seconds);
                } else {
                    auto imported = throughBridge(
                        bridge, "import_media", {{"paths", {source.string()}}, {"add_to_timeline", false}}, log);
                    bridgeUp.push_back(imported.seconds);
                    peakUp = std::max(peakUp, imported.peakKB);
                }
                settle({studioHome / "Uploads", media});
            }
        }
        settle({source});

        fs::path fetched = work / "fetched.mp4";
        const fs::path exports = studioHome / "Projects/Bench.vantoric/exports";
        uint64_t exported = 0;
        for (int run = 0; run < runs; ++run) {
            for (int turn = 0; turn < 2; ++turn) {
                if ((turn + run) % 2 == 0) {
                    std::string id = studio.export_();
                    curlDown.push_back(throughCurl({"-o", fetched.string(), "-H", auth,
                                                    link.files.absoluteString() + "/downloads/" + id},
                                                   "200", log)
                                           .seconds);
                } else {
                    auto saved =
                        throughBridge(bridge, "export_video", {{"action", "start"}, {"path", fetched.string()}}, log);
                    bridgeDown.push_back(saved.seconds);
                    peakDown = std::max(peakDown, saved.peakKB);
                }
                uint64_t size = fs::file_size(fetched);
                if (exported != 0 && size != exported) throw std::runtime_error("the two exports differ in size");
                exported = size;
                // Studio's copy goes too: its pages would crowd the cache.
                settle({fetched, exports});
            }
        }

        auto row = [&](const char* what, const char* how, const std::vector<double>& times, double ratio, long peakKB) {
            double rate = mebibytes / median(times);
            std::printf("| %-22s | %-18s | %9.0f MiB/s | %7.2f s |", what, how, rate, median(times));
            if (ratio > 0) std::printf(" %6.0f%% | %7.1f MB |\n", ratio * 100, peakKB / 1024.0);
            else std::printf("         |            |\n");
        };
        double upRatio = median(curlUp) / median(bridgeUp);
        double downRatio = median(curlDown) / median(bridgeDown);
        std::printf("%.0f MiB each way, median of %d runs; bridge throughput as a share of curl's (target >= 80%%), "
                    "bridge peak RSS (target < 32 MB)\n",
                    mebibytes, runs);
        std::printf("| %-22s | %-18s | %15s | %9s | %7s | %10s |\n", "transfer", "client", "throughput", "time", "share",
                    "peak RSS");
        std::printf("|%s|%s|%s|%s|%s|%s|\n", std::string(24, '-').c_str(), std::string(20, '-').c_str(),
                    std::string(17, '-').c_str(), std::string(11, '-').c_str(), std::string(9, '-').c_str(),
                    std::string(12, '-').c_str());
        row("import (upload)", "curl -T", curlUp, 0, 0);
        row("import (upload)", "bridge import_media", bridgeUp, upRatio, peakUp);
        row("export (download)", "curl -o", curlDown, 0, 0);
        row("export (download)", "bridge export_video", bridgeDown, downRatio, peakDown);
        auto samples = [](const char* what, const std::vector<double>& times) {
            std::printf("  %-28s", what);
            for (double t : times) std::printf(" %6.2f s", t);
            std::printf("\n");
        };
        std::printf("each run, in order:\n");
        samples("import, curl -T", curlUp);
        samples("import, bridge", bridgeUp);
        samples("export, curl -o", curlDown);
        samples("export, bridge", bridgeDown);
        bool met = upRatio >= 0.8 && downRatio >= 0.8 && peakUp < 32 * 1024 && peakDown < 32 * 1024;
        std::printf("targets %s\n", met ? "met" : "MISSED");
        return 0;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "files_bench: %s\n", failure.what());
        return 1;
    }
}
