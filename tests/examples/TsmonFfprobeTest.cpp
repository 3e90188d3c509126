#include <gtest/gtest.h>

#include <random>

#include "DaemonRun.h"
#include "FfmpegRun.h"
#include "Packet.h"
#include "PcrClock.h"
#include "ServiceComparison.h"
#include "StreamBuilder.h"
#include "TempDirectory.h"

namespace {

using made::Bytes;
using nlohmann::json;
using tsmon::PACKET_SIZE;
using made::operator+;
using made::operator+=;
using Arguments = std::vector<std::string>;

/// Streams of a second or two, read by zor-tsmon and by ffprobe.
class TsmonFfprobeTest : public testing::Test
{
 protected:
    void SetUp() override
    {
        if (!made::HasFfmpeg()) {
            GTEST_SKIP() << "ffmpeg or ffprobe, of scripts/packages.txt, is not installed: there "
                            "is nothing to compare with";
        }
    }

    /// Has ffmpeg make a transport stream.
    ///
    /// @param inputs   sources of lavfi, a second of each
    /// @param options  of the output
    Bytes Make(const Arguments& inputs, const Arguments& options)
    {
        Arguments arguments;
        for (const std::string& input : inputs) {
            arguments.insert(arguments.end(), {"-f", "lavfi", "-t", "1", "-i", input});
        }
        arguments.insert(arguments.end(), options.begin(), options.end());
        const std::string path = m_directory.Path("made.ts");
        arguments.insert(arguments.end(), {"-threads", "1", "-f", "mpegts", path});
        made::RunFfmpeg(arguments);
        return made::ReadFile(path);
    }

    json Tsmon(const Bytes& stream)
    {
        const std::string path = m_directory.Write("read.ts", stream);
        const made::Ended ended = made::RunDaemon({"--format", "json", path});
        json report = json::parse(ended.output, nullptr, false);
        EXPECT_FALSE(report.is_discarded()) << ended.output << ended.error;
        return report;
    }

    json Ffprobe(const Bytes& stream)
    {
        return made::RunFfprobe(m_directory.Write("probed.ts", stream), m_directory.Path(""));
    }

    /// Expects zor-tsmon to tell of @p stream what ffprobe tells of @p probed.
    ///
    /// @return zor-tsmon's report
    json ExpectSame(const Bytes& stream, const Bytes& probed, std::size_t services)
    {
        json report = Tsmon(stream);
        const json expected = made::ServicesOfFfprobe(Ffprobe(probed));
        const json found = made::ServicesOfTsmon(report, expected);
        EXPECT_EQ(found, expected) << "zor-tsmon:\n"
                                   << found.dump(1) << "\nffprobe:\n"
                                   << expected.dump(1);
        EXPECT_EQ(found.size(), services);
        return report;
    }

    json ExpectSame(const Bytes& stream, std::size_t services)
    {
        return ExpectSame(stream, stream, services);
    }

