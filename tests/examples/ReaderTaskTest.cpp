#include "ReaderTask.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <thread>

#include "Pipe.h"
#include "TaskFixture.h"

namespace {

using made::Bytes;
using made::ElementaryPackets;
using made::PcrPacket;
using made::PlainPackets;
using tsmon::PACKET_SIZE;
using tsmon::ReaderTask;
using zortest::Eventually;
using made::operator+;
using made::operator+=;

constexpr std::uint16_t PID = 0x101;
constexpr std::uint64_t SECOND = 27 * 1000 * 1000;

/// More blocks than a queue of the parser has room for.
constexpr std::size_t MANY_PACKETS = 300 * 64;

/// A reader and a parser that keeps what it gets.
class ReaderTaskTest : public testing::Test
{
 protected:
    ~ReaderTaskTest() override
    {
        m_parser.OpenGate();
        End();
    }

    void Start(const Bytes& stream, bool realtime = false)
    {
        StartOn(m_directory.Write("a.ts", stream), realtime);
    }

    void StartOn(const std::string& path, bool realtime,
                 std::chrono::milliseconds inputTimeout = tsmon::DEFAULT_INPUT_TIMEOUT)
    {
        ASSERT_TRUE(m_parser.Start());
        m_reader.emplace(path, realtime, m_parser, inputTimeout);
        ASSERT_TRUE(m_reader->Start());
    }

    void End()
    {
        if (m_reader && m_reader->FlagCreate()) {
            tsmon::EndTask(*m_reader);
        }
        if (m_parser.FlagCreate()) {
            tsmon::EndTask(m_parser);
        }
    }

    bool AwaitFullQueue()
    {
        return Eventually([this] { return m_reader->Refusals() > 0; });
    }

