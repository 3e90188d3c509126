#include "Explored.h"

// Tasks, alarms and what runs beside them: src/Task.cpp, src/Alarm.cpp, src/EventNotifyThread.cpp,
// src/MultiQTask.cpp, src/TimersScheduler.cpp, src/WatchdogNotifier.cpp, src/UseGate.h.

namespace zormemory {
namespace {

enum class Flag
{
    AS_IT_IS,
    BEHIND_THE_UNIT,
};

/// TCAlarm::Destroy() and TCEventNotifyThread::Destroy(): the flag is stored, then a unit given.
/// The thread looks at the flag when it has a unit, and then never again waits in vain.
template <Flag FLAG>
struct FlagBeforeUnit : rl::test_suite<FlagBeforeUnit<FLAG>, 2>
{
    Mutex mutex;
    Units wakeUp{&mutex, 0};
    Atomic<bool> exit{false};

    void thread(unsigned index)
    {
        if (index == 0) {
            if (FLAG == Flag::BEHIND_THE_UNIT) {
                wakeUp.Give();
            }
            exit.Store(true, RELAXED);
            if (FLAG == Flag::AS_IT_IS) {
                wakeUp.Give();
            }
            return;
        }
        wakeUp.Take();
        Claim(exit.Load(RELAXED), "the unit means that the flag is set");
    }
};

TEST(FlagBeforeUnitTest, IsSeenWithTheUnit)
{
    ExpectHolds<FlagBeforeUnit<Flag::AS_IT_IS>>();
}

TEST(FlagBeforeUnitTest, NeedsToComeFirst)
{
    ExpectFails<FlagBeforeUnit<Flag::BEHIND_THE_UNIT>>(CLAIM_BROKEN);
}

/// What was stored before an event was put is there for the task that takes it: the state of a
/// TCStateAlarm, and that a handler is created, with the task that it belongs to.
template <bool UNDER_THE_MUTEX>
struct EventBrings : rl::test_suite<EventBrings<UNDER_THE_MUTEX>, 2>
{
    static constexpr int CREATED = 3;

    Mutex mutex;
    Atomic<int> events{0};
    Atomic<int> created{0};
    Plain<int> task{0};

    void thread(unsigned index)
    {
        if (index == 0) {
            task.Write(1);
            created.Store(CREATED, RELAXED);
            Lock();
            events.Store(1, RELAXED);
            Unlock();
            return;
        }
        if (!Takes()) {
            return;
        }
        Claim(created.Load(RELAXED) == CREATED, "the receiver is created");
        task.Read();
    }

    bool Takes()
    {
        Lock();
        const bool taken = events.Load(RELAXED) > 0;
        Unlock();
        return taken;
    }

    void Lock()
    {
        if (UNDER_THE_MUTEX) {
            mutex.Lock();
        }
    }

    void Unlock()
    {
        if (UNDER_THE_MUTEX) {
            mutex.Unlock();
        }
    }
};

TEST(EventBringsTest, WhatCameBeforeIt)
{
    ExpectHolds<EventBrings<true>>();
}

TEST(EventBringsTest, NothingWithoutTheMutex)
{
    ExpectFails<EventBrings<false>>(DATA_RACE);
}

/// TCTask::ReleaseOnThread() and ReleaseNow(), and the deliveries of the kit: what a full queue
/// keeps out is listed and released behind one of the events that filled it. The task looks at the
/// flag alone when it has handled an event.
template <bool SET_BEFORE_THE_QUEUE_IS_FREE>
struct Releases : rl::test_suite<Releases<SET_BEFORE_THE_QUEUE_IS_FREE>, 2>
{
    Mutex mutex;
    Condition condition;
    Plain<int> queued{1}; // which is full
    Atomic<bool> hasReleases{false};
    Plain<int> listed{0};
    Plain<int> released{0};

    void thread(unsigned index)
    {
        if (index == 0) {
            Release();
            return;
        }
        HandleOne();
        while (released.Read() == 0 && HandleOne()) {
        }
    }

    void Release()
    {
        mutex.Lock();
        const bool full = queued.Read() == 1;
        if (full) {
            listed.Write(1);
            if (SET_BEFORE_THE_QUEUE_IS_FREE) {
                hasReleases.Store(true, RELAXED);
            }
        } else {
            queued.Write(2); // an event that brings it along
        }
        mutex.Unlock();
        condition.WakeOne();
        if (full && !SET_BEFORE_THE_QUEUE_IS_FREE) {
            hasReleases.Store(true, RELAXED);
        }
    }

