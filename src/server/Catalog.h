// The tool catalog that Studio ships in its bundle: where it is read from,
// the tool and prompt lists it yields (with their fallbacks when there is
// none), prompt filling, and the check of a call's parameter names with its
// "did you mean" suggestion. The catalog is kept as raw bytes and parsed
// afresh at each use, so nothing here holds state. Pure functions apart from
// catalogData, which reads the disk; any thread.
#pragma once
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Environment.h"
#include "server/JSONText.h"

namespace server {

namespace Catalog {
// The catalog bytes: the file named by VANTORIC_STUDIO_CATALOG when that
// is set and not empty (and nothing when it cannot be read); otherwise
// Contents/Resources/AgentLink/studio-agent-mcp.json in the Studio
// bundle, then Contents/Resources/studio-agent-mcp.json. The contents are
// not examined here.
std::optional<std::string> catalogData(const std::optional<std::filesystem::path>& app,
                                              const platform::Environment& environment);

// The catalog's top-level object, when it has one.
std::optional<Json> catalogObject(const std::optional<std::string>& catalog);

// The catalog's "instructions" string, when the catalog is JSON whose top
// level is an object with such a member. Reads the text without building
// the whole tree, so that answering "initialize" stays cheap however
// many tools the catalog lists.
std::optional<std::string> instructionsIn(const std::optional<std::string>& catalog);

// The catalog's "tools" array unchanged, or the one placeholder tool
// "studio_status".
Json toolsIn(const std::optional<std::string>& catalog);
Json placeholderTools();

// The catalog's "prompts" when it is an array of objects, else [].
Json promptsIn(const std::optional<std::string>& catalog);
// Every prompt without its "template".
Json listedPromptsIn(const std::optional<std::string>& catalog);
// The answer to "prompts/get" for its params; throws BridgeError
// "Unknown prompt.".
Json promptIn(const std::optional<std::string>& catalog, const Json& params);

// The template with each {{name}} or {{name|default}} replaced by the
// argument of that name (a string that is not blank) or else the default.
// An unclosed "{{" and what follows it stay as written; inserted values
// are never scanned again.
std::string fill(std::string_view text, const Json& arguments);

// The refusal for a call whose arguments name parameters the tool does
// not have, or nothing when the call may go on (also when the tool or
// its schema's properties are unknown: then Studio judges).
std::optional<std::string> unknownParameters(std::string_view tool, const Json& arguments,
                                                    const Json& tools);

// The candidate to suggest for a mistyped name, or nothing. Names are
// compared by their letters and numbers only, lower-cased, as whole
// user-perceived characters.
std::optional<std::string> closest(std::string_view name, const std::vector<std::string>& among);
}  // namespace Catalog

}  // namespace server
