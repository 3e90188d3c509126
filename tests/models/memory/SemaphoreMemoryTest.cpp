#include "Explored.h"

// The state block of a semaphore: src/SemaphoreState.h, src/Semaphore.cpp.

namespace zormemory {
namespace {

/// TCSemaphore::State::Watch() and TakeLocked(): what a giver did before it gave is there for the
/// taker, though the watched count says nothing about it.
template <bool LOOKS_AGAIN>
struct WatchedCount : rl::test_suite<WatchedCount<LOOKS_AGAIN>, 2>
{
    Mutex mutex;
    Units units{&mutex, 0};
    Plain<int> done{0};

    void thread(unsigned index)
    {
        if (index == 0) {
            done.Write(1);
            units.Give();
            return;
        }
        while (units.Count() <= 0) {
            Yield();
        }
        if (LOOKS_AGAIN) {
            units.Take();
        }
        done.Read();
    }
};

TEST(WatchedCountTest, TakerSeesWhatTheGiverDid)
{
    ExpectHolds<WatchedCount<true>>();
}

TEST(WatchedCountTest, NeedsTheLookUnderTheMutex)
{
    ExpectFails<WatchedCount<false>>(DATA_RACE);
}

/// TCSemaphore::State::Parking and WhomToWakeLocked(): a giver wakes who is parked.
template <bool COUNTED_UNDER_THE_MUTEX>
struct Parking : rl::test_suite<Parking<COUNTED_UNDER_THE_MUTEX>, 2>
{
    Mutex mutex;
    Condition condition;
    Units units{&mutex, 0};
    Atomic<int> waiters{0};

    void thread(unsigned index)
    {
        if (index == 0) {
            Give();
        } else {
            Take();
        }
    }

    void Take()
    {
        mutex.Lock();
        while (!units.TryLocked()) {
            waiters.Store(waiters.Load(RELAXED) + 1, RELAXED);
            condition.Wait(&mutex);
            waiters.Store(waiters.Load(RELAXED) - 1, RELAXED);
        }
        mutex.Unlock();
    }

    void Give()
    {
        int parked = COUNTED_UNDER_THE_MUTEX ? 0 : waiters.Load(RELAXED);
        mutex.Lock();
        units.GiveLocked();
        if (COUNTED_UNDER_THE_MUTEX) {
            parked = waiters.Load(RELAXED);
        }
        mutex.Unlock();
        if (parked > 0) {
            condition.WakeOne();
        }
    }
};

TEST(ParkingTest, WhoeverIsParkedIsWoken)
{
    ExpectHolds<Parking<true>>();
}

TEST(ParkingTest, NeedsTheLookUnderTheMutex)
{
    ExpectFails<Parking<false>>(WAITS_FOR_EVER);
}

/// TCSemaphore::State::LetGo(): the block is used until the last one has let go of it. The threads
/// are a giver that has yet to wake somebody and one that destroys the semaphore.
template <bool ORDERED>
struct Holders : rl::test_suite<Holders<ORDERED>, 2>
{
    Mutex mutex;
    Units units{&mutex, 0};
    Atomic<int> holders{1};
    Plain<int> block{0};

    void thread(unsigned index)
    {
        if (index == 0) {
            mutex.Lock();
            units.GiveLocked();
            holders.Add(1, RELAXED);
            mutex.Unlock();
            block.Read();
            units.Wake();
        } else {
            units.Take();
            block.Read();
        }
        if (holders.Add(-1, ORDERED ? ACQ_REL : RELAXED) == 1) {
            block.Write(-1); // deletes
        }
    }

    void after() { Claim(block.Read() == -1, "somebody deletes it"); }
};

TEST(HoldersTest, BlockIsDeletedBehindItsLastUse)
{
    ExpectHolds<Holders<true>>();
}

TEST(HoldersTest, NeedTheOrderOfLettingGo)
{
    ExpectFails<Holders<false>>(DATA_RACE);
}

/// zor::Habit: nothing is ordered by it, but its numbers stay where they may be, whoever changes
/// them at once. An interval that went round to 0 would have every wait probe.
template <bool STORES_WHAT_IT_CHECKED>
struct Habit : rl::test_suite<Habit<STORES_WHAT_IT_CHECKED>, 2>
{
    static constexpr int MOST = 1;
    static constexpr int RESCUE = -1;
    static constexpr unsigned LEAST = 1;
    static constexpr unsigned GREATEST = 2;

    Atomic<int> credit{MOST};
    Atomic<unsigned> interval{LEAST};

    void thread(unsigned index)
    {
        TryFailed();
        if (index == 0) {
            ProbeFailed();
        } else {
            TryPaid();
        }
        const int left = credit.Load(RELAXED);
        Claim(left >= RESCUE && left <= MOST, "the credit is within its bounds");
        const unsigned rare = interval.Load(RELAXED);
        Claim(rare >= LEAST && rare <= GREATEST, "the interval is within its bounds");
    }

    void TryFailed()
    {
        const int left = credit.Load(RELAXED);
        if (!STORES_WHAT_IT_CHECKED) {
            credit.Add(left == MOST ? RESCUE - MOST : -1, RELAXED);
        } else if (left == MOST) {
            credit.Store(RESCUE, RELAXED);
        } else {
            credit.Store(left > 0 ? left - 1 : 0, RELAXED);
        }
    }

    void TryPaid()
    {
        const int left = credit.Load(RELAXED);
        if (left < MOST) {
            credit.Store((left > 0 ? left : 0) + 1, RELAXED);
            interval.Store(LEAST, RELAXED);
        }
    }

    void ProbeFailed()
    {
        credit.Store(0, RELAXED);
        const unsigned rarer = 2 * interval.Load(RELAXED);
        if (rarer <= GREATEST) {
            interval.Store(rarer, RELAXED);
        }
    }
};

TEST(HabitTest, NumbersStayWithinTheirBounds)
{
    ExpectHolds<Habit<true>>();
}

TEST(HabitTest, NeedsToStoreWhatItChecked)
{
    ExpectFails<Habit<false>>(CLAIM_BROKEN);
}

/// TCQueue::Place(), GetSync() and the lock of the queue: the ring is used in one critical section
/// of the process's mutex while the lock is free, and under the lock otherwise.
template <bool LOOKS_AT_THE_LOCK>
struct TwoRoads : rl::test_suite<TwoRoads<LOOKS_AT_THE_LOCK>, 2>
{
    Mutex mutex;
    Units lock{&mutex, 1}; // of the queue
    Plain<int> ring{0};

    void thread(unsigned index)
    {
        if (index == 0) {
            mutex.Lock();
            if (!LOOKS_AT_THE_LOCK || lock.Count() > 0) {
                ring.Write(ring.Read() + 1);
                mutex.Unlock();
                return;
            }
            mutex.Unlock();
        }
        lock.Take();
        ring.Write(ring.Read() + 1);
        lock.Give();
    }

    void after() { Claim(ring.Read() == 2, "both have used the ring"); }
};

TEST(TwoRoadsTest, RingIsUsedByOneAtATime)
{
    ExpectHolds<TwoRoads<true>>();
}

TEST(TwoRoadsTest, NeedTheLookAtTheLock)
{
    ExpectFails<TwoRoads<false>>(DATA_RACE);
}

} // namespace
} // namespace zormemory
