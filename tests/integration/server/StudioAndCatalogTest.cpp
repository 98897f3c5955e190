#include "BridgeSession.h"

using namespace testsupport;

namespace {

const std::string notFound =
    "Vantoric Studio could not be found on this Mac. Install it from vantoric.studio, then restart this MCP server.";
const std::string notFoundLine = "vantoric-studio-mcp: Vantoric Studio was not found; set VANTORIC_STUDIO_APP.\n";

Json bundleCatalog() {
    return Json::parse(readFile(releaseBundle() / "Contents/Resources/AgentLink/studio-agent-mcp.json"));
}

std::vector<std::string> toolNames(const Json& reply) {
    std::vector<std::string> names;
    for (auto& tool : reply["result"]["tools"]) names.push_back(tool.value("name", ""));
    return names;
}

// A bundle of our own: an Info.plist, and the catalog only where the test
// puts it.
std::filesystem::path makeBundle(const TempDir& dir, const std::string& identifier) {
    dir.write("Own.app/Contents/Info.plist",
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict>"
              "<key>CFBundleIdentifier</key><string>" + identifier + "</string>"
              "<key>CFBundleShortVersionString</key><string>9.9</string></dict></plist>");
    return dir / "Own.app";
}

}  // namespace

TEST(CatalogSources, BundleAgentLinkCatalog) {
    BridgeSession session;
    session.send(request(1, "tools/list") + request(2, "prompts/list") + request(3, "initialize"));
    auto replies = session.next(3);
    auto catalog = bundleCatalog();
    EXPECT_EQ(replies["1"]["result"]["tools"], catalog["tools"]);
    // The hints by which an agent runs a tool without asking each time reach
    // it as Studio wrote them.
    auto& tools = replies["1"]["result"]["tools"];
    EXPECT_EQ(tools[0]["annotations"], Json::parse(R"({"title":"Studio status","readOnlyHint":true,"openWorldHint":false})"));
    for (auto& tool : tools) EXPECT_EQ(tool["annotations"]["openWorldHint"], false) << tool["name"];
    ASSERT_EQ(replies["2"]["result"]["prompts"].size(), catalog["prompts"].size());
    EXPECT_EQ(replies["2"]["result"]["prompts"][0]["name"], catalog["prompts"][0]["name"]);
    EXPECT_FALSE(replies["2"]["result"]["prompts"][0].contains("template"));
    EXPECT_EQ(replies["3"]["result"]["serverInfo"]["version"], "3.2.1");
    EXPECT_EQ(replies["3"]["result"]["instructions"], catalog["instructions"]);
    EXPECT_EQ(session.finish(), "");
    EXPECT_EQ(session.child().stderrText(), "");
}

TEST(CatalogSources, EnvironmentFileReplacesTheBundles) {
    TempDir dir;
    auto file = dir.write("c.json", R"({"instructions":"from the file","tools":[{"name":"only_this"}]})");
    BridgeSession session(SessionOptions().withCatalog(file.string()));
    session.send(request(1, "tools/list") + request(2, "initialize"));
    auto replies = session.next(2);
    EXPECT_EQ(toolNames(replies["1"]), std::vector<std::string>{"only_this"});
    EXPECT_EQ(replies["2"]["result"]["instructions"], "from the file");
    EXPECT_EQ(session.finish(), "");
}

TEST(CatalogSources, MissingEnvironmentFileMeansNoCatalogDespiteTheBundle) {
    TempDir dir;
    BridgeSession session(SessionOptions().withCatalog((dir / "missing.json").string()));
    session.send(request(1, "tools/list") + request(2, "initialize") + request(3, "prompts/list"));
    auto replies = session.next(3);
    EXPECT_EQ(toolNames(replies["1"]), std::vector<std::string>{"studio_status"});
    EXPECT_EQ(replies["2"]["result"]["instructions"], notFound);
    EXPECT_EQ(replies["2"]["result"]["serverInfo"]["version"], "3.2.1");
    EXPECT_EQ(replies["3"]["result"]["prompts"], Json::array());
    EXPECT_EQ(session.finish(), "");
}

TEST(CatalogSources, ResourcesFolderWithoutAgentLink) {
    TempDir dir;
    auto app = makeBundle(dir, "com.lumenfold.vantoric.studio");
    dir.write("Own.app/Contents/Resources/studio-agent-mcp.json", R"({"tools":[{"name":"from_resources"}]})");
    BridgeSession session(SessionOptions().withApp(app.string()));
    session.send(request(1, "tools/list") + request(2, "initialize"));
    auto replies = session.next(2);
    EXPECT_EQ(toolNames(replies["1"]), std::vector<std::string>{"from_resources"});
    EXPECT_EQ(replies["2"]["result"]["serverInfo"]["version"], "9.9");
    EXPECT_EQ(session.finish(), "");
}

