#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <memory>
#include <thread>
#include <type_traits>
#include <vector>

#include "AllocationSeam.h"
#include "ConditionSeams.h"
#include "ConsoleSeam.h"
#include "Layout.h"
#include "MutexSeams.h"
#include "Thread.h"
#include "Wait.h"

namespace {

using namespace zortest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr unsigned long FOR_EVER = ~0UL;
constexpr std::size_t STATE_OFFSET = 8;

class SemaphoreTest : public ::testing::Test
{
 protected:
    ~SemaphoreTest() override
    {
        if (m_semaphore.FlagCreate()) {
            m_semaphore.Destroy();
        }
    }

    /// Takes all units that are there.
    static int Drain(TCSemaphore* semaphore)
    {
        int units = 0;
        while (semaphore->Try(0)) {
            ++units;
        }
        return units;
    }

    /// Notes the state of a semaphore that is about to lose it, so that it is not taken for a leak.
    static void KeepInSight(const TCSemaphore& semaphore)
    {
        static auto* const states = new std::vector<void*>;
        states->push_back(FieldAt<void*>(semaphore, STATE_OFFSET));
    }

    TCSemaphore m_semaphore;
};

TEST_F(SemaphoreTest, IsCreatedFromCreateToDestroy)
{
    EXPECT_FALSE(m_semaphore.FlagCreate());
    EXPECT_TRUE(m_semaphore.Create(0));
    EXPECT_TRUE(m_semaphore.FlagCreate());
    m_semaphore.Destroy();
    EXPECT_FALSE(m_semaphore.FlagCreate());
}

TEST_F(SemaphoreTest, StartsWithTheGivenCount)
{
    ASSERT_TRUE(m_semaphore.Create(3));
    EXPECT_EQ(Drain(&m_semaphore), 3);
}

TEST_F(SemaphoreTest, NegativeCountIsMadeGoodByGives)
{
    ASSERT_TRUE(m_semaphore.Create(-2));
    m_semaphore.Give();
    m_semaphore.Give();
    EXPECT_FALSE(m_semaphore.Try(0));
    m_semaphore.Give();
    EXPECT_TRUE(m_semaphore.Try(0));
}

TEST_F(SemaphoreTest, CanBeCreatedAgainAfterDestroy)
{
    ASSERT_TRUE(m_semaphore.Create(5));
    m_semaphore.Destroy();
    ASSERT_TRUE(m_semaphore.Create(1));
    EXPECT_EQ(Drain(&m_semaphore), 1);
}

TEST_F(SemaphoreTest, ConditionIsOfTheMonotonicClock)
{
    const ConditionWatch watch;
    ASSERT_TRUE(m_semaphore.Create(0));
    EXPECT_THAT(watch.Clocks(), ElementsAre(CLOCK_MONOTONIC));
}

TEST_F(SemaphoreTest, DestroyDestroysTheCondition)
{
    const ConditionWatch watch;
    ASSERT_TRUE(m_semaphore.Create(0));
    EXPECT_THAT(watch.Destroyed(), IsEmpty());
    m_semaphore.Destroy();
    EXPECT_THAT(watch.Destroyed(), ElementsAre(0));
}

TEST_F(SemaphoreTest, CreateFailsWithoutMemory)
{
    const ConditionWatch watch;
    {
        const FailingAllocation noMemory(0);
        EXPECT_FALSE(m_semaphore.Create(1));
    }
    EXPECT_FALSE(m_semaphore.FlagCreate());
    EXPECT_EQ(watch.Made(), 0);
    EXPECT_TRUE(m_semaphore.Create(1));
}

TEST_F(SemaphoreTest, CreateFailsWithoutACondition)
{
    {
        const ConditionWatch watch(0);
        EXPECT_FALSE(m_semaphore.Create(1));
        EXPECT_THAT(watch.Destroyed(), IsEmpty());
    }
    EXPECT_FALSE(m_semaphore.FlagCreate());
    EXPECT_TRUE(m_semaphore.Create(1));
}

TEST_F(SemaphoreTest, CreateFailsWithoutTheConditionsAttributes)
{
    const ConditionWatch watch;
    {
        const Takeover attributes(condattrInitSeam, [](pthread_condattr_t*) { return ENOMEM; });
        EXPECT_FALSE(m_semaphore.Create(1));
    }
    EXPECT_FALSE(m_semaphore.FlagCreate());
    EXPECT_EQ(watch.Made(), 0);
    EXPECT_TRUE(m_semaphore.Create(1));
}

TEST_F(SemaphoreTest, CreateDestroysTheConditionsAttributesAlsoWhenItFails)
{
    int made = 0;
    int destroyed = 0;
    const Takeover init(condattrInitSeam, [&](pthread_condattr_t* attributes) {
        ++made;
        return condattrInitSeam.Real(attributes);
    });
    const Takeover destroy(condattrDestroySeam, [&](pthread_condattr_t* attributes) {
        ++destroyed;
        return condattrDestroySeam.Real(attributes);
    });
    {
        const ConditionWatch watch(0);
        EXPECT_FALSE(m_semaphore.Create(1));
    }
    EXPECT_EQ(destroyed, 1);
    EXPECT_TRUE(m_semaphore.Create(1));
    EXPECT_EQ(made, 2);
    EXPECT_EQ(destroyed, 2);
}

TEST_F(SemaphoreTest, TryZeroNeitherWaitsNorReadsTheClock)
{
    ASSERT_TRUE(m_semaphore.Create(0));
    std::atomic<int> calls{0};
    const Takeover clock(clockGettimeSeam, [&](clockid_t id, timespec* now) {
        ++calls;
        return clockGettimeSeam.Real(id, now);
    });
    const Takeover wait(condTimedwaitSeam, [&](pthread_cond_t*, pthread_mutex_t*, const timespec*) {
        ++calls;
        return ETIMEDOUT;
    });
    EXPECT_FALSE(m_semaphore.Try(0));
    EXPECT_EQ(calls, 0);
}

TEST_F(SemaphoreTest, TryZeroTakesAUnitThatIsThere)
{
    ASSERT_TRUE(m_semaphore.Create(1));
    EXPECT_TRUE(m_semaphore.Try(0));
    EXPECT_FALSE(m_semaphore.Try(0));
}

TEST_F(SemaphoreTest, TryWithAUnitThereDoesNotReadTheClock)
{
    ASSERT_TRUE(m_semaphore.Create(1));
    const Takeover clock(clockGettimeSeam, [](clockid_t, timespec*) { return -1; });
    EXPECT_TRUE(m_semaphore.Try(1500));
    EXPECT_EQ(Drain(&m_semaphore), 0);
}

TEST_F(SemaphoreTest, TakeWaitsForAUnit)
{
    const ConditionWatch watch;
    ASSERT_TRUE(m_semaphore.Create(0));
    std::atomic<bool> taken{false};
    std::thread taker([&] {
        m_semaphore.Take();
        taken = true;
    });
    EXPECT_TRUE(Eventually([&] { return watch.WaitedFor(0); }));
    EXPECT_FALSE(taken);
    m_semaphore.Give();
    taker.join();
    EXPECT_TRUE(taken);
    EXPECT_EQ(Drain(&m_semaphore), 0);
}

TEST_F(SemaphoreTest, TakeWaitsAgainAfterAWakeUpWithoutAUnit)
{
    ASSERT_TRUE(m_semaphore.Create(0));
    int waits = 0;
    const Takeover wait(condWaitSeam, [&](pthread_cond_t*, pthread_mutex_t* mutex) {
        if (++waits == 3) {
            pthread_mutex_unlock(mutex);
            m_semaphore.Give();
            pthread_mutex_lock(mutex);
        }
        return 0;
    });
    m_semaphore.Take();
    EXPECT_EQ(waits, 3);
    EXPECT_EQ(Drain(&m_semaphore), 0);
}

TEST_F(SemaphoreTest, TryAllOnesWaitsLikeTake)
{
    const ConditionWatch watch;
    ASSERT_TRUE(m_semaphore.Create(0));
    std::atomic<int> timedWaits{0};
    const Takeover wait(condTimedwaitSeam, [&](pthread_cond_t*, pthread_mutex_t*, const timespec*) {
        ++timedWaits;
        return ETIMEDOUT;
    });
    std::atomic<bool> result{false};
    std::thread taker([&] { result = m_semaphore.Try(FOR_EVER); });
    EXPECT_TRUE(Eventually([&] { return watch.WaitedFor(0); }));
    EXPECT_FALSE(result);
    m_semaphore.Give();
    taker.join();
    EXPECT_TRUE(result);
    EXPECT_EQ(timedWaits, 0);
    EXPECT_EQ(Drain(&m_semaphore), 0);
}

TEST_F(SemaphoreTest, TryTakesAUnitGivenWhileItWaits)
{
    ASSERT_TRUE(m_semaphore.Create(0));
    Gate waiting;
    const Takeover wait(condTimedwaitSeam, [&](pthread_cond_t* condition, pthread_mutex_t* mutex,
                                               const timespec* deadline) {
        if (!IsInside(mutex, waiting)) { // the gate may wait by the same call
            waiting.Pass();
        }
        return condTimedwaitSeam.Real(condition, mutex, deadline);
    });
    std::atomic<bool> result{false};
    // Twice, should the first deadline be the one in a million that is refused.
    std::thread taker([&] { result = m_semaphore.Try(60000) || m_semaphore.Try(60000); });
    EXPECT_TRUE(waiting.Wait());
    m_semaphore.Give();
    taker.join();
    EXPECT_TRUE(result);
    EXPECT_EQ(Drain(&m_semaphore), 0);
}

TEST_F(SemaphoreTest, GiveSignalsOneWaiterEachTime)
{
    const ConditionWatch watch;
    ASSERT_TRUE(m_semaphore.Create(0));
    Gate waiting(2);
    const Takeover wait(condTimedwaitSeam, [&](pthread_cond_t* condition, pthread_mutex_t* mutex,
                                               const timespec* deadline) {
        if (!IsInside(mutex, waiting)) { // the gate may wait by the same call
            waiting.Pass();
        }
        return condTimedwaitSeam.Real(condition, mutex, deadline);
    });
    std::atomic<int> signals{0};
    const Takeover signal(condSignalSeam, [&](pthread_cond_t* condition) {
        ++signals;
        return condSignalSeam.Real(condition);
    });
    std::atomic<int> released{0};
    const auto take = [&] {
        while (!m_semaphore.Try(600000)) {
        }
        ++released;
    };
    std::thread first(take);
    std::thread second(take);
    EXPECT_TRUE(waiting.Wait());
    EXPECT_EQ(released, 0);

    m_semaphore.Give();
    EXPECT_EQ(signals, 1);
    EXPECT_TRUE(Eventually([&] { return released == 1; }));
    m_semaphore.Give();
    EXPECT_EQ(signals, 2);
    first.join();
    second.join();
    EXPECT_EQ(released, 2);
}

TEST_F(SemaphoreTest, TakerIsWokenWhenTheOtherSemaphoresAreFree)
{
    const ConditionWatch watch;
    ASSERT_TRUE(m_semaphore.Create(0));
    TCSemaphore other;
    ASSERT_TRUE(other.Create(0));
    std::atomic<bool> given{false};
    std::thread user;
    const Takeover signal(condSignalSeam, [&](pthread_cond_t* condition) {
        user = std::thread([&] {
            other.Give();
            given = true;
        });
        EXPECT_TRUE(Eventually([&] { return given.load(); }));
        return condSignalSeam.Real(condition);
    });
    std::thread taker([this] { m_semaphore.Take(); });
    EXPECT_TRUE(Eventually([&] { return watch.WaitedFor(0); }));
    m_semaphore.Give();
    taker.join();
    user.join();
    other.Destroy();
}

TEST_F(SemaphoreTest, TakerMayDestroyItAsSoonAsItIsReleased)
{
    constexpr int ROUNDS = 20000;
    std::atomic<TCSemaphore*> offered{nullptr};
    std::atomic<bool> done{false};
    std::thread giver([&] {
        while (!done) {
            if (TCSemaphore* semaphore = offered.exchange(nullptr)) {
                semaphore->Give();
            } else {
                std::this_thread::yield();
            }
        }
    });
    for (int round = 0; round < ROUNDS; ++round) {
        auto semaphore = std::make_unique<TCSemaphore>();
        ASSERT_TRUE(semaphore->Create(0));
        offered = semaphore.get();
        semaphore->Take();
        semaphore->Destroy();
    }
    done = true;
    giver.join();
}

TEST_F(SemaphoreTest, NoUnitIsLostOrMadeUpAmongEightThreads)
{
    constexpr int THREADS = 8;
    constexpr int ROUNDS = 100000;
    constexpr int UNITS = 3;
    ASSERT_TRUE(m_semaphore.Create(UNITS));
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([this] {
            for (int round = 0; round < ROUNDS; ++round) {
                m_semaphore.Take();
                m_semaphore.Give();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(Drain(&m_semaphore), UNITS);
}

TEST_F(SemaphoreTest, GiversReleaseAsManyTakers)
{
    constexpr int PAIRS = 4;
    constexpr int ROUNDS = 20000;
    ASSERT_TRUE(m_semaphore.Create(0));
    std::vector<std::thread> threads;
    for (int i = 0; i < PAIRS; ++i) {
        threads.emplace_back([this] {
            for (int round = 0; round < ROUNDS; ++round) {
                m_semaphore.Give();
            }
        });
        threads.emplace_back([this] {
            for (int round = 0; round < ROUNDS; ++round) {
                while (!m_semaphore.Try(1000)) {
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(Drain(&m_semaphore), 0);
}

using SemaphoreDeathTest = SemaphoreTest;

TEST_F(SemaphoreDeathTest, OperationsBeforeCreateAssert)
{
    EXPECT_ASSERT_DEATH(m_semaphore.Take(), "FlagCreate() == true");
    EXPECT_ASSERT_DEATH(m_semaphore.Try(0), "FlagCreate() == true");
    EXPECT_ASSERT_DEATH(m_semaphore.Try(FOR_EVER), "FlagCreate() == true");
    EXPECT_ASSERT_DEATH(m_semaphore.Give(), "FlagCreate() == true");
    EXPECT_ASSERT_DEATH(m_semaphore.Destroy(), "FlagCreate() == true");
}

TEST_F(SemaphoreDeathTest, OperationsAfterDestroyAssert)
{
    ASSERT_TRUE(m_semaphore.Create(1));
    m_semaphore.Destroy();
    EXPECT_ASSERT_DEATH(m_semaphore.Take(), "FlagCreate() == true");
    EXPECT_ASSERT_DEATH(m_semaphore.Destroy(), "FlagCreate() == true");
}

TEST_F(SemaphoreDeathTest, SecondCreateAsserts)
{
    ASSERT_TRUE(m_semaphore.Create(0));
    EXPECT_ASSERT_DEATH(m_semaphore.Create(0), "FlagCreate() == false");
}

TEST_F(SemaphoreDeathTest, DestructionWithoutDestroyAsserts)
{
    EXPECT_ASSERT_DEATH(
        {
            TCSemaphore semaphore;
            semaphore.Create(0);
        },
        "FlagCreate() == false");
}

TEST_F(SemaphoreTest, SecondCreateGoesOnInARelease)
{
    ASSERT_TRUE(m_semaphore.Create(1));
    KeepInSight(m_semaphore);
    EXPECT_THAT(AssertionsOf([this] { EXPECT_TRUE(m_semaphore.Create(4)); }),
                ElementsAre("FlagCreate() == false"));
    EXPECT_EQ(Drain(&m_semaphore), 4);
}

TEST_F(SemaphoreTest, DestructorOnlyChecks)
{
    const ConditionWatch watch;
    auto semaphore = std::make_unique<TCSemaphore>();
    ASSERT_TRUE(semaphore->Create(0));
    KeepInSight(*semaphore);
    EXPECT_THAT(AssertionsOf([&] { semaphore.reset(); }), ElementsAre("FlagCreate() == false"));
    EXPECT_THAT(watch.Destroyed(), IsEmpty());
    EXPECT_THAT(AssertionsOf([] { TCSemaphore neverCreated; }), IsEmpty());
}

TEST_F(SemaphoreTest, FailedAssertionIsReportedWithItsFileAndAPause)
{
    const ConsoleCapture console;
    {
        TCSemaphore semaphore;
        semaphore.Create(0);
        KeepInSight(semaphore);
    }
    EXPECT_THAT(console.Text(), ::testing::HasSubstr("Assertion failed: src/Semaphore.cpp ("));
    EXPECT_THAT(console.Pauses(), ElementsAre(100UL));
}

TEST(SemaphoreLayoutTest, IsAVirtualTableAndOnePointer)
{
    static_assert(sizeof(TCSemaphore) == 16);
    static_assert(std::has_virtual_destructor_v<TCSemaphore>);
    EXPECT_EQ(SlotOf(&TCSemaphore::Destroy), 2u);

    TCSemaphore semaphore;
    EXPECT_EQ(FieldAt<void*>(semaphore, STATE_OFFSET), nullptr);
    ASSERT_TRUE(semaphore.Create(0));
    EXPECT_NE(FieldAt<void*>(semaphore, STATE_OFFSET), nullptr);
    semaphore.Destroy();
    EXPECT_EQ(FieldAt<void*>(semaphore, STATE_OFFSET), nullptr);
}

} // namespace
