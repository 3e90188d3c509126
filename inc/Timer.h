#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>

#include "Event.h"
#include "Handler.h"
#include "TimersScheduler.h"
#include "ZorExport.h"

/// Types of the events that a timer's handler takes.
enum TimerEventType : unsigned long
{
    EVENT_TIMER_TIMEOUT = 0, ///< a firing: the listener is called
    EVENT_TIMER_SYNC = 1,    ///< accepted without calling the listener
};

/// What a timer calls.
class ZOR_CORE_API ITimerListener
{
 public:
    virtual ~ITimerListener();

    /// The timer has fired. Runs on the thread of the timer's task.
    ///
    /// @param event     `param1` is the timer's count, `param2` the index of the firing, from 0
    /// @param userData  what the timer was made with
    /// @return whether the firing was handled; no caller uses it
    virtual bool OnTimer(const TSEvent* event, void* userData) = 0;
};

/// A timer as an application holds it. Any thread may call any operation.
class ZOR_CORE_API ITimer
{
 public:
    /// The shortest interval; shorter ones are raised to it.
    static constexpr std::chrono::milliseconds INTERVAL_MIN{10};

    /// A count that never runs out.
    static constexpr unsigned int INFINITE_FIRE = 0xFFFFFFFF;

    /// What a timer's firings are handled with.
    struct ZOR_CORE_API TimerHandlerParams
    {
        const TCTask* task = nullptr;             ///< on whose thread; must outlive the timer
        std::shared_ptr<ITimerListener> listener; ///< what is called; shared with the timer
        /// Handed to every call. It must stay good until userDataRelease is called with it, not
        /// only until the timer's destructor has returned: see TCTimer.
        void* userData = nullptr;

        /// Called once with userData when no call of the listener can come any more, also if the
        /// timer's constructor throws; may be empty. This is the place to free userData. It runs on
        /// the task's thread between two events (an idle task for which a full queue or a lack of
        /// memory kept the message out does so with its next turn), or, if the task's loop has
        /// ended before, on the thread that destroys the task. Whoever deletes the task's own
        /// events from its queue runs it as well. On the caller's thread it runs if the constructor
        /// throws, or the destructor finds that the scheduler does not know the timer.
        std::function<void(void*)> userDataRelease;
    };

    virtual ~ITimer();

    /// Starts the timer anew: it fires @p count times, first after one interval. Firings that still
    /// wait in the task's queue are deleted; one that the task's thread has taken off the queue
    /// already may still call the listener, even after this has returned. A paused timer stays
    /// paused.
    ///
    /// The first firing may come late while another timer is paused: see Pause().
    ///
    /// @param interval  from one firing to the next, at least INTERVAL_MIN
    /// @param count     how many times; 0 not at all, INFINITE_FIRE for ever
    /// @return false if there is no timer behind the object
    virtual bool Restart(std::chrono::milliseconds interval, unsigned int count) = 0;

    /// Halts the timer; what is left of the interval is kept. Firings that are queued already are
    /// delivered.
    ///
    /// The scheduler's thread is not told. If no other timer is scheduled, it sleeps on until this
    /// one would have been due, and a timer that is made or restarted meanwhile is served only
    /// then: pausing a timer of an hour may delay a new one of ten milliseconds by an hour. A timer
    /// that is resumed while none is scheduled wakes the thread, and so does destroying or
    /// restarting the earliest that is scheduled.
    ///
    /// @return false if there is no timer behind the object or if it is paused already
    virtual bool Pause() = 0;

    /// Ends a pause: what was left of the interval passes.
    ///
    /// @return false if the timer is not paused
    virtual bool Resume() = 0;
};

/// The timers of an application, on the process's one scheduler.
///
/// The listener is called on the task's thread. Destroying a timer drops the firings that are
/// queued and hands what the listener is called with over to the task, which releases it on its own
/// thread when it comes to that: a call that is running is never cut short. If the task's loop has
/// ended, whoever destroys the task releases it. The task must outlive its timers.
///
/// Unless the timer is destroyed on its task's thread, a call may not only run on but even begin
/// after the destructor has returned: that of a firing which the task had taken off its queue.
/// Listener and userData serve until userDataRelease. The same holds for a move assignment and the
/// timer that it replaces.
class ZOR_CORE_API TCTimer : public ITimer
{
 public:
    /// No timer: every operation fails.
    TCTimer();

    /// A timer that does not run until Restart().
    explicit TCTimer(const ITimer::TimerHandlerParams& params);

    ~TCTimer() override;

    /// The timer goes on under the same id; @p other has none any more.
    TCTimer(TCTimer&& other) noexcept;

    /// The same; what this object had before is destroyed as by the destructor.
    TCTimer& operator=(TCTimer&& other) noexcept;

    TCTimer(const TCTimer&) = delete;
    TCTimer& operator=(const TCTimer&) = delete;

    bool Restart(std::chrono::milliseconds interval, unsigned int count) override;
    bool Pause() override;
    bool Resume() override;

    /// The one scheduler of the process, from the loading of the library to the end. At exit its
    /// thread is ended, so that no timer fires any more; timers themselves may still be made, set
    /// and destroyed by threads that run on until the process is gone.
    static TCTimersScheduler& m_scheduler;

 private:
    class TCTimerHandler;

    void m_Stop();

    std::size_t m_timerId; ///< the scheduler's
    std::unique_ptr<TCTimerHandler> m_handler;
};
