#include "installer/Skill.h"

#include <system_error>

#include "installer/Files.h"
#include "installer/Text.h"

namespace fs = std::filesystem;

namespace BridgeInstaller {
namespace {

std::optional<std::string> readText(const fs::path& file) {
    auto contents = files::read(file);
    if (!contents.bytes || !text::isValidUTF8(*contents.bytes)) return std::nullopt;
    return contents.bytes;
}

}  // namespace

std::optional<std::string> skillText(const fs::path& app) {
    fs::path resources = app / "Contents" / "Resources";
    for (const char* place : {"AgentLink/vantoric-studio-skill.md", "vantoric-studio-skill.md"}) {
        if (auto skill = readText(resources / place)) return skill;
    }
    return std::nullopt;
}

SkillSource skillSource(const std::optional<fs::path>& app) {
    if (!app) {
        return SkillSource::missing(
            "Vantoric Studio was not found; set VANTORIC_STUDIO_APP to the app's path and run this again.");
    }
    if (auto skill = skillText(*app)) return SkillSource::text(std::move(*skill));
    return SkillSource::missing(app->string() +
                                " has no Studio skill in Contents/Resources/AgentLink; rebuild or reinstall Studio.");
}

fs::path skillFile(const Agent& agent) { return agent.skillsFolder / std::string(skillName) / "SKILL.md"; }

void installSkill(const Agent& agent, const SkillSource& source, Outcome& outcome) {
    if (source.kind == SkillSource::Kind::missing) {
        // The MCP entry works without the skill, so this alone is no failure.
        outcome.parts.push_back("skill not installed");
        outcome.details.push_back("    " + source.payload);
        return;
    }
    fs::path file = skillFile(agent);
    if (readText(file) != source.payload) {
        std::error_code ec;
        fs::create_directories(file.parent_path(), ec);
        std::optional<std::string> failure;
        if (ec) {
            failure = "Could not create the folder " + file.parent_path().string() + ": " + ec.message() + ".";
        } else {
            failure = files::writeAtomically(file, source.payload);
        }
        if (failure) {
            outcome.fail("skill not installed", *failure);
            return;
        }
    }
    outcome.parts.push_back("skill installed");
}

void removeSkill(const Agent& agent, Outcome& outcome) {
    fs::path file = skillFile(agent);
    std::error_code ec;
    if (!fs::exists(file, ec)) return;
    // Not remove_all: a folder in the file's place is the user's, not ours.
    fs::remove(file, ec);
    if (ec) {
        outcome.fail("skill not removed", "Could not remove " + file.string() + ": " + ec.message() + ".");
        return;
    }
    fs::path folder = file.parent_path();
    if (fs::is_empty(folder, ec) && !ec) fs::remove(folder, ec);
    outcome.parts.push_back("skill removed");
}

void reportSkill(const Agent& agent, Outcome& outcome) {
    std::error_code ec;
    outcome.parts.push_back(fs::exists(skillFile(agent), ec) ? "skill installed" : "skill not installed");
}

}  // namespace BridgeInstaller
