#include "MultiQTask.h"

#include <memory>
#include <utility>
#include <vector>

#include "NoCancellation.h"
#include "PausedSendTrace.h"
#include "TCDebugPrint.h"
#include "TaskListEntry.h"
#include "TaskListUse.h"
#include "TaskRequest.h"
#include "TrapPoint.h"
#include "Undo.h"
#include "ZorServiceDebugOverlay.h"

namespace {

constexpr char NOTIFY_THREAD_NAME[] = "MQEventNotify";

/// The location under which tools know a send. It is a constant of the system and does not follow
/// the source.
TSCodeLocation g_sendCall("static bool TCMultiQTask::Send(TSEvent*, bool, bool, unsigned int)",
                          "src/Task.cpp", 1435);

} // namespace

TCMultiQTask::~TCMultiQTask()
{
    TCASSERT(FlagCreate() == false);
}

bool TCMultiQTask::Create(const char* name, unsigned int waitMsec, unsigned long stackSize,
                          unsigned int nQueueSize, unsigned long watchdogTime)
{
    TCASSERT(FlagCreate() == false);
    TCASSERT(name != NULL);
    TCASSERT(nQueueSize > 0);
    if (nQueueSize == 0) {
        return false;
    }
    zor::TaskListEntry entry(this);
    m_running.store(false, std::memory_order_relaxed);
    if (!TCQueue::Create()) {
        return false;
    }
    zor::Undo queue([this] { TCQueue::Destroy(); });
    if (!CreateQueues(nQueueSize)) {
        return false;
    }
    TCHandler::Create(this);
    zor::Undo handler([this] { TCHandler::Destroy(); });
    m_waitMsec = waitMsec;
    InitLoop(name, waitMsec, watchdogTime);
    // Before the task's thread: that may handle an exit event at once, which takes them down, and
    // without them it could not be ended.
    if (!CreateNotifyThreads()) {
        return false;
    }
    zor::Undo notifyThreads([this] { EndNotifyThreads(m_queueSize); });
    m_furtherQueues = &FURTHER_QUEUES;
    if (!TCThread::Create(name, stackSize)) {
        return false;
    }
    notifyThreads.Keep();
    handler.Keep();
    queue.Keep();
    entry.Enter();
    return true;
}

/// Makes the notify semaphore and the queues behind the first. What has been made when one cannot
/// be made stays behind; where only memory is short nothing has been made.
bool TCMultiQTask::CreateQueues(unsigned int nQueueSize)
{
    auto queues = std::make_unique<TCQueue*[]>(nQueueSize);
    std::vector<std::unique_ptr<TCQueue>> notCreated;
    notCreated.reserve(nQueueSize);
    while (notCreated.size() + 1 < nQueueSize) {
        notCreated.push_back(std::make_unique<TCQueue>());
    }
    if (!m_notifySemaphore.Create(0)) {
        return false;
    }
    unsigned int made = 0;
    queues[made++] = this;
    for (auto& queue : notCreated) {
        if (!queue->Create()) {
            return false;
        }
        queues[made++] = queue.release();
    }
    const std::unique_lock<std::shared_mutex> lock(m_queuesMutex);
    m_queueSize = nQueueSize;
    m_pQueueArray = queues.release();
    return true;
}

/// Makes all notify threads, or none.
bool TCMultiQTask::CreateNotifyThreads()
{
    auto threads = std::make_unique<TCEventNotifyThread*[]>(m_queueSize);
    std::vector<std::unique_ptr<TCEventNotifyThread>> owned(m_queueSize);
    for (auto& thread : owned) {
        thread = std::make_unique<TCEventNotifyThread>();
    }
    unsigned int made = 0;
    zor::Undo running([&] {
        while (made > 0) {
            owned[--made]->Destroy();
        }
    });
    for (; made < m_queueSize; ++made) {
        if (!owned[made]->Create(NOTIFY_THREAD_NAME, m_pQueueArray[made], &m_notifySemaphore,
                                 m_waitMsec)) {
            return false;
        }
    }
    running.Keep();
    for (unsigned int i = 0; i < m_queueSize; ++i) {
        threads[i] = owned[i].release();
    }
    m_notifyThreads = threads.release();
    return true;
}

