#include "Stepper.h"

#include <gtest/gtest.h>

#include "StreamBuilder.h"
#include "TempDirectory.h"

namespace {

using made::Bytes;
using made::ElementaryPackets;
using made::PcrPacket;
using made::PlainPackets;
using std::chrono::milliseconds;
using std::chrono::seconds;
using tsmon::Batch;
using tsmon::Pacer;
using tsmon::PACKET_SIZE;
using tsmon::Stepper;
using tsmon::StreamSorter;
using made::operator+;
using made::operator+=;

constexpr std::uint16_t PID = 0x101;
constexpr std::uint64_t SECOND = 27 * 1000 * 1000;
constexpr Pacer::TimePoint START{seconds(1000)};

Bytes BytesOf(const tsmon::PacketBlock& block)
{
    const std::uint8_t* first = block.Packet(0);
    return Bytes(first, first + block.Count() * PACKET_SIZE);
}

/// A packet that goes on with the unit begun before.
Bytes Continuation(std::uint16_t pid)
{
    Bytes packet = ElementaryPackets(pid, 1);
    packet[1] &= 0xBF;
    return packet;
}

TEST(StreamSorterTest, StreamIsKnownFromItsFirstUnitOn)
{
    StreamSorter sorter;
    EXPECT_FALSE(sorter.IsElementary(Continuation(PID).data()));
    EXPECT_TRUE(sorter.IsElementary(ElementaryPackets(PID, 1).data()));
    EXPECT_TRUE(sorter.IsElementary(Continuation(PID).data()));
    EXPECT_FALSE(sorter.IsElementary(Continuation(PID + 1).data())) << "another PID";
}

TEST(StreamSorterTest, TablesAreNeverElementary)
{
    StreamSorter sorter;
    made::TableBuilder builder;
    const Bytes tables = builder.Pat(7, {{1, 0x100}}) + builder.Pmt(0x100, 1, PID, {{PID, 0x1B}}) +
                         builder.Sdt(7, {{1, "A", "B"}});
    for (std::size_t begin = 0; begin < tables.size(); begin += PACKET_SIZE) {
        EXPECT_FALSE(sorter.IsElementary(tables.data() + begin)) << begin;
    }
}

TEST(StreamSorterTest, PidThatTurnsToTablesIsNoStreamAnyMore)
{
    StreamSorter sorter;
    made::TableBuilder builder;
    EXPECT_TRUE(sorter.IsElementary(ElementaryPackets(0x100, 1).data()));
    EXPECT_FALSE(sorter.IsElementary(builder.Pmt(0x100, 1, PID, {{PID, 0x1B}}).data()));
    EXPECT_FALSE(sorter.IsElementary(Continuation(0x100).data()));
}

TEST(StreamSorterTest, NullPacketsCarryNoTables)
{
    StreamSorter sorter;
    EXPECT_TRUE(sorter.IsElementary(Continuation(tsmon::NULL_PID).data()));
}

class StepperTest : public testing::Test
{
 protected:
    void Open(const Bytes& stream, bool realtime)
    {
        m_stepper.emplace(m_directory.Write("a.ts", stream), realtime);
    }

    /// Takes batches, at one time, until there is nothing to be done but to wait.
    ///
    /// @return the last step
    Stepper::Step TakeAll(Pacer::TimePoint now)
    {
        for (;;) {
            const Stepper::Step step = m_stepper->Advance(now);
            if (step == Stepper::Step::WAIT || step == Stepper::Step::END) {
                return step;
            }
            if (step == Stepper::Step::BATCH) {
                const Batch batch = m_stepper->Take();
                EXPECT_GT(batch.packets.Count(), 0U);
                (batch.elementary ? m_streams : m_tables) += BytesOf(batch.packets);
            }
        }
    }

