#include <gtest/gtest.h>

#include <random>

#include "CutStream.h"
#include "Packetiser.h"
#include "StreamBuilder.h"

namespace {

using made::Bytes;
using made::Cut;
using made::CutStream;
using made::PacketsOf;
using made::PlainPackets;
using made::Repacked;
using tsmon::PACKET_SIZE;
using made::operator+;

constexpr std::size_t COUNT = 24;
constexpr std::uint8_t NO_SYNC = 0x00;

Bytes PacketsWithout(const Bytes& stream, std::size_t index)
{
    const std::size_t all = stream.size() / PACKET_SIZE;
    return PacketsOf(stream, 0, index) + PacketsOf(stream, index + 1, all - index - 1);
}

Bytes Without(Bytes stream, std::size_t position, std::size_t count)
{
    const auto first = stream.begin() + static_cast<std::ptrdiff_t>(position);
    stream.erase(first, first + static_cast<std::ptrdiff_t>(count));
    return stream;
}

/// Streams of one size of packets: the parameter.
class PacketLayoutTest : public testing::TestWithParam<std::size_t>
{
 protected:
    std::size_t Size() const { return GetParam(); }
    std::size_t Lead() const { return Size() == 192 ? 4 : 0; }

    const Bytes m_sound = PlainPackets(COUNT);
    const Bytes m_stream = Repacked(m_sound, GetParam());
};

TEST_P(PacketLayoutTest, PacketsAreFoundHoweverTheStreamArrives)
{
    for (const std::size_t chunk : {1, 7, 187, 188, 192, 203, 204, 1000, 100000}) {
        const CutStream result = Cut(m_stream, chunk);
        EXPECT_EQ(result.packets, m_sound) << chunk;
        EXPECT_EQ(result.counts.packets, COUNT) << chunk;
        EXPECT_EQ(result.counts.bytes, m_stream.size()) << chunk;
        EXPECT_EQ(result.counts.Damaged(), 0U) << chunk;
        EXPECT_EQ(result.counts.packetSize, Size()) << chunk;
    }
}

TEST_P(PacketLayoutTest, TwoPacketsAreEnough)
{
    for (std::size_t count = 2; count < 14; ++count) {
        const CutStream result = Cut(Repacked(PlainPackets(count), Size()));
        EXPECT_EQ(result.packets, PlainPackets(count)) << count;
        EXPECT_EQ(result.counts.packetSize, Size()) << count;
        EXPECT_EQ(result.counts.Damaged(), 0U) << count;
    }
}

TEST_P(PacketLayoutTest, LostSyncByteCostsItsPacketOnly)
{
    for (std::size_t damaged = 0; damaged < COUNT; ++damaged) {
        Bytes stream = m_stream;
        stream[damaged * Size() + Lead()] = NO_SYNC;
        const CutStream result = Cut(stream);
        EXPECT_EQ(result.packets, PacketsWithout(m_sound, damaged)) << damaged;
        EXPECT_EQ(result.counts.lostSync, 1U) << damaged;
        EXPECT_EQ(result.counts.packetSize, Size()) << damaged;
    }
}

TEST_P(PacketLayoutTest, StreamMayBeginAnywhereInAPacket)
{
    for (std::size_t missing = Lead() + 1; missing < Size(); ++missing) {
        const CutStream result = Cut(Without(m_stream, 0, missing));
        EXPECT_EQ(result.packets, PacketsOf(m_sound, 1, COUNT - 1)) << missing;
        EXPECT_EQ(result.counts.lostSync, 1U) << missing;
        EXPECT_EQ(result.counts.packetSize, Size()) << missing;
    }
}

TEST_P(PacketLayoutTest, StreamThatEndsInsideAPacketHasOneTruncatedPacket)
{
    for (std::size_t missing = 1; missing < Size(); ++missing) {
        const CutStream result = Cut(Without(m_stream, m_stream.size() - missing, missing));
        EXPECT_EQ(result.packets, PacketsOf(m_sound, 0, COUNT - 1)) << missing;
        EXPECT_EQ(result.counts.truncated, 1U) << missing;
        EXPECT_EQ(result.counts.Damaged(), 1U) << missing;
    }
}

TEST_P(PacketLayoutTest, BytesMissingFromAPacketCostThatPacketOnly)
{
    for (std::size_t count = 1; count < PACKET_SIZE; ++count) {
        const CutStream result = Cut(Without(m_stream, 10 * Size() + Lead() + 1, count));
        EXPECT_EQ(result.packets, PacketsWithout(m_sound, 10)) << count;
        EXPECT_EQ(result.counts.Damaged(), 1U) << count;
    }
}

TEST_P(PacketLayoutTest, LongGapOfForeignBytesIsSkipped)
{
    const Bytes stream = m_stream + Bytes(5000, NO_SYNC) + m_stream;
    const CutStream result = Cut(stream);
    const std::size_t lost = (5000 + Size() - 1) / Size();
    EXPECT_GE(result.counts.packets, 2 * COUNT - 1);
    EXPECT_NEAR(static_cast<double>(result.counts.lostSync), static_cast<double>(lost), 1);
}

// A packet at the seam may be taken for one of the old size.
TEST_P(PacketLayoutTest, StreamOfAnotherSizeMayFollowAndCostsAPacketAtMost)
{
    for (const std::size_t next : {188, 192, 204}) {
        const CutStream result = Cut(m_stream + Repacked(m_sound, next));
        const bool isOneTakenForOld = Size() + next == 188 + 204;
        EXPECT_EQ(result.counts.packets, 2 * COUNT - (isOneTakenForOld ? 1 : 0)) << next;
        EXPECT_EQ(result.counts.Damaged(), isOneTakenForOld ? 1U : 0U) << next;
        EXPECT_EQ(PacketsOf(result.packets, 0, COUNT - 1), PacketsOf(m_sound, 0, COUNT - 1));
        EXPECT_EQ(result.counts.packetSize, next);
    }
}

TEST_P(PacketLayoutTest, SyncBytesAmongPayloadsDoNotHideTheSize)
{
    Bytes sound = m_sound;
    std::mt19937 random(1);
    for (std::size_t index = 0; index < sound.size(); ++index) {
        const bool isChanged = index % PACKET_SIZE >= 4 && random() % 4 == 0;
        sound[index] = isChanged ? tsmon::SYNC_BYTE : sound[index];
    }
    const CutStream result = Cut(Repacked(sound, Size()));
    EXPECT_EQ(result.packets, sound);
    EXPECT_EQ(result.counts.packetSize, Size());
}

TEST_P(PacketLayoutTest, RandomDamageGivesTheSameHoweverTheStreamArrives)
{
    for (unsigned int seed = 1; seed <= 50; ++seed) {
        std::mt19937 random(seed);
        Bytes stream = Repacked(PlainPackets(60), Size());
        for (int damage = 0; damage < 6; ++damage) {
            const std::size_t position = random() % (stream.size() - 200);
            const std::size_t size = 1 + random() % 150;
            if (random() % 2 == 0) {
                stream = Without(stream, position, size);
            } else {
                stream.insert(stream.begin() + static_cast<std::ptrdiff_t>(position), size,
                              NO_SYNC);
            }
        }
        const CutStream whole = Cut(stream, stream.size());
        const CutStream pieces = Cut(stream, 1 + random() % 400);
        EXPECT_EQ(pieces.packets, whole.packets) << "seed " << seed;
        EXPECT_EQ(pieces.counts.Damaged(), whole.counts.Damaged()) << "seed " << seed;
        EXPECT_EQ(whole.counts.packetSize, Size()) << "seed " << seed;
        EXPECT_GT(whole.counts.packets, 30U) << "seed " << seed;
    }
}

INSTANTIATE_TEST_SUITE_P(Sizes, PacketLayoutTest, testing::Values(188, 192, 204));

TEST(PacketSizeTest, IsUnknownWhereThereAreNoPackets)
{
    EXPECT_EQ(Cut(Bytes(100000, NO_SYNC)).counts.packetSize, 0U);
    EXPECT_EQ(Cut({}).counts.packetSize, 0U);
}

} // namespace