TEST(CatalogSources, NoStudioAnywhere) {
    BridgeSession session(SessionOptions().withApp(std::nullopt));
    session.send(request(1, "initialize", {{"protocolVersion", "2024-11-05"}}) + request(2, "tools/list") +
                 request(3, "prompts/list") + toolCall(4, "studio_status", {{"x", 1}}));
    auto replies = session.next(4);
    EXPECT_EQ(replies["1"]["result"]["protocolVersion"], "2024-11-05");
    EXPECT_EQ(replies["1"]["result"]["serverInfo"],
              Json::parse(R"({"name":"vantoric-studio","title":"Vantoric Studio","version":"0"})"));
    EXPECT_EQ(replies["1"]["result"]["instructions"], notFound);
    EXPECT_EQ(replies["2"]["result"]["tools"],
              Json::parse(R"([{"name":"studio_status","description":"Vantoric Studio is not installed or could not be found.","inputSchema":{"type":"object","properties":{}}}])"));
    EXPECT_EQ(replies["3"]["result"]["prompts"], Json::array());
    EXPECT_EQ(toolText(replies["4"]), R"(studio_status has no parameter "x". Nothing was done. It takes no parameters.)");
    EXPECT_EQ(session.finish(), "");
    // Said once, at start.
    EXPECT_EQ(session.child().stderrText(), notFoundLine);
}

TEST(DefectiveCatalogs, FallBackWithoutFailing) {
    TempDir dir;
    struct Case {
        std::string text;
        bool placeholderTools;
    };
    for (const auto& c : std::vector<Case>{{"not json {", true},
                                           {R"([{"tools":[{"name":"x"}]}])", true},
                                           {R"({"tools":{"name":"x"},"prompts":"p","instructions":7})", true},
                                           {std::string("{\"tools\":[{\"name\":\"\xff\"}]}"), true},
                                           {R"({"tools":[{"name":"a"}],"prompts":[{"name":"p","template":"Use {{x"}]})", false}}) {
        auto file = dir.write("c.json", c.text);
        BridgeSession session(SessionOptions().withCatalog(file.string()));
        session.send(request(1, "tools/list") + request(2, "initialize") +
                     request(3, "prompts/get", {{"name", "p"}, {"arguments", {{"x", "1"}}}}));
        auto replies = session.next(3);
        EXPECT_EQ(toolNames(replies["1"]) == std::vector<std::string>{"studio_status"}, c.placeholderTools) << c.text;
        EXPECT_EQ(replies["2"]["result"]["instructions"], notFound) << c.text;
        if (c.placeholderTools)
            EXPECT_EQ(replies["3"]["error"]["message"], "Unknown prompt.") << c.text;
        else
            EXPECT_EQ(replies["3"]["result"]["messages"][0]["content"]["text"], "Use {{x") << c.text;
        int status = -1;
        EXPECT_EQ(session.finish(&status), "");
        EXPECT_EQ(status, 0);
    }
}

TEST(ServedBuild, SubjectBundleThroughTheVariable) {
    BridgeSession session(SessionOptions().withApp(subjectBundle().string()));
    session.send(request(1, "initialize"));
    auto result = session.next()["result"];
    EXPECT_EQ(result["serverInfo"],
              Json::parse(R"j({"name":"studio-subject","title":"Vantoric Studio (subject build)","version":"3.2.1"})j"));
    std::string instructions = result["instructions"];
    EXPECT_NE(instructions.find("through the \"studio-subject\" MCP server"), std::string::npos) << instructions;
    EXPECT_EQ(instructions.find("\"vantoric-studio\""), std::string::npos);
    EXPECT_EQ(session.finish(), "");
}

TEST(ServedBuild, BridgeInsideTheSubjectBundleServesItWithoutTheVariable) {
    BridgeSession session(SessionOptions().withApp(std::nullopt).withBinary((subjectBundle() / "Contents/MacOS/vantoric-studio-mcp").string()));
    session.send(request(1, "initialize") + request(2, "tools/list"));
    auto replies = session.next(2);
    EXPECT_EQ(replies["1"]["result"]["serverInfo"]["name"], "studio-subject");
    EXPECT_EQ(replies["1"]["result"]["serverInfo"]["title"], "Vantoric Studio (subject build)");
    EXPECT_EQ(replies["2"]["result"]["tools"], bundleCatalog()["tools"]);
    EXPECT_EQ(session.finish(), "");
    EXPECT_EQ(session.child().stderrText(), "");
}

TEST(ServedBuild, ReleaseBundleKeepsTheReleaseNames) {
    BridgeSession session(SessionOptions().withApp(std::nullopt).withBinary((releaseBundle() / "Contents/MacOS/vantoric-studio-mcp").string()));
    session.send(request(1, "initialize"));
    auto result = session.next()["result"];
    EXPECT_EQ(result["serverInfo"]["name"], "vantoric-studio");
    EXPECT_EQ(result["serverInfo"]["title"], "Vantoric Studio");
    EXPECT_EQ(result["instructions"], bundleCatalog()["instructions"]);
    EXPECT_EQ(session.finish(), "");
}

TEST(ModeSelection, AnyArgumentRunsTheInstallerNotTheServer) {
    for (std::string argument : {"--help", "frobnicate"}) {
        BridgeSession session(SessionOptions().withArguments({argument}));
        // Standard input stays open: a server would wait for it, the
        // installer does not read it.
        auto status = session.child().wait();
        ASSERT_TRUE(status) << argument;
        EXPECT_NE(*status, 0) << argument;
        std::string out = session.child().readRest();
        EXPECT_EQ(out.find("jsonrpc"), std::string::npos);
    }
}