    made::TempDirectory m_directory;
};

constexpr const char* VIDEO = "testsrc2=s=160x90:r=10";
constexpr const char* AUDIO = "sine";
const Arguments MPEG2 = {"-c:v", "mpeg2video", "-c:a", "mp2", "-b:a", "64k"};
const Arguments H264 = {"-c:v", "libx264", "-preset", "ultrafast", "-c:a", "aac"};

Arguments With(Arguments arguments, const Arguments& more)
{
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
}

Arguments Named(const std::string& name, const std::string& provider)
{
    return {"-metadata", "service_name=" + name, "-metadata", "service_provider=" + provider};
}

TEST_F(TsmonFfprobeTest, Mpeg2VideoAndMpeg1Audio)
{
    const json report = ExpectSame(Make({VIDEO, AUDIO}, With(MPEG2, Named("One", "Maker"))), 1);
    EXPECT_EQ(report["packetSize"], 188);
    EXPECT_EQ(report["ok"], true);
}

TEST_F(TsmonFfprobeTest, H264VideoAndAacAudio)
{
    ExpectSame(Make({VIDEO, AUDIO}, H264), 1);
}

TEST_F(TsmonFfprobeTest, HevcVideoWithAc3AndEac3Audio)
{
    ExpectSame(
        Make({VIDEO, AUDIO}, {"-map", "0", "-map", "1", "-map", "1", "-c:v", "libx265", "-preset",
                              "ultrafast", "-x265-params", "log-level=none:pools=1", "-c:a:0",
                              "ac3", "-c:a:1", "eac3", "-mpegts_flags", "+system_b"}),
        1);
}

TEST_F(TsmonFfprobeTest, Mpeg4VideoWithLatmAndOpusAudio)
{
    ExpectSame(
        Make({VIDEO, AUDIO}, {"-map", "0", "-map", "1", "-map", "1", "-c:v", "mpeg4", "-c:a:0",
                              "aac", "-c:a:1", "libopus", "-mpegts_flags", "+latm"}),
        1);
}

TEST_F(TsmonFfprobeTest, SeveralLanguages)
{
    ExpectSame(
        Make({VIDEO, AUDIO}, With(MPEG2, {"-map", "0", "-map", "1", "-map", "1", "-map", "1",
                                          "-metadata:s:a:0", "language=deu", "-metadata:s:a:1",
                                          "language=rus", "-metadata:s:a:2", "language=por"})),
        1);
}

TEST_F(TsmonFfprobeTest, RadioOfTwoServices)
{
    ExpectSame(Make({AUDIO}, {"-map", "0", "-map", "0", "-c:a", "mp2", "-program",
                              "program_num=7:title=Wave:st=0", "-program",
                              "program_num=9:title=Words:st=1"}),
               2);
}

TEST_F(TsmonFfprobeTest, NamesInCyrillic)
{
    const json report =
        ExpectSame(Make({VIDEO, AUDIO}, With(MPEG2, Named("Новости", "Вещатель"))), 1);
    EXPECT_EQ(report["services"][0]["name"], "Новости");
}

TEST_F(TsmonFfprobeTest, ThirtyServices)
{
    Arguments options = {"-c:a", "mp2", "-b:a", "32k"};
    for (int service = 0; service < 30; ++service) {
        const std::string number = std::to_string(service);
        options = With(options, {"-map", "0", "-program",
                                 "program_num=" + std::to_string(500 - service) +
                                     ":title=Service " + number + ":st=" + number});
    }
    ExpectSame(Make({AUDIO}, options), 30);
}

TEST_F(TsmonFfprobeTest, PidsAndIdsOfTheirOwn)
{
    const json report = ExpectSame(
        Make({VIDEO, AUDIO}, With(MPEG2, {"-mpegts_transport_stream_id", "65000",
                                          "-mpegts_service_id", "60001", "-mpegts_pmt_start_pid",
                                          "33", "-streamid", "0:8000", "-streamid", "1:8001"})),
        1);
    EXPECT_EQ(report["transportStreamId"], 65000);
}

TEST_F(TsmonFfprobeTest, CutAtBothEnds)
{
    Bytes stream = Make({VIDEO, AUDIO}, With(MPEG2, {"-pat_period", "0.1", "-sdt_period", "0.1"}));
    stream.erase(stream.begin(), stream.begin() + 1000);
    stream.resize(stream.size() - 100);
    const json report = ExpectSame(stream, 1);
    EXPECT_EQ(report["ok"], false);
    EXPECT_EQ(report["damagedPackets"]["truncated"], 1);
}

TEST_F(TsmonFfprobeTest, PacketsOf192BytesWithTimeStamps)
{
    const json report = ExpectSame(Make({VIDEO, AUDIO}, {"-c:v", "libx264", "-preset", "ultrafast",
                                                         "-c:a", "ac3", "-mpegts_m2ts_mode", "1"}),
                                   1);
    EXPECT_EQ(report["packetSize"], 192);
    EXPECT_EQ(report["ok"], true);
}

TEST_F(TsmonFfprobeTest, PacketsOf204BytesWithErrorCorrection)
{
    const Bytes plain = Make({VIDEO, AUDIO}, MPEG2);
    const json report = ExpectSame(made::Repacked(plain, 204), 1);
    EXPECT_EQ(report["packetSize"], 204);
    EXPECT_EQ(report["ok"], true);
    EXPECT_EQ(report["packets"], plain.size() / PACKET_SIZE);
}

/// Tables with subtitles and teletext beside a video, and packets of all.
Bytes WithTexts(const Bytes& subtitles, const Bytes& teletext)
{
    made::TableBuilder builder;
    Bytes stream;
    for (int turn = 0; turn < 4; ++turn) {
        stream += builder.Pat(7, {{1, 0x100}}) +
                  builder.Pmt(0x100, 1, 0x101,
                              {{0x101, 0x02}, {0x102, 0x06, subtitles}, {0x103, 0x06, teletext}}) +
                  builder.Sdt(7, {{1, "One", "Maker"}});
    }
    for (const std::uint16_t pid : {0x101, 0x102, 0x103}) {
        stream += made::ElementaryPackets(pid, 20);
    }
    return stream;
}

TEST_F(TsmonFfprobeTest, SubtitlesAndTeletext)
{
    const Bytes subtitles = {0x59, 's', 'w', 'e', 0x10, 0, 1, 0, 1};
    const Bytes teletext = {0x56, 'f', 'i', 'n', 0x10, 0x88};
    ExpectSame(WithTexts(subtitles, teletext), 1);
}

TEST_F(TsmonFfprobeTest, SubtitlesAndTeletextOfSeveralLanguages)
{
    const Bytes subtitles = {0x59, 's', 'w', 'e',  0x10, 0, 1, 0, 1,
                             'n',  'o', 'r', 0x14, 0,    2, 0, 2};
    const Bytes teletext = {0x56, 'f', 'i', 'n', 0x10, 0x88, 'e', 's', 't', 0x08, 0x89};
    ExpectSame(WithTexts(subtitles, teletext), 1);
}

/// A packet that is a whole unit of private data, to be shown at @p seconds.
Bytes PrivatePacket(std::uint16_t pid, int counter, unsigned int seconds, const Bytes& data)
{
    const std::uint64_t time = UINT64_C(90000) * seconds;
    Bytes packet = {tsmon::SYNC_BYTE, static_cast<std::uint8_t>(0x40 | pid >> 8),
                    static_cast<std::uint8_t>(pid & 0xFF),
                    static_cast<std::uint8_t>(0x10 | (counter & 0x0F))};
    packet += {0, 0, 1, 0xBD, 0, PACKET_SIZE - 10, 0x80, 0x80, 5};
    packet += {static_cast<std::uint8_t>(0x21 | (time >> 29 & 0x0E)),
               static_cast<std::uint8_t>(time >> 22 & 0xFF),
               static_cast<std::uint8_t>((time >> 14 & 0xFE) | 1),
               static_cast<std::uint8_t>(time >> 7 & 0xFF),
               static_cast<std::uint8_t>((time << 1 & 0xFE) | 1)};
    packet += data;
    EXPECT_EQ(packet.size(), PACKET_SIZE);
    return packet;
}

constexpr std::size_t PRIVATE_SIZE = PACKET_SIZE - 18;

// Made by hand, as ffmpeg makes neither of them of nothing, and passed on by ffmpeg.
TEST_F(TsmonFfprobeTest, SubtitlesAndTeletextThatFfmpegPassesOn)
{
    Bytes page = {0x20, 0, 0x0F, 0x81, 0, 1, 0, PRIVATE_SIZE - 9};
    page.resize(PRIVATE_SIZE - 1, 0);
    page.push_back(0xFF);
    Bytes text = {0x10};
    for (int unit = 0; unit < 3; ++unit) {
        text += {0x03, 44};
        text.resize(text.size() + 44, 0x15);
    }
    text += {0xFF, 29};
    text.resize(PRIVATE_SIZE, 0xFF);
    made::TableBuilder builder;
    Bytes stream;
    for (int turn = 0; turn < 4; ++turn) {
        stream += builder.Pat(7, {{1, 0x100}}) +
                  builder.Pmt(0x100, 1, 0x1FFF,
                              {{0x102, 0x06, {0x59, 's', 'w', 'e', 0x10, 0, 1, 0, 1}},
                               {0x103, 0x06, {0x56, 'f', 'i', 'n', 0x10, 0x88}}});
        const auto seconds = static_cast<unsigned int>(turn + 1);
        stream +=
            PrivatePacket(0x102, turn, seconds, page) + PrivatePacket(0x103, turn, seconds, text);
    }
    const std::string path = m_directory.Write("hand.ts", stream);
    const std::string passed = m_directory.Path("passed.ts");
    made::RunFfmpeg({"-i", path, "-map", "0", "-c", "copy", "-f", "mpegts", passed});
    const json report = ExpectSame(made::ReadFile(passed), 1);
    EXPECT_EQ(report["services"][0]["streams"].size(), 2U);
}

TEST_F(TsmonFfprobeTest, ScrambledService)
{
    Bytes stream =
        Make({VIDEO, AUDIO}, With(MPEG2, {"-map", "0", "-map", "1", "-map", "0", "-map", "1",
                                          "-program", "program_num=1:title=Open:st=0:st=1",
                                          "-program", "program_num=2:title=Closed:st=2:st=3"}));
    std::mt19937 random(1);
    for (std::size_t begin = 0; begin < stream.size(); begin += PACKET_SIZE) {
        std::uint8_t* packet = &stream[begin];
        const std::uint16_t pid = tsmon::PidOf(packet);
        const bool hasField = (packet[3] & 0x20) != 0;
        if ((pid != 0x102 && pid != 0x103) || !tsmon::HasPayload(packet)) {
            continue;
        }
        packet[3] |= 0x80;
        for (std::size_t at = hasField ? 5 + std::size_t{packet[4]} : 4; at < PACKET_SIZE; ++at) {
            packet[at] ^= static_cast<std::uint8_t>(random() & 0xFF);
        }
    }
    const json report = ExpectSame(stream, 2);
    EXPECT_EQ(report["ok"], true);
    EXPECT_EQ(report["continuityErrors"], 0);
    EXPECT_EQ(report["services"][0]["scrambledPackets"], 0);
    for (const json& scrambled : report["services"][1]["streams"]) {
        EXPECT_GT(scrambled["scrambledPackets"], 0);
    }
}

/// A stream whose tables change in the middle: each half has its own.
class ChangedTables
{
 public:
    Bytes Half(std::uint8_t version, const std::vector<made::Stream>& streams,
               const std::string& name)
    {
        m_builder.SetVersion(version);
        Bytes half;
        for (int turn = 0; turn < 4; ++turn) {
            half += m_builder.Pat(7, {{1, 0x100}}) +
                    m_builder.Pmt(0x100, 1, streams[0].pid, streams) +
                    m_builder.Sdt(7, {{1, name, "Maker"}});
            for (const made::Stream& stream : streams) {
                half += made::ElementaryPackets(stream.pid, 16);
            }
        }
        return half;
    }

