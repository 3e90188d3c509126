#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "AllocationSeam.h"
#include "ConditionSeams.h"
#include "ConsoleSeam.h"
#include "QueueFixture.h"
#include "Wait.h"

namespace {

using namespace zortest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::uint32_t NORMAL_CAPACITY = 240;
constexpr std::uint32_t RESERVED = 16;
constexpr std::uint32_t CAPACITY = 256;

/// Its operation takes the first slot that the queue leaves.
class QueueWithAnOperation : public TCQueue
{
 public:
    virtual void Operation() {}
};

TEST(QueueLayoutTest, OperationsAreInOrder)
{
    EXPECT_TRUE((std::is_convertible_v<TCQueue*, TCMutex*>));
    EXPECT_TRUE(std::has_virtual_destructor_v<TCQueue>);
    EXPECT_EQ(SlotOf(&TCQueue::Destroy), 2u); // a destructor takes two
    EXPECT_EQ(SlotOf(&QueueWithAnOperation::Operation), 3u);
}

TEST(QueueLayoutTest, MutexComesFirst)
{
    TCQueue queue;
    EXPECT_EQ(static_cast<void*>(static_cast<TCMutex*>(&queue)), static_cast<void*>(&queue));
}

TEST(QueueLayoutTest, SizeIsThatOfTheFieldsOf256RecordsAndOfTheNumbers)
{
    EXPECT_EQ(sizeof(TCQueue), 80 + 256 * 128 + 64u); // and that of the numbers for tools
}

/// Whether no byte of a record in memory filled with 0xA5 has been written.
bool IsUntouched(const TSEvent& record)
{
    const auto* bytes = reinterpret_cast<const unsigned char*>(&record);
    return std::all_of(bytes, bytes + sizeof(record),
                       [](unsigned char byte) { return byte == 0xA5; });
}

TEST(QueueLayoutTest, RecordsAreTouchedOnlyWhenTheyAreUsed)
{
    const auto storage = std::make_unique<std::aligned_storage_t<sizeof(TCQueue)>>();
    memset(storage.get(), 0xA5, sizeof(TCQueue));
    asm volatile("" ::"r"(storage.get())
                 : "memory"); // the filling is looked at, so it must be done
    auto* queue = new (storage.get()) TCQueue;
    const QueueProbe probe(*queue);
    ASSERT_TRUE(queue->Create());
    const auto touched = [&] {
        std::vector<std::uint64_t> slots;
        for (std::uint64_t i = 0; i < CAPACITY; ++i) {
            if (!IsUntouched(probe.Slot(i))) {
                slots.push_back(i);
            }
        }
        return slots;
    };
    EXPECT_THAT(touched(), IsEmpty());

    TSEvent event;
    event.type = 1;
    ASSERT_TRUE(queue->Put(&event, false));
    ASSERT_TRUE(queue->Put(&event, true));
    ASSERT_TRUE(queue->Put(&event, true));
    ASSERT_TRUE(queue->Put(&event, false));
    EXPECT_THAT(touched(), ElementsAre(0, 1, 254, 255));
    TSEvent taken;
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(queue->GetQData(&taken));
    }
    ASSERT_TRUE(queue->Put(&event, true)); // into a record that has been used
    EXPECT_THAT(touched(), ElementsAre(0, 1, 254, 255));
    EXPECT_TRUE(probe.VacatedSlotsAreEmpty());
    queue->Destroy();
    queue->~TCQueue();
}

TEST(QueueLayoutTest, EveryRecordIsUsedInTheEndAndReleased)
{
    for (const bool priorityFirst : {false, true}) {
        TCQueue queue;
        const QueueProbe probe(queue);
        ASSERT_TRUE(queue.Create());
        const auto attachment = std::make_shared<ZORManagedEventData<int>>(1);
        TSEvent event;
        event.wrappedData = attachment;
        while (queue.Put(&event, priorityFirst)) {
        }
        while (queue.Put(&event, true)) {
        }
        EXPECT_EQ(probe.Count(), CAPACITY);
        event.wrappedData.reset();
        EXPECT_EQ(attachment.use_count(), static_cast<long>(CAPACITY) + 1);
        TSEvent taken;
        for (std::uint64_t i = 0; i < CAPACITY / 2; ++i) {
            ASSERT_TRUE(queue.GetQData(&taken));
            ASSERT_EQ(taken.wrappedData, attachment);
        }
        taken.wrappedData.reset();
        EXPECT_TRUE(probe.VacatedSlotsAreEmpty());
        EXPECT_EQ(attachment.use_count(), static_cast<long>(CAPACITY / 2) + 1);
        queue.Destroy();
    }
}

