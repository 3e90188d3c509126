#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Layout.h"
#include "MultiQTask.h"
#include "TaskSupport.h"

// The numbers that queues and tasks keep for tools, read where a tool finds them: at the end of
// their objects.

namespace {

using namespace zortest;

struct QueueNumbers
{
    std::uint64_t puts;
    std::uint64_t refused;
    std::uint64_t peak;

    bool operator==(const QueueNumbers& other) const
    {
        return puts == other.puts && refused == other.refused && peak == other.peak;
    }
};

void PrintTo(const QueueNumbers& numbers, std::ostream* stream)
{
    *stream << numbers.puts << " puts, " << numbers.refused << " refused, peak " << numbers.peak;
}

/// The writers must be quiet: this is no atomic access.
QueueNumbers NumbersOf(const TCQueue& queue)
{
    constexpr std::size_t RING_END = 80 + 256 * sizeof(TSEvent);
    return {FieldAt<std::uint64_t>(queue, RING_END), FieldAt<std::uint64_t>(queue, RING_END + 8),
            FieldAt<std::uint64_t>(queue, RING_END + 16)};
}

struct InHand
{
    std::uint64_t count;
    const TCHandler* receiver;
    unsigned long type;

    bool operator==(const InHand& other) const
    {
        return count == other.count && receiver == other.receiver && type == other.type;
    }
};

void PrintTo(const InHand& hand, std::ostream* stream)
{
    *stream << hand.count << " handled, type " << hand.type << " of " << hand.receiver;
}

/// On the task's thread, or when that is quiet.
InHand HandOf(const TCTask& task)
{
    constexpr std::size_t AT = sizeof(TCTask) - sizeof(zor::HandledEvents);
    return {FieldAt<std::uint64_t>(task, AT), FieldAt<const TCHandler*>(task, AT + 8),
            FieldAt<unsigned long>(task, AT + 16)};
}

TEST(QueueNumbersTest, PutsAndPeakAreThoseOfWhatWasQueued)
{
    TCQueue queue;
    ASSERT_TRUE(queue.Create());
    EXPECT_EQ(NumbersOf(queue), (QueueNumbers{0, 0, 0}));
    TSEvent event;
    for (const bool priority : {false, true, false}) {
        ASSERT_TRUE(queue.Put(&event, priority));
    }
    EXPECT_EQ(NumbersOf(queue), (QueueNumbers{3, 0, 3}));
    TSEvent taken;
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(queue.GetQData(&taken));
    }
    ASSERT_TRUE(queue.Put(&event, false));
    EXPECT_EQ(NumbersOf(queue), (QueueNumbers{4, 0, 3}));
    queue.Destroy();
}

TEST(QueueNumbersTest, APutThatIsRefusedIsCountedAsSuchOnly)
{
    TCQueue queue;
    ASSERT_TRUE(queue.Create());
    TSEvent event;
    for (int i = 0; i < 240; ++i) {
        ASSERT_TRUE(queue.Put(&event, false));
    }
    EXPECT_FALSE(queue.Put(&event, false));
    EXPECT_FALSE(queue.PutSync(&event, true, false));
    EXPECT_EQ(NumbersOf(queue), (QueueNumbers{240, 2, 240}));
    for (int i = 0; i < 16; ++i) {
        ASSERT_TRUE(queue.Put(&event, true));
    }
    EXPECT_FALSE(queue.Put(&event, true));
    EXPECT_EQ(NumbersOf(queue), (QueueNumbers{256, 3, 256}));
    queue.Destroy();
}

TEST(QueueNumbersTest, PutsUnderTheQueuesOwnLockAreCounted)
{
    TCQueue queue;
    ASSERT_TRUE(queue.Create());
    queue.Lock();
    TSEvent event;
    EXPECT_TRUE(queue.Put(&event, false));
    queue.Unlock();
    EXPECT_EQ(NumbersOf(queue), (QueueNumbers{1, 0, 1}));
    queue.Destroy();
}

TEST(QueueNumbersTest, DeletionsChangeNone)
{
    TCQueue queue;
    ASSERT_TRUE(queue.Create());
    FunctionHandler receiver([](const TSEvent*) { return true; });
    TSEvent event = EventTo(&receiver);
    ASSERT_TRUE(queue.Put(&event, false));
    ASSERT_TRUE(queue.Delete(&receiver, nullptr));
    EXPECT_EQ(NumbersOf(queue), (QueueNumbers{1, 0, 1}));
    queue.Destroy();
}

TEST(QueueNumbersTest, StartAnewWithCreate)
{
    TCQueue queue;
    ASSERT_TRUE(queue.Create());
    TSEvent event;
    ASSERT_TRUE(queue.Put(&event, false));
    queue.Destroy();
    ASSERT_TRUE(queue.Create());
    EXPECT_EQ(NumbersOf(queue), (QueueNumbers{0, 0, 0}));
    queue.Destroy();
}

TEST(QueueNumbersTest, NoPutOfManyThreadsIsLost)
{
    constexpr int THREADS = 4;
    constexpr std::uint64_t TRIES = 5000;

    TCQueue queue;
    ASSERT_TRUE(queue.Create());
    std::atomic<std::uint64_t> queued{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&] {
            TSEvent event;
            for (std::uint64_t n = 0; n < TRIES; ++n) {
                queued += queue.Put(&event, false) ? 1 : 0;
            }
        });
    }
    threads.emplace_back([&] {
        TSEvent taken;
        for (std::uint64_t n = 0; n < TRIES; ++n) {
            queue.GetQData(&taken);
        }
    });
    for (auto& thread : threads) {
        thread.join();
    }
    const QueueNumbers numbers = NumbersOf(queue);
    EXPECT_EQ(numbers.puts, queued);
    EXPECT_EQ(numbers.puts + numbers.refused, THREADS * TRIES);
    EXPECT_LE(numbers.peak, 240u);
    queue.Destroy();
}