    made::TaskRuntime m_runtime;
    made::TempDirectory m_directory;
    made::Gated<made::CollectingParser> m_parser;
    std::optional<ReaderTask> m_reader;
};

TEST_F(ReaderTaskTest, FileArrivesWholeAndThenTheEnd)
{
    m_parser.OpenGate();
    Start(PlainPackets(1000) + ElementaryPackets(PID, 1000));
    EXPECT_TRUE(m_parser.AwaitEnd());
    End();
    EXPECT_EQ(m_parser.Tables(), PlainPackets(1000));
    EXPECT_EQ(m_parser.Streams(), ElementaryPackets(PID, 1000));
    EXPECT_EQ(m_parser.Ends(), 1);
    EXPECT_EQ(m_reader->Counts().packets, 2000U);
    EXPECT_EQ(m_reader->Failure(), "");
    EXPECT_FALSE(m_reader->IsStopped());
}

TEST_F(ReaderTaskTest, FullQueueOfTablesIsWaitedOutAndNothingIsLost)
{
    Start(PlainPackets(MANY_PACKETS));
    EXPECT_TRUE(AwaitFullQueue());
    m_parser.OpenGate();
    EXPECT_TRUE(m_parser.AwaitEnd());
    End();
    EXPECT_TRUE(m_parser.Tables() == PlainPackets(MANY_PACKETS));
    EXPECT_EQ(m_reader->Counts().packets, MANY_PACKETS);
}

TEST_F(ReaderTaskTest, FullQueueOfStreamsIsWaitedOutAndNothingIsLost)
{
    Start(ElementaryPackets(PID, MANY_PACKETS));
    EXPECT_TRUE(AwaitFullQueue());
    m_parser.OpenGate();
    EXPECT_TRUE(m_parser.AwaitEnd());
    End();
    EXPECT_TRUE(m_parser.Streams() == ElementaryPackets(PID, MANY_PACKETS));
}

TEST_F(ReaderTaskTest, ReaderThatWaitsForRoomCanBePausedAndPinged)
{
    Start(PlainPackets(MANY_PACKETS));
    EXPECT_TRUE(AwaitFullQueue());
    EXPECT_TRUE(TCTask::Ping(&*m_reader, 60 * 1000));
    EXPECT_TRUE(m_reader->Pause());
    const std::uint64_t refusals = m_reader->Refusals();
    const std::uint64_t packets = m_reader->Counts().packets;
    m_parser.OpenGate();
    EXPECT_TRUE(Eventually([this] { return m_parser.Count() >= 240 * 64; }));
    EXPECT_EQ(m_reader->Refusals(), refusals);
    EXPECT_EQ(m_reader->Counts().packets, packets);
    EXPECT_TRUE(m_reader->ResumeAsync());
    EXPECT_TRUE(m_parser.AwaitEnd());
    End();
    EXPECT_TRUE(m_parser.Tables() == PlainPackets(MANY_PACKETS));
}

TEST_F(ReaderTaskTest, EverythingReadBeforeTheStopArrives)
{
    Start(PlainPackets(MANY_PACKETS));
    EXPECT_TRUE(AwaitFullQueue());
    m_reader->StopReading();
    m_parser.OpenGate();
    EXPECT_TRUE(m_parser.AwaitEnd());
    End();
    EXPECT_TRUE(m_reader->IsStopped());
    const std::size_t count = m_reader->Counts().packets;
    EXPECT_LT(count, MANY_PACKETS);
    EXPECT_GE(count, 240U * 64);
    EXPECT_TRUE(m_parser.Tables() == PlainPackets(count));
}

TEST_F(ReaderTaskTest, StopEndsTheWaitForTheClock)
{
    m_parser.OpenGate();
    Bytes stream;
    for (std::uint64_t second = 0; second < 3600; ++second) {
        stream += PcrPacket(PID, second * SECOND);
    }
    Start(stream, true);
    EXPECT_TRUE(Eventually([this] { return m_parser.Count() > 0; }));
    m_reader->StopReading();
    EXPECT_TRUE(m_parser.AwaitEnd());
    End();
    EXPECT_TRUE(m_reader->IsStopped());
    EXPECT_FALSE(m_reader->LacksClock());
    EXPECT_EQ(m_parser.Tables(), made::PacketsOf(stream, 0, m_reader->Counts().packets));
}

TEST_F(ReaderTaskTest, StopEndsTheWaitForInput)
{
    m_parser.OpenGate();
    const std::string path = m_directory.Path("pipe");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    StartOn(path, false);
    EXPECT_TRUE(TCTask::Ping(&*m_reader, 60 * 1000)) << "nobody writes to the pipe";
    m_reader->StopReading();
    EXPECT_TRUE(m_parser.AwaitEnd());
    End();
    EXPECT_EQ(m_reader->Counts().bytes, 0U);
}

TEST_F(ReaderTaskTest, RealtimeTakesAsLongAsTheStreamsClock)
{
    m_parser.OpenGate();
    Bytes stream;
    for (std::uint64_t step = 0; step <= 20; ++step) {
        stream += PcrPacket(PID, step * SECOND / 20) + PlainPackets(1);
    }
    const auto start = std::chrono::steady_clock::now();
    Start(stream, true);
    EXPECT_TRUE(m_parser.AwaitEnd());
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    End();
    EXPECT_EQ(m_parser.Tables(), stream);
}

TEST_F(ReaderTaskTest, StreamWithoutAClockIsToldOnlyWhereOneIsWanted)
{
    m_parser.OpenGate();
    Start(PlainPackets(100), true);
    EXPECT_TRUE(m_parser.AwaitEnd());
    End();
    EXPECT_TRUE(m_reader->LacksClock());
    EXPECT_EQ(m_parser.Tables(), PlainPackets(100));
}

TEST_F(ReaderTaskTest, FileThatCannotBeOpenedIsAFailureAndTheEnd)
{
    m_parser.OpenGate();
    StartOn(m_directory.Path("missing.ts"), false);
    EXPECT_TRUE(m_parser.AwaitEnd());
    End();
    EXPECT_EQ(m_reader->Failure(), "cannot be opened: No such file or directory");
    EXPECT_EQ(m_parser.Ends(), 1);
}

/// A reader of a pipe, which nobody has written to, that soon takes its input for lost.
class SilentInputTest : public ReaderTaskTest
{
 protected:
    SilentInputTest()
    {
        m_parser.OpenGate();
        StartOn(m_path, false, TIMEOUT);
    }

    bool AwaitLosses(std::uint64_t number)
    {
        return Eventually(
            [&] { return m_reader->InputLosses() == number && m_reader->IsInputLost(); });
    }

    static constexpr std::chrono::milliseconds TIMEOUT{20};

