#include "History.h"

#include <gtest/gtest.h>

#include "Snapshots.h"

// What follows from two looks: rates, times, and circles.

namespace {

using namespace zortop;
using namespace zortest;

TEST(HistoryTest, TheFirstLookHasNoRates)
{
    History history;
    const Report report = history.Next(LookAt(1, {Task("Scan")}));
    EXPECT_FALSE(report.sinceSec);
    EXPECT_FALSE(report.tasks[0].eventsPerSec);
    EXPECT_FALSE(report.tasks[0].cpuShare);
    EXPECT_FALSE(report.tasks[0].busyShare);
}

TEST(HistoryTest, RatesAreOfTheTimeSinceTheLookBefore)
{
    History history;
    Snapshot first = LookAt(1, {Task("Scan", 7, 100)});
    first.threads[7].cpuNsec = 1000000000;
    history.Next(first);
    Snapshot second = LookAt(3, {Task("Scan", 7, 150)});
    second.threads[7].cpuNsec = 1500000000;
    second.tasks[0].queues[0].refused = 4;
    const Report report = history.Next(second);
    EXPECT_DOUBLE_EQ(*report.sinceSec, 2);
    EXPECT_DOUBLE_EQ(*report.tasks[0].eventsPerSec, 25);
    EXPECT_DOUBLE_EQ(*report.tasks[0].cpuShare, 0.25);
    EXPECT_EQ(report.tasks[0].refusedNow, 4u);
    EXPECT_EQ(history.Next(LookAt(4, second.tasks)).tasks[0].refusedNow, 0u);
}

TEST(HistoryTest, BusyIsTheShareOfGlancesWithAnEventInHand)
{
    History history;
    history.Next(LookAt(1, {Task("Scan")}));
    history.Glance({true});
    history.Glance({false});
    history.Glance({true});
    const Report report = history.Next(LookAt(2, {Handling("Scan", 5)})); // the fourth
    EXPECT_DOUBLE_EQ(*report.tasks[0].busyShare, 0.75);
}

TEST(HistoryTest, GlancesAtOtherTasksCountForNobody)
{
    History history;
    history.Next(LookAt(1, {Task("Scan")}));
    history.Glance({true, true});
    EXPECT_DOUBLE_EQ(*history.Next(LookAt(2, {Task("Scan")})).tasks[0].busyShare, 0);
}

TEST(HistoryTest, AnEventIsInHandSinceTheLookThatFoundItFirst)
{
    History history;
    history.Next(LookAt(1, {Task("Scan")}));
    EXPECT_DOUBLE_EQ(*history.Next(LookAt(2, {Handling("Scan", 5)})).tasks[0].inHandSec, 0);
    const Report report = history.Next(LookAt(5, {Handling("Scan", 5)}));
    EXPECT_DOUBLE_EQ(*report.tasks[0].inHandSec, 3);
    EXPECT_FALSE(report.tasks[0].isAtLeast);
}

TEST(HistoryTest, WhatWasInHandAtTheFirstLookMayHaveBeenSoBefore)
{
    History history;
    history.Next(LookAt(1, {Handling("Scan", 5)}));
    const Report report = history.Next(LookAt(2, {Handling("Scan", 5)}));
    EXPECT_DOUBLE_EQ(*report.tasks[0].inHandSec, 1);
    EXPECT_TRUE(report.tasks[0].isAtLeast);
}

TEST(HistoryTest, TheSameEventOnceMoreIsAnotherOne)
{
    History history;
    history.Next(LookAt(1, {Handling("Scan", 5, 10)}));
    EXPECT_DOUBLE_EQ(*history.Next(LookAt(4, {Handling("Scan", 5, 11)})).tasks[0].inHandSec, 0);
}

TEST(HistoryTest, ASendThatTheHandlerMakesSaysHowLongItHasRun)
{
    History history;
    Snapshot look = LookAt(1, {Handling("Scan", 5)});
    look.tickMsec = 10000;
    look.calls.push_back(Call(look.tasks[0], look.tasks[0], 7500));
    const Report report = history.Next(look);
    EXPECT_DOUBLE_EQ(*report.tasks[0].inHandSec, 2.5);
    EXPECT_TRUE(report.tasks[0].isAtLeast);
}

TEST(HistoryTest, ATickThatHasGoneRoundIsStillATime)
{
    Snapshot look = LookAt(1, {});
    look.tickMsec = 500;
    SyncCall call;
    call.startTickMsec = 0xFFFFFFFF - 499;
    EXPECT_DOUBLE_EQ(SecondsOf(call, look), 1.0);
    call.startTickMsec = 510; // it has begun after the clock was read
    EXPECT_DOUBLE_EQ(SecondsOf(call, look), 0);
}

TEST(HistoryTest, NumbersThatFallAreOfAnotherTask)
{
    History history;
    history.Next(LookAt(1, {Task("Scan", 7, 100)}));
    EXPECT_FALSE(history.Next(LookAt(2, {Task("Scan", 7, 3)})).tasks[0].eventsPerSec);
}

TEST(HistoryTest, AnotherThreadMeansAnotherTask)
{
    History history;
    history.Next(LookAt(1, {Task("Scan", 7, 100)}));
    EXPECT_FALSE(history.Next(LookAt(2, {Task("Scan", 8, 200)})).tasks[0].eventsPerSec);
}

TEST(HistoryTest, ItSleepsOnEventsIfItDidSoAtBothLooks)
{
    History history;
    Snapshot look = LookAt(1, {Task("Scan")});
    look.tasks[0].queues[0].depth = 2;
    EXPECT_FALSE(history.Next(look).tasks[0].sleepsOnEvents);
    look.atNsec += 1;
    EXPECT_TRUE(history.Next(look).tasks[0].sleepsOnEvents);
    look.tasks[0].handled = 1; // it has worked meanwhile
    EXPECT_FALSE(history.Next(look).tasks[0].sleepsOnEvents);
    look.threads[look.tasks[0].thread].wait.kind = Wait::NOTHING;
    EXPECT_FALSE(history.Next(look).tasks[0].sleepsOnEvents);
}

/// Two tasks that wait for each other's replies.
Snapshot Deadlock(int sec)
{
    Snapshot look = LookAt(sec, {Handling("Scan", 1, 0, 7), Handling("Store", 2, 0, 8)});
    look.tickMsec = static_cast<std::uint32_t>(sec) * 1000;
    look.calls.push_back(Call(look.tasks[0], look.tasks[1], 0));
    look.calls.push_back(Call(look.tasks[1], look.tasks[0], 500));
    look.threads[7].wait.kind = Wait::REPLY;
    look.threads[8].wait.kind = Wait::REPLY;
    return look;
}

TEST(CirclesTest, ThreadsThatWaitForEachOtherAreOne)
{
    const auto circles = FindCircles(Deadlock(1), Deadlock(2));
    ASSERT_EQ(circles.size(), 1u);
    EXPECT_EQ(circles[0].names, (std::vector<std::string>{"Scan", "Store"}));
    EXPECT_EQ(circles[0].waits,
              (std::vector<std::string>{"Scan: synchronous send to Store, 2.0 s",
                                        "Store: synchronous send to Scan, 1.5 s"}));
}

TEST(CirclesTest, AThreadThatHasRunMeanwhileHasWaitedForSomethingElseToo)
{
    Snapshot later = Deadlock(2);
    ++later.threads[7].turns;
    EXPECT_TRUE(FindCircles(Deadlock(1), later).empty());
    later = Deadlock(2);
    ++later.threads[8].cpuNsec;
    EXPECT_TRUE(FindCircles(Deadlock(1), later).empty());
}

TEST(CirclesTest, OneLookIsNotEnough)
{
    Snapshot before = Deadlock(1);
    before.calls.pop_back();
    EXPECT_TRUE(FindCircles(before, Deadlock(2)).empty());
}

TEST(CirclesTest, ALockIsPartOfOne)
{
    const auto look = [](int sec) {
        Snapshot snapshot = Deadlock(sec);
        snapshot.calls.pop_back();
        Wait& wait = snapshot.threads[8].wait;
        wait.kind = Wait::LOCK;
        wait.what = "mutex 0x10";
        wait.holder = 7;
        return snapshot;
    };
    const auto circles = FindCircles(look(1), look(2));
    ASSERT_EQ(circles.size(), 1u);
    EXPECT_EQ(circles[0].waits[1], "Store: wants mutex 0x10, held by Scan");
}

TEST(CirclesTest, AThreadMayWaitForItself)
{
    const auto look = [](int sec) {
        Snapshot snapshot = LookAt(sec, {Handling("Scan", 1, 0, 7)});
        snapshot.threads[7].wait = {Wait::LOCK, "mutex 0x10", 7, {}};
        return snapshot;
    };
    const auto circles = FindCircles(look(1), look(2));
    ASSERT_EQ(circles.size(), 1u);
    EXPECT_EQ(circles[0].threads, (std::vector<pid_t>{7}));
}

TEST(CirclesTest, WhoLeadsIntoACircleIsNotInIt)
{
    const auto look = [](int sec) {
        Snapshot snapshot = Deadlock(sec);
        snapshot.tasks.push_back(Handling("Menu", 3, 0, 5));
        snapshot.threads[5].wait.kind = Wait::REPLY;
        snapshot.calls.push_back(Call(snapshot.tasks[2], snapshot.tasks[0], 0));
        return snapshot;
    };
    const auto circles = FindCircles(look(1), look(2));
    ASSERT_EQ(circles.size(), 1u);
    EXPECT_EQ(circles[0].names.size(), 2u);
}

} // namespace