TEST_F(QueueTest, FieldsFollowTheQueue)
{
    EXPECT_NE(Probe().LockState(), nullptr);
    EXPECT_NE(Probe().CountState(), nullptr);
    PutAll(1, 3);
    EXPECT_EQ(Probe().Tail(), 3u);
    EXPECT_EQ(Probe().Head(), 0u);
    EXPECT_EQ(Probe().Count(), 3u);
    ASSERT_TRUE(Put(4, true));
    EXPECT_EQ(Probe().Tail(), 3u);
    EXPECT_EQ(Probe().Head(), 255u);
    EXPECT_EQ(Probe().Count(), 4u);
    EXPECT_EQ(Probe().Slot(255).param1, 4u);
    EXPECT_EQ(Probe().Slot(0).param1, 1u);
    EXPECT_EQ(Probe().Slot(2).param1, 3u);
}

TEST_F(QueueTest, IsCreatedFromCreateToDestroy)
{
    TCQueue queue;
    EXPECT_FALSE(queue.FlagCreate());
    EXPECT_TRUE(queue.Create());
    EXPECT_TRUE(queue.FlagCreate());
    queue.Destroy();
    EXPECT_FALSE(queue.FlagCreate());
}

TEST_F(QueueTest, IsEmptyAndHasNoUnitAfterCreate)
{
    EXPECT_EQ(m_queue.Size(), 0u);
    EXPECT_FALSE(m_queue.Try(0));
}

TEST_F(QueueTest, IsUnlockedAfterCreate)
{
    EXPECT_EQ(Probe().LockOwner(), 0u);
    std::thread([this] {
        m_queue.Lock();
        m_queue.Unlock();
    }).join();
}

/// What stops a semaphore from being created.
enum class Lack
{
    MEMORY,
    CONDITION,
};

class QueueCreateTest : public ::testing::TestWithParam<Lack>
{
 protected:
    /// Creates the queue while its semaphore @p number cannot be created.
    /// @return the numbers of the semaphores that were destroyed
    std::vector<int> CreateWithout(int number)
    {
        const bool memory = GetParam() == Lack::MEMORY;
        const ConditionWatch watch(memory ? ConditionWatch::NONE : number);
        const FailingAllocation noMemory(memory ? number : -1);
        EXPECT_FALSE(m_queue.Create());
        EXPECT_FALSE(m_queue.FlagCreate());
        EXPECT_EQ(QueueProbe(m_queue).LockState(), nullptr);
        return watch.Destroyed();
    }

    void ExpectCreateWorksNow()
    {
        EXPECT_TRUE(m_queue.Create());
        m_queue.Destroy();
    }

    TCQueue m_queue;
};

TEST_P(QueueCreateTest, FailsWithoutTheLock)
{
    EXPECT_THAT(CreateWithout(0), IsEmpty());
    ExpectCreateWorksNow();
}

TEST_P(QueueCreateTest, WithoutTheCountSemaphoreTheLockIsDestroyedAgain)
{
    EXPECT_THAT(CreateWithout(1), ElementsAre(0));
    ExpectCreateWorksNow();
}

INSTANTIATE_TEST_SUITE_P(LackOf, QueueCreateTest, ::testing::Values(Lack::MEMORY, Lack::CONDITION),
                         [](const auto& info) {
                             return info.param == Lack::MEMORY ? "Memory" : "Condition";
                         });

