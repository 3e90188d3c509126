#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "Event.h"
#include "HandledEvents.h"
#include "Handler.h"
#include "Queue.h"
#include "ReleasedData.h"
#include "TaskList.h"
#include "Thread.h"
#include "ZorExport.h"

/// A thread with an event queue and a loop that hands each event to its handler.
///
/// Derive from it and override the `t_` hooks, which all run on the task's own thread, one at a
/// time. A task is at once its thread, its queue and its own handler, which takes the event types
/// below. The life of a task, in order:
///
/// 1. Create() makes queue, handler and thread, in this order, and enters the task into the
///    registry.
/// 2. The thread runs t_Create(), registers with the watchdog and runs the loop.
/// 3. The owner sends EVENT_EXIT. Nothing does that for it.
/// 4. The loop ends; the thread runs t_Destroy() and is gone.
/// 5. Destroy() takes the task out of the registry, waits for the thread and releases the handler
///    and the queue, in this order.
///
/// Unless said otherwise an operation may be called from any thread and asserts
/// "FlagCreate() == true".
class ZOR_CORE_API TCTask : public TCThread, public TCQueue, public TCHandler
{
 public:
    /// Types of the events that a task's own handler takes.
    enum EEventType : unsigned long
    {
        EVENT_EXIT = 0,        ///< end the loop after this event
        EVENT_USER = 1,        ///< the application's
        EVENT_PING = 2,        ///< prove that the loop is alive
        EVENT_CLEAR_QUEUE = 3, ///< delete the queued events of the task's own handler
        EVENT_PAUSE = 4,       ///< wait until resumed
        EVENT_RESUME = 5,      ///< nothing; carries what is to be released on the task's thread
    };

    /// Runs before or after the handling of an event, on the task's thread, with the context that
    /// it was set with.
    using EventCallback = bool (*)(const TSEvent*, const void*);

    TCTask() = default;

    /// The thread's body: hooks, watchdog registration and the loop.
    void t_Main() override;

    /// Asserts "FlagCreate() == false".
    ~TCTask() override;

    /// Ends the task; its exit event must have been sent, or this waits until somebody sends it. A
    /// paused task is resumed first, but only one whose Pause() had begun by then: a pause that
    /// overtakes the queued exit event later makes this wait until somebody resumes the task. The
    /// same goes for a clear-queue that deletes the exit event: another one must be sent. Must not
    /// be called on the task's own thread.
    ///
    /// Calls of Pause(), ResumeAsync() and IsPaused() that begin before the task's thread has
    /// ended, or before this is called, are waited for; none may begin later. Of the other
    /// operations none may be under way when the thread has ended.
    void Destroy() override;

    /// Runs first on the task's thread. If it returns false the thread ends at once.
    virtual bool t_Create();

    /// Runs whenever no event has come for the wait time.
    virtual void t_Idle();

    /// Runs last on the task's thread, unless t_Create() returned false.
    virtual void t_Destroy();

    /// Dispatches the event types above; any other is answered false.
    bool t_OnEvent(const TSEvent* event) override;

    /// Hook for EVENT_EXIT; the loop ends whatever it returns.
    virtual bool t_OnExit(const TSEvent* event);

    virtual bool t_OnUser(const TSEvent* event); ///< Hook for EVENT_USER.

    /// Hook for EVENT_CLEAR_QUEUE: deletes the queued events of the task's own handler.
    /// @return whether there were any
    virtual bool t_OnClearQueue(const TSEvent* event);

    /// Runs before the task waits in a pause.
    virtual void t_OnPause(const TSEvent* event);

    /// Runs when a pause has ended, before further events are handled.
    virtual void t_OnResume(const TSEvent* event);

    /// Pauses the task between two events and returns when it waits. Events sent meanwhile stay
    /// queued. Must not be called on the task's own thread, which would wait for itself.
    ///
    /// @return true if the task is paused (it may have been already); false if its queue is full or
    ///         its thread has ended
    ///
    /// Throws std::future_error (broken promise) if the request is deleted from the queue.
    virtual bool Pause();

    /// Ends a pause and returns when the task has left it; t_OnResume() may still be running.
    /// Waits while another thread's Pause() or ResumeAsync() is under way, except on the task's own
    /// thread: that is not paused while its hooks and handlers run, so it is answered at once.
    /// Loggers, which the task's thread also calls while it is paused, must not call this there.
    ///
    /// @return false if the task is not paused
    virtual bool ResumeAsync();

    /// One turn of the loop: waits for one event and has it handled, or runs t_Idle().
    /// @return false when the loop is to end
    virtual bool ExecuteEvent();

