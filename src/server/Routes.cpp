#include "server/Routes.h"

namespace server {

namespace {

Task<Answer> ready(Answer answer) { co_return answer; }

}  // namespace

void Routes::method(std::string name, MethodHandler handler) { methods_[std::move(name)] = std::move(handler); }

void Routes::method(std::string name, std::function<Answer(Request&)> handler) {
    methods_[std::move(name)] = [handler = std::move(handler)](Request& request) { return ready(handler(request)); };
}

void Routes::tool(std::string name, std::string action, ToolHandler handler) {
    tools_[{std::move(name), std::move(action)}] = std::move(handler);
}

const Routes::MethodHandler* Routes::forMethod(std::string_view name) const {
    auto found = methods_.find(name);
    return found == methods_.end() ? nullptr : &found->second;
}

const Routes::ToolHandler* Routes::forTool(std::string_view name, const Json& arguments) const {
    const std::string* action = stringMember(arguments, "action");
    const std::string given = action ? *action : std::string();
    for (const std::string& key : {given, std::string("*")}) {
        auto found = tools_.find(std::pair<std::string, std::string>(std::string(name), key));
        if (found != tools_.end()) return &found->second;
    }
    return nullptr;
}

}  // namespace server
