#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>

#include "Debug.h"
#include "ZorExport.h"

/// @file
/// Semaphore, recursive mutex, thread, and what goes with them.
///
/// All objects here live in two phases: a constructor cannot fail and makes an object that is not
/// created; Create() makes it usable; Destroy() releases it, after which it may be created again. A
/// destructor only asserts "FlagCreate() == false": that Destroy() has been called. Every operation
/// on an object that is not created asserts "FlagCreate() == true"; when the assertion returns (in
/// a release build) the operation goes on as if the check had passed, which is undefined behaviour
/// for an object without its resources.

namespace zor {
class BriefLock;
class Reply;
} // namespace zor

/// A counting semaphore.
///
/// All semaphores of the process are guarded by one process-wide mutex, so a semaphore is one
/// pointer and cheap to make. Any thread may call any operation of a created semaphore; Destroy()
/// must not run while another operation does, except that a thread which has been released by
/// Give() may destroy the semaphore at once, even before that Give() has returned. Waiters get
/// their units in no particular order.
///
/// A wait is a cancellation point: a thread that is cancelled in it takes no unit. In the child of
/// a fork() every count is as it was at the moment of the fork, and nobody is parked: units that
/// other threads had taken stay taken, and what was free can be used.
///
/// | state       | left by     |
/// |-------------|-------------|
/// | not created | Create()    |
/// | created     | Destroy()   |
class ZOR_CORE_API TCSemaphore
{
 public:
    TCSemaphore() = default;

    /// Asserts "FlagCreate() == false".
    virtual ~TCSemaphore();

    TCSemaphore(const TCSemaphore&) = delete;
    TCSemaphore& operator=(const TCSemaphore&) = delete;

    /// Makes the semaphore usable with @p count units. Asserts "FlagCreate() == false".
    ///
    /// @return whether its state could be allocated
    bool Create(int count);

    /// Waits while the count is not positive, then takes one unit.
    void Take();

    /// Takes one unit, waiting at most @p msec milliseconds for it.
    ///
    /// @param msec  0 polls; all ones waits for ever, like Take()
    /// @return true if a unit was taken, false on time-out
    ///
    /// The time is measured from each wake-up, not from the call: a wake-up without a unit starts
    /// the whole interval anew, but for most of those by which all waiters are woken. It begins
    /// behind what is passed before parking: at most 50 us, or a turn of the other threads that
    /// want the processor. A deadline whose microseconds come out at exactly 1,000,000 (about one
    /// wait in a million) is refused by the system, and the call returns false at once; callers
    /// that loop must stand that.
    bool Try(unsigned long msec);

    /// Adds one unit and wakes one waiter, or all of them if they are more than two and the C
    /// library is one that may lose a signal among so many (glibc before 2.41).
    void Give();

    /// Releases the state. No thread may be waiting.
    virtual void Destroy();

    /// True between a successful Create() and Destroy().
    bool FlagCreate() const { return m_state != nullptr; }

 private:
    friend class TCQueue;
    friend class zor::BriefLock;
    friend class zor::LayoutTable;
    friend class zor::Reply;

    struct State;

    State* m_state = nullptr; ///< its contents are guarded by the process-wide mutex
};

/// A recursive lock built on a semaphore.
///
/// A thread may lock it several times and must unlock it as often. Unlocking by a thread that does
/// not hold it is ignored. Any thread may call Lock() and Unlock() of a created mutex.
class ZOR_CORE_API TCMutex
{
 public:
    TCMutex() = default;

    /// Destroys the mutex if it is still created, held or not.
    virtual ~TCMutex();

    TCMutex(const TCMutex&) = delete;
    TCMutex& operator=(const TCMutex&) = delete;

    /// Makes the mutex usable, held by nobody. Asserts "FlagCreate() == false".
    ///
    /// @return whether its semaphore could be created
    bool Create()
    {
        TCASSERT(FlagCreate() == false);
        m_owner.store(NO_OWNER, std::memory_order_relaxed);
        return m_semaphore.Create(1);
    }

    /// Takes the lock, waiting while another thread holds it. The holder may take it again.
    void Lock()
    {
        TCASSERT(FlagCreate() == true);
        if (HeldByCaller()) {
            SetDepth(Depth() + 1);
            return;
        }
        m_semaphore.Take();
        m_owner.store(pthread_self(), std::memory_order_relaxed);
        SetDepth(1);
    }

    /// Undoes one Lock() of the calling thread; ignored if that thread does not hold the lock.
    void Unlock()
    {
        TCASSERT(FlagCreate() == true);
        if (!HeldByCaller()) {
            return;
        }
        SetDepth(Depth() - 1);
        if (Depth() < 1) {
            m_owner.store(NO_OWNER, std::memory_order_relaxed);
            m_semaphore.Give();
        }
    }

    /// Releases the mutex without looking whether somebody holds it.
    virtual void Destroy()
    {
        TCASSERT(FlagCreate() == true);
        m_semaphore.Destroy();
    }

    /// True between a successful Create() and Destroy().
    bool FlagCreate() const { return m_semaphore.FlagCreate(); }

