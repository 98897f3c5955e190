#include "server/MediaImport.h"

#include "link/BlockingWork.h"
#include "server/Forwarding.h"
#include "server/ToolResults.h"

namespace fs = std::filesystem;
namespace blocking = studiolink::blocking;
using studiolink::Link;
using studiolink::StudioConnection;

namespace server {

namespace {

constexpr size_t mostFiles = 20;

// The paths of "import_media", or nothing when they are not 1 to 20 strings.
std::optional<std::vector<std::string>> pathsIn(const Json& arguments) {
    const Json* paths = memberOf(arguments, "paths");
    if (!paths || !paths->is_array() || paths->empty() || paths->size() > mostFiles) return std::nullopt;
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

MediaImport::MediaImport(std::shared_ptr<StudioConnection> studio, const AgentPaths& paths)
    : studio_(std::move(studio)), paths_(paths) {}

Task<Json> MediaImport::importMedia(Json arguments, Progress progress) {
    auto paths = pathsIn(arguments);
    if (!paths) co_return ToolResults::toolError("Pass paths: 1 to 20 files on this Mac.");

    // Off the I/O thread: a file on a slow share must not hold pings.
    auto checked = co_await blocking::run([this, &paths] {
        std::pair<std::vector<fs::path>, uint64_t> out;
        for (const auto& path : *paths) {
            out.first.push_back(paths_.existingFile(path));
            out.second += sizeOf(out.first.back());
        }
        return out;
    });
    const std::vector<fs::path>& files = checked.first;
    const uint64_t total = checked.second;

    Link link = co_await studio_->connect();
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
        auto uploading = studio_->upload(files[i], link, std::move(told));
        std::string id = co_await std::move(uploading);
        if (progress.wanted()) done += sizeOf(files[i]);
        // The bytes of the name went with the upload; this one is for show.
        uploads.push_back(Json{{"uploadId", std::move(id)}, {"name", displayable(name)}});
    }

    Json forwarded = Json::object();
    forwarded["uploads"] = std::move(uploads);
    if (const Json* timeline = memberOf(arguments, "add_to_timeline")) forwarded["add_to_timeline"] = *timeline;
    co_return co_await forward(*studio_, std::move(forwarded), "import_media");
}

Task<Json> MediaImport::series(Json arguments, Progress progress) {
    Json* params = memberOf(arguments, "params");
    const std::string* operation = stringMember(arguments, "operation");
    const std::string* path = nullptr;
    if (operation && *operation == "seriesMediaImport" && params && params->is_object())
        if (const Json* from = memberOf(*params, "from"); from && from->is_object()) path = stringMember(*from, "path");
    if (!path) co_return co_await forward(*studio_, std::move(arguments), "series");

    fs::path file = co_await blocking::run([this, path] { return paths_.existingFile(*path); });
    Link link = co_await studio_->connect();
    StudioConnection::UploadProgress told;
    if (progress.wanted()) {
        std::string message = "Uploading " + file.filename().string();
        progress.report(0, sizeOf(file), message);
        told = [progress, message](uint64_t sent, uint64_t total) mutable { progress.report(sent, total, message); };
    }
    auto uploading = studio_->upload(file, link, std::move(told));
    std::string id = co_await std::move(uploading);
    (*params)["from"] = Json{{"uploadId", std::move(id)}};
    co_return co_await forward(*studio_, std::move(arguments), "series");
}

}  // namespace server
