#include "Task.h"

#include <algorithm>
#include <cstring>

#include <new>

#include "MutexLock.h"
#include "NoCancellation.h"
#include "PausedSendTrace.h"
#include "Sync.h"
#include "TCDebugPrint.h"
#include "TaskListEntry.h"
#include "TrapPoint.h"
#include "Undo.h"
#include "ZorServiceDebugOverlay.h"
#include "brisk_deadlock.h"

namespace {

/// The least time-out that the watchdog service is asked for.
constexpr unsigned long LEAST_WATCHDOG_TIME = 5;

/// The location under which tools know a send. It is a constant of the system and does not follow
/// the source.
TSCodeLocation g_sendCall("static bool TCTask::Send(TSEvent*, bool, bool)", "src/Task.cpp", 168);

/// Lists a synchronous send in the table of calls in progress, on every way out.
class SyncCallEntry
{
 public:
    SyncCallEntry(bool sync, TSEvent* event)
    {
        if (sync) {
            m_index = TCSyncDet::PCTaskSyncMonitoring(static_cast<int>(TCThreadSelf::Id()), event);
        }
    }

    ~SyncCallEntry()
    {
        if (m_index >= 0) {
            const int iRet = TCSyncDet::Remove(m_index);
            TCASSERT(!iRet);
        }
    }

    SyncCallEntry(const SyncCallEntry&) = delete;
    SyncCallEntry& operator=(const SyncCallEntry&) = delete;

 private:
    int m_index = -1; ///< negative while not listed
};

/// Whether @p event is on its way: not if the queue is full, or memory is short for what it is
/// stamped with.
bool IsSent(TSEvent* event)
{
    try {
        return TCTask::Send(event, false, true);
    } catch (const std::bad_alloc&) {
        return false;
    }
}

} // namespace

TCTask::~TCTask()
{
    TCASSERT(FlagCreate() == false);
}

bool TCTask::Create(const char* name, unsigned int waitTime, unsigned long stackSize,
                    unsigned long watchdogTime)
{
    TCASSERT(FlagCreate() == false);
    TCASSERT(name != NULL);
    zor::TaskListEntry entry(this);
    m_running.store(false, std::memory_order_relaxed);
    if (!TCQueue::Create()) {
        return false;
    }
    zor::Undo queue([this] { TCQueue::Destroy(); });
    if (!TCHandler::Create(this)) {
        return false;
    }
    zor::Undo handler([this] { TCHandler::Destroy(); });
    InitLoop(name, waitTime, watchdogTime);
    if (!TCThread::Create(name, stackSize)) {
        return false;
    }
    handler.Keep();
    queue.Keep();
    entry.Enter();
    return true;
}

/// What the loop works with, set before its thread starts.
void TCTask::InitLoop(const char* name, unsigned int waitTime, unsigned long watchdogTime)
{
    m_exit.store(false, std::memory_order_relaxed);
    m_waitTime = waitTime;
    m_watchdogTime = watchdogTime == 0 ? 0 : std::max(watchdogTime, LEAST_WATCHDOG_TIME);
    m_paused.store(false);
    m_handledEvents.Restart();
    memset(m_taskName, 0, sizeof(m_taskName));
    memcpy(m_taskName, name, strnlen(name, sizeof(m_taskName) - 1));
    for (const int type : {EVENT_EXIT, EVENT_USER, EVENT_CLEAR_QUEUE}) {
        SetEventCallback(type, nullptr, nullptr, nullptr);
    }
}

void TCTask::Destroy()
{
    TCASSERT(FlagCreate() == true);
    if (IsPaused()) {
        ZOR_LOG(true, DLOG_FATAL, "[pause_resume] Was not resumed before destroying.");
        ResumeAsync();
    }
    TCTaskList::Unregister(this);
    // The thread is gone before what it works on goes, and so are those who paused or resumed it.
    TCThread::Destroy();
    WaitForPauseCalls();
    if (m_furtherQueues != nullptr) {
        m_furtherQueues->takeDown(this);
    }
    // What is released here may hand the task more: it may own a timer of the task, which may own
    // another.
    do {
        ReleaseNow();
    } while (Delete(static_cast<TCHandler*>(this), nullptr) ||
             m_hasReleases.load(std::memory_order_relaxed));
    TCHandler::Destroy();
    TCQueue::Destroy();
}

