#include "server/ToolResults.h"

#include <string>

namespace server {

namespace {

Json textResult(std::string text, bool isError) {
    Json item = Json::object();
    item["type"] = "text";
    item["text"] = std::move(text);
    Json result = Json::object();
    result["content"] = Json::array({std::move(item)});
    result["isError"] = isError;
    return result;
}

}  // namespace

Json ToolResults::toolError(std::string_view message) { return textResult(std::string(message), true); }

Json ToolResults::result(const Json& object) {
    std::string text;
    try {
        text = compactJSON(object);
    } catch (...) {
        text = "{}";
    }
    return textResult(std::move(text), false);
}

std::optional<Json> ToolResults::payload(const Json& toolResult) {
    if (!toolResult.is_object()) return std::nullopt;
    auto isError = toolResult.find("isError");
    if (isError != toolResult.end() && isError->is_boolean() && isError->get<bool>()) return std::nullopt;
    auto content = toolResult.find("content");
    if (content == toolResult.end() || !content->is_array()) return std::nullopt;
    for (const auto& item : *content)
        if (!item.is_object()) return std::nullopt;
    for (auto item = content->rbegin(); item != content->rend(); ++item) {
        auto type = item->find("type");
        if (type == item->end() || !type->is_string() || type->get_ref<const std::string&>() != "text") continue;
        auto text = item->find("text");
        if (text == item->end() || !text->is_string()) return std::nullopt;
        return parseObject(text->get_ref<const std::string&>());
    }
    return std::nullopt;
}

}  // namespace server