 private:
    made::TableBuilder m_builder;
};

TEST_F(TsmonFfprobeTest, NewVersionsOfPmtAndSdtInTheMiddle)
{
    ChangedTables tables;
    const Bytes before = tables.Half(0, {{0x101, 0x02}, {0x102, 0x03}}, "Morning");
    const Bytes after = tables.Half(
        1, {{0x101, 0x02}, {0x104, 0x0F, {0x0A, 'd', 'e', 'u', 0}}, {0x105, 0x0F}}, "Evening");
    const json report = ExpectSame(before + after, after, 1);
    EXPECT_EQ(report["services"][0]["name"], "Evening");
    EXPECT_EQ(report["continuityErrors"], 0);
    EXPECT_EQ(report["ok"], true);
}

TEST_F(TsmonFfprobeTest, ServicesThatComeAndGoInTheMiddle)
{
    made::TableBuilder builder;
    const auto half = [&builder](std::uint8_t version, const std::vector<made::Program>& programs) {
        builder.SetVersion(version);
        Bytes tables;
        for (int turn = 0; turn < 3; ++turn) {
            tables += builder.Pat(7, programs);
            for (const made::Program& program : programs) {
                const auto pid = static_cast<std::uint16_t>(program.pid + 1);
                tables += builder.Pmt(program.pid, program.number, pid, {{pid, 0x02}}) +
                          made::ElementaryPackets(pid, 16);
            }
        }
        return tables;
    };
    const Bytes before = half(0, {{1, 0x100}, {2, 0x200}});
    const Bytes after = half(1, {{2, 0x210}, {3, 0x300}});
    ExpectSame(before + after, after, 2);
}

double SecondsOf(const json& report)
{
    return std::stod(report["format"]["duration"].get<std::string>());
}

// The clock's 33 bits of 90 kHz last for 95443.7 seconds.
TEST_F(TsmonFfprobeTest, ClockThatBeginsAnewOnTheWay)
{
    const Bytes stream = Make({VIDEO, AUDIO}, With(MPEG2, {"-output_ts_offset", "95442.3"}));
    std::vector<std::uint64_t> references;
    for (std::size_t begin = 0; begin < stream.size(); begin += PACKET_SIZE) {
        if (const auto reference = tsmon::PcrOf(&stream[begin])) {
            references.push_back(*reference);
        }
    }
    ASSERT_FALSE(references.empty());
    EXPECT_LT(references.back(), references.front());
    const json report = ExpectSame(stream, 1);
    EXPECT_NEAR(report["seconds"], SecondsOf(Ffprobe(stream)), 0.3);
}

/// Two streams of ffmpeg's behind each other, of which the second begins at @p offset seconds.
class JoinedStreamsTest : public TsmonFfprobeTest, public testing::WithParamInterface<int>
{};

TEST_P(JoinedStreamsTest, TablesAreTheSecondsAndTimeIsTheSum)
{
    const Bytes first = Make(
        {VIDEO, AUDIO}, With(MPEG2, With(Named("One", "First"), {"-output_ts_offset", "100"})));
    const Bytes second = Make(
        {VIDEO, AUDIO},
        With(H264, With(Named("Two", "Second"), {"-output_ts_offset", std::to_string(GetParam()),
                                                 "-metadata:s:a:0", "language=deu"})));
    const json report = ExpectSame(first + second, second, 1);
    EXPECT_EQ(report["ok"], true);
    EXPECT_NEAR(report["seconds"], SecondsOf(Ffprobe(first)) + SecondsOf(Ffprobe(second)), 0.3)
        << "the jump takes no time";
}

INSTANTIATE_TEST_SUITE_P(Jumps, JoinedStreamsTest, testing::Values(0, 5000, 95000));

} // namespace
