#include "installer/Skill.h"

#include "jsonc/UTF8.h"

namespace fs = std::filesystem;

namespace BridgeInstaller {
namespace {

std::optional<std::string> readText(const fs::path& file, const platform::Files& files) {
    auto contents = files.read(file);
    if (!contents.bytes || !jsonc::utf8::isWellFormed(*contents.bytes)) return std::nullopt;
    return contents.bytes;
}

}  // namespace

std::optional<std::string> skillText(const fs::path& app, const platform::Files& files) {
    fs::path resources = app / "Contents" / "Resources";
    for (const char* place : {"AgentLink/vantoric-studio-skill.md", "vantoric-studio-skill.md"}) {
        if (auto skill = readText(resources / place, files)) return skill;
    }
    return std::nullopt;
}

SkillSource skillSource(const std::optional<fs::path>& app, const platform::Files& files) {
    if (!app) {
        return SkillSource::missing(
            "Vantoric Studio was not found; set VANTORIC_STUDIO_APP to the app's path and run this again.");
    }
    if (auto skill = skillText(*app, files)) return SkillSource::text(std::move(*skill));
    return SkillSource::missing(app->string() +
                                " has no Studio skill in Contents/Resources/AgentLink; rebuild or reinstall Studio.");
}

fs::path skillFile(const Agent& agent) { return agent.skillsFolder / std::string(skillName) / "SKILL.md"; }

void installSkill(const Agent& agent, const SkillSource& source, Outcome& outcome, platform::Files& files) {
    if (source.kind == SkillSource::Kind::missing) {
        // The MCP entry works without the skill, so this alone is no failure.
        outcome.parts.push_back("skill not installed");
        outcome.details.push_back("    " + source.payload);
        return;
    }
    fs::path file = skillFile(agent);
    if (readText(file, files) != source.payload) {
        auto failure = files.createFolders(file.parent_path());
        if (!failure) failure = files.writeAtomically(file, source.payload);
        if (failure) {
            outcome.fail("skill not installed", because(*failure).message());
            return;
        }
    }
    outcome.parts.push_back("skill installed");
}

void removeSkill(const Agent& agent, Outcome& outcome, platform::Files& files) {
    fs::path file = skillFile(agent);
    if (!files.status(file).exists()) return;
    // A file or an empty folder only: a folder in the file's place is the
    // user's, not ours, and so is anything else left beside the file.
    if (auto failure = files.remove(file)) {
        outcome.fail("skill not removed", because(*failure).message());
        return;
    }
    files.remove(file.parent_path());
    outcome.parts.push_back("skill removed");
}

void reportSkill(const Agent& agent, Outcome& outcome, const platform::Files& files) {
    outcome.parts.push_back(files.status(skillFile(agent)).exists() ? "skill installed" : "skill not installed");
}

}  // namespace BridgeInstaller
