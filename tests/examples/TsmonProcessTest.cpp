#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "DaemonRun.h"
#include "Packet.h"
#include "StreamBuilder.h"
#include "TempDirectory.h"

namespace {

using made::Bytes;
using made::Ended;
using made::RunDaemon;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;
using tsmon::PACKET_SIZE;
using made::operator+;

constexpr const char* SAMPLE_TABLE =
    "9.92 s by its clock, 995.8 kbit/s, 0 continuity errors\n"
    "\n"
    "SERVICE  NAME                 PROVIDER     PID  PACKETS  KBIT/S  ERRORS\n"
    "    101  North News           FFmpeg    0x1000     2801   421.9       0\n"
    "         0x2000010032A00400 (cT:dtv,sP:dvb,cN:0,mj:2049,mn:0,pN:101)\n"
    "         MPEG-2 video (0x02)            0x0100     2237   337.6       0\n"
    "         MPEG-1 audio (0x03)            0x0101      438    65.5       0\n"
    "    102  Kids Two             FFmpeg    0x1001     2636   397.1       0\n"
    "         0x2000010033200400 (cT:dtv,sP:dvb,cN:0,mj:2049,mn:0,pN:102)\n"
    "         MPEG-2 video (0x02)            0x0102     2072   312.8       0\n"
    "         MPEG-1 audio (0x03)            0x0103      438    65.5       0\n"
    "    103  Test Card            FFmpeg    0x1002     1027   155.1       0\n"
    "         0x2000010033A00400 (cT:dtv,sP:dvb,cN:0,mj:2049,mn:0,pN:103)\n"
    "         MPEG-2 video (0x02)            0x0104      901   136.3       0\n";

class TsmonProcessTest : public testing::Test
{
 protected:
    made::TempDirectory m_directory;
};

TEST_F(TsmonProcessTest, SoundFileGivesItsTable)
{
    const Ended ended = RunDaemon({TSMON_SAMPLE});
    EXPECT_EQ(ended.exitCode, 0);
    EXPECT_EQ(ended.output,
              std::string("Transport stream 2049: 3 services in 6610 packets\n") + SAMPLE_TABLE);
    EXPECT_EQ(ended.error, "");
}

TEST_F(TsmonProcessTest, LogTellsOfStartTablesAndEnd)
{
    const Ended ended = RunDaemon({TSMON_SAMPLE}, "stderr:I");
    EXPECT_EQ(ended.exitCode, 0);
    EXPECT_THAT(ended.error, ContainsRegex("I ZOR_TSMON.*reading .*three-services.ts"));
    EXPECT_THAT(ended.error, ContainsRegex("I ZOR_TSMON.*PAT version 0 of transport stream 2049"));
    EXPECT_THAT(ended.error, ContainsRegex("I ZOR_TSMON.*PMT version 0 of service 103"));
    EXPECT_THAT(ended.error, ContainsRegex("I ZOR_TSMON.*SDT version 0"));
    EXPECT_THAT(ended.error, ContainsRegex("I ZOR_TSMON.*end of .*6610 packets, 0 damaged"));
    EXPECT_THAT(ended.output, Not(HasSubstr("ZOR_TSMON"))) << "standard output is the table's";
}

TEST_F(TsmonProcessTest, MissingFileIsAnError)
{
    const std::string path = m_directory.Path("missing.ts");
    const Ended ended = RunDaemon({path});
    EXPECT_EQ(ended.exitCode, 1);
    EXPECT_EQ(ended.output, "");
    EXPECT_EQ(ended.error,
              "zor-tsmon: " + path + ": cannot be opened: No such file or directory\n");
}

TEST_F(TsmonProcessTest, DirectoryIsAnError)
{
    const std::string path = m_directory.Path("");
    const Ended ended = RunDaemon({path});
    EXPECT_EQ(ended.exitCode, 1);
    EXPECT_EQ(ended.output, "");
    EXPECT_EQ(ended.error,
              "zor-tsmon: " + path + ": is a directory, not a transport stream file\n");
}

TEST_F(TsmonProcessTest, EmptyFileIsAnError)
{
    const std::string path = m_directory.Write("empty.ts", {});
    const Ended ended = RunDaemon({path});
    EXPECT_EQ(ended.exitCode, 1);
    EXPECT_EQ(ended.output, "");
    EXPECT_EQ(ended.error, "zor-tsmon: " + path + ": is empty\n");
}

TEST_F(TsmonProcessTest, FileThatIsNoTransportStreamIsAnError)
{
    const std::string text = "Good morning. This is a letter, and a letter is no stream.\n";
    Bytes contents;
    for (int line = 0; line < 100; ++line) {
        contents = contents + Bytes(text.begin(), text.end());
    }
    const std::string path = m_directory.Write("letter.txt", contents);
    const Ended ended = RunDaemon({path});
    EXPECT_EQ(ended.exitCode, 1);
    EXPECT_EQ(ended.output, "");
    EXPECT_EQ(ended.error, "zor-tsmon: " + path +
                               ": is not a transport stream: no 188-byte packets in " +
                               std::to_string(contents.size()) + " bytes\n");
}

TEST_F(TsmonProcessTest, StreamWithoutServicesIsAnError)
{
    const std::string path = m_directory.Write("plain.ts", made::PlainPackets(20));
    const Ended ended = RunDaemon({path});
    EXPECT_EQ(ended.exitCode, 1);
    EXPECT_EQ(ended.output, "");
    EXPECT_THAT(ended.error, HasSubstr(path + ": announces no services"));
}

TEST_F(TsmonProcessTest, DamagedFileGivesItsTableAndTheNumberOfDamagedPackets)
{
    Bytes stream = made::ReadFile(TSMON_SAMPLE);
    for (const std::size_t packet : {0, 100, 101, 3000, 6609}) {
        stream[packet * PACKET_SIZE] ^= 0xFF;
    }
    stream[4000 * PACKET_SIZE + 1] |= 0x80;
    const std::string path = m_directory.Write("damaged.ts", stream);
    const Ended ended = RunDaemon({path}, "stderr:W");
    EXPECT_EQ(ended.exitCode, 1);
    EXPECT_THAT(ended.output, testing::StartsWith("Transport stream 2049: 3 services in 6604 "
                                                  "packets, 6 damaged\n9.92 s by its clock"));
    EXPECT_THAT(ended.output, HasSubstr("    103  Test Card            FFmpeg    0x1002 "));
    EXPECT_THAT(ended.error,
                HasSubstr("zor-tsmon: " + path +
                          ": is damaged: 6 damaged packets (5 lost or out of sync, 1 with the "
                          "transport error indicator set), 6604 packets read\n"));
    EXPECT_THAT(ended.error, ContainsRegex("W ZOR_TSMON.*damaged packets"));
}

TEST_F(TsmonProcessTest, FileThatEndsInsideAPacketGivesItsTable)
{
    Bytes stream = made::ReadFile(TSMON_SAMPLE);
    stream.resize(stream.size() - 50);
    const std::string path = m_directory.Write("cut.ts", stream);
    const Ended ended = RunDaemon({path});
    EXPECT_EQ(ended.exitCode, 1);
    EXPECT_THAT(ended.output, HasSubstr("MPEG-2 video (0x02)            0x0104 "));
    EXPECT_THAT(ended.error, HasSubstr("1 damaged packet (1 cut off at the end)"));
}

TEST_F(TsmonProcessTest, NamesInOtherScriptsAreAligned)
{
    made::TableBuilder builder;
    Bytes stream;
    for (int turn = 0; turn < 3; ++turn) {
        stream = stream + builder.Pat(7, {{1, 0x100}, {2, 0x200}}) +
                 builder.Pmt(0x100, 1, 0x101, {{0x101, 0x1B}}) +
                 builder.Pmt(0x200, 2, 0x201, {{0x201, 0x24}}) +
                 builder.Sdt(7, {{1, "\x01\xBD\xDE\xD2\xDE\xE1\xE2\xD8", "\x14\xB7\x73\xBB\x44"},
                                 {2, "Two", "Maker"}});
    }
    const Ended ended = RunDaemon({m_directory.Write("names.ts", stream)});
    EXPECT_EQ(ended.exitCode, 0) << ended.error;
    EXPECT_THAT(
        ended.output,
        HasSubstr("SERVICE  NAME                PROVIDER     PID  PACKETS  KBIT/S  ERRORS\n"
                  "      1  Новости             新聞      0x0100        3       -       0\n"
                  "         0x2000010000801C00 (cT:dtv,sP:dvb,cN:0,mj:7,mn:0,pN:1)\n"
                  "         H.264 video (0x1b)            0x0101        0       -       0\n"
                  "      2  Two                 Maker     0x0200        3       -       0\n"
                  "         0x2000010001001C00 (cT:dtv,sP:dvb,cN:0,mj:7,mn:0,pN:2)\n"
                  "         H.265 video (0x24)            0x0201        0       -       0\n"));
}

TEST_F(TsmonProcessTest, HelpGoesToStandardOutput)
{
    const Ended ended = RunDaemon({"--help"});
    EXPECT_EQ(ended.exitCode, 0);
    EXPECT_THAT(ended.output, HasSubstr("Usage: zor-tsmon [OPTIONS] FILE"));
    EXPECT_EQ(ended.error, "");
}

TEST_F(TsmonProcessTest, VersionGoesToStandardOutput)
{
    const Ended ended = RunDaemon({"--version"});
    EXPECT_EQ(ended.exitCode, 0);
    EXPECT_EQ(ended.output, "zor-tsmon " TSMON_VERSION "\n");
    EXPECT_EQ(ended.error, "");
}

TEST_F(TsmonProcessTest, BadOptionIsAnErrorThatNamesIt)
{
    const Ended ended = RunDaemon({"--bogus", TSMON_SAMPLE});
    EXPECT_EQ(ended.exitCode, 1);
    EXPECT_EQ(ended.output, "");
    EXPECT_THAT(ended.error, HasSubstr("zor-tsmon: The following argument was not expected: "
                                       "--bogus"));
}

TEST_F(TsmonProcessTest, MissingArgumentIsAnError)
{
    const Ended ended = RunDaemon({});
    EXPECT_EQ(ended.exitCode, 1);
    EXPECT_EQ(ended.output, "");
    EXPECT_THAT(ended.error, HasSubstr("zor-tsmon: FILE is required"));
}

TEST_F(TsmonProcessTest, OutputThatCannotBeWrittenIsAnError)
{
    const Ended table = RunDaemon({TSMON_SAMPLE}, "none", "/dev/full");
    EXPECT_EQ(table.exitCode, 1);
    EXPECT_EQ(table.error, "zor-tsmon: standard output could not be written\n");
    EXPECT_EQ(RunDaemon({"--help"}, "none", "/dev/full").exitCode, 1);
}

} // namespace
