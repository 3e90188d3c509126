#pragma once

#include <atomic>
#include <cstdint>
#include <functional>

#include "Event.h"
#include "Handler.h"
#include "Thread.h"
#include "ZorExport.h"

/// A periodic alarm of a task.
///
/// Each alarm has a thread of its own that sleeps for the interval and then sends EVENT_ALARM to
/// the alarm, which is a handler of the task: callbacks and t_OnAlarm() run on the task's thread.
/// Each interval is measured from the end of the send before it, so firings drift. About one wait
/// in a million ends at once, as TCSemaphore::Try() says, and its firing comes early.
///
/// An alarm that has fired as often as it was told to is idle until a Reset(), or until a Stop()
/// and a RestartAfterStop(). Destroy() must be called before the alarm and before its task are
/// destroyed. Any thread may call Reset(), Stop() and RestartAfterStop() while none calls
/// Destroy(), which says when it may be called. Except for Create() every operation asserts
/// "FlagCreate() == true"; the setters without a result do not.
///
/// No lock guards the callbacks, and Create() starts the alarm. An alarm that must not fire before
/// its callbacks are set is made without a firing and started afterwards:
///
///     alarm.Create(&task, TCAlarm::ENDLESS, 0);
///     alarm.SetCallbackAfter(...);
///     alarm.Reset(interval, count);
class ZOR_CORE_API TCAlarm : protected TCThread, public TCHandler
{
 public:
    /// Type of the event that an alarm takes. Its `param1` is the count that the alarm was set to
    /// (as far as the alarm's thread has noticed), its `param2` the index of the firing, from 0.
    enum EEventType : unsigned long
    {
        EVENT_ALARM = 0,
    };

    /// Runs around t_OnAlarm(), on the task's thread, with the context that it was set with.
    using EventCallback = bool (*)(const TSEvent*, const void*);

    /// The same as an object; the alarm keeps a copy.
    using Callback = std::function<bool(const TSEvent*)>;

    /// An interval that never passes, and a count that never runs out.
    static constexpr unsigned long ENDLESS = ~0UL;

    /// The shortest interval, in milliseconds; shorter ones are raised to it.
    static constexpr unsigned long INTERVAL_MIN = 10;

    TCAlarm() = default;

 protected:
    /// The alarm's thread.
    void t_Main() override;

 public:
    /// Asserts "FlagCreate() == false".
    ~TCAlarm() override;

    /// Ends the alarm: waits for its thread and deletes its events from the task's queue.
    ///
    /// A firing that the task's thread has taken off the queue already is not among them: its
    /// callbacks and its hook may run on, or even begin, after Destroy() has returned, and they
    /// read the alarm. So Destroy() is safe only on the task's thread, or where it is known that
    /// the task handles none of the alarm's events; elsewhere the task may assert that the alarm is
    /// created and read what the caller deletes next. On no thread may a Reset(), Stop() or
    /// RestartAfterStop() of the alarm be under way: it would use what Destroy() takes away.
    ///
    /// On the task's thread callbacks and hook may end their own alarm: what is left of the firing
    /// still runs (a hook of a derived class, the after callback), so the object itself must stay
    /// until the firing has been handled. A hook that needs the alarm created, as that of
    /// TCStateAlarm does, then asserts: such an alarm must not be ended by its before callback,
    /// unless that returns true. The callables of SetCallbackBefore() and SetCallbackAfter(), and
    /// what they hold, stay with the object and serve its next life.
    void Destroy() override;

    /// Handles EVENT_ALARM by OnAlarm(). Any other type asserts "event->type == EVENT_ALARM" and is
    /// answered false.
    bool t_OnEvent(const TSEvent* event) override;

    /// Hook: the alarm has fired. Runs on the task's thread.
    ///
    /// @return whether the event was handled. The base version asserts "FlagCreate() == true" and
    ///         "event != NULL" and returns false; OnAlarm() does not call it.
    virtual bool t_OnAlarm(const TSEvent* event);