 private:
    friend class TCQueue;
    friend class zor::BriefLock;
    friend class zor::LayoutTable;

    static constexpr pthread_t NO_OWNER = 0;

    /// Of the threads that live only the calling one can have stored its own id, so a relaxed read
    /// is right about it, whatever others store meanwhile. Who ends with the lock held leaves it to
    /// a thread that gets the same id.
    bool HeldByCaller() const { return m_owner.load(std::memory_order_relaxed) == pthread_self(); }

    /// The depth belongs to the holder of the semaphore, which also orders its accesses.
    int Depth() const { return m_depth.load(std::memory_order_relaxed); }
    void SetDepth(int depth) { m_depth.store(depth, std::memory_order_relaxed); }

    TCSemaphore m_semaphore;                  ///< one unit while the lock is free
    std::atomic<pthread_t> m_owner{NO_OWNER}; ///< written by the holder, read by everybody
    std::atomic<int> m_depth{0};              ///< nested locks of the holder
};

/// A named, detached thread with a start and an end that others can wait for.
///
/// Derive from it and supply t_Main(). The life of a thread, in order:
///
/// 1. Create() starts the thread, which waits at the start gate.
/// 2. Create() has stored the thread's handle and opens the start gate.
/// 3. The thread publishes its kernel id, takes its name and runs t_Main().
/// 4. t_Main() returns; the thread opens the exit gate and touches the object no more.
/// 5. Destroy(), on another thread, waits at the exit gate and releases everything.
///
/// The thread ends only by returning from t_Main(); nothing here makes it return.
class ZOR_CORE_API TCThread
{
 public:
    TCThread() = default;

    /// The body of the thread; an exception that leaves it ends the process.
    virtual void t_Main() = 0;

    /// Asserts "FlagCreate() == false".
    virtual ~TCThread();

    /// Waits until t_Main() has returned and releases the thread. Asserts "FlagCreate() == true"
    /// and "TCThreadSelf::Id() != Id()": called on the thread itself it prints a message and
    /// returns without waiting. The thread stays created then, but has lost what SetPriority()
    /// waits with and a regular Destroy() releases.
    virtual void Destroy();

    TCThread(const TCThread&) = delete;
    TCThread& operator=(const TCThread&) = delete;

    /// Starts the thread.
    ///
    /// @param threadname  its name, of which the first 15 characters are used; empty leaves the
    ///                    thread with the name of its creator
    /// @param stackSize   in bytes; below the system's minimum the default size is used
    /// @return true once the thread exists; false if it could not be made
    ///
    /// Asserts "FlagCreate() == false" and "threadname != NULL", and "0" if the system refuses the
    /// thread: one semaphore is left behind then, for which the destructor asserts.
    bool Create(const char* threadname, unsigned long stackSize);

    /// Sets the thread's niceness, waiting for the thread to start if need be.
    ///
    /// @param priority  0 highest (niceness -10), 1 normal (0), 2 lowest (10)
    /// @return whether the system did it; false for any other @p priority, and once t_Main() has
    ///         returned
    ///
    /// Asserts "FlagCreate() == true".
    bool SetPriority(int priority);

    /// The handle of the thread; 0xFFFFFFFF when t_Main() has returned. Asserts
    /// "FlagCreate() == true".
    pthread_t Id() const;

    /// True between a successful Create() and Destroy().
    bool FlagCreate() const { return m_startGate.FlagCreate(); }

 protected:
    /// Whether t_Main() has returned.
    bool HasEnded() const;

    /// Whether the calling thread is this one. Asserts nothing.
    bool IsCaller() const { return m_thread.load(std::memory_order_relaxed) == pthread_self(); }

 private:
    friend void* _Process(void* thread);
    friend class zor::LayoutTable;

    static constexpr int NO_KERNEL_ID = -1;
    static constexpr std::size_t NAME_SIZE = 16;

    ZOR_CORE_LOCAL bool CreateGates();
    ZOR_CORE_LOCAL bool Start(unsigned long stackSize);

    std::atomic<pthread_t> m_thread{0};        ///< written by Create() and at the thread's end
    std::atomic<int> m_kernelId{NO_KERNEL_ID}; ///< published by the thread
    TCSemaphore m_pidSync;                     ///< given once m_kernelId is published
    TCSemaphore m_startGate;                   ///< given once m_thread is stored
    TCSemaphore m_exitGate;                    ///< given once t_Main() has returned
    char m_name[NAME_SIZE] = {};               ///< fixed while the thread runs
};

/// What a thread can ask and do about itself.
class ZOR_CORE_API TCThreadSelf
{
 public:
    /// The handle of the calling thread.
    static pthread_t Id();

    /// TCThread::SetPriority() for the calling thread.
    static bool SetPriority(int priority);
};

/// Milliseconds of the system's clocks.
class ZOR_CORE_API TCTimeWrapper
{
 public:
    /// Sleeps for @p msec milliseconds.
    static void Sleep(unsigned long msec);

    /// Milliseconds since an arbitrary origin, in steps of a clock tick (10 ms with the usual 100
    /// ticks per second). All ones, and a line of debug print, if the system does not tell.
    static unsigned long Tick();
};
