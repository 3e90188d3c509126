#include "Explored.h"

// Threads and the locks that know their holder: src/Thread.cpp, inc/Thread.h, src/RWLock.cpp.

namespace zormemory {
namespace {

constexpr int NOBODY = 0;
constexpr int A_THREAD = 7;
constexpr int ENDED = -1;

/// _Process() and TCThread::Start(): the thread finds its own handle, and its end is stored behind
/// it. What is stored before a thread is started is there for it in the same way.
template <bool GATE>
struct StartGate : rl::test_suite<StartGate<GATE>, 2>
{
    Mutex mutex;
    Units gate{&mutex, 0};
    Atomic<int> handle{NOBODY};

    void thread(unsigned index)
    {
        if (index == 0) {
            handle.Store(A_THREAD, RELAXED);
            gate.Give();
            return;
        }
        if (GATE) {
            gate.Take();
        }
        Claim(handle.Load(RELAXED) == A_THREAD, "the thread finds its handle");
        handle.Store(ENDED, RELEASE);
    }

    void after() { Claim(handle.Load(RELAXED) == ENDED, "its end comes last"); }
};

TEST(StartGateTest, ThreadFindsItsHandleAndItsEndComesLast)
{
    ExpectHolds<StartGate<true>>();
}

TEST(StartGateTest, IsNeeded)
{
    ExpectFails<StartGate<false>>(CLAIM_BROKEN);
}

/// TCThread::SetPriority(): whoever has had m_pidSync finds the kernel's id; who finds the id
/// without waiting has the right one.
template <bool WAITS>
struct KernelId : rl::test_suite<KernelId<WAITS>, 2>
{
    Mutex mutex;
    Units pidSync{&mutex, 0};
    Atomic<int> kernelId{NOBODY};

    void thread(unsigned index)
    {
        if (index == 0) {
            kernelId.Store(A_THREAD, RELAXED);
            pidSync.Give();
            return;
        }
        if (WAITS && kernelId.Load(RELAXED) == NOBODY) {
            pidSync.Take();
            pidSync.Give();
        }
        Claim(kernelId.Load(RELAXED) == A_THREAD, "the id is there");
    }
};

TEST(KernelIdTest, IsThereOnceTheUnitWasTaken)
{
    ExpectHolds<KernelId<true>>();
}

TEST(KernelIdTest, NeedsTheWait)
{
    ExpectFails<KernelId<false>>(CLAIM_BROKEN);
}

/// TCThread::HasEnded(): whoever learns of the end acts on what the body did.
template <bool ORDERED>
struct EndOfBody : rl::test_suite<EndOfBody<ORDERED>, 2>
{
    Atomic<int> handle{A_THREAD};
    Plain<int> done{0};

    void thread(unsigned index)
    {
        if (index == 0) {
            done.Write(1);
            handle.Store(ENDED, ORDERED ? RELEASE : RELAXED);
        } else if (handle.Load(ORDERED ? ACQUIRE : RELAXED) == ENDED) {
            done.Read();
        }
    }
};

TEST(EndOfBodyTest, ShowsWhatTheBodyDid)
{
    ExpectHolds<EndOfBody<true>>();
}

TEST(EndOfBodyTest, NeedsItsOrder)
{
    ExpectFails<EndOfBody<false>>(DATA_RACE);
}

/// TCMutex::HeldByCaller(), TCRWLock::WrittenByCaller(), TCThread::IsCaller(): a thread that gets
/// the id of one that has ended does not take what that one stored for its own. The system keeps
/// the ids in a list of its own, under a lock.
template <bool HANDED_ON>
struct RecycledId : rl::test_suite<RecycledId<HANDED_ON>, 2>
{
    Mutex list;
    Atomic<bool> isFree{false};
    Atomic<int> owner{NOBODY};

    void thread(unsigned index)
    {
        if (index == 0) {
            owner.Store(A_THREAD, RELAXED);
            owner.Store(NOBODY, RELAXED);
            list.Lock();
            isFree.Store(true, RELAXED);
            list.Unlock();
            return;
        }
        if (!IsHandedOn()) {
            return;
        }
        Claim(owner.Load(RELAXED) != A_THREAD, "the new thread holds nothing");
    }

    bool IsHandedOn()
    {
        if (!HANDED_ON) {
            return isFree.Load(RELAXED);
        }
        list.Lock();
        const bool handedOn = isFree.Load(RELAXED);
        list.Unlock();
        return handedOn;
    }
};

TEST(RecycledIdTest, BringsNoLockAlong)
{
    ExpectHolds<RecycledId<true>>();
}

TEST(RecycledIdTest, NeedsTheLockOfTheSystemsList)
{
    ExpectFails<RecycledId<false>>(CLAIM_BROKEN);
}

/// TCMutex::Lock() and Unlock(), and in the same way TCRWLock: only the holder finds its own id in
/// the owner, so that nested locks count right and every unlock is one.
template <bool CLEARS_FIRST>
struct Owner : rl::test_suite<Owner<CLEARS_FIRST>, 2>
{
    Mutex semaphore; // of one unit
    Atomic<int> owner{NOBODY};
    Atomic<int> depth{0};
    Plain<int> guarded{0};

    void thread(unsigned index)
    {
        const int self = static_cast<int>(index) + 1;
        Lock(self);
        Lock(self);
        guarded.Write(guarded.Read() + 1);
        Unlock(self);
        Unlock(self);
    }

    void after()
    {
        Claim(guarded.Read() == 2, "both had the lock");
        semaphore.Lock(); // it is free again
        semaphore.Unlock();
    }

    void Lock(int self)
    {
        if (owner.Load(RELAXED) == self) {
            depth.Store(depth.Load(RELAXED) + 1, RELAXED);
            return;
        }
        semaphore.Lock();
        owner.Store(self, RELAXED);
        depth.Store(1, RELAXED);
    }

    void Unlock(int self)
    {
        if (owner.Load(RELAXED) != self) {
            return;
        }
        depth.Store(depth.Load(RELAXED) - 1, RELAXED);
        if (depth.Load(RELAXED) >= 1) {
            return;
        }
        if (CLEARS_FIRST) {
            owner.Store(NOBODY, RELAXED);
            semaphore.Unlock();
        } else {
            semaphore.Unlock();
            owner.Store(NOBODY, RELAXED);
        }
    }
};

TEST(OwnerTest, OnlyTheHolderFindsItself)
{
    ExpectHolds<Owner<true>>();
}

TEST(OwnerTest, NeedsToBeClearedBeforeTheLockIsFree)
{
    ExpectFails<Owner<false>>(LOCKED_TWICE);
}

} // namespace
} // namespace zormemory