void TCMultiQTask::EndNotifyThreads(unsigned int count)
{
    for (unsigned int i = 0; i < count; ++i) {
        m_notifyThreads[i]->Destroy();
        delete m_notifyThreads[i];
    }
    delete[] m_notifyThreads;
    m_notifyThreads = nullptr;
}

const TCTask::TSFurtherQueues TCMultiQTask::FURTHER_QUEUES = {
    [](TCTask* task, const TCHandler* receiver) {
        static_cast<TCMultiQTask*>(task)->DeleteFromFurtherQueues(receiver);
    },
    [](TCTask* task) { static_cast<TCMultiQTask*>(task)->TakeDown(); },
};

void TCMultiQTask::Destroy()
{
    TCTask::Destroy();
}

bool TCMultiQTask::ExecuteEvent()
{
    if (m_exit.load(std::memory_order_relaxed)) {
        return false;
    }
    if (!m_notifySemaphore.Try(m_waitMsec)) {
        ReleaseNow();
        return true;
    }
    TSEvent event;
    for (unsigned int i = 0; i < m_queueSize; ++i) {
        if (m_pQueueArray[i]->GetSyncQData(&event, false)) {
            Deliver(event);
            break;
        }
    }
    return true; // a unit can outlive its event
}

bool TCMultiQTask::t_OnEvent(const TSEvent* event)
{
    TCASSERT(FlagCreate() == true);
    TCASSERT(event != NULL);
    switch (event->type) {
        case EVENT_EXIT:
            return OnMutiQExit(event);
        case EVENT_USER:
            return OnUser(event);
        case EVENT_PING:
            return OnPing(event);
        case EVENT_CLEAR_QUEUE:
            return OnClearQueue(event);
        case EVENT_PAUSE:
            ZOR_LOG(false, DLOG_INFO, "[pause_resume]EVENT_PAUSE");
            return OnPause(event);
        default:
            return false;
    }
}

/// Takes down, on the task's thread, what only the task's thread takes events from.
bool TCMultiQTask::OnMutiQExit(const TSEvent* event)
{
    const bool handled = OnExit(event);
    TakeDown();
    return handled;
}

/// Takes down the notify threads, the further queues and the notify semaphore, unless that has been
/// done. From then on there is queue 0 only.
///
///   sender:  shared lock -- look up queue -- put -- unlock (-- wait for the reply)
///   task:        announce -- lock (waits) ......... swap -- unlock -- delete the queues
///
/// Senders that come after the announcement wait as well: while they hold the lock in turns it is
/// never free.
void TCMultiQTask::TakeDown()
{
    if (m_notifyThreads == nullptr) {
        return;
    }
    TCQueue** queues = nullptr;
    unsigned int size = 0;
    {
        const std::lock_guard<std::mutex> announced(m_takeDownMutex);
        m_takingDown.store(true, std::memory_order_relaxed);
        const std::unique_lock<std::shared_mutex> lock(m_queuesMutex);
        m_takingDown.store(false, std::memory_order_relaxed);
        queues = std::exchange(m_pQueueArray, m_ownQueue);
        size = std::exchange(m_queueSize, 1);
    }
    EndNotifyThreads(size);
    for (unsigned int i = 1; i < size; ++i) {
        queues[i]->Destroy();
        delete queues[i];
    }
    delete[] queues;
    m_notifySemaphore.Destroy();
}

/// The lock under which a queue is looked up and used. Makes way for the take-down.
TCQueue::TableLock TCMultiQTask::LockQueues()
{
    // Relaxed: whoever does not see it yet takes the lock as if it had come earlier.
    if (m_takingDown.load(std::memory_order_relaxed)) {
        const std::lock_guard<std::mutex> takenDown(m_takeDownMutex);
    }
    return TableLock(m_queuesMutex);
}

/// Deletes the events of @p receiver from the queues behind the first. The shared lock keeps each
/// queue alive and is given back before what its events held is released: that may run code which
/// sends.
void TCMultiQTask::DeleteFromFurtherQueues(const TCHandler* receiver)
{
    for (unsigned int i = 1;; ++i) {
        TableLock lock = LockQueues();
        if (i >= m_queueSize) {
            return;
        }
        m_pQueueArray[i]->DeleteAndUnlock(receiver, &lock);
    }
}