    /// Makes the alarm and starts it.
    ///
    /// @param task      whose alarm it is; it stays the caller's
    /// @param interval  milliseconds from one firing to the next, at least INTERVAL_MIN
    /// @param count     how many times to fire; 0 not at all, ENDLESS for ever
    /// @return whether everything could be made; if not the alarm is not created.
    ///
    /// Unsets what GetEventCallback() answers, also where it is the thread that cannot be started,
    /// but clears no callable: what an earlier life has set goes on being called. After a failure
    /// the alarm may be made again, but not after that of the thread: part of that is left, for
    /// which a further Create() and the destructor assert. Asserts "FlagCreate() == false",
    /// "task != NULL" and that the task is created.
    bool Create(const TCTask* task, unsigned long interval, unsigned long count);

    /// Starts anew with these settings: a full interval, the count from 0. Firings that still wait
    /// in the task's queue are deleted; one that the task's thread has taken off it already may
    /// still run, even after this has returned. What is attached to the events that are deleted is
    /// destroyed under the alarm's lock.
    void Reset(unsigned long interval, unsigned long count);

    /// Halts the alarm; queued firings stay. Nothing happens if it is halted already.
    void Stop();

    /// Ends a Stop(): a full interval begins, the count starts from 0. Nothing happens without
    /// Stop().
    void RestartAfterStop();

    /// Sets the callbacks around t_OnAlarm(); @p type must be EVENT_ALARM. A null pointer leaves
    /// the callback that is called, whoever has set it; only an empty SetCallbackBefore() or
    /// SetCallbackAfter() clears one. A before callback that returns true takes the place of
    /// t_OnAlarm(); an after callback always runs, and its result is or-ed into that of the event.
    ///
    /// No lock guards callbacks: set them before the alarm can fire (the class says how), or on the
    /// task's thread, where a callback may also replace or clear itself. They outlive Destroy().
    ///
    /// @return false, and nothing is changed, for any other @p type
    bool SetEventCallback(int type, EventCallback before, EventCallback after, const void* context);

    /// Stores what SetEventCallback() was given last, wherever the pointer is not null: null
    /// pointers too, and whatever the other setters have put in their place.
    ///
    /// @return false for any other type than EVENT_ALARM
    bool GetEventCallback(int type, EventCallback* before, EventCallback* after,
                          const void** context);

    /// Sets the callback before t_OnAlarm(), in place of the one from SetEventCallback(); an empty
    /// one clears it. The alarm need not be created, and neither Create() nor Destroy() clears the
    /// callback. No lock guards it: as for SetEventCallback(). A callback that replaces itself is
    /// destroyed when it has returned.
    void SetCallbackBefore(Callback callback);

    /// The same for the callback after t_OnAlarm().
    void SetCallbackAfter(Callback callback);

    /// Runs callbacks and hook for one firing, on the task's thread. Asserts "event != NULL".
    ///
    /// @return whether one of them has handled it; a class that leaves the hook as it is has none
    bool OnAlarm(const TSEvent* event);

    using TCHandler::FlagCreate;

 private:
    bool WaitForIntervalLocked();

    TCMutex m_lock;                      ///< guards the settings; not held while the thread waits
    TCSemaphore m_wakeUp;                ///< given by whoever changes the settings
    bool m_stopped = false;              ///< guarded by m_lock
    std::uint64_t m_interval = 0;        ///< guarded by m_lock; milliseconds of the next wait
    std::uint64_t m_interval_holder = 0; ///< guarded by m_lock; milliseconds, to go back to
    std::uint64_t m_count = 0;           ///< guarded by m_lock
    std::atomic<bool> m_exit{false};     ///< written by Destroy(), read by the thread
    EventCallback m_before = nullptr;    ///< set before the alarm fires
    EventCallback m_after = nullptr;     ///< likewise
    const void* m_callbackContext = nullptr; ///< likewise
    Callback m_callbackBefore;               ///< likewise
    Callback m_callbackAfter;                ///< likewise
};
