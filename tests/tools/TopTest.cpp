#include "Top.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <utility>

#include "Reader.h"
#include "Recorded.h"

namespace {

using nlohmann::json;
using testing::HasSubstr;

class TopTest : public testing::Test
{
 protected:
    static void SetUpTestSuite() { sRecording = zortest::Recorded("tasks"); }

    static std::string Print(const zorrecord::Recording& recording, bool asJson)
    {
        std::ostringstream out;
        zorrecord::PrintTop(recording, {}, asJson, out);
        return out.str();
    }

    static zorrecord::Recording sRecording;
};

zorrecord::Recording TopTest::sRecording;

TEST_F(TopTest, EveryTaskAndTypeHasItsNumbers)
{
    std::map<std::pair<std::string, int>, json> rows;
    for (const json& row : json::parse(Print(sRecording, true))) {
        rows[{row.at("task"), row.at("type")}] = row;
    }
    // What the program sends: three of type 100, two of 400, one of each other.
    EXPECT_EQ(rows.size(), 7u);
    const json& three = rows.at({"alpha", 100});
    EXPECT_EQ(three.at("handling").at("count"), 3);
    EXPECT_EQ(three.at("waiting").at("count"), 3);
    EXPECT_EQ(three.at("unfinished"), 0);
    for (const char* what : {"waiting", "handling"}) {
        const json& of = three.at(what);
        EXPECT_LE(of.at("median_ns"), of.at("p99_ns"));
        EXPECT_LE(of.at("p99_ns"), of.at("greatest_ns"));
        EXPECT_GT(of.at("greatest_ns"), 0);
    }
    EXPECT_EQ(rows.at({"alpha", 400}).at("handling").at("count"), 2);
    EXPECT_EQ(rows.at({"beta", 201}).at("handling").at("count"), 1);
    // The handling of 200 waits for that of 201.
    EXPECT_GE(rows.at({"alpha", 200}).at("handling").at("greatest_ns"),
              rows.at({"beta", 201}).at("handling").at("greatest_ns"));
}

TEST_F(TopTest, TableHasALineForEach)
{
    const std::string table = Print(sRecording, false);
    EXPECT_THAT(table, HasSubstr("\nalpha                  100        3"));
    EXPECT_THAT(table, HasSubstr("\nbeta                   201        1"));
}

TEST_F(TopTest, RecordingWithoutCallsHasNoLines)
{
    EXPECT_EQ(Print(zorrecord::Recording(), true), "[]\n");
    EXPECT_THAT(Print(zorrecord::Recording(), false), HasSubstr("task "));
}

} // namespace