bool TCMultiQTask::t_OnClearQueue(const TSEvent* event)
{
    TCASSERT(FlagCreate() == true);
    TCASSERT(event != NULL);
    const int idx = static_cast<int>(event->param2);
    // The text of the check is what a report shows, to the letter.
    // clang-format off
    TCASSERT(idx >=0 && idx < (int)m_queueSize);
    // clang-format on
    if (!HasQueueLocked(idx)) {
        return false;
    }
    TCASSERT(m_pQueueArray[idx]);
    return m_pQueueArray[idx]->Delete(static_cast<TCHandler*>(this), nullptr);
}

bool TCMultiQTask::ClearQueue(TCMultiQTask* task, int idx, unsigned long msec)
{
    std::future<bool> answer;
    {
        // Held from the look-up until the request is queued: the task cannot be destroyed
        // meanwhile.
        const zor::TaskListUse registry;
        if (!registry.Find(task)) {
            return false;
        }
        if (task->m_paused.load()) {
            ZOR_LOG(true, DLOG_FATAL, "[pause_resume] Failed - called on pause.");
            return false;
        }
        TSEvent request = zor::RequestTo(task, EVENT_CLEAR_QUEUE);
        request.param2 = static_cast<std::uint32_t>(idx);
        answer = zor::AttachReply(&request);
        const bool sent = Send(&request, false, true, 0);
        request.wrappedData.reset(); // the requester's share, as zor::SendRequest() does
        if (!sent) {
            return false;
        }
    }
    return zor::IsAnsweredWithin(answer, msec);
}

/// Under m_queuesMutex, or on the task's thread, which alone writes.
bool TCMultiQTask::HasQueueLocked(int index) const
{
    return index >= 0 && index < static_cast<int>(m_queueSize);
}

std::size_t TCMultiQTask::Size(int queueIdx)
{
    TCASSERT(FlagCreate());
    const TableLock lock = LockQueues();
    // The text of the check is what a report shows, to the letter.
    // clang-format off
    TCASSERT(queueIdx >=0 && queueIdx < (int)m_queueSize);
    // clang-format on
    if (!HasQueueLocked(queueIdx)) {
        return 0;
    }
    TCASSERT(m_pQueueArray[queueIdx]);
    return m_pQueueArray[queueIdx]->Size();
}

std::size_t TCMultiQTask::Size()
{
    TCASSERT(!("not supported, use TCMUltiQTask::Size(int) instead"));
    return 0;
}

bool TCMultiQTask::Send(TSEvent* event, bool sync, bool priority, unsigned int nQueueIndex)
{
    TCASSERT(event != NULL);
    TCASSERT(event->receiver != NULL);
    if (!event->flag) {
        return m_Send(event, sync, priority, nQueueIndex);
    }
    const TCArgList4<TSEvent*&, bool&, bool&, unsigned int&> args(event, sync, priority,
                                                                  nQueueIndex);
    return zor::CallAtTrapPoint<bool>(g_sendCall, args,
                                      [&] { return m_Send(event, sync, priority, nQueueIndex); });
}

bool TCMultiQTask::m_Send(TSEvent* event, bool sync, bool priority, unsigned int nQueueIndex)
{
    const zor::NoCancellation whole(sync);
    auto* const pMultiQTask = dynamic_cast<TCMultiQTask*>(event->receiver->Task());
    if (pMultiQTask == nullptr) {
        return false;
    }
    if (const std::optional<bool> done = pMultiQTask->SendToSelf(event, sync, priority)) {
        return *done;
    }
    if (!pMultiQTask->FlagCreate()) {
        return false;
    }
    zor::PausedSendTrace warning; // spans the whole put, a synchronous wait included
    TableLock lock = pMultiQTask->LockQueues();
    TCASSERT(nQueueIndex < pMultiQTask->m_queueSize);
    if (nQueueIndex >= pMultiQTask->m_queueSize) {
        return false;
    }
    TCASSERT(pMultiQTask->m_pQueueArray[nQueueIndex]);
    if (pMultiQTask->m_paused.load()) {
        warning.Begin(
            "TCMultiQTask::%s [pause_resume] WARNING: event->type[%d] was send to paused task and "
            "is not processed jet.",
            "m_Send", static_cast<int>(event->type));
    }
    // The wait for the reply goes without the lock, which the handling of an exit event needs.
    return pMultiQTask->m_pQueueArray[nQueueIndex]->PutSync(event, sync, priority, &lock);
}
