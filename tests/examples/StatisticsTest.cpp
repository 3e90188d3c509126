#include "Statistics.h"

#include <gtest/gtest.h>

#include "Packet.h"

namespace {

using tsmon::Figures;
using tsmon::Service;
using tsmon::StreamStatistics;

constexpr double BITS = 8.0 * tsmon::PACKET_SIZE;

/// Two seconds in which PID 0x100 had 100 packets, 0x101 had 101 and so on, and one error each.
StreamStatistics TwoSeconds()
{
    StreamStatistics statistics;
    statistics.time = std::chrono::seconds(2);
    for (std::uint16_t pid = 0x100; pid < 0x110; ++pid) {
        const std::uint64_t packets = 100U + (pid - 0x100U);
        statistics.pids[pid] = {packets + 5, packets, 1};
    }
    return statistics;
}

TEST(StatisticsTest, ServiceIsItsMapItsClockAndItsStreams)
{
    Service service;
    service.pmtPid = 0x100;
    service.map = tsmon::ProgramMap{1, 0, 0x101, {{0x102, 2, "", ""}, {0x103, 3, "", ""}}};
    const Figures figures = FiguresOf(TwoSeconds(), service);
    EXPECT_EQ(figures.packets, 4 * 5U + 100 + 101 + 102 + 103);
    EXPECT_EQ(figures.continuityErrors, 4U);
    EXPECT_DOUBLE_EQ(*figures.bitRate, (100 + 101 + 102 + 103) * BITS / 2);
}

TEST(StatisticsTest, StreamThatIsAlsoTheClockCountsOnce)
{
    Service service;
    service.map = tsmon::ProgramMap{1, 0, 0x102, {{0x102, 2, "", ""}}};
    EXPECT_DOUBLE_EQ(*FiguresOf(TwoSeconds(), service).bitRate, 102 * BITS / 2);
}

TEST(StatisticsTest, NullPacketsAreNoServicesClock)
{
    StreamStatistics statistics = TwoSeconds();
    statistics.pids[tsmon::NULL_PID] = {1000, 1000, 0};
    Service service;
    service.map = tsmon::ProgramMap{1, 0, tsmon::NULL_PID, {{0x102, 2, "", ""}}};
    EXPECT_DOUBLE_EQ(*FiguresOf(statistics, service).bitRate, 102 * BITS / 2);
}

TEST(StatisticsTest, PidThatHasNotComeHasTheRateZero)
{
    const Figures figures = FiguresOf(TwoSeconds(), std::uint16_t{0x500});
    EXPECT_EQ(figures.packets, 0U);
    EXPECT_DOUBLE_EQ(*figures.bitRate, 0);
}

TEST(StatisticsTest, DifferenceIsWhatHasBeenAdded)
{
    const StreamStatistics before = TwoSeconds();
    StreamStatistics added;
    added.counts.packets = 77;
    added.time = std::chrono::seconds(1);
    added.pids[0x101] = {10, 8, 2};
    added.pids[0x300] = {20, 18, 3};
    StreamStatistics after = before;
    after.Add(added);
    const StreamStatistics difference = after.Since(before);
    EXPECT_EQ(difference.counts.packets, 77U);
    EXPECT_EQ(difference.time, std::chrono::seconds(1));
    EXPECT_DOUBLE_EQ(*FiguresOf(difference, std::uint16_t{0x101}).bitRate, 8 * BITS);
    EXPECT_EQ(FiguresOf(difference, std::uint16_t{0x300}).packets, 20U);
    EXPECT_EQ(FiguresOf(difference, std::uint16_t{0x102}).packets, 0U);
    EXPECT_EQ(FiguresOfAll(difference).continuityErrors, 5U);
}

TEST(StatisticsTest, PartThatWasReadEarlierDoesNotTurnTheCountsBack)
{
    StreamStatistics later;
    later.counts.bytes = 2000;
    later.counts.packets = 10;
    StreamStatistics earlier;
    earlier.counts.bytes = 1000;
    earlier.counts.packets = 5;
    StreamStatistics sum;
    sum.Add(later);
    sum.Add(earlier);
    EXPECT_EQ(sum.counts.packets, 10U);
}

} // namespace