void TCTask::t_Main()
{
    TCASSERT(FlagCreate() == true);
    if (!t_Create()) {
        return;
    }
    if (m_watchdogTime != 0 && brisk_deadlock_register_watchdog_service(m_watchdogTime) != 0) {
        TCDebug::Print("Unable to register watchdog service\n");
    }
    m_running.store(true, std::memory_order_relaxed);
    while (ExecuteEvent()) {
    }
    m_running.store(false, std::memory_order_relaxed);
    t_Destroy();
}

bool TCTask::ExecuteEvent()
{
    TCASSERT(FlagCreate() == true);
    if (m_exit.load(std::memory_order_relaxed)) {
        return false;
    }
    TSEvent event;
    if (!TCQueue::GetSync(&event, m_waitTime, false)) {
        ReleaseNow(); // what a full queue kept out may find it emptied by a deletion
        t_Idle();
        return true;
    }
    Deliver(event);
    return true;
}

/// Hands @p event to its receiver on behalf of the application that sent it, and releases a waiting
/// sender. An event whose receiver is gone is dropped: its sender goes on waiting.
void TCTask::Deliver(const TSEvent& event)
{
    if (event.receiver == nullptr || !event.receiver->FlagCreate()) {
        ReleaseNow();
        return;
    }
    TCDebugPrintZOR* const debugPrint = TCDebugPrintZOR::GetInstance();
    if (!event.appName.empty()) {
        debugPrint->SetAppData(event.appName.c_str(), static_cast<signed char>(event.appFlag));
    }
    {
        const zor::HandledEvents::InHand inHand(&m_handledEvents, event.receiver, event.type);
        event.receiver->OnEvent(&event);
    }
    debugPrint->SetAppName("");
    if (event.sync != nullptr) {
        event.sync->Give();
    }
    ReleaseNow();
}

/// Deletes the queued events of @p receiver from every queue that the task has.
void TCTask::DeleteFor(const TCHandler* receiver)
{
    Delete(receiver, nullptr);
    if (m_furtherQueues != nullptr) {
        m_furtherQueues->deleteEvents(this, receiver);
    }
}

// Why the queue is locked around the departure of what is released elsewhere:
//
//   this thread:    lock queue -- send [attachment] -- let go of own share -- unlock
//   task's thread:                                                                take, release
//
// The last to let go of the event destroys the attachment. Without the lock the task could take and
// release the event first, and the attachment would die on this thread.
void TCTask::ReleaseOnThread(std::shared_ptr<ZOREventDataBase> attachment, zor::ReleaseLink* link)
{
    const zor::MutexLock lock(this);
    TSEvent event;
    event.type = EVENT_RESUME;
    event.receiver = this;
    event.wrappedData = std::move(attachment);
    if (!IsSent(&event)) {
        link->m_attachment = std::move(event.wrappedData);
        link->m_next = std::exchange(m_firstRelease, link);
        m_hasReleases.store(true, std::memory_order_relaxed);
    }
}

/// Runs on the task's thread when no handler does, and when that thread has ended.
void TCTask::ReleaseNow()
{
    // Relaxed: it was set under the queue's lock, and giving that and taking an event are ordered
    // by the same mutex.
    if (!m_hasReleases.load(std::memory_order_relaxed)) {
        return;
    }
    zor::ReleaseLink* next = nullptr;
    {
        const zor::MutexLock lock(this);
        next = std::exchange(m_firstRelease, nullptr);
        m_hasReleases.store(false, std::memory_order_relaxed);
    }
    while (next != nullptr) {
        zor::ReleaseLink* const link = std::exchange(next, next->m_next);
        const std::shared_ptr<ZOREventDataBase> released = std::move(link->m_attachment);
    }
}

bool TCTask::t_Create()
{
    TCASSERT(FlagCreate() == true);
    return true;
}

void TCTask::t_Idle()
{
    TCASSERT(FlagCreate() == true);
}

void TCTask::t_Destroy()
{
    TCASSERT(FlagCreate() == true);
}

bool TCTask::t_OnEvent(const TSEvent* event)
{
    TCASSERT(FlagCreate() == true);
    TCASSERT(event != NULL);
    switch (event->type) {
        case EVENT_EXIT:
            return OnExit(event);
        case EVENT_USER:
            return OnUser(event);
        case EVENT_PING:
            return OnPing(event);
        case EVENT_CLEAR_QUEUE:
            return OnClearQueue(event);
        case EVENT_PAUSE:
            ZOR_LOG(false, DLOG_INFO, "[pause_resume] EVENT_PAUSE");
            return OnPause(event);
        case EVENT_RESUME:
            return true;
        default:
            return false;
    }
}

