#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "Circles.h"
#include "PageOf.h"

namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::Not;
using testing::UnorderedElementsAre;
using zortest::DataIn;
using zortest::ToolOutput;

/// The page of a recording with a hang and a circle, by its text.
class PageTest : public testing::Test
{
 protected:
    static void SetUpTestSuite()
    {
        sDirectory = new zortest::ScratchDirectory;
        sPath = sDirectory->Path("calls.zor");
        sTypes = sDirectory->Path("names");
        zortest::RecordInto(sPath,
                            {"circle", "Scan", "</script><b>", "St\"o'r&e", "Gu\xC3\xA9ide"});
        zortest::WriteText(sTypes, "201 EV_</script>\n302 EV_SAVE\n");
        sPage = ToolOutput({"page", "--types", sTypes, sPath});
        sData = DataIn(sPage);
    }

    static void TearDownTestSuite() { delete sDirectory; }

    static json Calls(const char* column) { return sData.at("calls").at(column); }

    inline static zortest::ScratchDirectory* sDirectory = nullptr;
    inline static std::string sPath;
    inline static std::string sTypes;
    inline static std::string sPage;
    inline static json sData;
};

TEST_F(PageTest, TopAndPathAreWhatTheCommandsSay)
{
    EXPECT_EQ(sData.at("top"),
              json::parse(ToolOutput({"top", "--json", "--types", sTypes, sPath})));
    json path = json::parse(ToolOutput({"path", "--json", "--types", sTypes, sPath}));
    path["type"] = std::to_string(path.at("type").get<unsigned long>()); // exact in a browser
    path["call"] = sData.at("path").at("call");
    EXPECT_EQ(sData.at("path"), path);
    EXPECT_EQ(Calls("duration").at(path.at("call").get<std::size_t>()), path.at("duration_ns"));
}

TEST_F(PageTest, CallsAndFlowsAreThoseOfTheExport)
{
    using Slice = std::tuple<unsigned, std::int64_t, std::int64_t, std::string, bool>;
    const auto toNsec = [](const json& usec) {
        return static_cast<std::int64_t>(usec.get<double>() * 1000 + 0.5);
    };
    std::multiset<Slice> exported;
    std::multiset<std::pair<unsigned, std::int64_t>> ends;
    const json trace = json::parse(ToolOutput({"export", sPath}));
    for (const json& event : trace.at("traceEvents")) {
        if (event.at("ph") == "X") {
            const json& args = event.at("args");
            exported.emplace(event.at("tid"), toNsec(event.at("ts")), toNsec(event.at("dur")),
                             std::to_string(args.at("type").get<std::uint64_t>()),
                             !args.value("unfinished", false));
        } else if (event.at("ph") == "s" || event.at("ph") == "f") {
            ends.emplace(event.at("tid"), toNsec(event.at("ts")));
        }
    }
    std::multiset<Slice> shown;
    for (std::size_t i = 0; i < Calls("lane").size(); ++i) {
        shown.emplace(sData.at("lanes").at(Calls("lane").at(i).get<std::size_t>()).at("thread"),
                      Calls("begin").at(i), Calls("duration").at(i),
                      sData.at("types").at(Calls("type").at(i).get<std::size_t>()).at("type"),
                      Calls("finished").at(i) == 1);
    }
    EXPECT_GT(shown.size(), 100U);
    EXPECT_EQ(shown, exported);
    std::multiset<std::pair<unsigned, std::int64_t>> shownEnds;
    for (const std::size_t call : sData.at("flows")) {
        shownEnds.emplace(
            sData.at("lanes").at(Calls("lane").at(call).get<std::size_t>()).at("thread"),
            Calls("begin").at(call));
    }
    EXPECT_GT(shownEnds.size(), 80U);
    EXPECT_EQ(shownEnds, ends);
}

TEST_F(PageTest, CircleIsFoundAndTheHangIsNone)
{
    ASSERT_EQ(sData.at("circles").size(), 1U);
    std::vector<std::string> waiting;
    for (const std::size_t call : sData.at("circles").at(0)) {
        EXPECT_EQ(Calls("sync").at(call), 1);
        EXPECT_EQ(Calls("finished").at(call), 0);
        waiting.push_back(
            sData.at("lanes").at(Calls("lane").at(call).get<std::size_t>()).at("name"));
    }
    EXPECT_THAT(waiting, UnorderedElementsAre("Scan", "St\"o'r&e"));
    int unfinished = 0;
    for (const int finished : Calls("finished")) {
        unfinished += 1 - finished;
    }
    EXPECT_EQ(unfinished, 5); // two sends in a circle, their handlers, and the one that hangs
}

