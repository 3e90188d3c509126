// What other threads ask of a task beside its work: pause and resume, ping, clear-queue.

#include <chrono>

#include "MutexLock.h"
#include "Task.h"
#include "TaskListUse.h"
#include "TaskRequest.h"
#include "ZorServiceDebugOverlay.h"
#include "brisk_deadlock.h"

/// A call by which somebody pauses, resumes or asks. Destroy() waits for these: they may have been
/// what the task's thread needed for its end.
///
///   resumer:    counted -- set resume promise -- take and give pause mutexes -- gone
///   task:                               EXIT, ended
///   destroyer:  (waits for the thread) .............. (waits for the resumer) ... release
class TCTask::PauseCall
{
 public:
    explicit PauseCall(TCTask* task) : m_task(task)
    {
        const std::lock_guard<std::mutex> lock(m_task->m_pauseCallsMutex);
        ++m_task->m_pauseCalls;
    }

    ~PauseCall()
    {
        // Signalled under the mutex: who is let through may destroy it at once.
        const std::lock_guard<std::mutex> lock(m_task->m_pauseCallsMutex);
        if (--m_task->m_pauseCalls == 0) {
            m_task->m_pauseCallsGone.notify_all();
        }
    }

    PauseCall(const PauseCall&) = delete;
    PauseCall& operator=(const PauseCall&) = delete;

 private:
    TCTask* const m_task;
};

void TCTask::WaitForPauseCalls()
{
    std::unique_lock<std::mutex> lock(m_pauseCallsMutex);
    m_pauseCallsGone.wait(lock, [this] { return m_pauseCalls == 0; });
}

bool TCTask::IsPaused()
{
    const PauseCall call(this);
    if (IsCaller()) {
        return m_paused.load(); // only this thread changes it; whoever pauses may be waiting for it
    }
    const std::lock_guard<std::mutex> lock(m_pauseRequestMutex);
    return m_paused.load();
}

// A pause, with the two promises that carry it:
//
//   requester:  Pause: send -- wait for acknowledgement --> returns
//   task:              t_OnPause -- acknowledge -- wait for resume promise ---- t_OnResume
//   resumer:                                           ResumeAsync: set it -- wait --> returns
//
// The task holds the pause-wait mutex while it is paused, which is what the resumer waits for. The
// request mutex keeps a resume from coming between the two halves of a pause.
bool TCTask::Pause()
{
    /// Bounds how long a pause outlives a task that cannot answer any more: no human notices it,
    /// and what a look costs vanishes beside it.
    constexpr std::chrono::milliseconds ENDED_TASK_CHECK(50);

    ZOR_LOG(true, DLOG_FATAL, "[pause_resume] Begin");
    TCASSERT(FlagCreate() == true);
    const PauseCall call(this);
    const std::lock_guard<std::mutex> lock(m_pauseRequestMutex);
    if (m_paused.load()) {
        ZOR_LOG(true, DLOG_FATAL, "[pause_resume] Warning already on pause");
        return true;
    }
    TSEvent request = zor::RequestTo(this, EVENT_PAUSE);
    std::future<bool> acknowledged = zor::AttachReply(&request);
    if (!zor::SendRequest(&request)) {
        ZOR_LOG(true, DLOG_FATAL, "[pause_resume] Sending pause failed.");
        return false;
    }
    while (acknowledged.wait_for(ENDED_TASK_CHECK) != std::future_status::ready) {
        if (HasEnded()) {
            // Nobody will answer, and Destroy() waits for this call: the request is taken back.
            Delete(static_cast<TCHandler*>(this), EVENT_PAUSE, nullptr);
            ZOR_LOG(true, DLOG_FATAL, "[pause_resume] The task has ended.");
            return false;
        }
    }
    acknowledged.get();
    ZOR_LOG(true, DLOG_FATAL, "[pause_resume] END");
    return true;
}

bool TCTask::OnPause(const TSEvent* event)
{
    ZOR_LOG(true, DLOG_FATAL, "[pause_resume]");
    TCASSERT(FlagCreate() == true);
    TCASSERT(event != NULL);
    const auto acknowledgement = std::dynamic_pointer_cast<zor::TaskReply>(event->wrappedData);
    m_resumePromise = std::make_unique<std::promise<bool>>();
    const std::future<bool> resumed = m_resumePromise->get_future();
    t_OnPause(event);
    {
        std::lock_guard<std::mutex> lock(m_pauseWaitMutex);
        m_paused.store(true);
        if (acknowledgement == nullptr) {
            throw std::future_error(std::future_errc::no_state);
        }
        acknowledgement->data.set_value(true);
        ZOR_LOG(true, DLOG_FATAL, "[pause_resume] start waiting");
        WaitForResume(resumed);
        ZOR_LOG(true, DLOG_FATAL,
                "[pause_resume] resume_future status = ready; t_OnResume will be called");
        m_paused.store(false);
    }
    t_OnResume(event);
    ZOR_LOG(true, DLOG_FATAL, "[pause_resume] resuming task");
    return true;
}

