#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <thread>

#include "DaemonRun.h"
#include "Pipe.h"
#include "StreamBuilder.h"
#include "TempDirectory.h"
#include "Wait.h"

namespace {

using made::Bytes;
using made::Daemon;
using made::Ended;
using made::PcrPacket;
using made::Pipe;
using made::RunDaemon;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;
using zortest::Eventually;
using made::operator+;
using made::operator+=;

constexpr std::uint16_t PID = 0x101;
constexpr std::uint64_t SECOND = 27 * 1000 * 1000;

/// What takes the daemon longer than this to end is not "at once". The runtime's own end takes up
/// to two seconds of it.
constexpr std::chrono::seconds AT_ONCE(15);

/// The lines of the service and its stream, without the figures.
constexpr const char* TABLE =
    "      1  One                 Maker     0x0100 .*\n"
    "         0x2000010000801C00 .cT:dtv,sP:dvb,cN:0,mj:7,mn:0,pN:1.\n"
    "         H.264 video .0x1b.            0x0101 ";

Bytes Tables(made::TableBuilder& builder)
{
    return builder.Sdt(7, {{1, "One", "Maker"}}) + builder.Pat(7, {{1, 0x100}}) +
           builder.Pmt(0x100, 1, PID, {{PID, 0x1B}});
}

/// A stream of @p seconds by its own clock, with its tables at the beginning.
Bytes StreamOf(int seconds)
{
    made::TableBuilder builder;
    Bytes stream = Tables(builder);
    for (int second = 0; second <= seconds; ++second) {
        stream += PcrPacket(PID, static_cast<std::uint64_t>(second) * SECOND) +
                  made::ElementaryPackets(PID, 1);
    }
    return stream;
}

class TsmonSignalTest : public testing::Test
{
 protected:
    std::string HourLongFile() { return m_directory.Write("hour.ts", StreamOf(3600)); }

    /// What a run over the file of @p stream that nobody disturbs prints. No other daemon may run.
    std::string OutputOf(const Bytes& stream)
    {
        return RunDaemon({m_directory.Write("undisturbed.ts", stream)}).output;
    }

    /// Expects that the daemon, which has just been told to, ends at once with what it has read.
    static void ExpectStopped(Daemon& daemon, const char* signal)
    {
        const auto start = std::chrono::steady_clock::now();
        const Ended ended = daemon.End();
        EXPECT_LT(std::chrono::steady_clock::now() - start, AT_ONCE);
        EXPECT_EQ(ended.exitCode, 0) << ended.error;
        EXPECT_THAT(ended.output, ContainsRegex("Transport stream 7: 1 service in 64 packets, "
                                                "stopped by a signal\n"));
        EXPECT_THAT(ended.output, ContainsRegex(TABLE));
        EXPECT_THAT(ended.error, HasSubstr(std::string("stopped by signal ") + signal));
        EXPECT_THAT(ended.error, HasSubstr("64 packets handled"));
        EXPECT_THAT(ended.error, Not(HasSubstr("zor-tsmon:")));
    }

