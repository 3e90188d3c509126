#include "TableReport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <vector>

#include "ServiceId.h"
#include "TextTable.h"
#include "ZorServiceDebug.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using tsmon::DisplayWidth;
using tsmon::Outcome;

constexpr const char* LONG_NAME = "Новости и погода 新聞天氣預報 Cafe\u0301 Culture Channel HD";

/// An outcome whose texts are too long for narrow terminals.
class TableReportTest : public testing::Test
{
 protected:
    TableReportTest()
    {
        m_outcome.counts.packets = 1234567;
        m_outcome.counts.lostSync = 123456;
        m_outcome.stopped = true;
        m_outcome.inputLosses = 12;
        m_outcome.statistics.time = std::chrono::seconds(2);
        m_outcome.statistics.pids[0x101] = {1234000, 1000, 7};
        m_outcome.table.OnPrograms({7, 0, {{1, 0x100}, {2, 0x200}, {65535, 0x300}}});
        m_outcome.table.OnProgramMap(
            {1, 0, 0x101, {{0x101, 0x1B, "H.264 video", ""}, {0x102, 0x0F, "AAC audio", "deu"}}});
        m_outcome.table.OnDescriptions(
            {7, 0, 0, {{1, LONG_NAME, "A Provider With Quite a Name"}, {2, "Two", "新聞"}}});
    }

    std::vector<std::string> Lines(std::size_t width)
    {
        std::stringstream out;
        PrintTable(m_outcome, width, out);
        std::vector<std::string> lines;
        for (std::string line; std::getline(out, line);) {
            lines.push_back(line);
        }
        return lines;
    }

    std::string Text(std::size_t width)
    {
        std::ostringstream out;
        PrintTable(m_outcome, width, out);
        return out.str();
    }

    Outcome m_outcome;
};

TEST_F(TableReportTest, SizeOfPacketsIsShownWhereItIsUnusual)
{
    for (const std::size_t size : {0, 188}) {
        m_outcome.counts.packetSize = size;
        EXPECT_THAT(Text(200), HasSubstr("in 1234567 packets, "));
    }
    m_outcome.counts.packetSize = 192;
    EXPECT_THAT(Text(200), HasSubstr("in 1234567 packets of 192 bytes, "));
}

TEST_F(TableReportTest, ScrambledStreamsAreMarked)
{
    EXPECT_THAT(Text(200), Not(HasSubstr("scrambled")));
    m_outcome.statistics.pids[0x101].scrambledPackets = 1;
    EXPECT_THAT(Text(200), HasSubstr("H.264 video (0x1b), scrambled "));
    EXPECT_THAT(Text(200), Not(HasSubstr("deu, scrambled")));
}

TEST_F(TableReportTest, DataWithoutPacketsIsCounted)
{
    m_outcome.packetlessInputs = 2;
    EXPECT_THAT(Text(200), HasSubstr("input lost 12 times, data without packets 2 times\n"));
}

TEST_F(TableReportTest, NoLineIsWiderThanTheTerminal)
{
    for (std::size_t width = 1; width <= 200; ++width) {
        for (const std::string& line : Lines(width)) {
            ASSERT_LE(DisplayWidth(line), width) << line;
        }
    }
}

TEST_F(TableReportTest, NoLineOfATableWithPresentRatesIsWiderThanTheTerminal)
{
    m_outcome.lastSecond = m_outcome.statistics;
    for (const std::size_t width : {80, 140}) {
        for (const std::string& line : Lines(width)) {
            EXPECT_LE(DisplayWidth(line), width) << line;
        }
        EXPECT_THAT(Text(width), HasSubstr("NOW"));
    }
}

TEST_F(TableReportTest, NamesAreWholeWhereThereIsRoom)
{
    EXPECT_THAT(Text(140), HasSubstr(LONG_NAME));
    EXPECT_THAT(Text(140), HasSubstr("A Provider With Quite a Name"));
    EXPECT_THAT(Text(140), Not(HasSubstr("\u2026")));
}

TEST_F(TableReportTest, NamesAreCutWhereThereIsLittleRoomAndNothingElse)
{
    const std::string text = Text(80);
    EXPECT_THAT(text, Not(HasSubstr(LONG_NAME)));
    EXPECT_THAT(text, HasSubstr("Новости"));
    EXPECT_THAT(text, HasSubstr("\u2026"));
    for (const char* whole :
         {"KBIT/S", "ERRORS", "1234000", "752.0", "0x0101", "mj:7,mn:0,pN:1)",
          "mj:7,mn:0,pN:65535)", "stopped by a signal", "input lost 12 times"}) {
        EXPECT_THAT(text, HasSubstr(whole));
    }
}

TEST_F(TableReportTest, ColumnsStandBelowEachOtherWhateverTheNames)
{
    for (const std::size_t width : {80, 140}) {
        std::size_t titles = 0;
        std::size_t rows = 0;
        for (const std::string& line : Lines(width)) {
            if (line.find("SERVICE ") == 0) {
                titles = DisplayWidth(line);
            } else if (line.find(" 0x0") != std::string::npos) {
                EXPECT_EQ(DisplayWidth(line), titles) << line;
                ++rows;
            }
        }
        EXPECT_EQ(rows, 5U) << "three services, two streams";
    }
}

TEST_F(TableReportTest, ServicesAreShownWithTheTextOfTheirIds)
{
    for (const int id : {1, 2, 65535}) {
        EXPECT_THAT(Text(80), HasSubstr("\n         " +
                                        TCZorServiceDebug::ToString(tsmon::PackServiceId(
                                            7, static_cast<std::uint16_t>(id))) +
                                        "\n"));
    }
}

TEST_F(TableReportTest, ServiceThatOnlyTheDescriptionsNameHasTheirStreamsId)
{
    m_outcome.table = {};
    m_outcome.table.OnDescriptions({9, 0, 0, {{1, "One", "Maker"}}});
    EXPECT_THAT(Text(80), HasSubstr("mj:9,"));
    EXPECT_THAT(Text(80), HasSubstr("not in the PAT"));
}

TEST_F(TableReportTest, FiguresStandBesideServiceAndStream)
{
    m_outcome.table.OnDescriptions({7, 0, 0, {{1, "One", "Maker"}}});
    const std::string text = Text(80);
    EXPECT_THAT(text, HasSubstr("2.00 s by its clock, 752.0 kbit/s, 7 continuity errors"));
    EXPECT_THAT(text, HasSubstr("0x0100  1234000   752.0       7\n"));
    EXPECT_THAT(text, HasSubstr("0x0101  1234000   752.0       7\n"));
    EXPECT_THAT(text, HasSubstr("0x0102        0     0.0       0\n"));
}

TEST_F(TableReportTest, PresentRatesStandBesideTheAverages)
{
    m_outcome.lastSecond.emplace();
    m_outcome.lastSecond->time = std::chrono::seconds(1);
    m_outcome.lastSecond->pids[0x101] = {10, 10, 0};
    EXPECT_THAT(Text(80), HasSubstr("KBIT/S   NOW  ERRORS\n"));
    EXPECT_THAT(Text(80), HasSubstr("0x0101  1234000   752.0  15.0       7\n"));
}

TEST_F(TableReportTest, WithoutAClockThereAreNoRates)
{
    m_outcome.statistics.time = {};
    EXPECT_THAT(Text(80), HasSubstr("No clock to measure bit rates by, 7 continuity errors"));
    EXPECT_THAT(Text(80), HasSubstr("0x0101  1234000       -       7\n"));
}

} // namespace
