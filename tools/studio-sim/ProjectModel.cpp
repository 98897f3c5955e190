#include "ProjectModel.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <stdexcept>
#include <system_error>

#include "MovieFile.h"
#include "SimCrypto.h"

namespace studiosim {

namespace fs = std::filesystem;

namespace {

// A refusal of the call, worded for the person behind the agent.
struct Refusal : std::runtime_error {
    using std::runtime_error::runtime_error;
};

const Json* member(const Json& args, const char* key) {
    auto it = args.find(key);
    if (it == args.end() || it->is_null()) return nullptr;
    return &*it;
}

std::optional<std::string> stringArg(const Json& args, const char* key) {
    const Json* v = member(args, key);
    if (!v) return std::nullopt;
    if (!v->is_string()) throw Refusal(std::string(key) + " must be a string.");
    return v->get<std::string>();
}

std::string requiredString(const Json& args, const char* key, const std::string& refusal) {
    auto v = stringArg(args, key);
    if (!v || v->empty()) throw Refusal(refusal);
    return *v;
}

std::optional<double> numberArg(const Json& args, const char* key, double low, double high) {
    const Json* v = member(args, key);
    if (!v) return std::nullopt;
    if (!v->is_number()) throw Refusal(std::string(key) + " must be a number.");
    double d = v->get<double>();
    if (!(d >= low && d <= high)) {
        std::string range = std::isinf(high) ? "at least " + Json(low).dump() : "from " + Json(low).dump() + " to " + Json(high).dump();
        throw Refusal(std::string(key) + " must be " + range + ".");
    }
    return d;
}

std::optional<std::int64_t> integerArg(const Json& args, const char* key, std::int64_t low, std::int64_t high) {
    const Json* v = member(args, key);
    if (!v) return std::nullopt;
    if (!v->is_number() || (v->is_number_float() && std::trunc(v->get<double>()) != v->get<double>()))
        throw Refusal(std::string(key) + " must be a whole number.");
    double d = v->get<double>();
    if (d < static_cast<double>(low) || d > static_cast<double>(high))
        throw Refusal(std::string(key) + " must be from " + std::to_string(low) + " to " + std::to_string(high) + ".");
    return static_cast<std::int64_t>(d);
}

std::optional<bool> boolArg(const Json& args, const char* key) {
    const Json* v = member(args, key);
    if (!v) return std::nullopt;
    if (!v->is_boolean()) throw Refusal(std::string(key) + " must be true or false.");
    return v->get<bool>();
}

bool within(const fs::path& path, const fs::path& base) {
    auto [b, p] = std::mismatch(base.begin(), base.end(), path.begin(), path.end());
    return b == base.end();
}

fs::path canonicalOrSelf(const fs::path& path) {
    std::error_code ec;
    auto c = fs::weakly_canonical(path, ec);
    return ec ? path.lexically_normal() : c;
}

std::string lowerExtension(const fs::path& file) {
    std::string ext = file.extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return ext;
}

// Media kinds by extension, with a nominal length Studio would read from the
// file; the simulator never decodes media.
std::pair<std::string, double> kindOf(const fs::path& file) {
    static const std::vector<std::string> video{".mov", ".mp4", ".m4v", ".avi", ".mkv", ".webm", ".mts"};
    static const std::vector<std::string> audio{".wav", ".mp3", ".aac", ".m4a", ".aif", ".aiff", ".flac"};
    static const std::vector<std::string> image{".png", ".jpg", ".jpeg", ".heic", ".tif", ".tiff", ".gif"};
    auto ext = lowerExtension(file);
    auto has = [&](const std::vector<std::string>& list) { return std::find(list.begin(), list.end(), ext) != list.end(); };
    if (has(video)) return {"video", 10.0};
    if (has(audio)) return {"audio", 30.0};
    if (has(image)) return {"image", 5.0};
    return {"other", 5.0};
}

// "name.ext", else "name 2.ext", "name 3.ext", ... whichever is free.
fs::path freeName(const fs::path& folder, const std::string& filename) {
    fs::path candidate = folder / filename;
    fs::path stem = fs::path(filename).stem(), ext = fs::path(filename).extension();
    for (int n = 2; fs::exists(fs::symlink_status(candidate)); ++n)
        candidate = folder / (stem.string() + " " + std::to_string(n) + ext.string());
    return candidate;
}

void moveFile(const fs::path& from, const fs::path& to) {
    std::error_code ec;
    fs::rename(from, to, ec);
    if (!ec) return;
    // Another file system (a granted project folder elsewhere): copy, then remove.
    fs::copy_file(from, to);
    fs::remove(from);
}

void writeAtomically(const fs::path& file, const std::string& text) {
    fs::path temporary = file.parent_path() / ("." + file.filename().string() + ".part");
    {
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        out << text;
        out.close();
        if (!out) {
            fs::remove(temporary);
            throw fs::filesystem_error("cannot write", file, std::make_error_code(std::errc::io_error));
        }
    }
    fs::rename(temporary, file);
}

double rounded(double value) { return std::round(value * 100.0) / 100.0; }

const char* phaseName(int phase) {
    static const char* names[] = {"queued", "rendering", "completed", "failed", "cancelled"};
    return names[phase];
}

}  // namespace

Json toolResult(const Json& payload) {
    Json text = Json::object();
    text["type"] = "text";
    text["text"] = payload.dump(-1, ' ', false, Json::error_handler_t::replace);
    Json result = Json::object();
    result["content"] = Json::array({text});
    result["isError"] = false;
    return result;
}

Json toolError(const std::string& message) {
    Json text = Json::object();
    text["type"] = "text";
    text["text"] = message;
    Json result = Json::object();
    result["content"] = Json::array({text});
    result["isError"] = true;
    return result;
}

ProjectModel::ProjectModel(Settings settings, SimLog& log)
    : settings_(std::move(settings)), log_(log) {
    projectsFolder_ = settings_.home / "Projects";
    uploadsFolder_ = settings_.home / "Uploads";
    fs::create_directories(projectsFolder_);
    fs::create_directories(uploadsFolder_);
    std::vector<fs::path> found;
    for (auto& entry : fs::directory_iterator(projectsFolder_))
        if (entry.is_directory() && entry.path().extension() == ".vantoric") found.push_back(entry.path());
    std::sort(found.begin(), found.end());
    for (auto& folder : found) adopt(folder);
}

std::string ProjectModel::nextId(const char* prefix) {
    return prefix + std::to_string(++counters_[prefix]);
}

ProjectModel::Answer ProjectModel::call(const std::string& tool, const Json& arguments) {
    advance();
    const Json args = arguments.is_object() ? arguments : Json::object();
    try {
        if (tool == "studio_status") return toolResult(status(args));
        if (tool == "project") {
            auto action = stringArg(args, "action");
            if (action && *action == "open") return openProject(args);
            return toolResult(project(args));
        }
        if (tool == "import_media") return toolResult(importMedia(args));
        if (tool == "timeline") return toolResult(timeline(args));
        if (tool == "add_title") return toolResult(addTitle(args));
        if (tool == "color_grade") return toolResult(colorGrade(args));
        if (tool == "export_video") return exportVideo(args);
        if (tool == "series") return toolResult(series(args));
        return toolError("Unknown tool " + tool + ".");
    } catch (const Refusal& refusal) {
        return toolError(refusal.what());
    } catch (const fs::filesystem_error& error) {
        return toolError(std::string("Vantoric Studio could not use a file: ") + error.what() + ".");
    }
}

// ---- projects ---------------------------------------------------------------

Json ProjectModel::projectSummary(const Project& p) const {
    Json j = Json::object();
    j["id"] = p.id;
    j["name"] = p.name;
    j["path"] = p.folder.string();
    j["open"] = openId_ == p.id;
    j["media"] = p.media.size();
    j["clips"] = p.clips.size();
    j["titles"] = p.titles.size();
    return j;
}

ProjectModel::Project& ProjectModel::openedProject() {
    if (openId_)
        if (Project* p = findProject(*openId_)) return *p;
    throw Refusal("No project is open. Open one with project {action:\"open\"} or create one with project {action:\"create\"}.");
}

ProjectModel::Project* ProjectModel::findProject(const std::string& idOrName) {
    for (auto& p : projects_)
        if (p.id == idOrName) return &p;
    for (auto& p : projects_)
        if (p.name == idOrName) return &p;
    return nullptr;
}

ProjectModel::Project& ProjectModel::adopt(const fs::path& folder) {
    auto canonical = canonicalOrSelf(folder);
    for (auto& p : projects_)
        if (canonicalOrSelf(p.folder) == canonical) return p;
    Project p;
    p.id = nextId("p");
    p.name = folder.stem().string();
    p.folder = folder;
    projects_.push_back(std::move(p));
    return projects_.back();
}

void ProjectModel::grant(const fs::path& folder) {
    grants_.push_back(canonicalOrSelf(folder));
}

bool ProjectModel::granted(const fs::path& folder) const {
    auto canonical = canonicalOrSelf(folder);
    if (within(canonical, canonicalOrSelf(projectsFolder_))) return true;
    return std::any_of(grants_.begin(), grants_.end(), [&](const fs::path& g) { return within(canonical, g); });
}

Json ProjectModel::openedAnswer(Project& p) {
    openId_ = p.id;
    log_.event("project-opened", {{"id", p.id}, {"path", p.folder.string()}});
    Json j = Json::object();
    j["opened"] = true;
    j["project"] = projectSummary(p);
    return j;
}

void ProjectModel::saveProject(const Project& p) {
    Json doc = Json::object();
    doc["name"] = p.name;
    doc["savedBy"] = "Vantoric Studio " + settings_.version;
    doc["media"] = Json::array();
    for (auto& m : p.media) {
        Json j = mediaSummary(m);
        j["file"] = fs::relative(m.file, p.folder).string();
        doc["media"].push_back(j);
    }
    doc["clips"] = clipList(p);
    doc["titles"] = Json::array();
    for (auto& t : p.titles) doc["titles"].push_back({{"id", t.id}, {"text", t.text}, {"start", t.start}, {"duration", t.duration}, {"style", t.style}});
    if (p.look) doc["look"] = {{"look", *p.look}, {"intensity", p.lookIntensity}};
    writeAtomically(p.folder / "project.json", doc.dump(2) + "\n");
}

Json ProjectModel::project(const Json& args) {
    auto action = stringArg(args, "action").value_or("");
    if (action == "list") {
        Json list = Json::array();
        for (auto& p : projects_) list.push_back(projectSummary(p));
        return {{"projects", list}};
    }
    if (action == "create") {
        std::string name = requiredString(args, "name", "Pass name: the new project's name.");
        if (name.size() > 9 && name.ends_with(".vantoric")) name.resize(name.size() - 9);
        name.erase(0, name.find_first_not_of(" \t"));
        name.erase(name.find_last_not_of(" \t") + 1);
        if (name.empty() || name.size() > 200 || name.front() == '.' || name.find('/') != std::string::npos ||
            name.find('\0') != std::string::npos)
            throw Refusal("A project name must not be empty, start with a dot or contain a slash.");
        fs::path folder = projectsFolder_ / (name + ".vantoric");
        if (fs::exists(fs::symlink_status(folder)))
            throw Refusal("A project named " + name + " already exists. Open it with project {action:\"open\", path:\"" +
                          folder.string() + "\"}.");
        fs::create_directories(folder / "exports");
        fs::create_directories(folder / "Media");
        Project& p = adopt(folder);
        saveProject(p);
        openId_ = p.id;
        log_.event("project-created", {{"id", p.id}, {"path", folder.string()}});
        Json j = Json::object();
        j["created"] = true;
        j["project"] = projectSummary(p);
        return j;
    }
    if (action == "save") {
        Project& p = openedProject();
        saveProject(p);
        Json j = Json::object();
        j["saved"] = true;
        j["project"] = projectSummary(p);
        return j;
    }
    if (action == "close") {
        Json j = Json::object();
        Project* p = openId_ ? findProject(*openId_) : nullptr;
        openId_.reset();
        j["closed"] = p != nullptr;
        if (p) j["project"] = projectSummary(*p);
        return j;
    }
    throw Refusal("Unknown project action \"" + action + "\". Use create, open, list, save or close.");
}

ProjectModel::Answer ProjectModel::openProject(const Json& args) {
    std::string path = requiredString(args, "path", "Pass path: a .vantoric folder, or a project id from studio_status.");
    bool awaitOpen = boolArg(args, "await_open").value_or(false);
    if (!path.starts_with("/")) {
        Project* p = findProject(path);
        if (!p) throw Refusal("No project with id " + path + ". Call studio_status for the ids, or pass the project folder's path.");
        return toolResult(openedAnswer(*p));
    }
    fs::path folder = fs::path(path).lexically_normal();
    if (folder.filename().empty() && folder.has_parent_path() && folder != folder.root_path()) folder = folder.parent_path();
    std::error_code ec;
    if (!fs::is_directory(folder, ec)) throw Refusal("No project at " + folder.string() + ".");
    if (folder.extension() != ".vantoric")
        throw Refusal(folder.string() + " is not a Vantoric Studio project: its folder name must end in .vantoric.");
    if (granted(folder)) return toolResult(openedAnswer(adopt(folder)));

    auto needsGrant = [folder] {
        Json j = Json::object();
        j["needsGrant"] = true;
        j["path"] = folder.string();
        j["message"] = "Vantoric Studio has no access to " + folder.string() + ". Open the folder with Studio, then ask again.";
        return j;
    };
    log_.event("grant-needed", {{"path", folder.string()}, {"awaitOpen", awaitOpen}});
    if (!awaitOpen) return toolResult(needsGrant());
    return Pending{Clock::now() + settings_.maxWait, [this, folder, needsGrant](bool lastChance) -> std::optional<Json> {
                       if (granted(folder)) return toolResult(openedAnswer(adopt(folder)));
                       if (lastChance) return toolResult(needsGrant());
                       return std::nullopt;
                   }};
}

// ---- media ------------------------------------------------------------------

Json ProjectModel::mediaSummary(const Media& m) {
    Json j = Json::object();
    j["id"] = m.id;
    j["name"] = m.name;
    j["kind"] = m.kind;
    j["bytes"] = m.bytes;
    j["duration"] = m.duration;
    return j;
}

ProjectModel::UploadSlot ProjectModel::reserveUpload(const std::string& name) {
    if (name.empty() || name.size() > 255 || name == "." || name == ".." || name.find('/') != std::string::npos ||
        name.find('\0') != std::string::npos)
        throw std::invalid_argument("The upload needs a file name (?name=...) without slashes.");
    UploadSlot slot;
    slot.id = "up-" + randomHex(8);
    slot.name = name;
    fs::create_directories(uploadsFolder_ / slot.id);
    slot.file = uploadsFolder_ / slot.id / name;
    return slot;
}

void ProjectModel::commitUpload(const UploadSlot& slot, std::uint64_t bytes) {
    uploads_[slot.id] = Upload{slot.name, slot.file, bytes, false};
}

void ProjectModel::discardUpload(const UploadSlot& slot) {
    std::error_code ec;
    fs::remove_all(uploadsFolder_ / slot.id, ec);
}

ProjectModel::Upload& ProjectModel::uploadFor(const Json& id) {
    if (!id.is_string()) throw Refusal("Each upload needs an uploadId string from an upload to Studio.");
    auto it = uploads_.find(id.get<std::string>());
    if (it == uploads_.end()) throw Refusal("Unknown upload " + id.get<std::string>() + ".");
    if (it->second.imported) throw Refusal("Upload " + it->first + " was already imported.");
    return it->second;
}

ProjectModel::Media ProjectModel::takeUpload(const std::string& uploadId, const fs::path& mediaFolder) {
    Upload& u = uploads_.at(uploadId);
    fs::create_directories(mediaFolder);
    fs::path target = freeName(mediaFolder, u.name);
    moveFile(u.file, target);
    std::error_code ec;
    fs::remove_all(uploadsFolder_ / uploadId, ec);
    u.imported = true;
    auto [kind, duration] = kindOf(target);
    return Media{nextId("m"), u.name, kind, u.bytes, duration, target};
}

Json ProjectModel::importMedia(const Json& args) {
    if (member(args, "paths"))
        throw Refusal("Vantoric Studio cannot read files on this Mac by path. Upload them and pass uploads.");
    Project& p = openedProject();
    const Json* uploads = member(args, "uploads");
    if (!uploads || !uploads->is_array() || uploads->empty())
        throw Refusal("Pass uploads: a list of {uploadId, name} from uploads to Studio.");
    bool addToTimeline = boolArg(args, "add_to_timeline").value_or(true);
    std::vector<std::string> ids;
    for (auto& item : *uploads) {
        if (!item.is_object()) throw Refusal("Each upload must be an object {uploadId, name}.");
        Upload& u = uploadFor(item.contains("uploadId") ? item["uploadId"] : Json());
        (void)u;
        std::string id = item["uploadId"].get<std::string>();
        if (std::find(ids.begin(), ids.end(), id) != ids.end()) throw Refusal("Upload " + id + " is listed twice.");
        ids.push_back(id);
    }
    Json imported = Json::array(), clips = Json::array();
    for (std::size_t i = 0; i < ids.size(); ++i) {
        Media m = takeUpload(ids[i], p.folder / "Media");
        if (auto name = (*uploads)[i].find("name"); name != (*uploads)[i].end() && name->is_string() && !name->get<std::string>().empty())
            m.name = name->get<std::string>();
        imported.push_back(mediaSummary(m));
        if (addToTimeline) {
            Clip c{nextId("c"), m.id, m.name, 0, m.duration, std::nullopt, 1};
            p.clips.push_back(c);
            clips.push_back(clipSummary(c, p.clips.size() - 1));
        }
        p.media.push_back(std::move(m));
    }
    log_.event("import", {{"project", p.id}, {"uploads", ids}, {"addToTimeline", addToTimeline}});
    Json j = Json::object();
    j["project"] = p.id;
    j["imported"] = imported;
    j["addedToTimeline"] = addToTimeline;
    j["clips"] = clips;
    return j;
}

// ---- timeline, titles, looks -------------------------------------------------

Json ProjectModel::clipSummary(const Clip& c, std::size_t position) {
    Json j = Json::object();
    j["id"] = c.id;
    j["mediaId"] = c.mediaId;
    j["name"] = c.name;
    j["position"] = position;
    j["in"] = c.in;
    j["out"] = c.out;
    j["duration"] = rounded(c.out - c.in);
    if (c.look) {
        j["look"] = *c.look;
        j["intensity"] = c.intensity;
    }
    return j;
}

Json ProjectModel::clipList(const Project& p) const {
    Json list = Json::array();
    for (std::size_t i = 0; i < p.clips.size(); ++i) list.push_back(clipSummary(p.clips[i], i));
    return list;
}

Json ProjectModel::timeline(const Json& args) {
    Project& p = openedProject();
    auto action = stringArg(args, "action").value_or("");
    auto clipAt = [&]() -> std::size_t {
        std::string id = requiredString(args, "clip_id", "Pass clip_id: a clip from timeline {action:\"list\"}.");
        for (std::size_t i = 0; i < p.clips.size(); ++i)
            if (p.clips[i].id == id) return i;
        throw Refusal("No clip " + id + " on the timeline.");
    };
    Json j = Json::object();
    if (action == "list") {
        double total = 0;
        for (auto& c : p.clips) total += c.out - c.in;
        j["clips"] = clipList(p);
        j["duration"] = rounded(total);
        j["titles"] = p.titles.size();
        if (p.look) j["look"] = *p.look;
        return j;
    }
    if (action == "add") {
        std::string mediaId = requiredString(args, "media_id", "Pass media_id: a media item from import_media.");
        auto media = std::find_if(p.media.begin(), p.media.end(), [&](const Media& m) { return m.id == mediaId; });
        if (media == p.media.end()) throw Refusal("No media " + mediaId + " in this project.");
        auto position = integerArg(args, "position", 0, static_cast<std::int64_t>(p.clips.size())).value_or(p.clips.size());
        Clip c{nextId("c"), media->id, media->name, 0, media->duration, std::nullopt, 1};
        p.clips.insert(p.clips.begin() + position, c);
        j["clip"] = clipSummary(c, static_cast<std::size_t>(position));
        j["clips"] = clipList(p);
        return j;
    }
    if (action == "move") {
        std::size_t from = clipAt();
        auto to = integerArg(args, "position", 0, static_cast<std::int64_t>(p.clips.size()) - 1);
        if (!to) throw Refusal("Pass position: where the clip goes, from 0.");
        Clip c = p.clips[from];
        p.clips.erase(p.clips.begin() + from);
        p.clips.insert(p.clips.begin() + *to, c);
        j["clip"] = clipSummary(c, static_cast<std::size_t>(*to));
        j["clips"] = clipList(p);
        return j;
    }
    if (action == "trim") {
        std::size_t at = clipAt();
        Clip& c = p.clips[at];
        auto media = std::find_if(p.media.begin(), p.media.end(), [&](const Media& m) { return m.id == c.mediaId; });
        double length = media == p.media.end() ? c.out : media->duration;
        auto in = numberArg(args, "in_seconds", 0, INFINITY);
        auto out = numberArg(args, "out_seconds", 0, INFINITY);
        if (!in && !out) throw Refusal("Pass in_seconds, out_seconds or both.");
        double newIn = in.value_or(c.in), newOut = out.value_or(c.out);
        if (!(newIn < newOut) || newOut > length)
            throw Refusal("in_seconds must be less than out_seconds, and out_seconds at most " + Json(length).dump() +
                          " (the media's length).");
        c.in = newIn;
        c.out = newOut;
        j["clip"] = clipSummary(c, at);
        return j;
    }
    if (action == "remove") {
        std::size_t at = clipAt();
        j["removed"] = p.clips[at].id;
        p.clips.erase(p.clips.begin() + at);
        j["clips"] = clipList(p);
        return j;
    }
    throw Refusal("Unknown timeline action \"" + action + "\". Use list, add, move, trim or remove.");
}

Json ProjectModel::addTitle(const Json& args) {
    Project& p = openedProject();
    Title t;
    t.text = requiredString(args, "text", "Pass text: the title's words.");
    t.start = numberArg(args, "start_seconds", 0, INFINITY).value_or(0);
    t.duration = numberArg(args, "duration_seconds", 0.5, INFINITY).value_or(3);
    t.style = stringArg(args, "style").value_or("lower-third");
    if (t.style != "lower-third" && t.style != "centered" && t.style != "credits")
        throw Refusal("style must be lower-third, centered or credits.");
    t.id = nextId("t");
    p.titles.push_back(t);
    Json title = {{"id", t.id}, {"text", t.text}, {"start", t.start}, {"duration", t.duration}, {"style", t.style}};
    return {{"title", title}, {"titles", p.titles.size()}};
}

Json ProjectModel::colorGrade(const Json& args) {
    Project& p = openedProject();
    std::string look = requiredString(args, "look", "Pass look: natural, warm, cool, film or mono.");
    static const std::vector<std::string> looks{"natural", "warm", "cool", "film", "mono"};
    if (std::find(looks.begin(), looks.end(), look) == looks.end()) throw Refusal("look must be natural, warm, cool, film or mono.");
    double intensity = numberArg(args, "intensity", 0, 1).value_or(1);
    Json j = Json::object();
    if (auto clipId = stringArg(args, "clip_id")) {
        auto c = std::find_if(p.clips.begin(), p.clips.end(), [&](const Clip& c) { return c.id == *clipId; });
        if (c == p.clips.end()) throw Refusal("No clip " + *clipId + " on the timeline.");
        c->look = look;
        c->intensity = intensity;
        j["graded"] = *clipId;
    } else {
        p.look = look;
        p.lookIntensity = intensity;
        j["graded"] = "timeline";
    }
    j["look"] = look;
    j["intensity"] = intensity;
    return j;
}

// ---- export -----------------------------------------------------------------

bool ProjectModel::running() const {
    return export_ && export_->finalPhase == Phase::queued;
}

ProjectModel::Phase ProjectModel::phaseOf(const Export& e, Clock::time_point now) const {
    if (e.finalPhase != Phase::queued) return e.finalPhase;
    return now - e.started < settings_.exportDuration / 4 ? Phase::queued : Phase::rendering;
}

std::optional<ProjectModel::Clock::time_point> ProjectModel::nextChange() const {
    if (!running()) return std::nullopt;
    auto rendering = export_->started + settings_.exportDuration / 4;
    return Clock::now() < rendering ? rendering : export_->started + settings_.exportDuration;
}

void ProjectModel::advance() {
    if (running() && Clock::now() >= export_->started + settings_.exportDuration) finish(*export_);
}

void ProjectModel::finish(Export& e) {
    if (settings_.exportFail) {
        e.finalPhase = Phase::failed;
        e.error = "The render failed.";
    } else {
        try {
            fs::create_directories(e.folder);
            fs::path file = freeName(e.folder, e.fileName);
            writeMovie(file, settings_.exportBytes);
            e.fileName = file.filename().string();
            e.bytes = fs::file_size(file);
            e.downloadId = "dl-" + randomHex(12);
            downloads_[e.downloadId] = file;
            e.finalPhase = Phase::completed;
        } catch (const fs::filesystem_error& error) {
            e.finalPhase = Phase::failed;
            e.error = std::string("The render could not be written: ") + error.code().message() + ".";
        }
    }
    Json fields = {{"exportId", e.id}, {"phase", phaseName(static_cast<int>(e.finalPhase))}};
    if (e.finalPhase == Phase::completed) {
        fields["file"] = (e.folder / e.fileName).string();
        fields["bytes"] = e.bytes;
        fields["downloadId"] = e.downloadId;
    }
    log_.event("export", fields);
}

Json ProjectModel::exportPayload() {
    Json j = Json::object();
    if (!export_) {
        j["phase"] = "none";
        return j;
    }
    const Export& e = *export_;
    auto now = Clock::now();
    Phase phase = phaseOf(e, now);
    j["phase"] = phaseName(static_cast<int>(phase));
    j["exportId"] = e.id;
    j["project"] = e.projectName;
    if (e.aiLabel) j["includeAiLabel"] = *e.aiLabel;
    if (phase == Phase::rendering) {
        auto span = settings_.exportDuration - settings_.exportDuration / 4;
        double level = span.count() > 0 ? std::chrono::duration<double>(now - e.started - settings_.exportDuration / 4) /
                                              std::chrono::duration<double>(span)
                                        : 0.0;
        j["file"] = {{"name", e.fileName}, {"level", std::clamp(rounded(level), 0.0, 0.99)}};
    } else if (phase == Phase::completed) {
        j["file"] = {{"name", e.fileName}, {"bytes", e.bytes}, {"downloadId", e.downloadId}, {"path", (e.folder / e.fileName).string()}};
    } else if (phase == Phase::failed) {
        j["error"] = e.error;
    }
    return j;
}

ProjectModel::Answer ProjectModel::exportVideo(const Json& args) {
    auto action = stringArg(args, "action").value_or("start");
    if (member(args, "path"))
        throw Refusal("Vantoric Studio does not write to paths on this Mac; it exports into the project's exports folder.");
    if (action == "start") {
        Project& p = openedProject();
        if (running())
            throw Refusal("An export is already running. Follow it with export_video {action:\"status\"} or cancel it.");
        Export e;
        e.id = nextId("x");
        e.projectId = p.id;
        e.projectName = p.name;
        e.folder = p.folder / "exports";
        e.fileName = freeName(e.folder, p.name + ".mp4").filename().string();
        e.started = Clock::now();
        e.aiLabel = boolArg(args, "include_ai_label");
        export_ = e;
        log_.event("export", {{"exportId", e.id}, {"phase", "queued"}, {"project", p.id}});
        return toolResult(exportPayload());
    }
    if (action == "status") {
        double wait = numberArg(args, "wait_seconds", 0, INFINITY).value_or(0);
        auto limit = std::min<std::chrono::milliseconds>(settings_.maxWait,
                                                         std::chrono::milliseconds(static_cast<long long>(std::min(wait, 1e6) * 1000)));
        if (!running() || limit.count() <= 0) return toolResult(exportPayload());
        Phase before = phaseOf(*export_, Clock::now());
        std::string id = export_->id;
        return Pending{Clock::now() + limit, [this, before, id](bool lastChance) -> std::optional<Json> {
                           advance();
                           if (lastChance || !export_ || export_->id != id || phaseOf(*export_, Clock::now()) != before)
                               return toolResult(exportPayload());
                           return std::nullopt;
                       }};
    }
    if (action == "cancel") {
        if (!running()) throw Refusal("No export is running.");
        export_->finalPhase = Phase::cancelled;
        log_.event("export", {{"exportId", export_->id}, {"phase", "cancelled"}});
        return toolResult(exportPayload());
    }
    throw Refusal("Unknown export_video action \"" + action + "\". Use start, status or cancel.");
}

std::optional<fs::path> ProjectModel::downloadFile(const std::string& id) const {
    auto it = downloads_.find(id);
    if (it == downloads_.end()) return std::nullopt;
    return it->second;
}

// ---- status and series ------------------------------------------------------

Json ProjectModel::status(const Json&) {
    Json j = Json::object();
    j["ready"] = true;
    j["app"] = "Vantoric Studio";
    j["build"] = settings_.identifier == "com.lumenfold.vantoric.studio.subject" ? "subject" : "release";
    j["identifier"] = settings_.identifier;
    j["version"] = settings_.version;
    Project* open = openId_ ? findProject(*openId_) : nullptr;
    j["project"] = open ? projectSummary(*open) : Json();
    j["projects"] = Json::array();
    for (auto& p : projects_) j["projects"].push_back(projectSummary(p));
    j["export"] = exportPayload();
    j["agents"] = agents_;
    return j;
}

Json ProjectModel::seriesSummary(const Series& s) {
    Json episodes = Json::array(), media = Json::array();
    for (auto& e : s.episodes) {
        Json ep = {{"id", e.id}, {"number", e.number}, {"title", e.title}};
        if (e.projectId) ep["projectId"] = *e.projectId;
        episodes.push_back(ep);
    }
    for (auto& m : s.media) media.push_back(mediaSummary(m));
    return {{"id", s.id}, {"name", s.name}, {"episodes", episodes}, {"media", media}};
}

Json ProjectModel::series(const Json& args) {
    std::string operation = requiredString(args, "operation", "Pass operation: seriesCreate, seriesList, seriesEpisodeAdd or seriesMediaImport.");
    const Json* given = member(args, "params");
    if (given && !given->is_object()) throw Refusal("params must be an object.");
    const Json params = given ? *given : Json::object();
    auto findSeries = [&]() -> Series& {
        std::string id = requiredString(params, "seriesId", "Pass params.seriesId: a series from seriesList.");
        for (auto& s : series_)
            if (s.id == id) return s;
        throw Refusal("No series " + id + ". Call series {operation:\"seriesList\"} for the ids.");
    };
    if (operation == "seriesCreate") {
        std::string name = requiredString(params, "name", "Pass params.name: the series' name.");
        for (auto& s : series_)
            if (s.name == name) throw Refusal("A series named " + name + " already exists (" + s.id + ").");
        series_.push_back(Series{nextId("s"), name, {}, {}});
        return {{"series", seriesSummary(series_.back())}};
    }
    if (operation == "seriesList") {
        Json list = Json::array();
        for (auto& s : series_) list.push_back(seriesSummary(s));
        return {{"series", list}};
    }
    if (operation == "seriesEpisodeAdd") {
        Series& s = findSeries();
        Episode e;
        e.title = requiredString(params, "title", "Pass params.title: the episode's title.");
        if (auto projectId = stringArg(params, "projectId")) {
            if (!findProject(*projectId)) throw Refusal("No project with id " + *projectId + ".");
            e.projectId = findProject(*projectId)->id;
        }
        e.id = nextId("ep");
        e.number = static_cast<int>(s.episodes.size()) + 1;
        s.episodes.push_back(e);
        Json ep = {{"id", e.id}, {"number", e.number}, {"title", e.title}};
        if (e.projectId) ep["projectId"] = *e.projectId;
        return {{"series", s.id}, {"episode", ep}};
    }
    if (operation == "seriesMediaImport") {
        Series& s = findSeries();
        const Json* from = member(params, "from");
        if (!from || !from->is_object()) throw Refusal("Pass params.from: {uploadId} of a file uploaded to Studio.");
        if (from->contains("path"))
            throw Refusal("Vantoric Studio cannot read files on this Mac by path. Upload the file and pass params.from.uploadId.");
        Upload& u = uploadFor(from->contains("uploadId") ? (*from)["uploadId"] : Json());
        (void)u;
        std::string uploadId = (*from)["uploadId"].get<std::string>();
        Media m = takeUpload(uploadId, settings_.home / "Series" / s.id / "Media");
        s.media.push_back(m);
        log_.event("import", {{"series", s.id}, {"uploads", Json::array({uploadId})}});
        return {{"series", s.id}, {"media", mediaSummary(m)}};
    }
    throw Refusal("Unknown series operation \"" + operation + "\". Use seriesCreate, seriesList, seriesEpisodeAdd or seriesMediaImport.");
}

}  // namespace studiosim
