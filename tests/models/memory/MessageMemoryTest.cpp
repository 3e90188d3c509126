#include "Explored.h"

// What one thread makes and others find: the logging front, call sites, counters, answers of the
// kit, recordings.

namespace zormemory {
namespace {

/// ZORLogs::getInstance() and SetLoggingSystem(), TSCodeLocation, TCTask's pause flag: what the
/// pointer, number or flag stands for is complete.
template <bool ORDERED>
struct Published : rl::test_suite<Published<ORDERED>, 2>
{
    Plain<int> made{0};
    Atomic<bool> there{false};

    void thread(unsigned index)
    {
        if (index == 0) {
            made.Write(1);
            there.Store(true, ORDERED ? RELEASE : RELAXED);
        } else if (there.Load(ORDERED ? ACQUIRE : RELAXED)) {
            Claim(made.Read() == 1, "it is complete");
        }
    }
};

TEST(PublishedTest, WhatIsFoundIsComplete)
{
    ExpectHolds<Published<true>>();
}

TEST(PublishedTest, NeedsItsOrder)
{
    ExpectFails<Published<false>>(DATA_RACE);
}

/// ZORLogs::getInstance() again: one of several makes it, though the look under the mutex is
/// relaxed.
template <bool LOCKS>
struct MadeOnce : rl::test_suite<MadeOnce<LOCKS>, 2>
{
    Mutex creation;
    Atomic<int> instance{0};
    Atomic<int> made{0};

    void thread(unsigned)
    {
        if (instance.Load(ACQUIRE) != 0) {
            return;
        }
        if (LOCKS) {
            creation.Lock();
        }
        if (instance.Load(RELAXED) == 0) {
            made.Add(1, RELAXED);
            instance.Store(1, RELEASE);
        }
        if (LOCKS) {
            creation.Unlock();
        }
    }

    void after() { Claim(made.Load(RELAXED) == 1, "one was made"); }
};

TEST(MadeOnceTest, ByTheFirstUnderTheMutex)
{
    ExpectHolds<MadeOnce<true>>();
}

TEST(MadeOnceTest, NeedsTheMutex)
{
    ExpectFails<MadeOnce<false>>(CLAIM_BROKEN);
}

/// Numbers of log lines, counters, places in a recording: nobody gets another's number and none is
/// lost.
template <bool AT_ONCE>
struct Counter : rl::test_suite<Counter<AT_ONCE>, 2>
{
    Atomic<int> count{0};
    int got[2] = {-1, -1}; // each thread has one

    void thread(unsigned index)
    {
        if (AT_ONCE) {
            got[index] = count.Add(1, RELAXED);
        } else {
            got[index] = count.Load(RELAXED);
            count.Store(got[index] + 1, RELAXED);
        }
    }

    void after()
    {
        Claim(got[0] != got[1], "each has a number of its own");
        Claim(count.Load(RELAXED) == 2, "both were counted");
    }
};

TEST(CounterTest, GivesEachNumberOnce)
{
    ExpectHolds<Counter<true>>();
}

TEST(CounterTest, NeedsToReadAndWriteAtOnce)
{
    ExpectFails<Counter<false>>(CLAIM_BROKEN);
}

/// AnswerSlot of the kit, whose asker gives up at the moment at which the answer comes: one of them
/// has the slot last, and an answer that is read is complete.
template <bool ORDERED>
struct Answer : rl::test_suite<Answer<ORDERED>, 2>
{
    static constexpr rl::memory_order ORDER = ORDERED ? SEQ_CST : RELAXED;
    static constexpr int WAITING = 0;
    static constexpr int ANSWERED = 1;
    static constexpr int GIVEN_UP = 2;

    Mutex mutex;
    Units asked{&mutex, 0}; // the queue
    Units given{&mutex, 0};
    Atomic<int> state{GIVEN_UP}; // of an earlier ask
    Plain<int> slot{0};
    Plain<int> answer{0};

    void thread(unsigned index)
    {
        if (index == 0) {
            Ask();
        } else {
            Accept();
        }
    }

    void Ask()
    {
        state.Store(WAITING, RELAXED);
        asked.Give();
        slot.Read(); // waits in vain
        if (state.Change(WAITING, GIVEN_UP, ORDER)) {
            return;
        }
        given.Take();
        Claim(answer.Read() == 1, "the answer is complete");
        slot.Write(-1); // keeps it or deletes it
    }

    void Accept()
    {
        asked.Take();
        if (!state.Change(WAITING, ANSWERED, ORDER)) {
            slot.Write(-1); // deletes it
            return;
        }
        answer.Write(1);
        slot.Read();
        given.Give();
    }
};

TEST(AnswerTest, SlotHasOneOwnerInTheEnd)
{
    ExpectHolds<Answer<true>>();
}

TEST(AnswerTest, NeedsTheOrderOfItsState)
{
    ExpectFails<Answer<false>>(DATA_RACE);
}

/// The ring of a recording: its words are written with no order, and a record counts for a reader
/// if its checksum fits.
template <bool CHECKED>
struct Record : rl::test_suite<Record<CHECKED>, 2>
{
    static int Sum(int first, int second) { return 3 * first + 5 * second; }

    Atomic<int> first{1};
    Atomic<int> second{1};
    Atomic<int> checksum{Sum(1, 1)};

    void thread(unsigned index)
    {
        if (index == 0) {
            first.Store(2, RELAXED);
            second.Store(2, RELAXED);
            checksum.Store(Sum(2, 2), RELAXED);
            return;
        }
        const int a = first.Load(RELAXED);
        const int b = second.Load(RELAXED);
        if (!CHECKED || checksum.Load(RELAXED) == Sum(a, b)) {
            Claim(a == b, "the words are of one record");
        }
    }
};

TEST(RecordTest, IsWholeIfItsChecksumFits)
{
    ExpectHolds<Record<true>>();
}

TEST(RecordTest, NeedsTheChecksum)
{
    ExpectFails<Record<false>>(CLAIM_BROKEN);
}

} // namespace
} // namespace zormemory