    const std::string m_path = m_directory.Path("pipe");
    made::Pipe m_pipe{m_path};
};

TEST_F(SilentInputTest, LossIsReportedOnce)
{
    ASSERT_TRUE(AwaitLosses(1));
    const auto until = std::chrono::steady_clock::now() + 10 * TIMEOUT;
    while (std::chrono::steady_clock::now() < until) {
        ASSERT_EQ(m_reader->InputLosses(), 1U);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

TEST_F(SilentInputTest, PacketsEndTheLossAndTheNextSilenceIsAnother)
{
    for (std::uint64_t loss = 1; loss <= 3; ++loss) {
        ASSERT_TRUE(AwaitLosses(loss));
        m_pipe.Write(PlainPackets(30));
    }
    EXPECT_TRUE(Eventually([this] { return m_reader->BytesRead() == 3 * 30 * PACKET_SIZE; }));
}

TEST_F(SilentInputTest, BytesWithoutPacketsDoNotEndTheLoss)
{
    ASSERT_TRUE(AwaitLosses(1));
    m_pipe.Write(Bytes(5000, 0xAA));
    EXPECT_TRUE(Eventually([this] { return m_reader->BytesRead() == 5000; }));
    EXPECT_TRUE(TCTask::Ping(&*m_reader, 60 * 1000)) << "what was read has been handled";
    EXPECT_TRUE(m_reader->IsInputLost());
    EXPECT_EQ(m_reader->InputLosses(), 1U);
}

TEST_F(SilentInputTest, DataWithoutPacketsAfterALossIsReportedOnce)
{
    ASSERT_TRUE(AwaitLosses(1));
    for (int time = 1; time <= 3; ++time) {
        m_pipe.Write(Bytes(5000, 0xAA));
        ASSERT_TRUE(Eventually([&] { return m_reader->BytesRead() == 5000U * time; }));
    }
    EXPECT_TRUE(TCTask::Ping(&*m_reader, 60 * 1000)) << "what was read has been handled";
    EXPECT_TRUE(m_reader->IsPacketless());
    EXPECT_EQ(m_reader->PacketlessInputs(), 1U);
    EXPECT_EQ(m_reader->InputLosses(), 1U);
}

TEST_F(SilentInputTest, PacketsEndTheTimeWithoutAndTheNextIsAnother)
{
    ASSERT_TRUE(AwaitLosses(1));
    m_pipe.Write(Bytes(5000, 0xAA));
    ASSERT_TRUE(Eventually([&] { return m_reader->IsPacketless(); }));
    m_pipe.Write(PlainPackets(30));
    ASSERT_TRUE(Eventually([&] { return !m_reader->IsPacketless(); }));
    ASSERT_TRUE(AwaitLosses(2));
    m_pipe.Write(Bytes(5000, 0xAA));
    EXPECT_TRUE(Eventually([&] { return m_reader->PacketlessInputs() == 2; }));
}

TEST_F(SilentInputTest, EndOfTheInputEndsTheLoss)
{
    ASSERT_TRUE(AwaitLosses(1));
    m_pipe.Close();
    EXPECT_TRUE(m_parser.AwaitEnd());
    End();
    EXPECT_FALSE(m_reader->IsInputLost());
    EXPECT_EQ(m_reader->Failure(), "");
}

TEST_F(SilentInputTest, StopEndsTheWaitThoughInputIsLost)
{
    ASSERT_TRUE(AwaitLosses(1));
    m_reader->StopReading();
    EXPECT_TRUE(m_parser.AwaitEnd());
}

TEST_F(ReaderTaskTest, SilenceAfterDataWithoutPacketsIsNoLossOfInput)
{
    m_parser.OpenGate();
    const std::string path = m_directory.Path("pipe");
    const made::Pipe pipe(path);
    pipe.Write(Bytes(5000, 0xAA));
    StartOn(path, false, std::chrono::milliseconds(20));
    ASSERT_TRUE(Eventually([&] { return m_reader->IsPacketless(); }));
    EXPECT_EQ(m_reader->InputLosses(), 0U);
    EXPECT_FALSE(m_reader->IsInputLost());
}

TEST_F(ReaderTaskTest, FileThatBeginsWithMegabytesOfSomethingElseIsGivenUp)
{
    m_parser.OpenGate();
    const std::string path = m_directory.Write("zeros", {});
    std::filesystem::resize_file(path, UINT64_C(3) << 30);
    StartOn(path, false);
    EXPECT_TRUE(m_parser.AwaitEnd());
    End();
    EXPECT_LT(m_reader->Counts().bytes, 5U << 20);
    EXPECT_EQ(m_reader->Failure(), "is not a transport stream: no 188-byte packets in its first " +
                                       std::to_string(m_reader->Counts().bytes) + " bytes");
}

TEST_F(ReaderTaskTest, FileWithPacketsIsReadOnThroughMegabytesOfSomethingElse)
{
    m_parser.OpenGate();
    Start(PlainPackets(100) + Bytes(6U << 20, 0) + PlainPackets(100));
    EXPECT_TRUE(m_parser.AwaitEnd());
    End();
    EXPECT_EQ(m_reader->Failure(), "");
    EXPECT_GE(m_reader->Counts().packets, 199U);
    EXPECT_EQ(m_reader->PacketlessInputs(), 1U);
    EXPECT_FALSE(m_reader->IsPacketless());
}

TEST_F(ReaderTaskTest, WaitForTheClockIsNoLossOfInput)
{
    m_parser.OpenGate();
    const Bytes stream =
        PcrPacket(PID, 0) + PlainPackets(1) + PcrPacket(PID, SECOND / 2) + PlainPackets(1);
    StartOn(m_directory.Write("a.ts", stream), true, std::chrono::milliseconds(20));
    EXPECT_TRUE(m_parser.AwaitEnd());
    EXPECT_EQ(m_reader->InputLosses(), 0U);
}

} // namespace
