// An agent session for the file tools: the real bridge and the Studio
// simulator on a private bus (LinkSession), with a home folder of the
// agent's own ("~"), the bridge working in the session's folder (which is
// also Studio's home, so Studio's Projects folder is "Projects" from there),
// and readers for what Studio logged.
#pragma once
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "support/LinkSession.h"

namespace filestest {

using testsupport::json;
using testsupport::LinkSession;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

class FileSession : public LinkSession {
public:
    explicit FileSession(Settings settings = {}) : LinkSession(std::move(settings)) {
        fs::create_directories(user());
        environment()["HOME"] = user().string();
    }

    // Studio running with an open project "Trip", and the bridge linked.
    void start(bool withProject = true) {
        startStudio();
        startBridge();
        if (withProject) {
            auto created = call(1000, "project", {{"action", "create"}, {"name", "Trip"}});
            if (created.value("isError", false)) throw std::runtime_error("no project: " + created.dump());
        }
    }

    // The agent's home folder.
    fs::path user() const { return home() / "user"; }
    // The bridge's working directory.
    fs::path work() const { return home(); }

    fs::path write(const fs::path& path, const std::string& bytes) {
        fs::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << bytes;
        return path;
    }

    // The tool calls Studio received for `tool`: their arguments, in order.
    std::vector<json> forwarded(const std::string& tool) const {
        std::vector<json> out;
        for (auto& event : studioEvents("http")) {
            if (!event.contains("body")) continue;
            const json& params = event["body"]["params"];
            if (params.value("name", "") == tool) out.push_back(params["arguments"]);
        }
        return out;
    }

    static json payload(const json& result) { return json::parse(text(result)); }
    static bool isError(const json& result) { return result.value("isError", false); }
};

inline unsigned modeOf(const fs::path& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 ? (info.st_mode & 0777) : 0;
}

class FileTools : public ::testing::Test {
protected:
    void SetUp() override {
        if (!testsupport::available()) GTEST_SKIP() << "needs the bridge binary and the simulator bundle";
    }
};

}  // namespace filestest
