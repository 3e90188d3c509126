#include "StreamMeter.h"

#include <gtest/gtest.h>

#include "Packet.h"
#include "StreamBuilder.h"

namespace {

using made::Bytes;
using made::ElementaryPackets;
using made::PcrPacket;
using tsmon::PACKET_SIZE;
using tsmon::StreamStatistics;
using made::operator+;
using made::operator+=;

constexpr std::uint16_t CLOCK = 0x100;
constexpr std::uint16_t PID = 0x101;
constexpr std::uint64_t SECOND = 27 * 1000 * 1000;
constexpr double BITS = 8.0 * PACKET_SIZE;

/// A packet of PID with a payload.
Bytes Numbered(int counter)
{
    Bytes packet = ElementaryPackets(PID, 1);
    packet[3] = static_cast<std::uint8_t>(0x10 | counter);
    return packet;
}

/// The same, which announces a discontinuity.
Bytes Announcing(int counter)
{
    Bytes packet = Numbered(counter);
    packet[3] |= 0x20;
    packet[4] = 1;
    packet[5] = 0x80;
    return packet;
}

/// A packet of PID that has an adaptation field and nothing else.
Bytes WithoutPayload(int counter)
{
    Bytes packet = Numbered(counter);
    packet[3] = static_cast<std::uint8_t>(0x20 | counter);
    packet[4] = PACKET_SIZE - 5;
    packet[5] = 0;
    return packet;
}

class StreamMeterTest : public testing::Test
{
 protected:
    void Push(const Bytes& packets)
    {
        for (std::size_t begin = 0; begin < packets.size(); begin += PACKET_SIZE) {
            m_meter.Push(packets.data() + begin);
        }
    }

    std::uint64_t ErrorsIn(const Bytes& packets)
    {
        Push(packets);
        return m_meter.Take().pids.at(PID).continuityErrors;
    }

