// Progress notifications: only for a call that carries a progress token,
// always growing, about a hundred per upload at most.
#include "StudioHarness.h"

using namespace testsupport;

namespace {

std::string callWithToken(int id, const std::string& tool, const Json& arguments, const Json& token) {
    return request(id, "tools/call", {{"name", tool}, {"arguments", arguments}, {"_meta", {{"progressToken", token}}}});
}

std::vector<Json> notifications(const std::vector<Json>& lines) {
    std::vector<Json> out;
    for (const auto& line : lines)
        if (line.value("method", "") == "notifications/progress") out.push_back(line["params"]);
    return out;
}

}  // namespace

TEST(ProgressTokens, StringsAndIntegersUnderMetaOnly) {
    EXPECT_EQ(Progress::tokenIn(Json::parse(R"({"_meta":{"progressToken":"abc"}})")), Json("abc"));
    EXPECT_EQ(Progress::tokenIn(Json::parse(R"({"_meta":{"progressToken":-7}})")), Json(-7));
    for (const char* params : {R"({"_meta":{"progressToken":1.5}})", R"({"_meta":{"progressToken":null}})",
                               R"({"_meta":{"progressToken":{}}})", R"({"_meta":"abc"})", R"({"progressToken":"abc"})",
                               R"({})"})
        EXPECT_FALSE(Progress::tokenIn(Json::parse(params))) << params;
}

TEST(ProgressReports, OnlyGrowingReportsThatMoveAHundredthOrSaySomethingNew) {
    std::vector<Json> sent;
    Progress progress("t", [&](const Json& n) { sent.push_back(n["params"]); });
    Progress copy = progress;  // copies share what was told
    progress.report(0, 1000, "a");
    copy.report(0, 1000, "b");      // not growing
    progress.report(5, 1000, "a");  // less than a hundredth
    copy.report(10, 1000, "a");
    progress.report(11, 1000, "b");  // says something new
    progress.report(1000, 1000, "b");
    progress.report(900, 1000, "c");  // going back
    std::vector<uint64_t> told;
    for (auto& n : sent) told.push_back(n["progress"].get<uint64_t>());
    EXPECT_EQ(told, (std::vector<uint64_t>{0, 10, 11, 1000}));
    EXPECT_EQ(sent[0].dump(), R"({"progressToken":"t","progress":0,"total":1000,"message":"a"})");

    Progress silent;
    silent.report(1, 2, "nobody hears this");
    EXPECT_FALSE(silent.wanted());
}

TEST(ProgressOfCalls, ImportWithATokenReportsBytesOfTheWholeCallBeforeTheReply) {
    StudioHarness studio;
    studio.file("a.mov", std::string(3 << 20, 'a'));
    studio.file("b.mov", std::string(1 << 20, 'b'));
    studio.receive(callWithToken(1, "import_media", {{"paths", {"a.mov", "b.mov"}}}, "up"));
    auto lines = studio.replies();
    auto told = notifications(lines);
    ASSERT_GE(told.size(), 3u);
    EXPECT_EQ(lines.back()["id"], 1);
    const uint64_t total = 4 << 20;
    uint64_t last = 0;
    for (size_t i = 0; i < told.size(); ++i) {
        EXPECT_EQ(told[i]["progressToken"], "up");
        EXPECT_EQ(told[i]["total"], total);
        if (i > 0) EXPECT_GT(told[i]["progress"].get<uint64_t>(), last);
        last = told[i]["progress"].get<uint64_t>();
    }
    EXPECT_EQ(told.front()["message"], "Uploading a.mov (1 of 2)");
    EXPECT_EQ(told.back()["message"], "Uploading b.mov (2 of 2)");
    EXPECT_EQ(last, total);
}

TEST(ProgressOfCalls, WithoutATokenOnlyTheReplyIsWritten) {
    StudioHarness studio;
    studio.file("a.mov", std::string(3 << 20, 'a'));
    studio.onCall([](const Json&) { return studioResult({{"phase", "rendering"}, {"file", {{"level", 0.5}}}}); });
    studio.callDelay = std::chrono::milliseconds(50);
    studio.receive(toolCall(1, "import_media", {{"paths", {"a.mov"}}}));
    studio.receive(toolCall(2, "export_video", Json::object()));
    auto lines = studio.replies();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0]["id"], 1);
    EXPECT_EQ(lines[1]["id"], 2);
}

TEST(ProgressOfCalls, ExportStartReportsItsPhases) {
    StudioHarness studio;
    int polls = 0;
    studio.onCall([&polls](const Json& params) {
        if (params["arguments"]["action"] == "start") return studioResult({{"phase", "queued"}});
        ++polls;
        if (polls == 1) return studioResult({{"phase", "rendering"}, {"file", {{"level", 0.25}}}});
        if (polls == 2) return studioResult({{"phase", "rendering"}, {"file", {{"level", 0.9}}}});
        return studioResult({{"phase", "completed"}, {"file", {{"name", "a.mp4"}}}});
    });
    studio.receive(callWithToken(1, "export_video", Json::object(), 42));
    std::vector<std::string> messages;
    for (auto& n : notifications(studio.replies())) {
        EXPECT_EQ(n["progressToken"], 42);
        EXPECT_EQ(n["total"], 100);
        messages.push_back(n["message"].get<std::string>() + " @" + n["progress"].dump());
    }
    EXPECT_EQ(messages, (std::vector<std::string>{"Export queued @0", "Export rendering, 25% @25",
                                                  "Export rendering, 90% @90", "Export completed @100"}));
}
