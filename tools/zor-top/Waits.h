#pragma once

#include <map>
#include <set>
#include <string>

#include "Classes.h"
#include "Layout.h"
#include "Process.h"
#include "Snapshot.h"
#include "Threads.h"

namespace zortop {

/// Finds what threads wait for: behind the word of memory that a thread sleeps on there is a mutex
/// of the C library, which names its holder, or a semaphore of the runtime.
class Waits
{
 public:
    /// @param memory, layout, classes  must outlive this
    Waits(const Memory& memory, const Layout& layout, Classes* classes);

    /// Forgets what it has been told, for a new look.
    ///
    /// @param threads  the kernel ids that there are
    void Begin(std::set<pid_t> threads);

    /// The semaphore at @p semaphore is that on which a task waits for events.
    void KnowEvents(Address semaphore) { m_events.insert(semaphore); }

    /// The TCMutex at @p mutex is called so.
    void KnowMutex(Address mutex, const std::string& name);

    /// The thread with that handle has that kernel id.
    void KnowThread(std::uint64_t handle, pid_t thread) { m_byHandle[handle] = thread; }

    Wait WaitOf(const SleepingCall& call);

    /// The kernel id of the thread with that handle; 0 if it is not known.
    pid_t ThreadOf(std::uint64_t handle) const;

 private:
    Address SemaphoreAt(Address word) const;
    bool FindMutexHolder(const FutexWait& futex, Wait* wait) const;
    void FindSemaphore(Address semaphore, Wait* wait);
    void FindOwner(Address mutex, Wait* wait) const;

    const Memory& m_memory;
    Classes& m_classes;
    const std::uint64_t m_owner;
    const std::uint64_t m_condition;
    const std::uint64_t m_state;
    const std::uint64_t m_mutexSemaphore;
    const std::uint64_t m_mutexOwner;

    std::set<pid_t> m_threads;
    std::set<Address> m_events;
    std::map<Address, std::string> m_mutexes; ///< by their semaphores
    std::map<std::uint64_t, pid_t> m_byHandle;
};

} // namespace zortop