    /// Waits for an event and handles it; false once the thing was released by a look at the flag.
    bool HandleOne()
    {
        mutex.Lock();
        while (queued.Read() == 0) {
            condition.Wait(&mutex);
        }
        const bool brings = queued.Read() == 2;
        queued.Write(0);
        mutex.Unlock();
        if (brings) {
            released.Write(1);
        }
        if (!hasReleases.Load(RELAXED)) {
            return true;
        }
        mutex.Lock();
        listed.Write(0);
        hasReleases.Store(false, RELAXED);
        mutex.Unlock();
        released.Write(1);
        return false;
    }
};

TEST(ReleasesTest, NothingThatIsListedStays)
{
    ExpectHolds<Releases<true>>();
}

TEST(ReleasesTest, NeedTheFlagUnderTheQueuesLock)
{
    ExpectFails<Releases<false>>(WAITS_FOR_EVER);
}

/// TCWatchdogNotifier::m_NextTaskToNotify(): what Create() has set up is there for the notifier
/// once the registry knows the task; that the loop runs, which it asks as well, orders nothing.
template <bool REGISTERED>
struct Supervised : rl::test_suite<Supervised<REGISTERED>, 2>
{
    Mutex registry;
    Plain<bool> listed{false};
    Plain<int> watchdogTime{0};
    Atomic<bool> running{false};

    void thread(unsigned index)
    {
        if (index == 0) {
            watchdogTime.Write(5);
            running.Store(true, RELAXED); // the thread that has been started
            registry.Lock();
            listed.Write(true);
            registry.Unlock();
        } else {
            registry.Lock();
            const bool known = !REGISTERED || listed.Read();
            if (known && running.Load(RELAXED)) {
                watchdogTime.Read();
            }
            registry.Unlock();
        }
    }
};

TEST(SupervisedTest, TaskOfTheRegistryIsComplete)
{
    ExpectHolds<Supervised<true>>();
}

TEST(SupervisedTest, NeedsTheRegistry)
{
    ExpectFails<Supervised<false>>(DATA_RACE);
}

/// TCWatchdogNotifier::~TCWatchdogNotifier(): the thread may miss the flag for a while, but what it
/// works with goes behind its end.
template <bool EXIT_GATE>
struct LastSweep : rl::test_suite<LastSweep<EXIT_GATE>, 2>
{
    Mutex mutex;
    Units exitGate{&mutex, 0};
    Atomic<bool> active{true};
    Plain<int> notifier{0};

    void thread(unsigned index)
    {
        if (index == 0) {
            active.Store(false, RELAXED);
            if (EXIT_GATE) {
                exitGate.Take();
            }
            notifier.Write(-1);
            return;
        }
        while (active.Load(RELAXED)) {
            notifier.Read();
            Yield();
        }
        exitGate.Give();
    }
};

TEST(LastSweepTest, EndsBeforeWhatItWorksWith)
{
    ExpectHolds<LastSweep<true>>();
}

TEST(LastSweepTest, NeedsTheExitGate)
{
    ExpectFails<LastSweep<false>>(DATA_RACE);
}

/// A flag that says whether a look under a lock may be worth it, as in TCMultiQTask::LockQueues()
/// and in the trap patterns: what is used is used under the lock, whatever the flag has said.
template <bool LOCKS>
struct Hint : rl::test_suite<Hint<LOCKS>, 2>
{
    Mutex mutex;
    Atomic<bool> flag{false};
    Plain<int> table{1};

    void thread(unsigned index)
    {
        if (index == 0) {
            mutex.Lock();
            table.Write(2);
            flag.Store(true, RELAXED);
            mutex.Unlock();
            return;
        }
        if (!flag.Load(RELAXED)) {
            return;
        }
        if (LOCKS) {
            mutex.Lock();
        }
        Claim(table.Read() == 2, "what the flag stands for is there");
        if (LOCKS) {
            mutex.Unlock();
        }
    }
};

TEST(HintTest, IsFollowedByALookUnderTheLock)
{
    ExpectHolds<Hint<true>>();
}

TEST(HintTest, NeedsTheLock)
{
    ExpectFails<Hint<false>>(DATA_RACE);
}

/// TCTimersScheduler::Enter() and LetOthersInLocked(): with the mutex, as many have arrived as have
/// entered, or more, so that a difference means that somebody waits.
template <bool LOCKS>
struct Arrivals : rl::test_suite<Arrivals<LOCKS>, 2>
{
    Mutex mutex;
    Atomic<unsigned> arrived{0};
    Atomic<unsigned> entered{0};

    void thread(unsigned index)
    {
        if (index == 0) {
            arrived.Add(1, RELAXED);
            mutex.Lock();
            entered.Store(entered.Load(RELAXED) + 1, RELAXED);
            mutex.Unlock();
            return;
        }
        if (LOCKS) {
            mutex.Lock();
        }
        const unsigned in = entered.Load(RELAXED);
        Claim(arrived.Load(RELAXED) >= in, "nobody has entered who has not arrived");
        if (LOCKS) {
            mutex.Unlock();
        }
    }
};

TEST(ArrivalsTest, AreNeverBehindTheEntries)
{
    ExpectHolds<Arrivals<true>>();
}

TEST(ArrivalsTest, NeedTheMutex)
{
    ExpectFails<Arrivals<false>>(CLAIM_BROKEN);
}

/// zor::UseGate: whoever is admitted uses a thing that is there.
template <bool IN_ONE_ORDER>
struct UseGate : rl::test_suite<UseGate<IN_ONE_ORDER>, 2>
{
    Atomic<int> users{0};
    Atomic<bool> closed{false};
    Plain<int> thing{1};