bool TCTask::t_OnExit(const TSEvent* event)
{
    TCASSERT(FlagCreate() == true);
    TCASSERT(event != NULL);
    return true;
}

bool TCTask::t_OnUser(const TSEvent* event)
{
    TCASSERT(FlagCreate() == true);
    TCASSERT(event != NULL);
    return true;
}

bool TCTask::OnExit(const TSEvent* event)
{
    const bool handled = RunHook(EVENT_EXIT, &TCTask::t_OnExit, event);
    m_exit.store(true, std::memory_order_relaxed); // whatever the callbacks say
    return handled;
}

bool TCTask::OnUser(const TSEvent* event)
{
    return RunHook(EVENT_USER, &TCTask::t_OnUser, event);
}

/// Runs @p hook between the callbacks of its event type.
bool TCTask::RunHook(EEventType type, bool (TCTask::*hook)(const TSEvent*), const TSEvent* event)
{
    const void* const context = m_callbackContext[type];
    bool handled = m_before[type] != nullptr && m_before[type](event, context);
    if (!handled) {
        handled = (this->*hook)(event);
    }
    if (m_after[type] != nullptr) {
        handled = m_after[type](event, context) || handled;
    }
    return handled;
}

bool TCTask::TakesCallbacks(int type)
{
    return type == EVENT_EXIT || type == EVENT_USER || type == EVENT_CLEAR_QUEUE;
}

bool TCTask::SetEventCallback(int type, EventCallback before, EventCallback after,
                              const void* context)
{
    TCASSERT(FlagCreate() == true);
    if (!TakesCallbacks(type)) {
        return false;
    }
    m_before[type] = before;
    m_after[type] = after;
    m_callbackContext[type] = context;
    return true;
}

bool TCTask::GetEventCallback(int type, EventCallback* before, EventCallback* after,
                              const void** context)
{
    TCASSERT(FlagCreate() == true);
    if (!TakesCallbacks(type)) {
        return false;
    }
    if (before != nullptr) {
        *before = m_before[type];
    }
    if (after != nullptr) {
        *after = m_after[type];
    }
    if (context != nullptr) {
        *context = m_callbackContext[type];
    }
    return true;
}

const char* TCTask::Name() const
{
    TCASSERT(FlagCreate() == true);
    return m_taskName;
}

bool TCTask::Send(TSEvent* event, bool sync, bool priority)
{
    TCASSERT(event != NULL);
    // Past a failed assertion the operation goes on, and this is what it meets.
    TCASSERT(event->receiver != NULL); // NOLINT(clang-analyzer-core.NullDereference)
    if (!event->flag) {
        return m_Send(event, sync, priority);
    }
    const TCArgList3<TSEvent*&, bool&, bool&> args(event, sync, priority);
    return zor::CallAtTrapPoint<bool>(g_sendCall, args,
                                      [&] { return m_Send(event, sync, priority); });
}

/// What becomes of a synchronous send on the task's own thread: the event cannot go through the
/// queue, because the thread would wait for itself. Nothing, if this is no such send.
std::optional<bool> TCTask::SendToSelf(TSEvent* event, bool sync, bool priority) const
{
    if (!sync) {
        return std::nullopt;
    }
    TCASSERT(FlagCreate() == true);
    if (Id() != TCThreadSelf::Id()) {
        return std::nullopt;
    }
    TCASSERT(priority == true);
    if (priority) {
        event->receiver->OnEvent(event);
    }
    return priority;
}

bool TCTask::m_Send(TSEvent* event, bool sync, bool priority)
{
    const zor::NoCancellation whole(sync); // the ends of the next two may wait and write
    zor::PausedSendTrace warning;          // spans the whole put and ends after the entry
    const SyncCallEntry entry(sync, event);
    TCTask* const task = event->receiver->Task();
    if (const std::optional<bool> done = task->SendToSelf(event, sync, priority)) {
        return *done;
    }
    if (!task->FlagCreate()) {
        return false;
    }
    if (task->m_paused.load()) {
        warning.Begin(
            "TCTask::%s [pause_resume] WARNING: event->type[%d] was send to paused task and is not "
            "processed yet.",
            "m_Send", static_cast<int>(event->type));
    }
    return task->PutSync(event, sync, priority);
}