TEST_F(QueueTest, DestroyDestroysTheCountSemaphoreBeforeTheLock)
{
    const ConditionWatch watch;
    TCQueue queue;
    ASSERT_TRUE(queue.Create());
    queue.Destroy();
    EXPECT_THAT(watch.Destroyed(), ElementsAre(1, 0));
}

TEST_F(QueueTest, DestroyLeavesTheLockHeldByItsCaller)
{
    std::vector<pthread_t> owners;
    const Takeover watch(condDestroySeam, [&](pthread_cond_t* condition) {
        owners.push_back(Probe().LockOwner());
        return condDestroySeam.Real(condition);
    });
    m_queue.Destroy();
    EXPECT_THAT(owners, ElementsAre(pthread_self(), pthread_self()));
    EXPECT_EQ(Probe().LockOwner(), pthread_self());
    EXPECT_EQ(Probe().LockDepth(), 1);
}

TEST_F(QueueTest, DestroyWaitsUntilTheLockIsFree)
{
    const ConditionWatch watch;
    TCQueue queue;
    ASSERT_TRUE(queue.Create());
    queue.Lock();
    std::thread destroyer([&] { queue.Destroy(); });
    EXPECT_TRUE(Eventually([&] { return watch.WaitedFor(0); }));
    EXPECT_TRUE(queue.FlagCreate());
    queue.Unlock();
    destroyer.join();
    EXPECT_FALSE(queue.FlagCreate());
}

TEST_F(QueueTest, DestroyLeavesTheEventsInTheRing)
{
    PutAll(1, 3);
    m_queue.Destroy();
    EXPECT_EQ(Probe().Count(), 3u);
    EXPECT_EQ(Probe().Event(0).param1, 1u);
    EXPECT_EQ(Probe().Event(2).param1, 3u);
}

TEST_F(QueueTest, CreateAfterDestroyStartsWithAnEmptyAndUnlockedQueue)
{
    Rotate(5);
    PutAll(1, 3);
    m_queue.Destroy();
    ASSERT_TRUE(m_queue.Create());
    EXPECT_EQ(Probe().Tail(), 0u);
    EXPECT_EQ(Probe().Head(), 0u);
    EXPECT_EQ(Probe().Count(), 0u);
    EXPECT_FALSE(m_queue.Try(0));
    std::thread([this] { EXPECT_TRUE(Put(4)); }).join();
    EXPECT_THAT(Drain(), ElementsAre(4));
}

TEST_F(QueueTest, NormalPutIsRefusedAt240)
{
    PutAll(1, NORMAL_CAPACITY);
    EXPECT_FALSE(Put(NORMAL_CAPACITY + 1));
    EXPECT_EQ(m_queue.Size(), NORMAL_CAPACITY);
}

TEST_F(QueueTest, Behind240NormalEventsThereIsRoomFor16PriorityEvents)
{
    PutAll(1, NORMAL_CAPACITY);
    for (std::uint32_t i = 0; i < RESERVED; ++i) {
        EXPECT_TRUE(Put(1000 + i, true));
        EXPECT_FALSE(Put(2000 + i));
    }
    EXPECT_FALSE(Put(3000, true));
    EXPECT_EQ(m_queue.Size(), CAPACITY);
}

TEST_F(QueueTest, PriorityEventsAloneFill256Records)
{
    for (std::uint32_t i = 0; i < CAPACITY; ++i) {
        ASSERT_TRUE(Put(i, true));
    }
    EXPECT_FALSE(Put(CAPACITY, true));
    const std::vector<std::uint32_t> order = Drain();
    ASSERT_EQ(order.size(), CAPACITY);
    for (std::uint32_t i = 0; i < CAPACITY; ++i) {
        ASSERT_EQ(order[i], CAPACITY - 1 - i);
    }
}

TEST_F(QueueTest, PriorityEventsCountForTheRefusalOfNormalOnes)
{
    for (std::uint32_t i = 0; i < NORMAL_CAPACITY - 1; ++i) {
        ASSERT_TRUE(Put(i, true));
    }
    EXPECT_TRUE(Put(1000));
    EXPECT_FALSE(Put(1001));
}

