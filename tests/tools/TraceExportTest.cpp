#include "TraceExport.h"

#include <gtest/gtest.h>

#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "Calls.h"
#include "Reader.h"
#include "Recorded.h"

namespace {

using nlohmann::json;

class TraceExportTest : public testing::Test
{
 protected:
    static void SetUpTestSuite() { sRecording = zortest::Recorded("tasks"); }

    static json Export(const zorrecord::Recording& recording)
    {
        std::ostringstream out;
        const zorrecord::TaskNames names(zorrecord::CallsOf(recording));
        zorrecord::ExportTrace(recording, names, {}, out);
        return json::parse(out.str());
    }

    /// The events of one phase.
    static std::vector<json> Events(const json& trace, const std::string& phase)
    {
        std::vector<json> found;
        for (const json& event : trace.at("traceEvents")) {
            if (event.at("ph") == phase) {
                found.push_back(event);
            }
        }
        return found;
    }

    /// The slice in which an end of an arrow lies and where it is bound.
    static const json* SliceAt(const std::vector<json>& slices, const json& end)
    {
        for (const json& slice : slices) {
            if (slice.at("tid") == end.at("tid") && slice.at("ts") == end.at("ts")) {
                return &slice;
            }
        }
        return nullptr;
    }

    static zorrecord::Recording sRecording;
};

zorrecord::Recording TraceExportTest::sRecording;

TEST_F(TraceExportTest, EveryThreadHasATrackWithItsName)
{
    std::map<std::string, int> tracks;
    const json trace = Export(sRecording);
    for (const json& event : Events(trace, "M")) {
        EXPECT_EQ(event.at("pid"), sRecording.session);
        ++tracks[std::string(event.at("name")) + " " + std::string(event.at("args").at("name"))];
    }
    EXPECT_EQ(tracks, (std::map<std::string, int>{{"process_name zor-recorded-pr", 1},
                                                  {"thread_name alpha", 1},
                                                  {"thread_name beta", 1},
                                                  {"thread_name zor-recorded-pr", 1}}));
}

TEST_F(TraceExportTest, EveryCallIsASlice)
{
    std::map<std::string, int> names;
    for (const json& slice : Events(Export(sRecording), "X")) {
        ++names[slice.at("name")];
        EXPECT_GE(slice.at("dur").get<double>(), 0.0);
        EXPECT_GE(slice.at("ts").get<double>(), 0.0);
        const json& arguments = slice.at("args");
        EXPECT_TRUE(arguments.at("result").is_boolean());
        EXPECT_TRUE(arguments.at("cpu_ns").is_number());
        EXPECT_EQ(arguments.contains("sync"), slice.at("cat") == "send");
        EXPECT_EQ(arguments.at("at"),
                  slice.at("cat") == "send" ? "src/Task.cpp:168" : "inc/Task.h:102");
    }
    EXPECT_EQ(names, (std::map<std::string, int>{{"handle 100", 3},
                                                 {"handle 200", 1},
                                                 {"handle 201", 1},
                                                 {"handle 300", 1},
                                                 {"handle 301", 1},
                                                 {"handle 400", 2},
                                                 {"handle 500", 1},
                                                 {"send 100", 3},
                                                 {"send 200", 1},
                                                 {"send 201", 1},
                                                 {"send 300", 1},
                                                 {"send 301", 1},
                                                 {"send 400", 2},
                                                 {"send 500", 1}}));
}

TEST_F(TraceExportTest, ArrowsLeadFromSendsToHandlings)
{
    const json trace = Export(sRecording);
    const std::vector<json> slices = Events(trace, "X");
    const std::vector<json> tails = Events(trace, "s");
    std::map<json, json> heads;
    for (const json& head : Events(trace, "f")) {
        EXPECT_EQ(head.at("bp"), "e");
        EXPECT_TRUE(heads.emplace(head.at("id"), head).second);
    }
    EXPECT_EQ(tails.size(), 10U);
    EXPECT_EQ(heads.size(), tails.size());
    for (const json& tail : tails) {
        ASSERT_EQ(heads.count(tail.at("id")), 1U);
        const json& head = heads.at(tail.at("id"));
        EXPECT_EQ(head.at("cat"), tail.at("cat"));
        EXPECT_EQ(head.at("name"), tail.at("name"));
        const json* const send = SliceAt(slices, tail);
        const json* const handling = SliceAt(slices, head);
        ASSERT_NE(send, nullptr);
        ASSERT_NE(handling, nullptr);
        EXPECT_EQ(send->at("cat"), "send");
        EXPECT_EQ(handling->at("cat"), "handling");
        EXPECT_EQ(send->at("args").at("type"), handling->at("args").at("type"));
    }
}

TEST_F(TraceExportTest, SlicesOfAThreadAreNestedOrApart)
{
    const std::vector<json> slices = Events(Export(sRecording), "X");
    for (const json& a : slices) {
        for (const json& b : slices) {
            const double aBegin = a.at("ts");
            const double bBegin = b.at("ts");
            if (a.at("tid") != b.at("tid") || bBegin <= aBegin) {
                continue;
            }
            const double aEnd = aBegin + a.at("dur").get<double>();
            const double bEnd = bBegin + b.at("dur").get<double>();
            constexpr double ROUNDING = 0.0005; // half of a nanosecond
            EXPECT_TRUE(bBegin >= aEnd - ROUNDING || bEnd <= aEnd + ROUNDING);
        }
    }
}

TEST_F(TraceExportTest, AnyNameOfAThreadMakesGoodJson)
{
    zorrecord::Recording recording = sRecording;
    for (zorrecord::Record& record : recording.records) {
        record.threadName = "\xFF\"\\\n";
    }
    for (auto& [id, location] : recording.locations) {
        location.function = "\x80";
    }
    EXPECT_FALSE(Events(Export(recording), "X").empty());
}

TEST_F(TraceExportTest, EmptyRecordingMakesAnEmptyTrace)
{
    EXPECT_TRUE(Export({}).at("traceEvents").empty());
}

TEST_F(TraceExportTest, UnfinishedCallLastsToTheEnd)
{
    zorrecord::Recording recording = sRecording;
    while (recording.records.back().kind == zorrecord::Record::AFTER_CALL) {
        recording.records.pop_back();
    }
    int unfinished = 0;
    const json trace = Export(recording);
    for (const json& slice : Events(trace, "X")) {
        unfinished += slice.at("args").contains("unfinished") ? 1 : 0;
    }
    EXPECT_GE(unfinished, 1);
}

} // namespace