    tsmon::StreamMeter m_meter;
};

TEST_F(StreamMeterTest, ScrambledPacketsAreCountedAmongAll)
{
    Bytes scrambled = Numbered(1);
    scrambled[3] |= 0x80;
    Push(Numbered(0) + scrambled + Numbered(2));
    const StreamStatistics taken = m_meter.Take();
    EXPECT_EQ(taken.pids.at(PID).packets, 3U);
    EXPECT_EQ(taken.pids.at(PID).scrambledPackets, 1U);
    EXPECT_EQ(taken.pids.at(PID).continuityErrors, 0U);
}

TEST_F(StreamMeterTest, RateIsWhatCameBetweenTwoReferences)
{
    Push(PcrPacket(CLOCK, 5 * SECOND) + ElementaryPackets(PID, 999) + PcrPacket(CLOCK, 7 * SECOND));
    const StreamStatistics statistics = m_meter.Take();
    EXPECT_EQ(statistics.time, std::chrono::seconds(2));
    EXPECT_DOUBLE_EQ(*FiguresOf(statistics, PID).bitRate, 999 * BITS / 2);
    EXPECT_DOUBLE_EQ(*FiguresOf(statistics, CLOCK).bitRate, 1 * BITS / 2);
    EXPECT_DOUBLE_EQ(*FiguresOfAll(statistics).bitRate, 1000 * BITS / 2);
}

TEST_F(StreamMeterTest, RateIsAveragedOverManyReferences)
{
    Bytes stream = PcrPacket(CLOCK, 0);
    for (std::uint64_t step = 1; step <= 40; ++step) {
        stream += ElementaryPackets(PID, step) + PcrPacket(CLOCK, step * SECOND / 10);
    }
    Push(stream);
    const StreamStatistics statistics = m_meter.Take();
    EXPECT_EQ(statistics.time, std::chrono::seconds(4));
    EXPECT_DOUBLE_EQ(*FiguresOf(statistics, PID).bitRate, 40 * 41 / 2 * BITS / 4);
}

TEST_F(StreamMeterTest, PacketsBeforeTheFirstAndBehindTheLastReferenceHaveNoRate)
{
    Push(ElementaryPackets(PID, 500) + PcrPacket(CLOCK, 0) + ElementaryPackets(PID, 10) +
         PcrPacket(CLOCK, SECOND) + ElementaryPackets(PID, 300));
    const StreamStatistics statistics = m_meter.Take();
    EXPECT_EQ(FiguresOf(statistics, PID).packets, 810U);
    EXPECT_DOUBLE_EQ(*FiguresOf(statistics, PID).bitRate, 10 * BITS);
}

TEST_F(StreamMeterTest, JumpOfTheClockTakesNoTimeAndItsPacketsHaveNoRate)
{
    Push(PcrPacket(CLOCK, 0) + ElementaryPackets(PID, 10) + PcrPacket(CLOCK, SECOND) +
         ElementaryPackets(PID, 700) + PcrPacket(CLOCK, 1000 * SECOND) +
         ElementaryPackets(PID, 20) + PcrPacket(CLOCK, 1001 * SECOND));
    const StreamStatistics statistics = m_meter.Take();
    EXPECT_EQ(statistics.time, std::chrono::seconds(2));
    EXPECT_DOUBLE_EQ(*FiguresOf(statistics, PID).bitRate, 30 * BITS / 2);
}

TEST_F(StreamMeterTest, StreamWithoutAClockHasNoRate)
{
    Push(ElementaryPackets(PID, 500));
    const StreamStatistics statistics = m_meter.Take();
    EXPECT_FALSE(FiguresOf(statistics, PID).bitRate.has_value());
    EXPECT_EQ(FiguresOf(statistics, PID).packets, 500U);
}

TEST_F(StreamMeterTest, PartsAddUpToTheWhole)
{
    const Bytes stream = PcrPacket(CLOCK, 0) + ElementaryPackets(PID, 50) + Numbered(9) +
                         PcrPacket(CLOCK, SECOND) + Numbered(10);
    StreamStatistics sum;
    for (std::size_t packet = 0; packet < stream.size() / PACKET_SIZE; ++packet) {
        Push(made::PacketsOf(stream, packet, 1));
        sum.Add(m_meter.Take());
    }
    EXPECT_EQ(sum.time, std::chrono::seconds(1));
    EXPECT_EQ(sum.pids.at(PID).packets, 52U);
    EXPECT_EQ(sum.pids.at(PID).timedPackets, 51U);
    EXPECT_EQ(sum.pids.at(PID).continuityErrors, 1U);
}

TEST_F(StreamMeterTest, CountersThatGoRoundAreContinuous)
{
    EXPECT_EQ(ErrorsIn(ElementaryPackets(PID, 100)), 0U);
}

TEST_F(StreamMeterTest, EachGapIsOneError)
{
    EXPECT_EQ(ErrorsIn(Numbered(3) + Numbered(5) + Numbered(6) + Numbered(14)), 2U);
}

TEST_F(StreamMeterTest, CountersOfOnePidSayNothingOfAnother)
{
    Push(Numbered(3) + ElementaryPackets(0x200, 3) + Numbered(4));
    EXPECT_EQ(FiguresOfAll(m_meter.Take()).continuityErrors, 0U);
}

TEST_F(StreamMeterTest, PacketMayComeTwiceButNotThrice)
{
    EXPECT_EQ(ErrorsIn(Numbered(3) + Numbered(3) + Numbered(4) + Numbered(4)), 0U);
    EXPECT_EQ(ErrorsIn(Numbered(5) + Numbered(5) + Numbered(5)), 1U);
}

TEST_F(StreamMeterTest, CounterStandsStillWithoutAPayload)
{
    EXPECT_EQ(ErrorsIn(Numbered(3) + WithoutPayload(3) + WithoutPayload(3) + Numbered(4)), 0U);
    EXPECT_EQ(ErrorsIn(WithoutPayload(5)), 1U);
}

TEST_F(StreamMeterTest, AnnouncedDiscontinuityIsNoError)
{
    EXPECT_EQ(ErrorsIn(Numbered(3) + Announcing(9) + Numbered(10)), 0U);
}

TEST_F(StreamMeterTest, NullPacketsHaveNoCounter)
{
    Push(ElementaryPackets(tsmon::NULL_PID, 1) + ElementaryPackets(tsmon::NULL_PID, 1) +
         ElementaryPackets(tsmon::NULL_PID, 1));
    const StreamStatistics statistics = m_meter.Take();
    EXPECT_EQ(FiguresOfAll(statistics).continuityErrors, 0U);
    EXPECT_EQ(FiguresOfAll(statistics).packets, 3U);
}

} // namespace
