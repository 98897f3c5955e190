// JSON values of the protocol and their text. Values are
// nlohmann::ordered_json, so an object keeps its members in the order they
// arrived (or were written by Studio). Reading never throws: text that does
// not parse, whose top level is not an object or an array, or that nests
// deeper than `maximumDepth`, is no value at all. Writing never stops on a
// string that is not valid UTF-8: such bytes are written as U+FFFD. "/" is
// never escaped. Pure functions; any thread.
#pragma once
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

using Json = nlohmann::ordered_json;

// A JSON value to be written as compact text.
struct JSONText {
    Json value;

    // Compact text. Throws BridgeError "Not a JSON value." for a value that
    // has no JSON form (a discarded or binary value).
    std::string text() const;
};

// The compact JSON text of a value; throws as JSONText::text does.
std::string compactJSON(const Json& object);

// How deeply arrays and objects may nest in text that is read; deeper text
// is refused as if it did not parse.
inline constexpr std::size_t maximumDepth = 512;

// Whether the text nests arrays and objects no deeper than maximumDepth.
bool nestsWithinReadingDepth(std::string_view text);

// The value of a JSON text whose top level is an object or an array, or
// nothing. Invalid UTF-8 inside strings does not parse.
std::optional<Json> parseJSON(std::string_view text);

// The object a JSON text holds, or nothing.
std::optional<Json> parseObject(std::string_view text);
