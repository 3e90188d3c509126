#include "PcrClock.h"

#include <gtest/gtest.h>

#include "Packet.h"
#include "StreamBuilder.h"

namespace {

using made::Bytes;
using made::PcrPacket;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::seconds;
using tsmon::Pacer;
using tsmon::PcrClock;

constexpr std::uint16_t PID = 0x101;
constexpr std::uint16_t OTHER_PID = 0x102;
constexpr std::uint64_t SECOND = 27 * 1000 * 1000;
constexpr std::uint64_t RANGE = (UINT64_C(1) << 33) * 300;

bool Push(PcrClock& clock, std::uint64_t ticks, std::uint16_t pid = PID, bool jump = false)
{
    return clock.Push(PcrPacket(pid, ticks, jump).data());
}

TEST(PcrTest, ReferenceIsReadToTheTick)
{
    for (const std::uint64_t ticks : {UINT64_C(0), UINT64_C(299), UINT64_C(300), SECOND + 123,
                                      (UINT64_C(1) << 32) * 300, RANGE - 1}) {
        EXPECT_EQ(tsmon::PcrOf(PcrPacket(PID, ticks).data()), ticks);
    }
}

TEST(PcrTest, PacketWithoutAReferenceHasNone)
{
    EXPECT_FALSE(tsmon::PcrOf(made::PlainPackets(1).data()));
    Bytes packet = PcrPacket(PID, SECOND);
    packet[5] = 0;
    EXPECT_FALSE(tsmon::PcrOf(packet.data())) << "without its flag";
    packet = PcrPacket(PID, SECOND);
    packet[4] = 6;
    EXPECT_FALSE(tsmon::PcrOf(packet.data())) << "the field is too short for it";
    packet = PcrPacket(PID, SECOND);
    packet[3] = 0x10;
    EXPECT_FALSE(tsmon::PcrOf(packet.data())) << "there is no field at all";
}

TEST(PcrTest, ExtensionOutOfItsRangeStaysInsideTheUnit)
{
    Bytes packet = PcrPacket(PID, 300);
    packet[10] |= 0x01;
    packet[11] = 0xFF;
    EXPECT_EQ(tsmon::PcrOf(packet.data()), 599U);
}

TEST(PcrClockTest, ClockBeginsWithTheFirstReference)
{
    PcrClock clock;
    EXPECT_FALSE(clock.IsRunning());
    EXPECT_FALSE(clock.Push(made::PlainPackets(1).data()));
    EXPECT_FALSE(clock.IsRunning());
    EXPECT_TRUE(Push(clock, 77 * SECOND));
    EXPECT_TRUE(clock.IsRunning());
    EXPECT_EQ(clock.Time(), seconds(0));
}

TEST(PcrClockTest, TimeIsTheDistanceFromTheFirstReference)
{
    PcrClock clock;
    Push(clock, 77 * SECOND);
    Push(clock, 77 * SECOND + 27);
    EXPECT_EQ(clock.Time(), microseconds(1));
    Push(clock, 78 * SECOND);
    EXPECT_EQ(clock.Time(), seconds(1));
}

TEST(PcrClockTest, FractionsOfMicrosecondsAddUp)
{
    PcrClock clock;
    for (std::uint64_t ticks = 0; ticks <= 2700; ticks += 10) {
        Push(clock, ticks);
    }
    EXPECT_EQ(clock.Time(), microseconds(100));
}

TEST(PcrClockTest, ReferencesMayBeginAnew)
{
    PcrClock clock;
    Push(clock, RANGE - SECOND);
    Push(clock, SECOND);
    EXPECT_EQ(clock.Time(), seconds(2));
}

TEST(PcrClockTest, JumpsLeaveTheTimeAsItIs)
{
    PcrClock clock;
    Push(clock, 10 * SECOND);
    Push(clock, 11 * SECOND);
    Push(clock, 5 * SECOND);
    EXPECT_EQ(clock.Time(), seconds(1)) << "backwards";
    Push(clock, 5000 * SECOND);
    EXPECT_EQ(clock.Time(), seconds(1)) << "far forwards";
    Push(clock, 5002 * SECOND, PID, true);
    EXPECT_EQ(clock.Time(), seconds(1)) << "announced";
    Push(clock, 5003 * SECOND);
    EXPECT_EQ(clock.Time(), seconds(2)) << "and goes on from there";
}

TEST(PcrClockTest, OnlyOnePidIsFollowed)
{
    PcrClock clock;
    Push(clock, 10 * SECOND);
    EXPECT_FALSE(Push(clock, 12 * SECOND, OTHER_PID));
    EXPECT_EQ(clock.Time(), seconds(0));
    EXPECT_TRUE(Push(clock, 11 * SECOND));
    EXPECT_EQ(clock.Time(), seconds(1));
}

TEST(PcrClockTest, AnotherPidTakesOverFromASilentOne)
{
    PcrClock clock;
    Push(clock, 10 * SECOND);
    std::uint64_t ticks = 500 * SECOND;
    bool followed = false;
    for (int count = 0; count < 200 && !followed; ++count) {
        ticks += SECOND;
        followed = Push(clock, ticks, OTHER_PID);
    }
    ASSERT_TRUE(followed);
    EXPECT_EQ(clock.Time(), seconds(0));
    EXPECT_TRUE(Push(clock, ticks + SECOND, OTHER_PID));
    EXPECT_EQ(clock.Time(), seconds(1));
}

TEST(PacerTest, StreamIsHeldToItsOwnTime)
{
    Pacer pacer;
    const Pacer::TimePoint start{seconds(1000)};
    EXPECT_TRUE(pacer.IsDue(seconds(7), start)) << "the first call sets the pace";
    EXPECT_FALSE(pacer.IsDue(seconds(8), start + milliseconds(999)));
    EXPECT_TRUE(pacer.IsDue(seconds(8), start + seconds(1)));
    EXPECT_FALSE(pacer.IsDue(seconds(9), start + milliseconds(1999)));
}

TEST(PacerTest, SmallLagIsCaughtUpOn)
{
    Pacer pacer;
    const Pacer::TimePoint start{seconds(1000)};
    pacer.IsDue(seconds(0), start);
    EXPECT_TRUE(pacer.IsDue(seconds(1), start + milliseconds(1900)));
    EXPECT_TRUE(pacer.IsDue(milliseconds(1900), start + milliseconds(1900)));
}

TEST(PacerTest, LongLagIsNotCaughtUpOn)
{
    Pacer pacer;
    const Pacer::TimePoint start{seconds(1000)};
    pacer.IsDue(seconds(0), start);
    EXPECT_TRUE(pacer.IsDue(seconds(1), start + seconds(60)));
    EXPECT_FALSE(pacer.IsDue(seconds(2), start + milliseconds(60999)));
    EXPECT_TRUE(pacer.IsDue(seconds(2), start + seconds(61)));
}

TEST(PacerTest, RestartedPaceBeginsWithTheNextCall)
{
    Pacer pacer;
    const Pacer::TimePoint start{seconds(1000)};
    pacer.IsDue(seconds(0), start);
    pacer.Restart();
    EXPECT_TRUE(pacer.IsDue(seconds(3), start + milliseconds(1)));
    EXPECT_FALSE(pacer.IsDue(seconds(4), start + seconds(1)));
    EXPECT_TRUE(pacer.IsDue(seconds(4), start + milliseconds(1001)));
}

} // namespace