TEST(QueueNumbersTest, AreInNoLineOfTheCacheWithTheTasksHandler)
{
    const TCTask task;
    const auto address = [](const void* object) {
        return reinterpret_cast<std::uintptr_t>(object);
    };
    const std::uintptr_t puts =
        address(static_cast<const TCQueue*>(&task)) + 80 + 256 * sizeof(TSEvent);
    EXPECT_GE(address(static_cast<const TCHandler*>(&task)) - puts, 64u);
}

TEST(HandledEventsTest, TheEventInHandIsTheOneThatIsHandled)
{
    const TaskRuntime runtime;
    TestTask task;
    ASSERT_TRUE(task.Start());
    InHand found{};
    FunctionHandler handler(
        [&](const TSEvent*) {
            found = HandOf(task);
            return true;
        },
        &task);
    TSEvent event = EventTo(&handler, 4711);
    ASSERT_TRUE(TCTask::Send(&event, true, false));
    EXPECT_EQ(found, (InHand{0, &handler, 4711}));
    // The reply brings what was written before it.
    EXPECT_EQ(HandOf(task), (InHand{1, nullptr, 4711}));
    EXPECT_TRUE(RunOn(&task, [&] { handler.Destroy(); }));
}

TEST(HandledEventsTest, AnInnerEventTakesTheOutersPlaceMeanwhile)
{
    const TaskRuntime runtime;
    TestTask task;
    ASSERT_TRUE(task.Start());
    std::vector<InHand> found;
    FunctionHandler inner(
        [&](const TSEvent*) {
            found.push_back(HandOf(task));
            return true;
        },
        &task);
    FunctionHandler outer(
        [&](const TSEvent*) {
            found.push_back(HandOf(task));
            EXPECT_TRUE(Post(&inner, 2));
            EXPECT_TRUE(task.ExecuteEvent());
            found.push_back(HandOf(task));
            return true;
        },
        &task);
    TSEvent event = EventTo(&outer, 1);
    ASSERT_TRUE(TCTask::Send(&event, true, false));
    ASSERT_EQ(found.size(), 3u);
    EXPECT_EQ(found[0], (InHand{0, &outer, 1}));
    EXPECT_EQ(found[1], (InHand{0, &inner, 2}));
    EXPECT_EQ(found[2], (InHand{1, &outer, 1}));
    EXPECT_EQ(HandOf(task).count, 2u);
    EXPECT_TRUE(RunOn(&task, [&] {
        inner.Destroy();
        outer.Destroy();
    }));
}

/// A task that survives what its handlers throw.
class ForgivingTask : public TestTask
{
 public:
    ~ForgivingTask() override { End(); } // the thread runs through the turn that is overridden here

    bool ExecuteEvent() override
    {
        try {
            return TCTask::ExecuteEvent();
        } catch (const std::runtime_error&) {
            return true;
        }
    }
};

TEST(HandledEventsTest, NothingIsInHandBehindAnException)
{
    const TaskRuntime runtime;
    ForgivingTask task;
    task.onUser = [](const TSEvent*) -> bool { throw std::runtime_error("thrown"); };
    ASSERT_TRUE(task.Start());
    ASSERT_TRUE(Post(&task));
    InHand found{};
    FunctionHandler reader(
        [&](const TSEvent*) {
            found = HandOf(task);
            return true;
        },
        &task);
    TSEvent event = EventTo(&reader, 10);
    ASSERT_TRUE(TCTask::Send(&event, true, false));
    EXPECT_EQ(found, (InHand{1, &reader, 10}));
    EXPECT_TRUE(RunOn(&task, [&] { reader.Destroy(); }));
}

TEST(HandledEventsTest, AnIdleTaskHasNothingInHand)
{
    const TaskRuntime runtime;
    TestTask task;
    Gate idle;
    InHand found{1, nullptr, 1};
    task.onIdle = [&] {
        found = HandOf(task);
        idle.Pass();
    };
    ASSERT_TRUE(task.Start("task", 1));
    ASSERT_TRUE(idle.Wait());
    task.End();
    EXPECT_EQ(found, (InHand{0, nullptr, 0}));
}

TEST(HandledEventsTest, ATaskOfSeveralQueuesCountsThoseOfAll)
{
    const TaskRuntime runtime;
    TCMultiQTask task;
    ASSERT_TRUE(task.Create("several", 100, 65536, 3, 0));
    for (const unsigned int queue : {2u, 0u, 1u}) {
        TSEvent event = EventTo(&task, TCTask::EVENT_USER);
        ASSERT_TRUE(TCMultiQTask::Send(&event, true, false, queue));
    }
    EXPECT_EQ(HandOf(task), (InHand{3, nullptr, TCTask::EVENT_USER}));
    ASSERT_TRUE(Post(&task, TCTask::EVENT_EXIT));
    task.Destroy();
}

TEST(HandledEventsTest, CountFromZeroAgainWithCreate)
{
    const TaskRuntime runtime;
    TestTask task;
    ASSERT_TRUE(task.Start());
    ASSERT_TRUE(Flush(&task));
    task.End();
    EXPECT_GT(HandOf(task).count, 0u);
    ASSERT_TRUE(task.Start());
    EXPECT_TRUE(RunOn(&task, [&] { EXPECT_EQ(HandOf(task).count, 0u); }));
}

} // namespace
