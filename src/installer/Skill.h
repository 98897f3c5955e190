// The skill: a Markdown file Studio ships in its bundle that tells an agent
// how to work with Studio. The installer copies it to
// <skills folder>/vantoric-studio/SKILL.md for each agent, reports whether it
// is there, and removes it again. The steps add their parts to the agent's
// Outcome; callers skip them for the subject build. Synchronous; the files
// are the ones given.
#pragma once
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "installer/Detection.h"
#include "installer/Outcome.h"

namespace BridgeInstaller {

inline constexpr std::string_view skillName = "vantoric-studio";

// Where the skill text comes from, worked out once per run.
struct SkillSource {
    enum class Kind { text, missing };

    Kind kind = Kind::missing;
    std::string payload;  // text: the skill; missing: why, and what to do

    static SkillSource text(std::string skill) { return {Kind::text, std::move(skill)}; }
    static SkillSource missing(std::string message) { return {Kind::missing, std::move(message)}; }

    bool operator==(const SkillSource&) const = default;
};

// The skill text in the bundle's Contents/Resources: AgentLink/ first, then
// directly there. Nothing when neither is a readable UTF-8 file.
std::optional<std::string> skillText(const std::filesystem::path& app, const platform::Files& files);
SkillSource skillSource(const std::optional<std::filesystem::path>& app, const platform::Files& files);

// <skills folder>/vantoric-studio/SKILL.md
std::filesystem::path skillFile(const Agent& agent);

// Writes the skill when the agent's copy differs from the source; a missing
// source is reported but does not fail the agent.
void installSkill(const Agent& agent, const SkillSource& source, Outcome& outcome, platform::Files& files);
// Removes the skill file, and its folder when nothing else is left in it.
void removeSkill(const Agent& agent, Outcome& outcome, platform::Files& files);
// "skill installed" when a file is there, whatever it holds.
void reportSkill(const Agent& agent, Outcome& outcome, const platform::Files& files);

}  // namespace BridgeInstaller
