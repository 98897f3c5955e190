// Studio's document side, small and in memory: projects (folders ending in
// .vantoric, with an exports folder), their media, timeline, titles and looks,
// one export at a time that advances with the clock, series of episodes, the
// uploads received over HTTP and the exported files offered for download, and
// the folders the platform has granted access to (Open / command line).
//
// Tool calls come in as (name, arguments) and leave as MCP tool results:
// {"content":[{"type":"text","text":<compact JSON payload>}],"isError":false}
// or, for a refusal, the same with the message as text and "isError" true.
// A call that waits (export status with wait_seconds, project open with
// await_open) answers with a Pending the caller polls; the model itself never
// blocks and knows nothing of sockets or timers. Files live under `home`:
// Projects/<name>.vantoric, Uploads/<id>/<name>, Series/<id>/Media.
//
// Owned by main; used from the event loop's one thread only.
#pragma once
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "SimLog.h"

namespace studiosim {

class ProjectModel {
public:
    using Clock = std::chrono::steady_clock;

    struct Settings {
        std::filesystem::path home;
        std::string identifier;
        std::string version;
        std::chrono::milliseconds maxWait{2000};
        std::uint64_t exportBytes = 1 << 20;
        std::chrono::milliseconds exportDuration{1000};
        bool exportFail = false;
    };

    // An answer still to come. Call poll(false) until it gives a result (the
    // caller decides how often), and poll(true) once the deadline has passed,
    // which always gives one.
    struct Pending {
        Clock::time_point deadline;
        std::function<std::optional<Json>(bool lastChance)> poll;
    };
    using Answer = std::variant<Json, Pending>;

    // Creates home/Projects and home/Uploads and adopts the .vantoric folders
    // already in Projects. Throws std::filesystem::filesystem_error.
    ProjectModel(Settings settings, SimLog& log);

    Answer call(const std::string& tool, const Json& arguments);

    // Access granted to a folder (and everything below it).
    void grant(const std::filesystem::path& folder);

    // Uploads: reserve() makes Uploads/<id>/ and names the file to write;
    // commit() makes it importable; discard() removes what was written.
    struct UploadSlot {
        std::string id;
        std::string name;
        std::filesystem::path file;
    };
    UploadSlot reserveUpload(const std::string& name);
    void commitUpload(const UploadSlot& slot, std::uint64_t bytes);
    void discardUpload(const UploadSlot& slot);

    // The exported file behind a download id.
    std::optional<std::filesystem::path> downloadFile(const std::string& id) const;

    // Lets a running export move on (writing its file when it completes);
    // nextChange() is when it next changes phase, if it runs.
    void advance();
    std::optional<Clock::time_point> nextChange() const;

    void setAgentCount(std::size_t count) { agents_ = count; }
    const std::filesystem::path& home() const { return settings_.home; }

private:
    struct Media {
        std::string id, name, kind;
        std::uint64_t bytes = 0;
        double duration = 0;
        std::filesystem::path file;
    };
    struct Clip {
        std::string id, mediaId, name;
        double in = 0, out = 0;
        std::optional<std::string> look;
        double intensity = 1;
    };
    struct Title {
        std::string id, text, style;
        double start = 0, duration = 0;
    };
    struct Project {
        std::string id, name;
        std::filesystem::path folder;
        std::vector<Media> media;
        std::vector<Clip> clips;
        std::vector<Title> titles;
        std::optional<std::string> look;
        double lookIntensity = 1;
    };
    struct Upload {
        std::string name;
        std::filesystem::path file;
        std::uint64_t bytes = 0;
        bool imported = false;
    };
    struct Episode {
        std::string id, title;
        int number = 0;
        std::optional<std::string> projectId;
    };
    struct Series {
        std::string id, name;
        std::vector<Episode> episodes;
        std::vector<Media> media;
    };
    enum class Phase { queued, rendering, completed, failed, cancelled };
    struct Export {
        std::string id, projectId, projectName, fileName;
        std::filesystem::path folder;
        Clock::time_point started;
        std::optional<bool> aiLabel;
        Phase finalPhase = Phase::queued;  // queued while it runs; the end state once it ends
        std::string error;
        std::uint64_t bytes = 0;
        std::string downloadId;
    };

    Json status(const Json& args);
    Json project(const Json& args);
    Answer openProject(const Json& args);
    Json importMedia(const Json& args);
    Json timeline(const Json& args);
    Json addTitle(const Json& args);
    Json colorGrade(const Json& args);
    Answer exportVideo(const Json& args);
    Json series(const Json& args);

    Project& openedProject();
    Project* findProject(const std::string& idOrName);
    Project& adopt(const std::filesystem::path& folder);
    bool granted(const std::filesystem::path& folder) const;
    Json openedAnswer(Project& p);
    Media takeUpload(const std::string& uploadId, const std::filesystem::path& mediaFolder);
    Upload& uploadFor(const Json& id);
    void saveProject(const Project& p);

    Phase phaseOf(const Export& e, Clock::time_point now) const;
    bool running() const;
    void finish(Export& e);
    Json exportPayload();

    Json projectSummary(const Project& p) const;
    static Json mediaSummary(const Media& m);
    static Json clipSummary(const Clip& c, std::size_t position);
    Json clipList(const Project& p) const;
    static Json seriesSummary(const Series& s);
    std::string nextId(const char* prefix);

    Settings settings_;
    SimLog& log_;
    std::filesystem::path projectsFolder_, uploadsFolder_;
    std::vector<Project> projects_;
    std::optional<std::string> openId_;
    std::vector<std::filesystem::path> grants_;
    std::map<std::string, Upload> uploads_;
    std::vector<Series> series_;
    std::optional<Export> export_;
    std::map<std::string, std::filesystem::path> downloads_;
    std::map<std::string, int> counters_;
    std::size_t agents_ = 0;
};

// Builders for MCP tool results.
Json toolResult(const Json& payload);
Json toolError(const std::string& message);

}  // namespace studiosim