    /// Makes the task and starts its thread.
    ///
    /// @param name          its name, of which the first 15 characters are used
    /// @param waitTime      milliseconds without an event after which t_Idle() runs
    /// @param stackSize     of the thread, in bytes
    /// @param watchdogTime  time-out given to the watchdog service, in seconds; 1 to 4 become 5,
    ///                      and 0 leaves the task unsupervised
    /// @return whether everything could be made. Nothing is left behind if not, but what
    ///         TCThread::Create() leaves where the system refuses the thread: the task's destructor
    ///         then asserts.
    ///
    /// Asserts "FlagCreate() == false" and "name != NULL". The registry must be there, as it is
    /// from before Main() until Main() has returned.
    bool Create(const char* name, unsigned int waitTime, unsigned long stackSize,
                unsigned long watchdogTime);

    /// Sets the callbacks around EVENT_EXIT, EVENT_USER or EVENT_CLEAR_QUEUE; null clears. A before
    /// callback that returns true takes the place of the hook; an after callback always runs, and
    /// its result is or-ed into that of the event. Those of EVENT_CLEAR_QUEUE are kept but never
    /// called.
    ///
    /// No lock guards them: set them before events of that type can arrive.
    ///
    /// @return false for any other @p type
    bool SetEventCallback(int type, EventCallback before, EventCallback after, const void* context);

    /// Stores what SetEventCallback() set, wherever the pointer is not null.
    ///
    /// @return false for any other @p type than SetEventCallback() takes
    bool GetEventCallback(int type, EventCallback* before, EventCallback* after,
                          const void** context);

    /// Whether the task is paused. Waits while a Pause() or ResumeAsync() is under way, but not on
    /// the task's own thread. Asserts nothing.
    bool IsPaused();

    /// The task's name.
    const char* Name() const;

    /// Sends @p event to its receiver: queues a copy with the receiver's task. The event stays the
    /// caller's and shares its attachment with the copy.
    ///
    /// @param sync      whether to wait until it is handled (or deleted). The receiving task's own
    ///                  thread asserts "priority == true" and handles it at once.
    /// @param priority  whether the event overtakes all that are queued
    /// @return false if the receiving task is not created or its queue is full
    ///
    /// Asserts "event != NULL" and "event->receiver != NULL". The receiver must stay alive for the
    /// whole call. While a synchronous send waits it is listed in TCSyncDet. A thread that is
    /// cancelled in a synchronous send ends at its next cancellation point behind it.
    static bool Send(TSEvent* event, bool sync, bool priority);

    /// Asks @p task to prove that it is alive, and to notify the watchdog if it is supervised.
    ///
    /// @param msec  how long to wait for the answer; 0 does not ask for one
    /// @return true if the task answered in time, if the request was deleted from its queue in that
    ///         time, if @p msec is 0 and the request is queued, or if the task is paused (nothing
    ///         is sent then); false if not, if its queue is full, or if there is no such task or no
    ///         registry
    static bool Ping(TCTask* task, unsigned long msec);

    /// Deprecated: Ping() for a task that the caller vouches for. Prints a line on every call.
    ///
    /// @return false also on the task's own thread, and mostly with @p msec 0
    [[deprecated("use the static form, which looks the task up")]] bool Ping(unsigned long msec);

    /// Has @p task delete the queued events of its own handler.
    ///
    /// @param msec  how long to wait for the answer
    /// @return true if the task answered in time, or if the request was deleted from its queue in
    ///         that time; false if not, if it is paused, if its queue is full, or if there is no
    ///         such task or no registry
    static bool ClearQueue(TCTask* task, unsigned long msec);

    /// Releases @p attachment on the task's thread behind the event in hand, or, if that has ended,
    /// on the one that destroys the task; for what a handler of the task may be using. Sends it in
    /// an EVENT_RESUME, which goes earlier, or elsewhere, where the task's own events are deleted
    /// (as by a clear-queue) or a handler calls ExecuteEvent(). If that is refused or memory short,
    /// it is listed, until the next event or wait that runs out: this cannot fail. Must be the last
    /// share but those of events. Any thread may call it, a handler of the task too.
    ///
    /// @param attachment  not null
    template <typename T>
    void ReleaseOnThread(std::shared_ptr<zor::ReleasedData<T>> attachment)
    {
        zor::ReleaseLink* const link = attachment.get();
        ReleaseOnThread(std::move(attachment), link);
    }

    using TCHandler::FlagCreate;

 protected:
    // Handlers of the event types, run on the task's thread by the dispatch.

    /// Runs t_OnExit() between its callbacks and returns what they answered; the loop ends then.
    bool OnExit(const TSEvent* event);

