#include "Packet.h"

#include <gtest/gtest.h>

#include "StreamBuilder.h"

namespace {

using made::Bytes;

Bytes PacketWithHeader(std::uint8_t second, std::uint8_t third, std::uint8_t fourth)
{
    Bytes packet(tsmon::PACKET_SIZE, 0xFF);
    packet[0] = tsmon::SYNC_BYTE;
    packet[1] = second;
    packet[2] = third;
    packet[3] = fourth;
    return packet;
}

TEST(PacketTest, PidIsTheLowThirteenBits)
{
    EXPECT_EQ(tsmon::PidOf(PacketWithHeader(0xFF, 0xFF, 0).data()), 0x1FFF);
    EXPECT_EQ(tsmon::PidOf(PacketWithHeader(0xF0, 0x11, 0).data()), 0x1011);
    EXPECT_EQ(tsmon::PidOf(PacketWithHeader(0xE0, 0x00, 0).data()), 0x0000);
}

TEST(PacketTest, TransportErrorIsTheFirstBit)
{
    EXPECT_TRUE(tsmon::HasTransportError(PacketWithHeader(0x80, 0, 0).data()));
    EXPECT_FALSE(tsmon::HasTransportError(PacketWithHeader(0x7F, 0, 0).data()));
}

TEST(PacketTest, OnlyAPayloadIsScrambled)
{
    EXPECT_TRUE(tsmon::IsScrambled(PacketWithHeader(0, 0, 0x90).data()));
    EXPECT_TRUE(tsmon::IsScrambled(PacketWithHeader(0, 0, 0xD0).data()));
    EXPECT_FALSE(tsmon::IsScrambled(PacketWithHeader(0, 0, 0x10).data()));
    EXPECT_FALSE(tsmon::IsScrambled(PacketWithHeader(0, 0, 0xE0).data()));
}

TEST(PacketTest, PayloadNeedsItsFlag)
{
    EXPECT_TRUE(tsmon::HasSoundPayload(PacketWithHeader(0, 0, 0x10).data()));
    EXPECT_FALSE(tsmon::HasSoundPayload(PacketWithHeader(0, 0, 0x00).data()));
    EXPECT_FALSE(tsmon::HasSoundPayload(PacketWithHeader(0, 0, 0x20).data()));
}

TEST(PacketTest, PayloadMustBeginInsideThePacket)
{
    Bytes packet = PacketWithHeader(0, 0, 0x30);
    packet[4] = 182;
    EXPECT_TRUE(tsmon::HasSoundPayload(packet.data()));
    packet[4] = 183;
    EXPECT_FALSE(tsmon::HasSoundPayload(packet.data()));
    packet[4] = 255;
    EXPECT_FALSE(tsmon::HasSoundPayload(packet.data()));
}

TEST(PacketTest, SectionPointerMustStayInsideThePacket)
{
    Bytes packet = PacketWithHeader(0x40, 0, 0x10);
    packet[4] = 182;
    EXPECT_TRUE(tsmon::HasSoundPayload(packet.data()));
    packet[4] = 183;
    EXPECT_FALSE(tsmon::HasSoundPayload(packet.data()));
}

TEST(PacketTest, BlockKeepsPacketsInOrder)
{
    const Bytes packets = made::PlainPackets(3);
    tsmon::PacketBlock block;
    for (std::size_t index = 0; index < 3; ++index) {
        block.Append(packets.data() + index * tsmon::PACKET_SIZE);
    }
    ASSERT_EQ(block.Count(), 3U);
    EXPECT_EQ(Bytes(block.Packet(0), block.Packet(0) + packets.size()), packets);
    block.Clear();
    EXPECT_EQ(block.Count(), 0U);
}

TEST(PacketTest, UnitBeginsInAPayloadThatSaysSo)
{
    EXPECT_TRUE(tsmon::BeginsUnit(PacketWithHeader(0x40, 0, 0x10).data()));
    EXPECT_FALSE(tsmon::BeginsUnit(PacketWithHeader(0x00, 0, 0x10).data()));
    EXPECT_FALSE(tsmon::BeginsUnit(PacketWithHeader(0x40, 0, 0x20).data()));
    EXPECT_FALSE(tsmon::BeginsUnit(PacketWithHeader(0x40, 0, 0x30).data())) << "outside the packet";
}

TEST(PacketTest, ElementaryUnitBeginsWithItsStartCode)
{
    Bytes packet = PacketWithHeader(0x40, 0, 0x10);
    EXPECT_FALSE(tsmon::BeginsElementaryUnit(packet.data()));
    packet[4] = 0;
    packet[5] = 0;
    packet[6] = 1;
    EXPECT_TRUE(tsmon::BeginsElementaryUnit(packet.data()));
    packet[6] = 2;
    EXPECT_FALSE(tsmon::BeginsElementaryUnit(packet.data()));
}

TEST(PacketTest, StartCodeStandsBehindTheAdaptationField)
{
    Bytes packet = PacketWithHeader(0x40, 0, 0x30);
    packet[4] = 180;
    packet[185] = 0;
    packet[186] = 0;
    packet[187] = 1;
    EXPECT_TRUE(tsmon::BeginsElementaryUnit(packet.data()));
    packet[4] = 181;
    EXPECT_FALSE(tsmon::BeginsElementaryUnit(packet.data())) << "cut off by the packet's end";
}

} // namespace
