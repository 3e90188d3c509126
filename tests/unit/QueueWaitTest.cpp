#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <ctime>
#include <thread>
#include <vector>

#include "ConditionSeams.h"
#include "QueueFixture.h"
#include "QueueSender.h"
#include "Wait.h"

namespace {

using namespace zortest;
using ::testing::ElementsAre;

constexpr int COUNT_SEMAPHORE = 1; // a queue makes its lock first

/// Time stands still for the thread that made this, and waiting times out at once.
class StandingClock
{
 public:
    StandingClock()
        : m_clock(clockGettimeSeam,
                  [thread = pthread_self()](clockid_t id, timespec* now) {
                      if (!pthread_equal(thread, pthread_self())) {
                          return clockGettimeSeam.Real(id, now);
                      }
                      *now = {1000, 0};
                      return 0;
                  }),
          m_wait(condTimedwaitSeam, [this, thread = pthread_self()](pthread_cond_t* condition,
                                                                    pthread_mutex_t* mutex,
                                                                    const timespec* deadline) {
              if (!pthread_equal(thread, pthread_self())) {
                  return condTimedwaitSeam.Real(condition, mutex, deadline);
              }
              m_waits.push_back((deadline->tv_sec - 1000) * 1000 + deadline->tv_nsec / 1000000);
              return ETIMEDOUT;
          })
    {}

    StandingClock(const StandingClock&) = delete;
    StandingClock& operator=(const StandingClock&) = delete;

    /// How long each wait so far would have lasted, in milliseconds.
    std::vector<long> Waits() const { return m_waits; }

 private:
    std::vector<long> m_waits;
    Takeover<int(clockid_t, timespec*)> m_clock;
    Takeover<int(pthread_cond_t*, pthread_mutex_t*, const timespec*)> m_wait;
};

/// The clock without its fractions of a second, some of which a wait refuses.
class WholeSeconds
{
 public:
    WholeSeconds()
        : m_clock(clockGettimeSeam, [](clockid_t id, timespec* now) {
              const int result = clockGettimeSeam.Real(id, now);
              now->tv_nsec = 0;
              return result;
          })
    {}

 private:
    Takeover<int(clockid_t, timespec*)> m_clock;
};

class QueueWaitTest : public QueueTest
{
 protected:
    QueueWaitTest() { m_event.param1 = UNTOUCHED; }

