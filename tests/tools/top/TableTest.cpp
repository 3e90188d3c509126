#include "Table.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>

#include "History.h"
#include "Problem.h"
#include "Snapshots.h"
#include "Words.h"

// The report as lines: columns, order, filter, and words.

namespace {

using namespace zortop;
using namespace zortest;
using testing::ElementsAre;
using testing::HasSubstr;

Report Several()
{
    Snapshot before = LookAt(1, {Task("beta", 8), Task("Alpha", 9), Task("gamma", 7)});
    Snapshot now = before;
    now.atNsec += 1000000000;
    now.tasks[0].handled = 5;
    now.tasks[1].handled = 50;
    now.tasks[2].queues[0].depth = 3;
    History history;
    history.Next(before);
    return history.Next(now);
}

std::vector<std::string> Names(const Order& order)
{
    std::vector<std::string> names;
    for (const TaskReport& task : Selected(Several(), order)) {
        names.push_back(task.facts.name);
    }
    return names;
}

Order By(Column column, bool isReversed = false)
{
    return {column, isReversed, true, ""};
}

TEST(TableTest, UnsortedTasksStandInTheOrderOfTheirCreation)
{
    EXPECT_THAT(Names({}), ElementsAre("beta", "Alpha", "gamma"));
}

TEST(TableTest, NamesAreSortedFromAOnInAnyCase)
{
    EXPECT_THAT(Names(By(Column::TASK)), ElementsAre("Alpha", "beta", "gamma"));
    EXPECT_THAT(Names(By(Column::TASK, true)), ElementsAre("gamma", "beta", "Alpha"));
}

TEST(TableTest, NumbersAreSortedFromTheGreatestOn)
{
    EXPECT_THAT(Names(By(Column::EVENTS)), ElementsAre("Alpha", "beta", "gamma"));
    EXPECT_THAT(Names(By(Column::THREAD)), ElementsAre("Alpha", "beta", "gamma"));
    EXPECT_THAT(Names(By(Column::QUEUED)), ElementsAre("gamma", "beta", "Alpha"));
}

TEST(TableTest, FilterIsAPartOfTheNameInAnyCase)
{
    Order order;
    order.filter = "AM";
    EXPECT_THAT(Names(order), ElementsAre("gamma"));
    order.filter = "l";
    EXPECT_THAT(Names(order), ElementsAre("Alpha"));
}

TEST(TableTest, ColumnsAreFoundByTheirHeadings)
{
    for (std::size_t i = 0; i < COLUMNS; ++i) {
        Column found{};
        EXPECT_TRUE(FindColumn(TitleOf(static_cast<Column>(i)), &found));
        EXPECT_EQ(found, static_cast<Column>(i));
    }
    Column found{};
    EXPECT_TRUE(FindColumn("cpu", &found));
    EXPECT_EQ(found, Column::CPU);
    EXPECT_FALSE(FindColumn("colour", &found));
}

TEST(TableTest, HeadingAndCellsStandInColumns)
{
    const auto lines = Lines(Several(), By(Column::EVENTS), "title");
    EXPECT_EQ(lines[0].text, "title");
    EXPECT_EQ(lines[1].look, Line::HEAD);
    EXPECT_EQ(lines[1].text, "  TASK  THREAD CPU% BUSY% QUEUED PEAK EVENTS/Sv REFUSED STATE");
    EXPECT_EQ(lines[2].text, "  Alpha      9  0.0   0.0      0    0      50.0       0 idle");
}

TEST(TableTest, WhatDeservesALookComesFirstAndDeadlocksAreRed)
{
    Report report = Several();
    report.notices = {{Notice::DEADLOCK, "deadlock: A -> B -> A"}, {Notice::QUEUE, "full"}};
    const auto lines = Lines(report, {}, "title");
    EXPECT_EQ(lines[1].text, "! deadlock: A -> B -> A");
    EXPECT_EQ(lines[1].look, Line::RED);
    EXPECT_EQ(lines[2].look, Line::YELLOW);
    EXPECT_EQ(lines[3].look, Line::HEAD);
}

TEST(TableTest, TimersAlarmsAndRegistryStandBelow)
{
    Report report = Several();
    report.timers = {2, 1, 4, report.atNsec + 1500000000};
    report.alarms = {{5, "TCAlarm:a", report.atNsec + 500000000}, {6, "TCAlarm:b", std::nullopt}};
    report.registryHolder = "Scan";
    report.remarks = {"the timers keep changing"};
    std::string all;
    for (const Line& line : Lines(report, {}, "title")) {
        all += line.text + "\n";
    }
    EXPECT_THAT(all, HasSubstr("timers: 2 scheduled, next due in 1.5 s; 1 paused, 4 idle   "
                               "alarms: 2, 1 under way, next due in 0.5 s\n"
                               "registry: held by Scan\n"
                               "left out: the timers keep changing\n"));
}

TEST(WordsTest, TheRuntimesTypesAndThoseOfAFileHaveNames)
{
    InHand inHand{1, 2, true, "Tuner"};
    EXPECT_EQ(TypeWords(inHand, {}), "EVENT_PING");
    inHand.isOwn = false;
    EXPECT_EQ(TypeWords(inHand, {}), "2");
    EXPECT_EQ(TypeWords(inHand, {{2, "EV_ASK"}}), "2 (EV_ASK)");
}

TEST(WordsTest, AFileOfNamesHasRemarksAndNumbersOfAnyBase)
{
    const std::string path = testing::TempDir() + "zor-top-types";
    std::ofstream(path)
        << "# of the tuner\n101 EV_ASK\n\n0x10 EV_RUN # not 10\n010 EV_TEN\n0b11 EV_THREE\n";
    EXPECT_EQ(ReadTypeNames(path),
              (std::map<std::uint64_t, std::string>{
                  {101, "EV_ASK"}, {16, "EV_RUN"}, {10, "EV_TEN"}, {3, "EV_THREE"}}));
    std::ofstream(path) << "101 EV_ASK\nEV_RUN 100\n";
    try {
        ReadTypeNames(path);
        ADD_FAILURE() << "it was read";
    } catch (const Problem& problem) {
        EXPECT_EQ(problem.Code(), USAGE);
        EXPECT_THAT(problem.what(), HasSubstr("line 2: not a number and a name"));
    }
    std::remove(path.c_str());
    EXPECT_THROW(ReadTypeNames(path), Problem);
}

TEST(WordsTest, ATaskThatHasNoThreadHasEnded)
{
    Report report = Several();
    report.tasks[0].facts.thread = 0;
    EXPECT_EQ(StateWords(report.tasks[0], report), "ended");
    report.tasks[1].facts.isRunning = false;
    EXPECT_EQ(StateWords(report.tasks[1], report), "starting or ending");
}

} // namespace