/// Waits a second at a time, so that the watchdog hears of a paused task as of any other.
void TCTask::WaitForResume(const std::future<bool>& resumed)
{
    constexpr std::chrono::seconds WAIT(1);
    constexpr unsigned long WAITS_PER_LOG_LINE = 5;

    for (unsigned long waits = 0; resumed.wait_for(WAIT) != std::future_status::ready; ++waits) {
        if (waits % WAITS_PER_LOG_LINE == 0) {
            ZOR_LOG(true, DLOG_INFO, "[pause_resume] resume_future waiting");
        }
        NotifyWatchdog();
    }
}

bool TCTask::ResumeAsync()
{
    ZOR_LOG(true, DLOG_FATAL, "[pause_resume] BEGIN");
    TCASSERT(FlagCreate() == true);
    const PauseCall call(this);
    std::unique_lock<std::mutex> requestLock(m_pauseRequestMutex, std::defer_lock);
    // Only the task's own thread changes the flag, so on it the answer is known; whoever pauses may
    // be waiting for it to go on.
    const bool runsHere = IsCaller() && !m_paused.load();
    if (!runsHere) {
        requestLock.lock();
    }
    if (!m_paused.load()) {
        ZOR_LOG(true, DLOG_FATAL, "[pause_resume] Resume WARNING Task was not in pause state.");
        return false;
    }
    m_resumePromise->set_value(true);
    // The task holds this mutex until it has left the pause.
    const std::lock_guard<std::mutex> waitLock(m_pauseWaitMutex);
    ZOR_LOG(true, DLOG_FATAL, "[pause_resume] END");
    return true;
}

void TCTask::t_OnPause(const TSEvent* /*event*/)
{
    TCASSERT(FlagCreate() == true);
}

void TCTask::t_OnResume(const TSEvent* /*event*/)
{
    TCASSERT(FlagCreate() == true);
}

void TCTask::NotifyWatchdog()
{
    if (brisk_deadlock_watchdog_notify() != 0) {
        TCDebug::Print("Unable to notify watchdog service\n");
    }
}

bool TCTask::Ping(TCTask* task, unsigned long msec)
{
    std::future<bool> answer;
    bool paused = false;
    {
        // Held from the look-up until the request is queued: the task cannot be destroyed
        // meanwhile.
        const zor::TaskListUse registry;
        if (!registry.Find(task)) {
            return false;
        }
        paused = task->m_paused.load();
        if (!paused) {
            TSEvent request = zor::RequestTo(task, EVENT_PING);
            if (msec != 0) {
                answer = zor::AttachReply(&request);
            }
            if (!zor::SendRequest(&request)) {
                return false;
            }
        }
    }
    if (paused) {
        ZOR_LOG(false, DLOG_INFO, "[pause_resume] Task is on pause skip sending ping.");
        return true;
    }
    return msec == 0 || zor::IsAnsweredWithin(answer, msec);
}

bool TCTask::Ping(unsigned long msec)
{
    TCDebug::Print("### deprecated function called : TCTask::Ping(unsigned long msec)\n");
    if (m_paused.load()) {
        ZOR_LOG(false, DLOG_INFO, "[pause_resume] Deprecated ping skip on pause");
        return true;
    }
    if (Id() == TCThreadSelf::Id()) {
        return false; // it could never answer itself
    }
    TSEvent request = zor::RequestTo(this, EVENT_PING);
    const std::future<bool> answer = zor::AttachReply(&request);
    return zor::SendRequest(&request) && zor::IsAnsweredWithin(answer, msec);
}

bool TCTask::ClearQueue(TCTask* task, unsigned long msec)
{
    std::future<bool> answer;
    {
        const zor::TaskListUse registry;
        if (!registry.Find(task)) {
            return false;
        }
        if (task->m_paused.load()) {
            ZOR_LOG(false, DLOG_FATAL, "[pause_resume] Failed - called on pause.");
            return false;
        }
        TSEvent request = zor::RequestTo(task, EVENT_CLEAR_QUEUE);
        answer = zor::AttachReply(&request);
        if (!zor::SendRequest(&request)) {
            return false;
        }
    }
    return zor::IsAnsweredWithin(answer, msec);
}

bool TCTask::OnPing(const TSEvent* event)
{
    TCASSERT(FlagCreate() == true);
    TCASSERT(event != NULL);
    if (m_watchdogTime != 0) {
        NotifyWatchdog();
    }
    const auto reply = std::dynamic_pointer_cast<zor::TaskReply>(event->wrappedData);
    if (reply != nullptr) {
        reply->data.set_value(true);
    }
    return true;
}

bool TCTask::OnClearQueue(const TSEvent* event)
{
    TCASSERT(FlagCreate() == true);
    TCASSERT(event != NULL);
    const bool result = t_OnClearQueue(event);
    // Every request of ClearQueue() carries a reply. One that does not is an error of whoever made
    // it, and ends the process by std::bad_cast.
    ZOREventDataBase none;
    ZOREventDataBase& attached = event->wrappedData != nullptr ? *event->wrappedData : none;
    dynamic_cast<zor::TaskReply&>(attached).data.set_value(true);
    return result;
}

bool TCTask::t_OnClearQueue(const TSEvent* event)
{
    TCASSERT(FlagCreate() == true);
    TCASSERT(event != NULL);
    return Delete(static_cast<TCHandler*>(this), nullptr);
}
