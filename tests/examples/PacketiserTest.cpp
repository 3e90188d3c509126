#include "Packetiser.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>

#include "CutStream.h"
#include "StreamBuilder.h"

namespace {

using made::Bytes;
using made::Cut;
using made::CutStream;
using made::PacketsOf;
using made::PlainPackets;
using tsmon::PACKET_SIZE;
using made::operator+;

constexpr std::size_t COUNT = 24;
constexpr std::uint8_t NO_SYNC = 0x00;

/// All packets but @p count from number @p begin.
Bytes PacketsWithout(const Bytes& stream, std::size_t begin, std::size_t count)
{
    const std::size_t all = stream.size() / PACKET_SIZE;
    return PacketsOf(stream, 0, begin) + PacketsOf(stream, begin + count, all - begin - count);
}

Bytes WithInserted(Bytes stream, std::size_t position, std::size_t count)
{
    stream.insert(stream.begin() + static_cast<std::ptrdiff_t>(position), count, NO_SYNC);
    return stream;
}

Bytes WithRemoved(Bytes stream, std::size_t position, std::size_t count)
{
    const auto first = stream.begin() + static_cast<std::ptrdiff_t>(position);
    stream.erase(first, first + static_cast<std::ptrdiff_t>(count));
    return stream;
}

Bytes RandomBytes(std::size_t size, unsigned int seed)
{
    std::mt19937 random(seed);
    Bytes bytes(size);
    std::generate(bytes.begin(), bytes.end(),
                  [&] { return static_cast<std::uint8_t>(random() & 0xFF); });
    return bytes;
}

TEST(PacketiserTest, SoundStreamIsCutIntoItsPacketsHoweverItArrives)
{
    const Bytes stream = PlainPackets(COUNT);
    for (const std::size_t chunk : {1, 7, 187, 188, 189, 1000, 100000}) {
        const CutStream result = Cut(stream, chunk);
        EXPECT_EQ(result.packets, stream) << chunk;
        EXPECT_EQ(result.counts.packets, COUNT) << chunk;
        EXPECT_EQ(result.counts.bytes, stream.size()) << chunk;
        EXPECT_EQ(result.counts.Damaged(), 0U) << chunk;
    }
}

TEST(PacketiserTest, ShortStreamsAreRecognised)
{
    for (std::size_t count = 1; count <= 12; ++count) {
        const Bytes stream = PlainPackets(count);
        const CutStream result = Cut(stream);
        EXPECT_EQ(result.packets, stream) << count;
        EXPECT_EQ(result.counts.Damaged(), 0U) << count;
    }
}

TEST(PacketiserTest, NothingComesOfNothing)
{
    const CutStream result = Cut({});
    EXPECT_TRUE(result.packets.empty());
    EXPECT_EQ(result.counts.bytes, 0U);
    EXPECT_EQ(result.counts.Damaged(), 0U);
}

TEST(PacketiserTest, LessThanAPacketIsNoPacket)
{
    Bytes stream = PlainPackets(1);
    stream.pop_back();
    EXPECT_EQ(Cut(stream).counts.packets, 0U);
}

TEST(PacketiserTest, StoppedStreamHasNoPacketCutOff)
{
    const Bytes stream = PlainPackets(COUNT);
    tsmon::Packetiser packetiser;
    tsmon::PacketBlock block;
    packetiser.Push(stream.data(), stream.size() - 50, block);
    packetiser.Stop(block);
    EXPECT_EQ(block.Count(), COUNT - 1);
    EXPECT_EQ(packetiser.Counts().packets, COUNT - 1);
    EXPECT_EQ(packetiser.Counts().Damaged(), 0U);
}

TEST(PacketiserTest, LostSyncByteCostsItsPacketOnly)
{
    const Bytes sound = PlainPackets(COUNT);
    for (std::size_t damaged = 0; damaged < COUNT; ++damaged) {
        Bytes stream = sound;
        stream[damaged * PACKET_SIZE] ^= 0xFF;
        const CutStream result = Cut(stream);
        EXPECT_EQ(result.packets, PacketsWithout(sound, damaged, 1)) << damaged;
        EXPECT_EQ(result.counts.lostSync, 1U) << damaged;
        EXPECT_EQ(result.counts.Damaged(), 1U) << damaged;
    }
}

TEST(PacketiserTest, TwoLostSyncBytesInARowCostTheirPacketsOnly)
{
    const Bytes sound = PlainPackets(COUNT);
    for (std::size_t damaged = 0; damaged + 1 < COUNT; ++damaged) {
        Bytes stream = sound;
        stream[damaged * PACKET_SIZE] = NO_SYNC;
        stream[(damaged + 1) * PACKET_SIZE] = NO_SYNC;
        const CutStream result = Cut(stream);
        EXPECT_EQ(result.packets, PacketsWithout(sound, damaged, 2)) << damaged;
        EXPECT_EQ(result.counts.Damaged(), 2U) << damaged;
    }
}

TEST(PacketiserTest, EveryThirdSyncByteMayBeLost)
{
    Bytes stream = PlainPackets(30);
    for (std::size_t packet = 2; packet < 30; packet += 3) {
        stream[packet * PACKET_SIZE] = NO_SYNC;
    }
    const CutStream result = Cut(stream);
    EXPECT_EQ(result.counts.packets, 20U);
    EXPECT_EQ(result.counts.lostSync, 10U);
}

TEST(PacketiserTest, LostSyncByteBetweenPayloadsOfSyncBytesCostsItsPacketOnly)
{
    Bytes sound = PlainPackets(COUNT);
    for (std::size_t index = 0; index < sound.size(); ++index) {
        sound[index] = index % PACKET_SIZE < 4 ? sound[index] : tsmon::SYNC_BYTE;
    }
    Bytes stream = sound;
    stream[9 * PACKET_SIZE] = NO_SYNC;
    const CutStream result = Cut(stream);
    EXPECT_EQ(result.packets, PacketsWithout(sound, 9, 1));
    EXPECT_EQ(result.counts.Damaged(), 1U);
}

TEST(PacketiserTest, ByteAddedAtAnyOffsetCostsItsPacketOnly)
{
    const Bytes sound = PlainPackets(COUNT);
    for (std::size_t offset = 1; offset <= PACKET_SIZE; ++offset) {
        const CutStream result = Cut(WithInserted(sound, 10 * PACKET_SIZE + offset, 1));
        EXPECT_EQ(result.packets, PacketsWithout(sound, 10, 1)) << offset;
        EXPECT_EQ(result.counts.Damaged(), 1U) << offset;
    }
}

TEST(PacketiserTest, ByteMissingAtAnyOffsetCostsItsPacketOnly)
{
    const Bytes sound = PlainPackets(COUNT);
    for (std::size_t offset = 1; offset < PACKET_SIZE; ++offset) {
        const CutStream result = Cut(WithRemoved(sound, 10 * PACKET_SIZE + offset, 1));
        EXPECT_EQ(result.packets, PacketsWithout(sound, 10, 1)) << offset;
        EXPECT_EQ(result.counts.Damaged(), 1U) << offset;
    }
}

// Without its sync byte the packet cannot be told from the end of the one before.
TEST(PacketiserTest, MissingSyncByteCostsThePacketBeforeToo)
{
    const Bytes sound = PlainPackets(COUNT);
    const CutStream result = Cut(WithRemoved(sound, 10 * PACKET_SIZE, 1));
    EXPECT_EQ(result.packets, PacketsWithout(sound, 9, 2));
    EXPECT_EQ(result.counts.Damaged(), 2U);
}

TEST(PacketiserTest, AnyNumberOfBytesMayBeMissingFromAPacket)
{
    const Bytes sound = PlainPackets(COUNT);
    for (std::size_t count = 1; count < PACKET_SIZE; ++count) {
        const CutStream result = Cut(WithRemoved(sound, 10 * PACKET_SIZE + 1, count));
        EXPECT_EQ(result.packets, PacketsWithout(sound, 10, 1)) << count;
        EXPECT_EQ(result.counts.Damaged(), 1U) << count;
    }
}

TEST(PacketiserTest, DamageInAnyPacketIsCountedAndTheRestIsRead)
{
    const Bytes sound = PlainPackets(COUNT);
    for (std::size_t damaged = 0; damaged + 1 < COUNT; ++damaged) {
        for (const bool added : {false, true}) {
            const std::size_t position = damaged * PACKET_SIZE + 100;
            const CutStream result =
                Cut(added ? WithInserted(sound, position, 5) : WithRemoved(sound, position, 5));
            EXPECT_EQ(result.counts.packets + result.counts.Damaged(), COUNT) << damaged;
            EXPECT_GE(result.counts.Damaged(), 1U) << damaged;
            EXPECT_LE(result.counts.Damaged(), 2U) << damaged;
        }
    }
}

TEST(PacketiserTest, BurstOfLostPacketsIsCountedInPackets)
{
    const Bytes sound = PlainPackets(40);
    for (std::size_t burst = 1; burst <= 20; ++burst) {
        Bytes stream = sound;
        std::fill_n(stream.begin() + 10 * PACKET_SIZE, burst * PACKET_SIZE, NO_SYNC);
        const CutStream result = Cut(stream);
        EXPECT_EQ(result.packets, PacketsWithout(sound, 10, burst)) << burst;
        EXPECT_EQ(result.counts.lostSync, burst) << burst;
    }
}

TEST(PacketiserTest, ForeignBytesBeforeTheFirstPacketAreSkippedAndCounted)
{
    const Bytes sound = PlainPackets(COUNT);
    for (std::size_t foreign = 1; foreign <= 3 * PACKET_SIZE; ++foreign) {
        const CutStream result = Cut(Bytes(foreign, NO_SYNC) + sound);
        const std::uint64_t lost =
            std::max<std::size_t>(1, (foreign + PACKET_SIZE / 2) / PACKET_SIZE);
        EXPECT_EQ(result.packets, sound) << foreign;
        EXPECT_EQ(result.counts.Damaged(), lost) << foreign;
    }
}

// One random byte in 256 is a sync byte, and where it stands a packet before the first one, nothing
// tells it from a packet.
TEST(PacketiserTest, RandomBytesBeforeTheFirstPacketAreSkipped)
{
    const Bytes sound = PlainPackets(COUNT);
    for (unsigned int seed = 1; seed <= 20; ++seed) {
        const Bytes packets = Cut(RandomBytes(5000 + seed, seed) + sound).packets;
        ASSERT_GE(packets.size(), sound.size()) << "seed " << seed;
        ASSERT_LE(packets.size(), sound.size() + PACKET_SIZE) << "seed " << seed;
        const std::size_t extra = packets.size() / PACKET_SIZE - COUNT;
        EXPECT_EQ(PacketsOf(packets, extra, COUNT), sound) << "seed " << seed;
    }
}

TEST(PacketiserTest, StreamThatEndsInsideAPacketHasOneTruncatedPacket)
{
    const Bytes sound = PlainPackets(COUNT);
    for (std::size_t missing = 1; missing < PACKET_SIZE; ++missing) {
        const CutStream result = Cut(WithRemoved(sound, sound.size() - missing, missing));
        EXPECT_EQ(result.packets, PacketsOf(sound, 0, COUNT - 1)) << missing;
        EXPECT_EQ(result.counts.truncated, 1U) << missing;
        EXPECT_EQ(result.counts.Damaged(), 1U) << missing;
    }
}

TEST(PacketiserTest, ForeignBytesBehindTheLastPacketAreCounted)
{
    const Bytes sound = PlainPackets(COUNT);
    const CutStream result = Cut(sound + Bytes(2 * PACKET_SIZE + 1, NO_SYNC));
    EXPECT_EQ(result.packets, sound);
    EXPECT_EQ(result.counts.Damaged(), 3U);
}

TEST(PacketiserTest, PacketsMarkedAsBrokenAreCountedAndNotHandedOn)
{
    const Bytes sound = PlainPackets(COUNT);
    Bytes stream = sound;
    stream[7 * PACKET_SIZE + 1] |= 0x80;
    const CutStream result = Cut(stream);
    EXPECT_EQ(result.packets, PacketsWithout(sound, 7, 1));
    EXPECT_EQ(result.counts.transportErrors, 1U);
    EXPECT_EQ(result.counts.Damaged(), 1U);
}

TEST(PacketiserTest, RandomBytesHoldNoPackets)
{
    for (unsigned int seed = 1; seed <= 20; ++seed) {
        EXPECT_EQ(Cut(RandomBytes(100000, seed)).counts.packets, 0U) << "seed " << seed;
    }
}

TEST(PacketiserTest, TextThatBeginsWithTheSyncByteHoldsNoPackets)
{
    std::string text = "Go on, ";
    while (text.size() < 3000) {
        text += "and on, as texts do when they mean no harm. ";
    }
    EXPECT_EQ(Cut(Bytes(text.begin(), text.end())).counts.packets, 0U);
}

TEST(PacketiserTest, RandomDamageGivesTheSameHoweverTheStreamArrives)
{
    for (unsigned int seed = 1; seed <= 100; ++seed) {
        std::mt19937 random(seed);
        Bytes stream = PlainPackets(60);
        for (int damage = 0; damage < 6; ++damage) {
            const std::size_t position = random() % (stream.size() - 200);
            const std::size_t size = 1 + random() % 150;
            stream = random() % 2 == 0 ? WithInserted(stream, position, size)
                                       : WithRemoved(stream, position, size);
        }
        const CutStream whole = Cut(stream, stream.size());
        const CutStream pieces = Cut(stream, 1 + random() % 400);
        EXPECT_EQ(pieces.packets, whole.packets) << "seed " << seed;
        EXPECT_EQ(pieces.counts.Damaged(), whole.counts.Damaged()) << "seed " << seed;
        EXPECT_GT(whole.counts.packets, 30U) << "seed " << seed;
        EXPECT_GT(whole.counts.Damaged(), 0U) << "seed " << seed;
    }
}

} // namespace