TEST_F(PageTest, TextsOfTheRecordingEndNoElement)
{
    std::vector<std::string> names;
    for (const json& lane : sData.at("lanes")) {
        names.push_back(lane.at("name"));
    }
    EXPECT_THAT(names, UnorderedElementsAre("zor-recorded-pr", "Scan", "</script><b>", "St\"o'r&e",
                                            "Gu\xC3\xA9ide"));
    const std::size_t data = sPage.find("<script id=\"data\"");
    const std::string rest = sPage.substr(data + 1, sPage.find("</script", data) - data - 1);
    EXPECT_THAT(rest, Not(HasSubstr("<")));
    EXPECT_THAT(rest, HasSubstr("\\u003c/script>\\u003cb>"));
    EXPECT_THAT(rest, HasSubstr("EV_\\u003c/script>"));
}

TEST_F(PageTest, NothingIsFetchedAndTheLicenceIsKept)
{
    EXPECT_THAT(sPage, HasSubstr("content=\"default-src 'none'; script-src 'unsafe-inline'; "));
    EXPECT_THAT(sPage, HasSubstr("Redistribution and use in source and binary forms"));
    EXPECT_THAT(sPage, HasSubstr("Permission to use, copy, modify, and/or distribute"));
    for (const char* module : {"array", "scale", "selection", "zoom"}) {
        EXPECT_THAT(sPage, HasSubstr("https://d3js.org/d3-" + std::string(module) + "/ v"));
    }
    for (const char* outside : {" src=", "@import", "href=\"http", "@DATA@", "@SCRIPT@"}) {
        EXPECT_THAT(sPage, Not(HasSubstr(outside)));
    }
}

TEST_F(PageTest, OptionsChooseTheCallWhosePathIsShown)
{
    const json data = DataIn(ToolOutput({"page", "--type", "302", "--types", sTypes, sPath}));
    EXPECT_EQ(data.at("path").at("type"), "302");
    EXPECT_EQ(data.at("path").at("type_name"), "EV_SAVE");
    EXPECT_EQ(data.at("path").at("call"), data.at("circles").at(0).at(0));
    EXPECT_EQ(data.at("calls"), sData.at("calls"));
}

TEST_F(PageTest, FileStaysAsItIsIfThereIsNoSuchCall)
{
    const std::string page = sDirectory->Path("page.html");
    zortest::WriteText(page, "a former page");
    const auto result =
        zortest::RunProgram(RECORD_TOOL, {"page", "--type", "4711", sPath, "-o", page});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err,
              "zor-record: " + sPath + ": no handling and no synchronous send is as asked for\n");
    EXPECT_EQ(zortest::ReadText(page), "a former page");
    ToolOutput({"page", "--types", sTypes, sPath, "-o", page});
    EXPECT_EQ(zortest::ReadText(page), sPage);
}

TEST_F(PageTest, ParametersThatAreSetAreShown)
{
    const std::string path = sDirectory->Path("tasks.zor");
    zortest::RecordInto(path, {"tasks"});
    const json params = DataIn(ToolOutput({"page", path})).at("calls").at("params");
    EXPECT_THAT(params,
                testing::Contains("param1=2 param2=22 param3=33 param4=44 param5=55 param6=66"));
    EXPECT_THAT(params, testing::Contains(""));                  // of a send without any
    EXPECT_THAT(params, testing::Contains("application=tuner")); // as it is handled
}

TEST_F(PageTest, RecordingWithoutEventsHasAPage)
{
    const std::string path = sDirectory->Path("throw.zor");
    zortest::RecordInto(path, {"throw"});
    const json data = DataIn(ToolOutput({"page", path}));
    EXPECT_EQ(data.at("calls").at("type"), (json{-1, -1}));
    EXPECT_EQ(data.at("calls").at("depth"), (json{0, 1}));
    EXPECT_EQ(data.at("top").size(), 0U);
}

} // namespace