TEST_F(QueueTest, OneEventTakenMakesRoomForOne)
{
    TSEvent event;
    PutAll(1, NORMAL_CAPACITY);
    ASSERT_TRUE(m_queue.Get(&event, 0UL));
    EXPECT_TRUE(Put(1000));
    EXPECT_FALSE(Put(1001));
    for (std::uint32_t i = 0; i < RESERVED; ++i) {
        ASSERT_TRUE(Put(2000 + i, true));
    }
    ASSERT_TRUE(m_queue.Get(&event, 0UL));
    EXPECT_TRUE(Put(3000, true));
    EXPECT_FALSE(Put(3001, true));
}

TEST_F(QueueTest, RefusedPutChangesNothing)
{
    PutAll(1, NORMAL_CAPACITY);
    EXPECT_FALSE(Put(1000));
    EXPECT_EQ(Probe().Count(), NORMAL_CAPACITY);
    EXPECT_EQ(Probe().Head(), 0u);
    EXPECT_EQ(Probe().Tail(), NORMAL_CAPACITY);
    EXPECT_EQ(Units(), static_cast<int>(NORMAL_CAPACITY));
    for (std::uint32_t i = 0; i < RESERVED; ++i) {
        ASSERT_TRUE(Put(2000 + i, true));
    }
    EXPECT_FALSE(Put(3000, true));
    EXPECT_EQ(Probe().Count(), CAPACITY);
    EXPECT_EQ(Probe().Head(), NORMAL_CAPACITY);
    EXPECT_EQ(Probe().Tail(), NORMAL_CAPACITY);
    EXPECT_EQ(Units(), static_cast<int>(CAPACITY));
}

TEST_F(QueueTest, RefusedPutReportsNothing)
{
    PutAll(1, NORMAL_CAPACITY);
    EXPECT_THAT(AssertionsOf([this] { Put(1000); }), IsEmpty());
}

TEST_F(QueueTest, NormalEventsAreHandledInTheOrderOfTheirPuts)
{
    PutAll(1, 5);
    EXPECT_THAT(Drain(), ElementsAre(1, 2, 3, 4, 5));
}

TEST_F(QueueTest, PriorityEventsOvertakeAndTheLastPutIsFirst)
{
    constexpr std::uint32_t A = 1;
    constexpr std::uint32_t B = 2;
    constexpr std::uint32_t C = 3;
    ASSERT_TRUE(Put(A, true));
    ASSERT_TRUE(Put(B, true));
    ASSERT_TRUE(Put(C));
    EXPECT_THAT(Drain(), ElementsAre(B, A, C));
}

TEST_F(QueueTest, PriorityEventOvertakesNormalOnesThatWereThereBefore)
{
    PutAll(1, 2);
    ASSERT_TRUE(Put(3, true));
    EXPECT_THAT(Drain(), ElementsAre(3, 1, 2));
}

TEST_F(QueueTest, EveryPutGivesOneUnit)
{
    PutAll(1, 3);
    ASSERT_TRUE(Put(4, true));
    EXPECT_EQ(Units(), 4);
}

TEST_F(QueueTest, PutIsPutSyncWithoutWaiting)
{
    TSEvent event = EventFor(&m_receiver, 1, 1);
    EXPECT_TRUE(m_queue.Put(&event, false));
    event.param1 = 2;
    EXPECT_TRUE(m_queue.PutSync(&event, false, true));
    EXPECT_THAT(Drain(), ElementsAre(2, 1));
}

/// The queue from every position that its head can have.
class QueueWrapTest : public QueueTest
{
 protected:
    /// Puts @p events events, each third one with priority, and notes the order expected of them.
    void PutMix(std::uint32_t events, std::mt19937* random)
    {
        for (std::uint32_t i = 0; i < events; ++i) {
            const std::uint32_t number = m_next++;
            const bool priority = (*random)() % 3 == 0;
            const std::size_t limit = priority ? CAPACITY : NORMAL_CAPACITY;
            ASSERT_EQ(Put(number, priority), m_expected.size() < limit);
            if (m_expected.size() >= limit) {
                continue;
            }
            if (priority) {
                m_expected.push_front(number);
            } else {
                m_expected.push_back(number);
            }
        }
    }