    made::TempDirectory m_directory;
    std::optional<Stepper> m_stepper;
    Bytes m_tables;
    Bytes m_streams;
};

TEST_F(StepperTest, EveryPacketIsHandedOverWithItsKindInOrder)
{
    const Bytes tables = PlainPackets(100);
    const Bytes streams = ElementaryPackets(PID, 100);
    Bytes mixed;
    for (std::size_t index = 0; index < 100; ++index) {
        mixed += made::PacketsOf(tables, index, 1) + made::PacketsOf(streams, index, 1);
    }
    Open(mixed, false);
    EXPECT_EQ(TakeAll(START), Stepper::Step::END);
    EXPECT_EQ(m_tables, tables);
    EXPECT_EQ(m_streams, streams);
    EXPECT_FALSE(m_stepper->IsStopped());
    EXPECT_FALSE(m_stepper->HasClock());
}

TEST_F(StepperTest, StepReadsOneBlock)
{
    Open(PlainPackets(1000), false);
    EXPECT_EQ(m_stepper->Advance(START), Stepper::Step::READ);
    EXPECT_LE(m_stepper->Counts().packets, 64U);
    EXPECT_EQ(m_stepper->Advance(START), Stepper::Step::BATCH);
    EXPECT_EQ(m_stepper->Advance(START), Stepper::Step::BATCH) << "until it is taken";
    EXPECT_LE(m_stepper->Counts().packets, 64U);
}

TEST_F(StepperTest, RealtimeHoldsPacketsBackUntilTheirReference)
{
    Open(PlainPackets(5) + PcrPacket(PID, 0) + PlainPackets(5) + PcrPacket(PID, SECOND) +
             PlainPackets(5) + PcrPacket(PID, 2 * SECOND) + PlainPackets(5),
         true);
    EXPECT_EQ(TakeAll(START), Stepper::Step::WAIT);
    EXPECT_EQ(m_tables.size() / PACKET_SIZE, 11U);
    EXPECT_EQ(TakeAll(START + milliseconds(999)), Stepper::Step::WAIT);
    EXPECT_EQ(m_tables.size() / PACKET_SIZE, 11U);
    EXPECT_EQ(TakeAll(START + seconds(1)), Stepper::Step::WAIT);
    EXPECT_EQ(m_tables.size() / PACKET_SIZE, 17U);
    EXPECT_EQ(TakeAll(START + seconds(2)), Stepper::Step::END);
    EXPECT_EQ(m_tables.size() / PACKET_SIZE, 23U);
    EXPECT_TRUE(m_stepper->HasClock());
}

TEST_F(StepperTest, RealtimeWithoutAClockHoldsNothingBack)
{
    Open(PlainPackets(1000), true);
    EXPECT_EQ(TakeAll(START), Stepper::Step::END);
    EXPECT_EQ(m_tables, PlainPackets(1000));
    EXPECT_FALSE(m_stepper->HasClock());
}

TEST_F(StepperTest, StopHandsOverWhatWasReadAndReadsNoMore)
{
    Bytes stream;
    for (std::uint64_t second = 0; second < 200; ++second) {
        stream += PcrPacket(PID, second * SECOND);
    }
    Open(stream, true);
    EXPECT_EQ(TakeAll(START), Stepper::Step::WAIT);
    EXPECT_EQ(m_tables.size() / PACKET_SIZE, 1U);
    m_stepper->Stop();
    EXPECT_EQ(TakeAll(START), Stepper::Step::END);
    EXPECT_EQ(m_tables, made::PacketsOf(stream, 0, 64)) << "the one block that was read";
    EXPECT_EQ(m_stepper->Counts().packets, 64U);
    EXPECT_TRUE(m_stepper->IsStopped());
}

TEST_F(StepperTest, StopBeforeTheFirstStepReadsNothing)
{
    Open(PlainPackets(1000), false);
    m_stepper->Stop();
    EXPECT_EQ(TakeAll(START), Stepper::Step::END);
    EXPECT_EQ(m_stepper->Counts().bytes, 0U);
    EXPECT_TRUE(m_stepper->IsStopped());
}

TEST_F(StepperTest, StopBehindTheEndChangesNothing)
{
    Open(PlainPackets(100), false);
    EXPECT_EQ(TakeAll(START), Stepper::Step::END);
    m_stepper->Stop();
    EXPECT_FALSE(m_stepper->IsStopped());
    EXPECT_EQ(m_stepper->Counts().packets, 100U);
}

TEST_F(StepperTest, RestartedPaceGoesOnFromWhereItStands)
{
    Open(PcrPacket(PID, 0) + PcrPacket(PID, SECOND) + PcrPacket(PID, 2 * SECOND) + PlainPackets(20),
         true);
    EXPECT_EQ(TakeAll(START), Stepper::Step::WAIT);
    m_stepper->RestartPace();
    EXPECT_EQ(TakeAll(START + milliseconds(10)), Stepper::Step::WAIT);
    EXPECT_EQ(m_tables.size() / PACKET_SIZE, 2U) << "the next is due at once";
    EXPECT_EQ(TakeAll(START + milliseconds(1009)), Stepper::Step::WAIT);
    EXPECT_EQ(TakeAll(START + milliseconds(1010)), Stepper::Step::END);
}

} // namespace