    /// Runs t_OnUser() between its callbacks and returns what they answered.
    bool OnUser(const TSEvent* event);

    /// Notifies the watchdog if the task is supervised, and answers the ping if an answer is waited
    /// for. Asserts "event != NULL".
    ///
    /// @return true
    bool OnPing(const TSEvent* event);

    /// Runs t_OnClearQueue() and answers the request. One without a reply ends the process by
    /// std::bad_cast. Asserts "event != NULL".
    ///
    /// @return what t_OnClearQueue() returned
    bool OnClearQueue(const TSEvent* event);

    /// Runs t_OnPause(), acknowledges, waits until the task is resumed, notifying the watchdog once
    /// a second, and runs t_OnResume(). Asserts "event != NULL"; a request without a reply throws
    /// std::future_error.
    ///
    /// @return true
    bool OnPause(const TSEvent* event);

 private:
    friend class TCHandler;
    friend class TCMultiQTask;
    friend class TCWatchdogNotifier;
    friend class zor::LayoutTable;

    static constexpr int CALLBACK_TYPES = 4;
    static constexpr std::size_t NAME_SIZE = 16;

    /// What a task of several queues does besides, in place of virtual operations, of which there
    /// must not be more.
    struct TSFurtherQueues
    {
        void (*deleteEvents)(TCTask* task, const TCHandler* receiver); ///< of that receiver
        void (*takeDown)(TCTask* task); ///< the thread has ended, perhaps without an exit event
    };

    class PauseCall;

    static bool m_Send(TSEvent* event, bool sync, bool priority);
    ZOR_CORE_LOCAL static bool TakesCallbacks(int type);

    ZOR_CORE_LOCAL void InitLoop(const char* name, unsigned int waitTime,
                                 unsigned long watchdogTime);
    ZOR_CORE_LOCAL std::optional<bool> SendToSelf(TSEvent* event, bool sync, bool priority) const;
    ZOR_CORE_LOCAL bool RunHook(EEventType type, bool (TCTask::*hook)(const TSEvent*),
                                const TSEvent* event);
    ZOR_CORE_LOCAL void Deliver(const TSEvent& event);
    ZOR_CORE_LOCAL void DeleteFor(const TCHandler* receiver);
    void ReleaseOnThread(std::shared_ptr<ZOREventDataBase> attachment, zor::ReleaseLink* link);
    ZOR_CORE_LOCAL void ReleaseNow();
    ZOR_CORE_LOCAL void WaitForPauseCalls();
    ZOR_CORE_LOCAL static void WaitForResume(const std::future<bool>& resumed);
    ZOR_CORE_LOCAL static void NotifyWatchdog();

    std::uint64_t m_waitTime = 0;       ///< milliseconds; fixed while the task is created
    std::atomic<bool> m_exit{false};    ///< written by the task's thread
    std::atomic<bool> m_running{false}; ///< written by the task's thread
    unsigned long m_watchdogTime = 0;   ///< fixed while the task is created
    std::mutex m_pauseRequestMutex;     ///< one request at a time; before m_pauseWaitMutex
    std::atomic<bool> m_paused{false};  ///< written by the task's thread, under m_pauseWaitMutex
    std::unique_ptr<std::promise<bool>> m_resumePromise; ///< made by the task's thread in a pause
    std::mutex m_pauseWaitMutex;                 ///< held by the task's thread while it is paused
    EventCallback m_before[CALLBACK_TYPES] = {}; ///< set before events of the type can arrive
    EventCallback m_after[CALLBACK_TYPES] = {};  ///< likewise
    const void* m_callbackContext[CALLBACK_TYPES] = {}; ///< likewise
    char m_taskName[NAME_SIZE] = {};                    ///< fixed while the task is created
    TSEvent m_spareEvent;                       ///< lives and dies with the task; nothing uses it
    std::mutex m_pauseCallsMutex;               ///< guards m_pauseCalls; nothing is locked under it
    std::condition_variable m_pauseCallsGone;   ///< signalled when m_pauseCalls falls to 0
    unsigned int m_pauseCalls = 0;              ///< calls that pause, resume or ask
    zor::ReleaseLink* m_firstRelease = nullptr; ///< listed attachments; guarded by the queue's lock
    std::atomic<bool> m_hasReleases{false};     ///< whether there are any; written under that lock
    const TSFurtherQueues* m_furtherQueues = nullptr; ///< set before the thread starts; may be null
    zor::HandledEvents m_handledEvents;               ///< for tools, which look from outside
};

// Both kinds of task have always come with this header. It uses nothing of the second.
#include "MultiQTask.h"