    void ExpectOldest(std::size_t events)
    {
        TSEvent event;
        for (std::size_t i = 0; i < events && !m_expected.empty(); ++i) {
            ASSERT_TRUE(m_queue.GetSync(&event, 0, false));
            ASSERT_EQ(event.param1, m_expected.front());
            m_expected.pop_front();
            ASSERT_TRUE(Probe().VacatedSlotsAreEmpty());
        }
    }

    std::uint32_t m_next = 1;
    std::deque<std::uint32_t> m_expected;
};

TEST_F(QueueWrapTest, NormalAndPriorityEventsKeepTheirOrderFromEveryStartOfTheHead)
{
    TCDebugPrintZOR::GetInstance()->SetAppName("a name that is too long for a short string");
    for (std::uint64_t start = 0; start < CAPACITY; ++start) {
        SCOPED_TRACE("head starts at " + std::to_string(start));
        m_queue.Destroy();
        ASSERT_TRUE(m_queue.Create());
        ASSERT_NO_FATAL_FAILURE(Rotate(start));
        ASSERT_EQ(Probe().Head(), start);
        std::mt19937 random(static_cast<std::uint32_t>(start));
        ASSERT_NO_FATAL_FAILURE(PutMix(20, &random));
        ASSERT_NO_FATAL_FAILURE(ExpectOldest(10));
        ASSERT_NO_FATAL_FAILURE(PutMix(60, &random));
        ASSERT_NO_FATAL_FAILURE(ExpectOldest(40));
        ASSERT_TRUE(Probe().IndicesAgree());
        ASSERT_NO_FATAL_FAILURE(ExpectOldest(CAPACITY));
        ASSERT_EQ(m_queue.Size(), 0u);
    }
}

TEST_F(QueueWrapTest, FullQueueKeepsItsOrderFromEveryStartOfTheHead)
{
    for (std::uint64_t start = 0; start < CAPACITY; ++start) {
        SCOPED_TRACE("head starts at " + std::to_string(start));
        m_queue.Destroy();
        ASSERT_TRUE(m_queue.Create());
        ASSERT_NO_FATAL_FAILURE(Rotate(start));
        std::mt19937 random(static_cast<std::uint32_t>(start));
        ASSERT_NO_FATAL_FAILURE(PutMix(330, &random));
        ASSERT_EQ(m_expected.size(), CAPACITY);
        ASSERT_EQ(Drain(), std::vector<std::uint32_t>(m_expected.begin(), m_expected.end()));
        m_expected.clear();
    }
}

TEST_F(QueueTest, LockIsRecursiveAcrossItsOperations)
{
    m_queue.Lock();
    TSEvent event;
    unsigned int number = 0;
    EXPECT_TRUE(Put(1));
    EXPECT_TRUE(PutFor(&m_other, 0, 2));
    EXPECT_TRUE(m_queue.Find(&m_other, &number));
    EXPECT_TRUE(m_queue.Delete(&m_other, &number));
    EXPECT_TRUE(m_queue.Get(&event, 0UL));
    EXPECT_EQ(m_queue.Size(), 0u);
    m_queue.Unlock();
    EXPECT_EQ(Probe().LockOwner(), 0u);
}

TEST_F(QueueTest, OtherThreadsWaitWhileTheLockIsHeld)
{
    const ConditionWatch watch;
    TCQueue queue;
    ASSERT_TRUE(queue.Create());
    queue.Lock();
    std::thread putter([&] {
        TSEvent event = EventFor(&m_receiver, 0, 1);
        EXPECT_TRUE(queue.Put(&event, false));
    });
    EXPECT_TRUE(Eventually([&] { return watch.WaitedFor(0); }));
    EXPECT_EQ(queue.Size(), 0u);
    queue.Unlock();
    putter.join();
    EXPECT_EQ(queue.Size(), 1u);
    queue.Destroy();
}

} // namespace
