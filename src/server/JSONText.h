// Writing the protocol's JSON values as text. Writing never stops on a
// string that is not valid UTF-8: such bytes are written as "\xNN" (see
// displayable). "/" is
// never escaped. Reading is json/Json.h's. Pure functions; any thread.
#pragma once
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "json/Json.h"

namespace server {

// A JSON value to be written as compact text.
struct JSONText {
    Json value;

    // Compact text. Throws BridgeError "Not a JSON value." for a value that
    // has no JSON form (a discarded or binary value).
    std::string text() const;
};

// The compact JSON text of a value; throws as JSONText::text does.
std::string compactJSON(const Json& object);

}  // namespace server
