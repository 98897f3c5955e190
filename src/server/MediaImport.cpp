// Media import and series calls: files on the agent's side of the machine
// become uploads that Studio received, and the calls carry upload ids
// instead of paths. Methods of the bridge, run on its strand.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "link/BlockingWork.h"
#include "base/BridgeError.h"
#include "server/StudioMCPBridge.h"

namespace fs = std::filesystem;

namespace {

constexpr size_t mostFiles = 20;

// The paths of "import_media", or nothing when they are not 1 to 20 strings.
std::optional<std::vector<std::string>> pathsIn(const Json& arguments) {
    auto paths = arguments.find("paths");
    if (paths == arguments.end() || !paths->is_array() || paths->empty() || paths->size() > mostFiles)
        return std::nullopt;
    std::vector<std::string> out;
    for (const auto& path : *paths) {
        if (!path.is_string()) return std::nullopt;
        out.push_back(path.get<std::string>());
    }
    return out;
}

uint64_t sizeOf(const fs::path& file) {
    std::error_code ec;
    auto size = fs::file_size(file, ec);
    return ec ? 0 : size;
}

}  // namespace

fs::path StudioMCPBridge::resolveFile(std::string_view path) const {
    fs::path url = resolvePath(path);
    struct stat info {};
    // A NUL would end the path early for the system and name another file.
    if (url.native().find('\0') != std::string::npos) throw BridgeError("No file at " + displayable(url.native()) + ".");
    if (::stat(url.c_str(), &info) != 0 || S_ISDIR(info.st_mode)) throw BridgeError("No file at " + url.string() + ".");
    // Only a regular file has an end: a pipe or a device would be read
    // forever.
    if (!S_ISREG(info.st_mode)) throw BridgeError("Cannot read " + url.string() + ".");
    // Opening is the one true test of readability (permissions, ACLs, a
    // file system that refuses); O_NONBLOCK keeps a pipe swapped in from
    // holding us.
    int fd = ::open(url.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) throw BridgeError("Cannot read " + url.string() + ".");
    ::close(fd);
    return url;
}

StudioMCPBridge::Task<Json> StudioMCPBridge::importMedia(Json arguments, Progress progress) {
    auto paths = pathsIn(arguments);
    if (!paths) co_return toolError("Pass paths: 1 to 20 files on this Mac.");

    // Every file is checked before anything is sent.
    // Off the I/O thread: a file on a slow share must not hold pings.
    auto checked = co_await blocking::run([this, &paths] {
        std::pair<std::vector<fs::path>, uint64_t> out;
        for (const auto& path : *paths) {
            out.first.push_back(resolveFile(path));
            out.second += sizeOf(out.first.back());
        }
        return out;
    });
    const std::vector<fs::path>& files = checked.first;
    const uint64_t total = checked.second;

    Link link = co_await studio->connect();
    Json uploads = Json::array();
    uint64_t done = 0;
    for (size_t i = 0; i < files.size(); ++i) {
        std::string name = files[i].filename().string();
        std::string message =
            "Uploading " + name + " (" + std::to_string(i + 1) + " of " + std::to_string(files.size()) + ")";
        StudioConnection::UploadProgress told;
        if (progress.wanted()) {
            progress.report(done, total, message);
            told = [progress, done, total, message](uint64_t sent, uint64_t) mutable {
                progress.report(std::min(done + sent, total), total, message);
            };
        }
        auto uploading = studio->upload(files[i], link, std::move(told));
        std::string id = co_await std::move(uploading);
        if (progress.wanted()) done += sizeOf(files[i]);
        // The bytes of the name went with the upload; this one is for show.
        uploads.push_back(Json{{"uploadId", std::move(id)}, {"name", displayable(name)}});
    }

    Json forwarded = Json::object();
    forwarded["uploads"] = std::move(uploads);
    if (auto timeline = arguments.find("add_to_timeline"); timeline != arguments.end())
        forwarded["add_to_timeline"] = *timeline;
    co_return co_await forward(std::move(forwarded), "import_media");
}

StudioMCPBridge::Task<Json> StudioMCPBridge::series(Json arguments, Progress progress) {
    auto operation = arguments.find("operation");
    auto params = arguments.find("params");
    bool fileImport = operation != arguments.end() && operation->is_string() && *operation == "seriesMediaImport" &&
                      params != arguments.end() && params->is_object();
    const Json* from = nullptr;
    if (fileImport) {
        auto member = params->find("from");
        if (member != params->end() && member->is_object()) from = &*member;
    }
    const Json* path = nullptr;
    if (from) {
        auto member = from->find("path");
        if (member != from->end() && member->is_string()) path = &*member;
    }
    if (!path) co_return co_await forward(std::move(arguments), "series");

    fs::path file = co_await blocking::run([this, path] { return resolveFile(path->get_ref<const std::string&>()); });
    Link link = co_await studio->connect();
    StudioConnection::UploadProgress told;
    if (progress.wanted()) {
        std::string message = "Uploading " + file.filename().string();
        progress.report(0, sizeOf(file), message);
        told = [progress, message](uint64_t sent, uint64_t total) mutable { progress.report(sent, total, message); };
    }
    auto uploading = studio->upload(file, link, std::move(told));
    std::string id = co_await std::move(uploading);
    (*params)["from"] = Json{{"uploadId", std::move(id)}};
    co_return co_await forward(std::move(arguments), "series");
}
