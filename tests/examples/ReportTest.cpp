#include "Report.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>

namespace {

using tsmon::Outcome;

/// An outcome to be changed by the test, and what is printed of it.
class ReportTest : public testing::Test
{
 protected:
    ReportTest()
    {
        m_outcome.counts.bytes = 10 * tsmon::PACKET_SIZE;
        m_outcome.counts.packets = 10;
    }

    void AddServices()
    {
        m_outcome.table.OnPrograms({7, 0, {{1, 0x100}, {2, 0x200}, {3, 0x300}}});
        m_outcome.table.OnProgramMap(
            {1, 0, 0x101, {{0x101, 0x1B, "H.264 video", ""}, {0x102, 0x0F, "AAC audio", "deu"}}});
        m_outcome.table.OnProgramMap({3, 0, 0x1FFF, {}});
        m_outcome.table.OnDescriptions(
            {7, 0, 0, {{1, "Новости", "新聞"}, {3, "", "Maker"}, {65535, "Far", "Maker"}}});
    }

    int Report() { return tsmon::Report("a.ts", m_outcome, m_style, m_out, m_err); }

    Outcome m_outcome;
    tsmon::ReportStyle m_style;
    std::ostringstream m_out;
    std::ostringstream m_err;
};

TEST_F(ReportTest, SoundStreamIsPrintedAsATable)
{
    AddServices();
    EXPECT_EQ(Report(), 0);
    EXPECT_EQ(m_err.str(), "");
    EXPECT_EQ(m_out.str(),
              "Transport stream 7: 4 services in 10 packets\n"
              "No clock to measure bit rates by, 0 continuity errors\n"
              "\n"
              "SERVICE  NAME                   PROVIDER     PID  PACKETS  KBIT/S  ERRORS\n"
              "      1  Новости                新聞      0x0100        0       -       0\n"
              "         0x2000010000801C00 (cT:dtv,sP:dvb,cN:0,mj:7,mn:0,pN:1)\n"
              "         H.264 video (0x1b)               0x0101        0       -       0\n"
              "         AAC audio (0x0f), deu            0x0102        0       -       0\n"
              "      2  -                      -         0x0200        0       -       0\n"
              "         0x2000010001001C00 (cT:dtv,sP:dvb,cN:0,mj:7,mn:0,pN:2)\n"
              "         no PMT\n"
              "      3  -                      Maker     0x0300        0       -       0\n"
              "         0x2000010001801C00 (cT:dtv,sP:dvb,cN:0,mj:7,mn:0,pN:3)\n"
              "         no elementary streams\n"
              "  65535  Far                    Maker          -        0       -       0\n"
              "         0x2000017FFF801C00 (cT:dtv,sP:dvb,cN:0,mj:7,mn:0,pN:65535)\n"
              "         not in the PAT\n");
}

TEST_F(ReportTest, DamageIsCountedBehindTheTable)
{
    AddServices();
    m_outcome.counts.lostSync = 2;
    m_outcome.counts.transportErrors = 3;
    m_outcome.counts.truncated = 1;
    EXPECT_EQ(Report(), 1);
    EXPECT_EQ(m_out.str().find("Transport stream 7: 4 services in 10 packets, 6 damaged\n"), 0U);
    EXPECT_EQ(m_err.str(),
              "zor-tsmon: a.ts: is damaged: 6 damaged packets (2 lost or out of sync, 3 with the "
              "transport error indicator set, 1 cut off at the end), 10 packets read\n");
}

TEST_F(ReportTest, OneDamagedPacketIsSingular)
{
    AddServices();
    m_outcome.counts.truncated = 1;
    m_outcome.counts.packets = 1;
    EXPECT_EQ(Report(), 1);
    EXPECT_EQ(m_err.str(),
              "zor-tsmon: a.ts: is damaged: 1 damaged packet (1 cut off at the end), 1 packet "
              "read\n");
}

TEST_F(ReportTest, EmptyFileIsNamedAsSuch)
{
    m_outcome.counts = {};
    EXPECT_EQ(Report(), 1);
    EXPECT_EQ(m_out.str(), "");
    EXPECT_EQ(m_err.str(), "zor-tsmon: a.ts: is empty\n");
}

TEST_F(ReportTest, FileWithoutPacketsIsNoTransportStream)
{
    m_outcome.counts.packets = 0;
    m_outcome.counts.lostSync = 10;
    EXPECT_EQ(Report(), 1);
    EXPECT_EQ(m_err.str(),
              "zor-tsmon: a.ts: is not a transport stream: no 188-byte packets in 1880 bytes\n");
}

TEST_F(ReportTest, StreamWithoutServicesIsAnError)
{
    EXPECT_EQ(Report(), 1);
    EXPECT_EQ(m_out.str(), "");
    EXPECT_EQ(m_err.str(),
              "zor-tsmon: a.ts: announces no services: neither its PAT nor its SDT has any\n");
}

TEST_F(ReportTest, FailureIsPrintedBehindWhatWasReadBeforeIt)
{
    AddServices();
    m_outcome.failure = "cannot be read: Input/output error";
    EXPECT_EQ(Report(), 1);
    EXPECT_NE(m_out.str().find("Новости"), std::string::npos);
    EXPECT_EQ(m_err.str(), "zor-tsmon: a.ts: cannot be read: Input/output error\n");
}

TEST_F(ReportTest, OutputThatCannotBeWrittenIsAnError)
{
    AddServices();
    m_out.setstate(std::ios::badbit);
    EXPECT_EQ(Report(), 1);
    EXPECT_EQ(m_err.str(), "zor-tsmon: standard output could not be written\n");
}

TEST_F(ReportTest, StoppedRunIsNoError)
{
    AddServices();
    m_outcome.stopped = true;
    EXPECT_EQ(Report(), 0);
    EXPECT_EQ(m_err.str(), "");
    EXPECT_EQ(m_out.str().find("Transport stream 7: 4 services in 10 packets, stopped by a signal"),
              0U);
}

TEST_F(ReportTest, RunStoppedBeforeTheFirstTableIsNoError)
{
    m_outcome.counts = {};
    m_outcome.stopped = true;
    EXPECT_EQ(Report(), 0);
    EXPECT_EQ(m_err.str(), "");
    EXPECT_EQ(m_out.str(),
              "Transport stream without a PAT: 0 services in 0 packets, stopped by a signal\n"
              "No clock to measure bit rates by, 0 continuity errors\n\n"
              "SERVICE  NAME  PROVIDER  PID  PACKETS  KBIT/S  ERRORS\n");
}

TEST_F(ReportTest, DamageBeforeTheStopIsAnError)
{
    AddServices();
    m_outcome.stopped = true;
    m_outcome.counts.lostSync = 2;
    EXPECT_EQ(Report(), 1);
    EXPECT_NE(m_err.str().find("2 damaged packets"), std::string::npos);
}

TEST_F(ReportTest, JsonIsPrintedEvenIfNothingCouldBeRead)
{
    m_style.format = tsmon::Format::JSON;
    m_outcome = {};
    m_outcome.failure = "cannot be opened: No such file or directory";
    EXPECT_EQ(Report(), 1);
    const auto document = nlohmann::json::parse(m_out.str());
    EXPECT_EQ(document["failure"], m_outcome.failure);
    EXPECT_EQ(document["services"].size(), 0U);
    EXPECT_EQ(m_err.str(), "zor-tsmon: a.ts: cannot be opened: No such file or directory\n");
}

TEST_F(ReportTest, JsonTakesThePlaceOfTheTable)
{
    m_style.format = tsmon::Format::JSON;
    AddServices();
    m_outcome.counts.lostSync = 2;
    EXPECT_EQ(Report(), 1);
    const auto document = nlohmann::json::parse(m_out.str());
    EXPECT_EQ(document["services"].size(), 4U);
    EXPECT_EQ(document["damagedPackets"]["total"], 2);
    EXPECT_NE(m_err.str().find("2 damaged packets"), std::string::npos);
}

TEST_F(ReportTest, MissingClockIsToldAndIsNoError)
{
    AddServices();
    m_outcome.lacksClock = true;
    EXPECT_EQ(Report(), 0);
    EXPECT_EQ(m_err.str(), "zor-tsmon: a.ts: carries no PCR to play it by: read at full speed\n");
}

} // namespace
