#include "server/JSONText.h"

#include "base/BridgeError.h"

namespace server {

namespace {

bool isJSONValue(const Json& value) {
    switch (value.type()) {
    case Json::value_t::discarded:
    case Json::value_t::binary:
        return false;
    case Json::value_t::object:
    case Json::value_t::array:
        for (const auto& element : value)
            if (!isJSONValue(element)) return false;
        return true;
    default:
        return true;
    }
}

}  // namespace

std::string JSONText::text() const {
    if (!isJSONValue(value)) throw BridgeError("Not a JSON value.");
    try {
        return value.dump(-1, ' ', false, Json::error_handler_t::strict);
    } catch (const Json::type_error&) {
        // Bytes that are not UTF-8, from a path most likely: shown so that
        // the path can still be found.
        return displayableCopy(value).dump(-1, ' ', false, Json::error_handler_t::replace);
    }
}

std::string compactJSON(const Json& object) { return JSONText{object}.text(); }

}  // namespace server
