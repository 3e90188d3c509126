#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "ZorExport.h"

/// A reader-writer lock that a thread may take again in either mode.
///
/// - A thread may hold several read locks and must release each.
/// - The writer may take further write locks, to be released as often, and read locks, which are
///   not counted: releasing them is accepted and does nothing.
/// - A thread that holds read locks cannot become the writer: WLock() refuses instead of
///   deadlocking.
///
/// The lock is usable from construction to destruction. Any thread may call any operation. Each
/// returns true on success; a failing call of the system is asserted ("ret == 0", with its name,
/// error number and text) and answered false. A thread's first read lock of a lock asks for memory
/// and may throw std::bad_alloc, with nothing taken.
class ZOR_CORE_API TCRWLock
{
 public:
    TCRWLock();

    /// Nobody may hold the lock, and no thread that has read-locked it may be ending at the same
    /// time. Each thread that has read-locked it has a count of its own, which is freed when that
    /// thread ends: those of threads that live on, but for the calling one, are not freed any more.
    /// Give a lock that many threads read a life as long as theirs.
    virtual ~TCRWLock();

    TCRWLock(const TCRWLock&) = delete;
    TCRWLock& operator=(const TCRWLock&) = delete;

    /// Takes a read lock, waiting while another thread writes.
    bool RLock();

    /// Takes the write lock, waiting while other threads hold the lock in either mode.
    ///
    /// @return false at once, asserting "*pCount == 0", if the calling thread holds read locks
    bool WLock();

    /// Releases one read lock of the calling thread.
    ///
    /// @return false if it holds none; true, with no effect, if it is the writer
    bool RUnlock();

    /// Releases one write lock of the calling thread.
    ///
    /// @return false if it is not the writer
    bool WUnlock();

 private:
    static constexpr pthread_t NO_WRITER = 0;

    /// No key that the system has given: it refuses all calls with this one.
    static constexpr pthread_key_t NO_KEY = ~static_cast<pthread_key_t>(0);

    ZOR_CORE_LOCAL bool WrittenByCaller() const;
    ZOR_CORE_LOCAL std::uint32_t* ReadCount() const;
    ZOR_CORE_LOCAL std::uint32_t* MakeReadCount();

    pthread_key_t m_readCountKey = NO_KEY;      ///< each thread's own count, owned by the key
    pthread_rwlock_t m_lock;                    ///< synchronised in itself
    pthread_rwlockattr_t m_attributes;          ///< fixed after construction
    std::atomic<pthread_t> m_writer{NO_WRITER}; ///< written by the writer, read by everybody
    int m_writeDepth = 0;                       ///< only the writer
};
