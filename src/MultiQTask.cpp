#include <memory>
#include <utility>
#include <vector>

#include "MutexLock.h"
#include "PausedSendTrace.h"
#include "Reply.h"
#include "TCDebugPrint.h"
#include "Task.h"
#include "TaskListEntry.h"
#include "TaskRequest.h"
#include "TrapPoint.h"
#include "ZorServiceDebugOverlay.h"

namespace {

constexpr char NOTIFY_THREAD_NAME[] = "MQEventNotify";

/// The location under which tools know a send. It is a constant of the system and does not follow
/// the source.
TSCodeLocation g_sendCall("static bool TCMultiQTask::Send(TSEvent*, bool, bool, unsigned int)",
                          "src/Task.cpp", 1435);

/// Undoes a step of the creation that comes to nothing, by a result or by an exception.
template <typename Step>
class Undo
{
 public:
    explicit Undo(Step step) : m_step(std::move(step)) {}
    ~Undo()
    {
        if (!m_kept) {
            m_step();
        }
    }

    Undo(const Undo&) = delete;
    Undo& operator=(const Undo&) = delete;

    void Keep() { m_kept = true; }

 private:
    Step m_step;
    bool m_kept = false;
};

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
    TaskListEntry entry(this);
    m_running.store(false, std::memory_order_relaxed);
    if (!TCQueue::Create()) {
        return false;
    }
    Undo queue([this] { TCQueue::Destroy(); });
    if (!CreateQueues(nQueueSize)) {
        return false;
    }
    TCHandler::Create(this);
    Undo handler([this] { TCHandler::Destroy(); });
    m_waitMsec = waitMsec;
    InitLoop(name, waitMsec, watchdogTime);
    if (!CreateThreads(name, stackSize)) {
        return false;
    }
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

/// Starts the task's thread and then the notify threads. The task may handle an exit event at once;
/// its take-down waits until there is all that it takes down. Memory is asked for before the thread
/// runs: a task without notify threads could not be ended.
bool TCMultiQTask::CreateThreads(const char* name, unsigned long stackSize)
{
    const std::lock_guard<std::mutex> lock(m_creationMutex);
    auto threads = std::make_unique<TCEventNotifyThread*[]>(m_queueSize);
    std::vector<std::unique_ptr<TCEventNotifyThread>> owned(m_queueSize);
    for (auto& thread : owned) {
        thread = std::make_unique<TCEventNotifyThread>();
    }
    if (!TCThread::Create(name, stackSize)) {
        return false;
    }
    m_notifyThreads = threads.release();
    for (unsigned int i = 0; i < m_queueSize; ++i) {
        m_notifyThreads[i] = owned[i].release();
        m_notifyThreads[i]->Create(NOTIFY_THREAD_NAME, m_pQueueArray[i], &m_notifySemaphore,
                                   m_waitMsec);
    }
    return true;
}

void TCMultiQTask::Destroy()
{
    TCASSERT(FlagCreate() == true);
    if (IsPaused()) {
        ZOR_LOG(true, DLOG_FATAL, "[pause_resume] Was not resumed before destroying.");
        ResumeAsync();
    }
    TCTaskList::Unregister(this);
    TCThread::Destroy();
    TakeDown(); // if the thread ended without an exit event
    ReleaseNow();
    TCHandler::Destroy();
    TCQueue::Destroy();
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
///   task:                                           lock -- swap -- unlock -- delete the queues
void TCMultiQTask::TakeDown()
{
    const std::lock_guard<std::mutex> created(m_creationMutex);
    if (m_notifyThreads == nullptr) {
        return;
    }
    TCQueue** queues = nullptr;
    unsigned int size = 0;
    {
        const std::unique_lock<std::shared_mutex> lock(m_queuesMutex);
        queues = std::exchange(m_pQueueArray, m_ownQueue);
        size = std::exchange(m_queueSize, 1);
    }
    for (unsigned int i = 0; i < size; ++i) {
        if (m_notifyThreads[i]->FlagCreate()) { // it may never have come to be
            m_notifyThreads[i]->Destroy();
        }
        delete m_notifyThreads[i];
    }
    delete[] m_notifyThreads;
    m_notifyThreads = nullptr;
    for (unsigned int i = 1; i < size; ++i) {
        queues[i]->Destroy();
        delete queues[i];
    }
    delete[] queues;
    m_notifySemaphore.Destroy();
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
    if (!HasQueue(idx)) {
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
        const zor::MutexLock lock(&TCTaskList::m_mutex);
        if (!TCTaskList::Find(task)) {
            return false;
        }
        if (task->m_paused.load()) {
            ZOR_LOG(true, DLOG_FATAL, "[pause_resume] Failed - called on pause.");
            return false;
        }
        TSEvent request = RequestTo(task, EVENT_CLEAR_QUEUE);
        request.param2 = static_cast<std::uint32_t>(idx);
        answer = AttachReply(&request);
        if (!Send(&request, false, true, 0)) {
            return false;
        }
    } // with the requester's share of the reply
    return IsAnsweredWithin(answer, msec);
}

bool TCMultiQTask::HasQueue(int index) const
{
    return index >= 0 && index < static_cast<int>(m_queueSize);
}

std::size_t TCMultiQTask::Size(int queueIdx)
{
    TCASSERT(FlagCreate());
    const std::shared_lock<std::shared_mutex> lock(m_queuesMutex);
    // The text of the check is what a report shows, to the letter.
    // clang-format off
    TCASSERT(queueIdx >=0 && queueIdx < (int)m_queueSize);
    // clang-format on
    if (!HasQueue(queueIdx)) {
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
    auto* const pMultiQTask = dynamic_cast<TCMultiQTask*>(event->receiver->Task());
    if (pMultiQTask == nullptr) {
        return false;
    }
    if (sync && pMultiQTask->RunsOnCaller()) {
        // The event cannot go through the queue: the thread would wait for itself.
        TCASSERT(priority == true);
        if (priority) {
            event->receiver->OnEvent(event);
        }
        return priority;
    }
    zor::Reply reply; // on the sender's stack, as in TCQueue::PutSync()
    if (sync && !reply.Create()) {
        return false;
    }
    PausedSendTrace warning; // spans the whole put, a synchronous wait included
    {
        const std::shared_lock<std::shared_mutex> lock(pMultiQTask->m_queuesMutex);
        TCASSERT(nQueueIndex < pMultiQTask->m_queueSize);
        if (nQueueIndex >= pMultiQTask->m_queueSize) {
            return false;
        }
        TCASSERT(pMultiQTask->m_pQueueArray[nQueueIndex]);
        if (pMultiQTask->m_paused.load()) {
            warning.Begin(
                "TCMultiQTask::%s [pause_resume] WARNING: event->type[%d] was send to paused task "
                "and is not processed jet.",
                "m_Send", static_cast<int>(event->type));
        }
        TCQueue* const queue = pMultiQTask->m_pQueueArray[nQueueIndex];
        if (!queue->Place(*event, sync ? &reply : nullptr, priority)) {
            return false;
        }
    }
    if (sync) {
        reply.Wait(); // without the lock, which the handling of an exit event needs
    }
    return true;
}