    TSEvent m_event;
};

TEST_F(QueueWaitTest, GetWithoutTimeOnAnEmptyQueueReturnsFalseAtOnce)
{
    const StandingClock clock;
    EXPECT_FALSE(m_queue.Get(&m_event, 0));
    EXPECT_FALSE(m_queue.GetSync(&m_event, 0, false));
    EXPECT_THAT(clock.Waits(), ElementsAre());
    EXPECT_EQ(m_event.param1, UNTOUCHED);
}

TEST_F(QueueWaitTest, GetWaitsAsLongAsItIsTold)
{
    const StandingClock clock;
    EXPECT_FALSE(m_queue.Get(&m_event, 250UL));
    EXPECT_FALSE(m_queue.GetSync(&m_event, 1500, false));
    EXPECT_FALSE(m_queue.GetSync(&m_event, 1, true));
    EXPECT_THAT(clock.Waits(), ElementsAre(250, 1500, 1));
}

TEST_F(QueueWaitTest, TimeOutLeavesTheCallersEvent)
{
    const StandingClock clock;
    m_event.appName = "name";
    m_event.setWrappedData(1);
    EXPECT_FALSE(m_queue.GetSync(&m_event, 10, false));
    EXPECT_EQ(m_event.param1, UNTOUCHED);
    EXPECT_EQ(m_event.appName, "name");
    EXPECT_NE(m_event.wrappedData, nullptr);
}

TEST_F(QueueWaitTest, GetTakesAnEventThatIsThereWithoutWaiting)
{
    const StandingClock clock;
    PutAll(1, 3);
    EXPECT_TRUE(m_queue.Get(&m_event, 0UL));
    EXPECT_TRUE(m_queue.Get(&m_event, 1000UL));
    EXPECT_TRUE(m_queue.Get(&m_event, FOR_EVER));
    EXPECT_EQ(m_event.param1, 3u);
    EXPECT_THAT(clock.Waits(), ElementsAre());
}

TEST_F(QueueWaitTest, GetTakesTheUnitOfItsEvent)
{
    PutAll(1, 2);
    EXPECT_TRUE(m_queue.Get(&m_event, 0UL));
    EXPECT_EQ(Units(), 1);
    EXPECT_TRUE(m_queue.GetSync(&m_event, 0, false));
    EXPECT_EQ(Units(), 0);
}

TEST_F(QueueWaitTest, GetForEverWaitsForAPut)
{
    const ConditionWatch watch;
    TCQueue queue;
    ASSERT_TRUE(queue.Create());
    std::thread consumer([&] { EXPECT_TRUE(queue.Get(&m_event, FOR_EVER)); });
    EXPECT_TRUE(Eventually([&] { return watch.WaitedFor(COUNT_SEMAPHORE); }));
    TSEvent event = EventFor(&m_receiver, 0, 1);
    EXPECT_TRUE(queue.Put(&event, false));
    consumer.join();
    EXPECT_EQ(m_event.param1, 1u);
    queue.Destroy();
}

TEST_F(QueueWaitTest, PutWakesAGetWhenTheOtherSemaphoresAreFree)
{
    const ConditionWatch watch;
    TCQueue queue;
    ASSERT_TRUE(queue.Create());
    std::atomic<bool> given{false};
    std::thread user;
    const Takeover signal(condSignalSeam, [&](pthread_cond_t* condition) {
        user = std::thread([&] {
            m_queue.Give();
            given = true;
        });
        EXPECT_TRUE(Eventually([&] { return given.load(); }));
        return condSignalSeam.Real(condition);
    });
    std::thread consumer([&] { EXPECT_TRUE(queue.Get(&m_event, FOR_EVER)); });
    EXPECT_TRUE(Eventually([&] { return watch.WaitedFor(COUNT_SEMAPHORE); }));
    TSEvent event = EventFor(&m_receiver, 0, 1);
    EXPECT_TRUE(queue.Put(&event, false));
    consumer.join();
    user.join();
    queue.Destroy();
}

TEST_F(QueueWaitTest, TimedGetIsEndedByAPut)
{
    std::atomic<bool> waiting{false};
    const WholeSeconds clock;
    const Takeover wait(condTimedwaitSeam, [&](pthread_cond_t* condition, pthread_mutex_t* mutex,
                                               const timespec* deadline) {
        waiting = true;
        return condTimedwaitSeam.Real(condition, mutex, deadline);
    });
    std::thread consumer([&] { EXPECT_TRUE(m_queue.GetSync(&m_event, 600000, false)); });
    EXPECT_TRUE(Eventually([&] { return waiting.load(); }));
    EXPECT_TRUE(Put(1));
    consumer.join();
    EXPECT_EQ(m_event.param1, 1u);
}

TEST_F(QueueWaitTest, WaitingGetHoldsNoLock)
{
    const ConditionWatch watch;
    TCQueue queue;
    ASSERT_TRUE(queue.Create());
    std::thread consumer([&] { EXPECT_TRUE(queue.GetSync(&m_event, FOR_EVER, false)); });
    EXPECT_TRUE(Eventually([&] { return watch.WaitedFor(COUNT_SEMAPHORE); }));
    queue.Lock();
    EXPECT_FALSE(watch.WaitedFor(0));
    queue.Unlock();
    TSEvent event = EventFor(&m_receiver, 0, 1);
    EXPECT_TRUE(queue.Put(&event, false));
    consumer.join();
    queue.Destroy();
}

TEST_F(QueueWaitTest, UnitsWithoutAnEventAreUsedUpAndTheWaitStartsAgain)
{
    const StandingClock clock;
    for (int i = 0; i < 3; ++i) {
        m_queue.Give();
    }
    EXPECT_FALSE(m_queue.GetSync(&m_event, 250, false));
    EXPECT_THAT(clock.Waits(), ElementsAre(250));
    EXPECT_EQ(Units(), 0);
    EXPECT_EQ(m_event.param1, UNTOUCHED);
}

TEST_F(QueueWaitTest, UnitsWithoutAnEventAreUsedUpByTheHolderOfTheLockToo)
{
    TSEvent event;
    m_queue.Give();
    m_queue.Lock();
    EXPECT_FALSE(m_queue.GetSync(&event, 0, false));
    EXPECT_FALSE(m_queue.Try(0));
    EXPECT_FALSE(m_queue.GetSyncQData(&event, false));
    m_queue.Unlock();
}

TEST_F(QueueWaitTest, UnitsWithoutAnEventDoNotMakeAPollWait)
{
    const StandingClock clock;
    m_queue.Give();
    m_queue.Give();
    EXPECT_FALSE(m_queue.Get(&m_event, 0UL));
    EXPECT_THAT(clock.Waits(), ElementsAre());
    EXPECT_EQ(Units(), 0);
}

TEST_F(QueueWaitTest, GiveMakesAWaitingGetLoopOnceAndWaitAgain)
{
    std::atomic<int> waits{0};
    const Takeover wait(condWaitSeam, [&](pthread_cond_t* condition, pthread_mutex_t* mutex) {
        ++waits;
        return condWaitSeam.Real(condition, mutex);
    });
    std::thread consumer([&] { EXPECT_TRUE(m_queue.GetSync(&m_event, FOR_EVER, false)); });
    EXPECT_TRUE(Eventually([&] { return waits >= 1; }));
    const int before = waits;
    m_queue.Give();
    EXPECT_TRUE(Eventually([&] { return waits > before; }));
    EXPECT_FALSE(m_queue.Try(0)); // the loop has used the unit
    EXPECT_TRUE(Put(1));
    consumer.join();
    EXPECT_EQ(m_event.param1, 1u);
}

TEST_F(QueueWaitTest, GiveMakesATimedGetWaitForItsWholeTimeAgain)
{
    // Each look at the clock finds a second more gone by.
    std::atomic<int> looks{0};
    std::atomic<long> lastDeadline{0};
    std::atomic<int> waits{0};
    const Takeover clock(clockGettimeSeam, [&](clockid_t id, timespec* now) {
        const int result = clockGettimeSeam.Real(id, now);
        *now = {now->tv_sec + looks++, 0};
        return result;
    });
    const Takeover wait(condTimedwaitSeam, [&](pthread_cond_t* condition, pthread_mutex_t* mutex,
                                               const timespec* deadline) {
        lastDeadline = deadline->tv_sec;
        ++waits;
        return condTimedwaitSeam.Real(condition, mutex, deadline);
    });
    std::thread consumer([&] { EXPECT_TRUE(m_queue.GetSync(&m_event, 600000, false)); });
    EXPECT_TRUE(Eventually([&] { return waits >= 1; }));
    const long deadline = lastDeadline;
    const int before = waits;
    m_queue.Give();
    EXPECT_TRUE(Eventually([&] { return waits > before; }));
    EXPECT_GE(lastDeadline, deadline + 1);
    EXPECT_TRUE(Put(1));
    consumer.join();
    EXPECT_EQ(m_event.param1, 1u);
}

TEST_F(QueueWaitTest, GiveQueuesNothing)
{
    m_queue.Give();
    EXPECT_EQ(m_queue.Size(), 0u);
    EXPECT_FALSE(m_queue.GetSyncQData(&m_event, false));
    EXPECT_EQ(Units(), 1);
}

TEST_F(QueueWaitTest, TryTakesAUnitAndLeavesTheEvent)
{
    PutAll(1, 1);
    EXPECT_TRUE(m_queue.Try(0));
    EXPECT_FALSE(m_queue.Try(0));
    EXPECT_EQ(m_queue.Size(), 1u);
}

TEST_F(QueueWaitTest, TryWaitsAsLongAsItIsTold)
{
    const StandingClock clock;
    EXPECT_FALSE(m_queue.Try(750));
    EXPECT_THAT(clock.Waits(), ElementsAre(750));
    m_queue.Give();
    EXPECT_TRUE(m_queue.Try(750));
    m_queue.Give();
    EXPECT_TRUE(m_queue.Try(FOR_EVER));
    EXPECT_THAT(clock.Waits(), ElementsAre(750));
}

TEST_F(QueueWaitTest, EventWithoutAUnitIsNotFoundByAWaitingGet)
{
    PutAll(1, 1);
    ASSERT_TRUE(m_queue.Try(0));
    EXPECT_FALSE(m_queue.GetSync(&m_event, 0, false));
    EXPECT_EQ(m_event.param1, UNTOUCHED);
    EXPECT_EQ(m_queue.Size(), 1u);
    EXPECT_TRUE(m_queue.GetQData(&m_event));
}

TEST_F(QueueWaitTest, GetsThatDoNotWaitLeaveTheUnitsAlone)
{
    PutAll(1, 3);
    EXPECT_TRUE(m_queue.GetQData(&m_event));
    EXPECT_EQ(m_event.param1, 1u);
    EXPECT_TRUE(m_queue.GetSyncQData(&m_event, true));
    EXPECT_EQ(m_event.param1, 2u);
    EXPECT_TRUE(m_queue.GetSyncQData(&m_event, false));
    EXPECT_EQ(m_event.param1, 3u);
    EXPECT_EQ(Units(), 3);
}

TEST_F(QueueWaitTest, GetsThatDoNotWaitReturnFalseOnAnEmptyQueueWithUnits)
{
    m_queue.Give();
    EXPECT_FALSE(m_queue.GetQData(&m_event));
    EXPECT_FALSE(m_queue.GetSyncQData(&m_event, false));
    EXPECT_EQ(m_event.param1, UNTOUCHED);
    EXPECT_EQ(Units(), 1);
}

TEST_F(QueueWaitTest, WaitingGetStandsTheDriftThatTheOthersLeave)
{
    const StandingClock clock;
    PutAll(1, 3);
    while (m_queue.GetQData(&m_event)) {
    }
    PutAll(4, 4);
    EXPECT_EQ(Units(), 4);
    EXPECT_TRUE(m_queue.GetSync(&m_event, 100, false));
    EXPECT_EQ(m_event.param1, 4u);
    EXPECT_EQ(Units(), 3);
    EXPECT_FALSE(m_queue.GetSync(&m_event, 100, false));
    EXPECT_EQ(Units(), 0);
    EXPECT_THAT(clock.Waits(), ElementsAre(100));
}

TEST_F(QueueWaitTest, GetLeavesASynchronousEventAndDoesNotGiveItsUnitBack)
{
    SyncSender sender(m_queue, EventFor(&m_receiver, 1, 1));
    PutAll(2, 2);
    EXPECT_FALSE(m_queue.Get(&m_event, FOR_EVER)); // does not wait: there are units
    EXPECT_EQ(m_event.param1, UNTOUCHED);
    EXPECT_EQ(m_queue.Size(), 2u);
    EXPECT_EQ(Units(), 1);
    EXPECT_FALSE(m_queue.GetSync(&m_event, 0, true));
    EXPECT_EQ(Units(), 0);
    EXPECT_FALSE(m_queue.GetSync(&m_event, 0, false)); // two events, but no unit
    EXPECT_FALSE(sender.Returned());
    EXPECT_EQ(m_queue.Size(), 2u);
    EXPECT_TRUE(m_queue.Delete(&m_receiver, nullptr));
}

TEST_F(QueueWaitTest, GetQDataLeavesASynchronousEventAndTheUnits)
{
    SyncSender sender(m_queue, EventFor(&m_receiver, 1, 1));
    PutAll(2, 2);
    EXPECT_FALSE(m_queue.GetQData(&m_event));
    EXPECT_FALSE(m_queue.GetSyncQData(&m_event, true));
    EXPECT_EQ(m_event.param1, UNTOUCHED);
    EXPECT_EQ(Units(), 2);
    ASSERT_TRUE(m_queue.GetSyncQData(&m_event, false));
    EXPECT_EQ(m_event.param1, 1u);
    EXPECT_EQ(Units(), 2);
    ASSERT_NE(m_event.sync, nullptr);
    m_event.sync->Give();
    EXPECT_TRUE(sender.Result());
}

TEST_F(QueueWaitTest, GetTakesWhatPrecedesASynchronousEvent)
{
    PutAll(1, 1);
    SyncSender sender(m_queue, EventFor(&m_receiver, 1, 2));
    EXPECT_TRUE(m_queue.Get(&m_event, 0UL));
    EXPECT_EQ(m_event.param1, 1u);
    EXPECT_FALSE(m_queue.Get(&m_event, 0UL));
    EXPECT_EQ(m_event.param1, 1u);
    EXPECT_TRUE(m_queue.Delete(&m_receiver, nullptr));
}

} // namespace