    made::TempDirectory m_directory;
};

TEST_F(TsmonSignalTest, SigtermEndsARealtimeRunWithTheTableOfWhatWasRead)
{
    Daemon daemon({"--realtime", HourLongFile()}, "stderr:I");
    ASSERT_TRUE(daemon.AwaitError("PMT version 0"));
    daemon.Send(SIGTERM);
    ExpectStopped(daemon, "SIGTERM");
}

TEST_F(TsmonSignalTest, SigintEndsARealtimeRunWithTheTableOfWhatWasRead)
{
    Daemon daemon({"--realtime", HourLongFile()}, "stderr:I");
    ASSERT_TRUE(daemon.AwaitError("PMT version 0"));
    daemon.Send(SIGINT);
    ExpectStopped(daemon, "SIGINT");
}

TEST_F(TsmonSignalTest, SigtermEndsAPausedRun)
{
    Daemon daemon({"--realtime", HourLongFile()}, "stderr:I");
    ASSERT_TRUE(daemon.AwaitError("PMT version 0"));
    daemon.Send(SIGUSR1);
    ASSERT_TRUE(daemon.AwaitError("paused after"));
    daemon.Send(SIGTERM);
    ExpectStopped(daemon, "SIGTERM");
}

TEST_F(TsmonSignalTest, SigtermEndsTheWaitForAPipeThatNobodyWrites)
{
    const std::string path = m_directory.Path("pipe");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    Daemon daemon({path}, "stderr:I");
    ASSERT_TRUE(daemon.AwaitError("reading "));
    daemon.Send(SIGTERM);
    const Ended ended = daemon.End();
    EXPECT_EQ(ended.exitCode, 0) << ended.error;
    EXPECT_THAT(ended.output, HasSubstr("0 services in 0 packets, stopped by a signal"));
}

TEST_F(TsmonSignalTest, Sigusr1StopsTheTablesGrowthAndSigusr2LetsItFinish)
{
    made::TableBuilder builder;
    const Bytes first = Tables(builder) + made::PlainPackets(30);
    builder.SetVersion(1);
    const Bytes second = builder.Pat(7, {{1, 0x100}, {2, 0x200}}) + made::PlainPackets(30);

    const std::string undisturbed = OutputOf(first + second);

    Pipe pipe(m_directory.Path("pipe"));
    Daemon daemon({m_directory.Path("pipe")}, "stderr:I");
    pipe.Write(first);
    ASSERT_TRUE(daemon.AwaitError("PMT version 0"));
    ASSERT_TRUE(Eventually([&] { return pipe.Unread() == 0; }));
    daemon.Send(SIGUSR1);
    ASSERT_TRUE(daemon.AwaitError("paused after"));
    EXPECT_THAT(daemon.Error(), HasSubstr("with 1 services"));
    pipe.Write(second);
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(300);
    while (std::chrono::steady_clock::now() < until) {
        ASSERT_EQ(pipe.Unread(), second.size()) << "read while it was paused";
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_THAT(daemon.Error(), Not(HasSubstr("PAT version 1")));
    daemon.Send(SIGUSR2);
    EXPECT_TRUE(daemon.AwaitError("PAT version 1"));
    EXPECT_TRUE(Eventually([&] { return pipe.Unread() == 0; }));
    pipe.Close();
    const Ended ended = daemon.End();
    EXPECT_EQ(ended.exitCode, 0) << ended.error;
    EXPECT_THAT(ended.error, HasSubstr("resumed"));
    EXPECT_THAT(ended.output, HasSubstr("2 services"));
    EXPECT_EQ(ended.output, undisturbed);
}

TEST_F(TsmonSignalTest, RealtimeRunGivesTheSameTableAsAFastOne)
{
    const Bytes stream = StreamOf(2);
    const Ended ended = RunDaemon({"--realtime", m_directory.Write("short.ts", stream)});
    EXPECT_EQ(ended.exitCode, 0) << ended.error;
    EXPECT_EQ(ended.output, OutputOf(stream));
    EXPECT_THAT(ended.output, ContainsRegex(TABLE));
    EXPECT_EQ(ended.error, "");
}

TEST_F(TsmonSignalTest, ResumptionWithoutAPauseChangesNothing)
{
    Daemon daemon({"--realtime", HourLongFile()}, "stderr:I");
    ASSERT_TRUE(daemon.AwaitError("PMT version 0"));
    daemon.Send(SIGUSR2);
    daemon.Send(SIGTERM);
    ExpectStopped(daemon, "SIGTERM");
}

TEST_F(TsmonSignalTest, RealtimeWithoutAClockSaysSoAndReadsAtFullSpeed)
{
    made::TableBuilder builder;
    const std::string path =
        m_directory.Write("clockless.ts", Tables(builder) + made::PlainPackets(30));
    const Ended ended = RunDaemon({"--realtime", path});
    EXPECT_EQ(ended.exitCode, 0);
    EXPECT_THAT(ended.output, ContainsRegex(TABLE));
    EXPECT_THAT(ended.output, Not(HasSubstr("stopped")));
    EXPECT_EQ(ended.error,
              "zor-tsmon: " + path + ": carries no PCR to play it by: read at full speed\n");
}

} // namespace