    void thread(unsigned index)
    {
        if (index == 0) {
            users.Add(1, IN_ONE_ORDER ? SEQ_CST : ACQ_REL);
            if (!closed.Load(IN_ONE_ORDER ? SEQ_CST : ACQUIRE)) {
                thing.Read();
            }
            users.Add(-1, IN_ONE_ORDER ? SEQ_CST : ACQ_REL);
            return;
        }
        closed.Store(true, IN_ONE_ORDER ? SEQ_CST : RELEASE);
        while (users.Load(IN_ONE_ORDER ? SEQ_CST : ACQUIRE) != 0) {
            Yield();
        }
        thing.Write(-1);
    }
};

TEST(UseGateTest, NobodyIsInWhenItIsTakenDown)
{
    ExpectHolds<UseGate<true>>();
}

TEST(UseGateTest, NeedsTheOneOrder)
{
    ExpectFails<UseGate<false>>(DATA_RACE);
}

/// TCQueue's numbers of puts, of refusals and its peak: read and written one after the other, by
/// whoever has the mutex that guards the ring. Who looks from outside has none.
template <bool UNDER_THE_MUTEX>
struct CountedPuts : rl::test_suite<CountedPuts<UNDER_THE_MUTEX>, 3>
{
    Mutex mutex;
    Atomic<int> puts{0};

    void thread(unsigned index)
    {
        if (index == 2) {
            const int before = puts.Load(RELAXED);
            Claim(puts.Load(RELAXED) >= before, "the number never falls");
            return;
        }
        if (UNDER_THE_MUTEX) {
            mutex.Lock();
        }
        puts.Store(puts.Load(RELAXED) + 1, RELAXED);
        if (UNDER_THE_MUTEX) {
            mutex.Unlock();
        }
    }

    void after() { Claim(puts.Load(RELAXED) == 2, "each put was counted"); }
};

TEST(CountedPutsTest, AreAllCounted)
{
    ExpectHolds<CountedPuts<true>>();
}

TEST(CountedPutsTest, NeedTheMutex)
{
    ExpectFails<CountedPuts<false>>(CLAIM_BROKEN);
}

enum class Stores
{
    AS_THEY_ARE,
    IN_ANY_ORDER,
    OUTER_STAYS,
};

/// zor::HandledEvents, and a tool that looks from outside: what it takes for the event in hand was
/// in hand when so many had been handled. The first event has one of another type handled meanwhile
/// by the same receiver, and the second is of a third type.
template <Stores STORES>
struct InHand : rl::test_suite<InHand<STORES>, 2>
{
    static constexpr rl::memory_order ORDER = STORES == Stores::IN_ANY_ORDER ? RELAXED : RELEASE;
    static constexpr int OUTER = 1;
    static constexpr int INNER = 2;
    static constexpr int LATER = 3;

    Atomic<int> count{0};
    Atomic<int> receiver{0};
    Atomic<int> type{0};

    void thread(unsigned index)
    {
        if (index == 1) {
            Look();
            return;
        }
        Take(7, OUTER);
        if (STORES != Stores::OUTER_STAYS) {
            receiver.Store(0, ORDER);
        }
        Take(8, INNER);
        Leave(1);
        Take(7, OUTER);
        Leave(2);
        Take(8, LATER);
        Leave(3);
    }

    void Take(int by, int of)
    {
        type.Store(of, ORDER);
        receiver.Store(by, ORDER);
    }

    void Leave(int handled)
    {
        receiver.Store(0, ORDER);
        count.Store(handled, ORDER);
    }

    void Look()
    {
        const int handled = count.Load(ACQUIRE);
        const int by = receiver.Load(ACQUIRE);
        const int of = type.Load(ACQUIRE);
        if (by == 0 || receiver.Load(ACQUIRE) != by || count.Load(ACQUIRE) != handled) {
            return; // it would look again
        }
        const bool isOuter = by == 7 && of == OUTER && handled <= 1;
        const bool isInner = by == 8 && of == INNER && handled == 0;
        const bool isLater = by == 8 && of == LATER && handled == 2;
        Claim(isOuter || isInner || isLater, "receiver, type and number belong together");
    }
};

TEST(InHandTest, ReceiverTypeAndNumberBelongTogether)
{
    ExpectHolds<InHand<Stores::AS_THEY_ARE>>();
}

TEST(InHandTest, NeedsTheOrderOfItsStores)
{
    ExpectFails<InHand<Stores::IN_ANY_ORDER>>(CLAIM_BROKEN);
}

TEST(InHandTest, NeedsTheOuterEventToStepBack)
{
    ExpectFails<InHand<Stores::OUTER_STAYS>>(CLAIM_BROKEN);
}

} // namespace
} // namespace zormemory
