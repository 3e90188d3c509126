#include "Judge.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "History.h"
#include "Snapshots.h"

// What deserves a look, and in which words.

namespace {

using namespace zortop;
using namespace zortest;
using testing::ElementsAre;
using testing::IsEmpty;

/// The notices of the second of two looks.
std::vector<std::string> NoticesOf(const Snapshot& before, const Snapshot& now)
{
    History history;
    history.Next(before);
    Report report = history.Next(now);
    report.capacity = 256;
    std::vector<std::string> texts;
    for (const Notice& notice : Judge(report)) {
        texts.push_back(notice.text);
    }
    return texts;
}

TEST(JudgeTest, AnIdleProcessHasNothing)
{
    EXPECT_THAT(NoticesOf(LookAt(1, {Task("Scan")}), LookAt(100, {Task("Scan")})), IsEmpty());
}

TEST(JudgeTest, AHandlerOfOverASecond)
{
    const auto look = [](int sec) { return LookAt(sec, {Handling("Scan", 101)}); };
    EXPECT_THAT(NoticesOf(look(1), look(2)), IsEmpty());
    EXPECT_THAT(NoticesOf(look(1), look(3)),
                ElementsAre("Scan has been handling 101 of Tuner for at least 2.0 s"));
}

TEST(JudgeTest, APausedTasksThreadIsWhereItShouldBe)
{
    Snapshot before = LookAt(1, {Handling("Scan", 4)});
    before.tasks[0].isPaused = true;
    Snapshot now = before;
    now.atNsec += 9000000000;
    EXPECT_THAT(NoticesOf(before, now), IsEmpty());
}

TEST(JudgeTest, AQueueThatIsMoreThanThreeQuartersFull)
{
    Snapshot now = LookAt(2, {Task("Scan")});
    now.threads[7].wait.kind = Wait::NOTHING;
    now.tasks[0].queues[0].depth = 192;
    EXPECT_THAT(NoticesOf(LookAt(1, {Task("Scan")}), now), IsEmpty());
    now.tasks[0].queues[0].depth = 193;
    EXPECT_THAT(NoticesOf(LookAt(1, {Task("Scan")}), now),
                ElementsAre("the queue of Scan is nearly full: 193 of 256 events"));
    now.tasks[0].queues.insert(now.tasks[0].queues.begin(), QueueFacts());
    EXPECT_THAT(NoticesOf(LookAt(1, {Task("Scan")}), now),
                ElementsAre("queue 1 of Scan is nearly full: 193 of 256 events"));
}

TEST(JudgeTest, PutsThatWereRefusedSinceTheLookBefore)
{
    Snapshot before = LookAt(1, {Task("Scan")});
    before.tasks[0].queues[0].refused = 5;
    Snapshot now = LookAt(2, before.tasks);
    EXPECT_THAT(NoticesOf(before, now), IsEmpty());
    now.tasks[0].queues[0].refused = 6;
    EXPECT_THAT(NoticesOf(before, now),
                ElementsAre("Scan refused 1 event since the last look: its queue was full"));
}

TEST(JudgeTest, EventsThatWaitWhileTheirTaskSleeps)
{
    Snapshot before = LookAt(1, {Task("Scan")});
    before.tasks[0].queues[0].depth = 2;
    Snapshot now = LookAt(2, before.tasks);
    now.threads[7].wait = {Wait::LOCK, "the registry", 0, {}};
    EXPECT_THAT(NoticesOf(before, now),
                ElementsAre("2 events wait while Scan is waiting for the registry"));
    now.tasks[0].isPaused = true;
    now.tasks[0].queues[0].depth = 1;
    EXPECT_THAT(NoticesOf(before, now), ElementsAre("1 event waits while Scan is paused"));
}

TEST(JudgeTest, ATaskThatNobodyHasHeardOfForLongerThanItsWatchdogTime)
{
    Snapshot before = LookAt(1, {Task("Scan")});
    before.tasks[0].watchdogSec = 10;
    EXPECT_THAT(NoticesOf(before, LookAt(11, before.tasks)), IsEmpty());
    EXPECT_THAT(NoticesOf(before, LookAt(12, before.tasks)),
                ElementsAre("nobody has heard of Scan for 11.0 s, longer than its 10.0 s of "
                            "watchdog time"));
    Snapshot pinged = LookAt(12, before.tasks);
    pinged.tasks[0].handled = 1;
    EXPECT_THAT(NoticesOf(before, pinged), IsEmpty());
}

TEST(JudgeTest, ADeadlockComesFirst)
{
    const auto look = [](int sec) {
        Snapshot snapshot = LookAt(sec, {Handling("Scan", 1, 0, 7), Handling("Store", 2, 0, 8)});
        snapshot.threads[7].wait = {Wait::LOCK, "mutex 0x10", 8, {}};
        snapshot.threads[8].wait = {Wait::LOCK, "mutex 0x20", 7, {}};
        return snapshot;
    };
    const auto notices = NoticesOf(look(1), look(5));
    ASSERT_EQ(notices.size(), 3u);
    EXPECT_EQ(notices[0], "deadlock: Scan -> Store -> Scan");
    EXPECT_EQ(notices[1],
              "Scan has been handling 1 of Tuner for at least 4.0 s, waiting for "
              "mutex 0x10, held by Store");
}

} // namespace
