// The real bridge binary as an agent sees it: a child process spoken to over
// pipes, one JSON-RPC message per line. Each test starts its own, with an
// environment that names exactly the Studio (or none) it wants, and a home
// folder of its own so that no installed application is found by accident.
#pragma once
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/ChildProcess.h"
#include "support/TempDir.h"

namespace testsupport {

// Member order is not significant on the wire; comparisons ignore it.
using Json = nlohmann::json;

inline std::filesystem::path releaseBundle() { return std::filesystem::path(VSM_BUNDLES_DIR) / "Vantoric Studio.app"; }
inline std::filesystem::path subjectBundle() {
    return std::filesystem::path(VSM_BUNDLES_DIR) / "Vantoric Studio Subject.app";
}

struct SessionOptions {
    std::optional<std::string> app = releaseBundle().string();  // VANTORIC_STUDIO_APP
    std::optional<std::string> catalog;                         // VANTORIC_STUDIO_CATALOG
    std::string binary = VSM_BRIDGE_BINARY;
    std::vector<std::string> arguments;

    SessionOptions& withApp(std::optional<std::string> value) {
        app = std::move(value);
        return *this;
    }
    SessionOptions& withCatalog(std::string value) {
        catalog = std::move(value);
        return *this;
    }
    SessionOptions& withBinary(std::string value) {
        binary = std::move(value);
        return *this;
    }
    SessionOptions& withArguments(std::vector<std::string> value) {
        arguments = std::move(value);
        return *this;
    }
};

class BridgeSession {
public:
    explicit BridgeSession(SessionOptions options = {}) {
        Environment environment = currentEnvironment();
        environment.erase("VANTORIC_STUDIO_APP");
        environment.erase("VANTORIC_STUDIO_CATALOG");
        environment["HOME"] = home_.path().string();
        // Never the session bus of whoever runs the tests: a call that needs
        // Studio fails at once instead of reaching a real desktop.
        environment["DBUS_SESSION_BUS_ADDRESS"] = "unix:path=" + (home_.path() / "no-bus").string();
        if (options.app) environment["VANTORIC_STUDIO_APP"] = *options.app;
        if (options.catalog) environment["VANTORIC_STUDIO_CATALOG"] = *options.catalog;
        std::vector<std::string> argv{options.binary};
        argv.insert(argv.end(), options.arguments.begin(), options.arguments.end());
        child_ = std::make_unique<ChildProcess>(ChildProcess::Options{argv, environment, home_.path()});
    }

    ChildProcess& child() { return *child_; }
    const TempDir& home() const { return home_; }

    void send(const std::string& bytes) { child_->write(bytes); }

    // The next line on standard output as JSON; a test failure when none
    // comes or it is not a JSON object.
    Json next() {
        auto line = child_->readLine();
        EXPECT_TRUE(line) << "no reply; stderr: " << child_->stderrText();
        if (!line) return Json();
        auto value = Json::parse(*line, nullptr, false);
        EXPECT_TRUE(value.is_object()) << *line;
        return value;
    }

    // The next n replies, by the key of their id (replies leave in
    // completion order, which a test must not count on).
    std::map<std::string, Json> next(size_t n) {
        std::map<std::string, Json> byId;
        for (size_t i = 0; i < n; ++i) {
            Json reply = next();
            if (reply.is_null()) break;
            byId[reply["id"].dump()] = reply;
        }
        return byId;
    }

    // Closes standard input; what is left on standard output and the exit
    // status.
    std::string finish(int* status = nullptr) {
        child_->closeStdin();
        std::string rest = child_->readRest();
        auto exit = child_->wait();
        EXPECT_TRUE(exit) << "the bridge did not exit";
        if (status) *status = exit.value_or(-1);
        return rest;
    }

private:
    TempDir home_;
    std::unique_ptr<ChildProcess> child_;
};

inline std::string request(const Json& id, const std::string& method, const Json& params = Json()) {
    Json message = {{"jsonrpc", "2.0"}, {"id", id}, {"method", method}};
    if (!params.is_null()) message["params"] = params;
    return message.dump() + "\n";
}

inline std::string toolCall(const Json& id, const std::string& tool, const Json& arguments) {
    return request(id, "tools/call", {{"name", tool}, {"arguments", arguments}});
}

inline std::string cancelled(const Json& requestId) {
    return Json{{"jsonrpc", "2.0"}, {"method", "notifications/cancelled"}, {"params", {{"requestId", requestId}}}}
               .dump() +
           "\n";
}

inline std::string toolText(const Json& reply) {
    return reply.at("result").at("content").at(0).at("text").get<std::string>();
}

inline const std::string parseError = R"({"jsonrpc":"2.0","id":null,"error":{"code":-32700,"message":"Parse error"}})";

}  // namespace testsupport
