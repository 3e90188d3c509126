#pragma once

#include <atomic>
#include <cstddef>
#include <mutex>
#include <shared_mutex>

#include "EventNotifyThread.h"
#include "Queue.h"
#include "Task.h"
#include "Thread.h"
#include "ZorExport.h"

/// A task with several queues of strict priority: it always takes the next event from the queue
/// with the lowest index that holds one. Queue 0 is the task's own, where requests and everything
/// sent with TCTask::Send() go.
///
/// Beside the task's thread there is one notify thread for each queue. The further queues and the
/// notify threads are taken down on the task's thread when it handles EVENT_EXIT; from then on only
/// queue 0 may be sent to. t_Idle() never runs.
///
/// SetPriority() concerns the task's thread only: the notify threads, through which every event
/// passes, keep the priority that they have inherited from the creator of the task. A handler that
/// is destroyed takes its events with it from all queues.
class ZOR_CORE_API TCMultiQTask : public TCTask
{
 public:
    TCMultiQTask() = default;

    /// Asserts "FlagCreate() == false".
    ~TCMultiQTask() override;

    /// TCTask::Destroy().
    void Destroy() override;

    /// Dispatches the event types of a task, except EVENT_RESUME, which is answered false.
    bool t_OnEvent(const TSEvent* event) override;

    /// Deletes the events of the task's own handler from the queue whose index is the event's
    /// param2.
    ///
    /// @return whether there were any
    bool t_OnClearQueue(const TSEvent* event) override;

    /// One turn of the loop: takes one event from the first queue that holds one. Asserts nothing.
    bool ExecuteEvent() override;

    /// Makes the task, its queues and their notify threads.
    ///
    /// @param name          its name, of which the first 15 characters are used
    /// @param waitMsec      milliseconds that one wait of the task or of a notify thread lasts;
    ///                      with 0 all of these threads spin
    /// @param stackSize     of the task's thread, in bytes
    /// @param nQueueSize    number of queues, at least 1
    /// @param watchdogTime  see TCTask::Create()
    /// @return whether everything could be made, notify threads included. If not, further queues
    ///         that had been made and the notify semaphore stay behind (the task's destructor then
    ///         asserts, and a second Create() does), and what TCThread::Create() leaves of a
    ///         thread that the system refuses. No hook has run then.
    ///
    /// Asserts "FlagCreate() == false", "name != NULL" and "nQueueSize > 0". The registry must be
    /// there.
    bool Create(const char* name, unsigned int waitMsec, unsigned long stackSize,
                unsigned int nQueueSize, unsigned long watchdogTime);

    /// TCTask::Send() into the queue of that index. Synchronous sends are not listed in TCSyncDet.
    /// A sender that waits for an event which is still in a further queue when the exit event is
    /// handled is not released.
    ///
    /// @return false also if the receiver's task is not a multi-queue task
    ///
    /// Asserts that the index is one of the task's; a synchronous send also that the task is
    /// created.
    static bool Send(TSEvent* event, bool sync, bool priority, unsigned int nQueueIndex);

    /// Has @p task delete the events of its own handler from one of its queues; see
    /// TCTask::ClearQueue().
    static bool ClearQueue(TCMultiQTask* task, int idx, unsigned long msec);

    /// How many events are queued in the queue of that index, which is asserted to be one of the
    /// task's.
    std::size_t Size(int queueIdx);

    /// Not supported: asserts, and returns 0.
    std::size_t Size();

 private:
    friend class zor::LayoutTable;

    ZOR_CORE_LOCAL static const TSFurtherQueues FURTHER_QUEUES;

    static bool m_Send(TSEvent* event, bool sync, bool priority, unsigned int nQueueIndex);

    ZOR_CORE_LOCAL bool HasQueueLocked(int index) const;
    ZOR_CORE_LOCAL bool CreateQueues(unsigned int nQueueSize);
    ZOR_CORE_LOCAL bool CreateNotifyThreads();
    bool OnMutiQExit(const TSEvent* event);
    ZOR_CORE_LOCAL void DeleteFromFurtherQueues(const TCHandler* receiver);
    ZOR_CORE_LOCAL TableLock LockQueues();
    ZOR_CORE_LOCAL void TakeDown();
    ZOR_CORE_LOCAL void EndNotifyThreads(unsigned int count);

    TCSemaphore m_notifySemaphore;     ///< one unit for every event put into any queue
    TCQueue** m_pQueueArray = nullptr; ///< as m_queueSize, written under m_queuesMutex, once the
                                       ///< thread runs by that alone, which reads without it;
                                       ///< owned, and so are the queues but the first
    TCEventNotifyThread** m_notifyThreads = nullptr; ///< owned, one for each queue; made before
                                                     ///< the task's thread and taken down on it
    unsigned int m_waitMsec = 0;                     ///< fixed while the task is created
    unsigned int m_queueSize = 1;                    ///< number of queues
    TCQueue* m_ownQueue[1] = {this}; ///< all the queues there are once the others are gone

    /// Shared while a queue is looked up and used, before that queue's lock.
    std::shared_mutex m_queuesMutex;

    std::atomic<bool> m_takingDown{false}; ///< whether the task's thread waits for m_queuesMutex
    std::mutex m_takeDownMutex;            ///< held while it does, before that one
};
