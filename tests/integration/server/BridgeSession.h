// An agent's session with the real bridge binary, beside a private session
// bus and the Studio simulator's bundle (LinkSession): the bridge past its
// handshake (startBridge), or one a test speaks to byte by byte (launch). The
// agent's home ("~") is its own, so that no installed application is found by
// accident; the bridge works in Studio's home, where Projects/ lies.
#pragma once
#include <gtest/gtest.h>

#include "support/LinkSession.h"

namespace testsupport {

namespace fs = std::filesystem;

inline json request(const json& id, const std::string& method, const json& params = nullptr) {
    json message = {{"jsonrpc", "2.0"}, {"id", id}, {"method", method}};
    if (!params.is_null()) message["params"] = params;
    return message;
}

inline json toolCall(const json& id, const std::string& tool, const json& arguments, const json& meta = nullptr) {
    json params = {{"name", tool}, {"arguments", arguments}};
    if (!meta.is_null()) params["_meta"] = meta;
    return request(id, "tools/call", params);
}

class BridgeSession : public LinkSession {
public:
    explicit BridgeSession(Settings settings = {}) : LinkSession(std::move(settings)) {
        fs::create_directories(user());
        environment()["HOME"] = user().string();
    }
    fs::path user() const { return home() / "user"; }

    // A bridge not yet spoken to: this build's, unless argv names another program.
    ChildProcess& launch(std::vector<std::string> argv = {}) {
        if (argv.empty()) argv.push_back(bridgeBinary().string());
        raw_ = std::make_unique<ChildProcess>(ChildProcess::Options{argv, environment(), home()});
        return *raw_;
    }
    // Closes its standard input, which ends the server with status 0: what it
    // wrote until then.
    std::string finish() {
        raw_->closeStdin();
        std::string rest = raw_->readRest();
        EXPECT_EQ(raw_->wait(), 0);
        return rest;
    }

    // Studio running with an open project "Trip", and the bridge linked.
    void start(bool withProject = true) {
        startStudio();
        startBridge();
        if (withProject && isError(call(1000, "project", {{"action", "create"}, {"name", "Trip"}}))) throw std::runtime_error("no project");
    }
    // The arguments of the calls of `tool` that reached Studio, in order.
    std::vector<json> forwarded(const std::string& tool) const {
        std::vector<json> out;
        for (auto& event : studioEvents("http"))
            if (event.contains("body") && event["body"]["params"].value("name", "") == tool)
                out.push_back(event["body"]["params"]["arguments"]);
        return out;
    }
    static json payload(const json& result) { return json::parse(text(result)); }
    static bool isError(const json& result) { return result.value("isError", false); }

private:
    std::unique_ptr<ChildProcess> raw_;
};

}  // namespace testsupport
