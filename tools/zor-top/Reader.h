#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "Classes.h"
#include "Layout.h"
#include "Process.h"
#include "Snapshot.h"
#include "Threads.h"
#include "Waits.h"

namespace zortop {

/// Looks at a process again and again while it runs on. Nothing in it is stopped and nothing
/// waits for the reader, so what is read may change meanwhile: it is checked, read again, and in
/// the end left out, with a remark.
class Reader
{
 public:
    /// Throws Problem if the process has no table of layouts or may not be read.
    explicit Reader(pid_t pid);

    /// One look. Throws Problem if the process has ended.
    Snapshot Read();

    /// A glance at which of the tasks of @p snapshot have an event in hand, in their order.
    std::vector<bool> ReadBusy(const Snapshot& snapshot) const;

    /// The events that a queue has room for.
    std::uint64_t Capacity() const { return m_capacity; }

    /// The version of the library.
    const std::string& Version() const { return m_layout.Version(); }

 private:
    /// Where in a task and in a queue what is read of them stands.
    struct TaskPlaces
    {
        explicit TaskPlaces(const Layout& layout);

        std::uint64_t handled, receiver, type, name, nameSize, kernelId, handle, owner, running,
            exiting, paused, watchdog, furtherQueues, ownHandler, queue, queueArray, queueCount;
    };

    struct QueuePlaces
    {
        explicit QueuePlaces(const Layout& layout);

        std::uint64_t depth, puts, refused, peak, events;
    };

    bool ReadRegistry(std::vector<Address>* tasks) const;
    bool ReadTask(Address address, TaskFacts* task) const;
    bool ReadMembers(Address address, TaskFacts* task, Address* furtherQueues) const;
    bool ReadInHand(Address address, TaskFacts* task) const;
    bool ReadQueues(Address address, bool hasFurther, TaskFacts* task) const;
    bool ReadQueue(Address address, QueueFacts* queue) const;
    void ReadTasks(Snapshot* snapshot);
    void ReadThreads(Snapshot* snapshot);
    bool ReadCalls(std::vector<SyncCall>* calls) const;
    bool ReadTimers(TimerFacts* timers) const;
    bool ReadSlots(Address scheduler, TimerFacts* timers) const;
    void ReadRegistryHolder(Snapshot* snapshot) const;
    void NameReceivers(Snapshot* snapshot);

    const pid_t m_pid;
    const Memory m_memory;
    const Layout m_layout;
    const TaskPlaces m_task;
    const QueuePlaces m_queue;
    const std::uint64_t m_capacity;
    Threads m_threads;
    Classes m_classes;
    Waits m_waits;
};

} // namespace zortop
