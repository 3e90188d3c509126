#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "Event.h"
#include "ZorExport.h"

/// What a timer's slot is in; the numbers appear in log lines.
enum TimerState : std::uint32_t
{
    TIMER_DESTROYED = 0, ///< free, may be used for another timer
    TIMER_RESET = 1,     ///< scheduled again by ResetTimer()
    TIMER_RUNNING = 2,   ///< has fired, and more firings are to come
    TIMER_EXPIRED = 3,   ///< has fired as often as it was told to; not scheduled
    TIMER_CREATED = 4,   ///< scheduled by CreateTimer()
    TIMER_PAUSED = 5,    ///< taken out of the schedule by PauseTimer()
    TIMER_RESUMED = 6,   ///< scheduled again by ResumeTimer()
};

/// Serves all timers of a process on one thread, which the first timer starts.
///
/// A timer is a slot with an event, an interval and a count. When it is due a copy of the event is
/// sent to the event's receiver, with the count in `param1` and the index of the firing, from 0, in
/// `param2`. Firings do not drift: each is due one interval after the one before was due, and a
/// thread that was late catches up one firing after another. Applications use TCTimer instead of
/// this.
///
/// Creating, scheduling, firing and cancelling cost O(log n). Any thread may call any operation;
/// each holds the scheduler's mutex for its whole work, and std::system_error is thrown if that
/// cannot be locked. Firings are sent with the mutex held; between two late ones the thread lets
/// those in that wait for it, so that a timer can be stopped while its missed firings are made up.
///
/// The thread is notified only if it sleeps because nothing is scheduled, or if a timer comes
/// before the earliest that is scheduled. When the last scheduled timer was paused it sleeps on
/// until that would have been due, although the schedule is empty. A timer that is created or reset
/// then is served when the thread wakes by itself, which is late if the paused timer's interval is
/// much longer than the new one.
class ZOR_CORE_API TCTimersScheduler
{
 public:
    /// The id of no timer.
    static constexpr std::size_t INVALID_TIMER_ID = ~static_cast<std::size_t>(0);

    TCTimersScheduler() = default;

    /// Ends the thread and destroys all timers with their events.
    ~TCTimersScheduler();

    /// Ends the thread for good and waits for it: nothing fires any more. Not on that thread. All
    /// operations go on working on the timers that there are, and new ones can be made.
    void EndThread();

    TCTimersScheduler(const TCTimersScheduler&) = delete;
    TCTimersScheduler& operator=(const TCTimersScheduler&) = delete;

    /// Makes a timer in the lowest free slot and starts it.
    ///
    /// @param interval  from one firing to the next; at least ITimer::INTERVAL_MIN
    /// @param count     how many times to fire; 0 not at all (until it is reset),
    ///                  ITimer::INFINITE_FIRE for ever
    /// @param event     what to send
    /// @return its id, or INVALID_TIMER_ID
    std::size_t CreateTimer(std::chrono::milliseconds interval, unsigned int count, TSEvent event);

    /// Starts a timer anew with these settings. All events of the receiver that still wait in its
    /// task's queue are deleted. What is attached to them is destroyed with the scheduler's mutex
    /// held: it must not use timers, nor own a TCTimer, or the call never returns. (The runtime
    /// sends the receiver of a TCTimer nothing but firings, which carry nothing.) A paused timer
    /// stays paused and starts a full interval when it is resumed.
    ///
    /// @return false if there is no such timer
    bool ResetTimer(std::size_t id, std::chrono::milliseconds interval, unsigned int count);

    /// Halts a timer and keeps what is left of its interval, in whole milliseconds.
    ///
    /// @return false if there is no such timer or if it is paused already
    bool PauseTimer(std::size_t id);

    /// Ends a pause: what was left of the interval passes, then the timer fires.
    ///
    /// @return false if there is no such timer or if it is not paused
    bool ResumeTimer(std::size_t id);

    /// Destroys a timer; its id may be given to another one. Firings that still wait in the
    /// receiver's queue stay there.
    ///
    /// @return false if there is no such timer
    bool DestroyTimer(std::size_t id);

 private:
    friend class zor::LayoutTable;

    using Clock = std::chrono::steady_clock;

    struct TimerSchedule
    {
        TSEvent event;
        std::chrono::milliseconds interval{0};
        std::uint32_t fired = 0;
        std::uint32_t count = 0;
        std::uint32_t state = TIMER_DESTROYED;
    };

    /// When which timer is due; of two that are due at once the lower id comes first.
    struct TimerWakeupData
    {
        Clock::time_point due;
        std::size_t id;

        bool operator<(const TimerWakeupData& other) const
        {
            return due != other.due ? due < other.due : id < other.id;
        }
    };

    using Wakeups = std::set<TimerWakeupData>;

    /// Where the entry of a timer is: in m_wakeups, or kept here for the next time.
    struct WakeupPlace
    {
        Wakeups::iterator scheduled; ///< meaningless while there is a spare one
        Wakeups::node_type spare;    ///< empty while the timer is scheduled
    };

    using WakeupIndex = std::vector<WakeupPlace>;

    void m_TimersSchedulerThread();
    void m_ProcessTimerSchedule(Clock::time_point now);
    bool m_FireTimer(std::size_t id, TimerSchedule* schedule);

    std::unique_lock<std::mutex> Enter();
    void LetOthersInLocked(std::unique_lock<std::mutex>* lock) const;

    void MakeRoomLocked();
    std::size_t TakeFreeIdLocked();
    bool MustNotifyLocked(const TimerWakeupData& wakeup) const;
    bool IsEarliestLocked(std::size_t id) const;
    void ScheduleLocked(const TimerWakeupData& wakeup);
    bool IsScheduledLocked(std::size_t id) const;
    void UnscheduleLocked(std::size_t id);
    void FinishResetLocked(std::size_t id, TimerSchedule* schedule, bool* notify);

    std::unique_ptr<std::thread> m_thread; ///< owned; null until the first timer
    std::vector<TimerSchedule>
        m_scheduledTimers; ///< by id; guarded by m_mutex, as all that follows
    std::mutex m_mutex;
    std::condition_variable m_condition; ///< the thread waits on it
    Wakeups m_wakeups;                   ///< the scheduled timers, earliest first
    WakeupIndex m_wakeupIndex;           ///< by id
    std::map<std::size_t, std::chrono::milliseconds> m_pausedTimers; ///< what was left of them
    bool m_running = false;                                          ///< the thread is to go on
    bool m_idle = false; ///< the thread sleeps because nothing is scheduled

    // Kept for use again: searching would cost more than the rest of an operation.
    std::vector<std::size_t> m_freeIds; ///< ids of destroyed timers, a heap with the lowest on top

    bool m_ended = false; ///< no thread may be started any more

    // How many operations have come for m_mutex, and how many of them have got it.
    std::atomic<unsigned int> m_arrived{0}; ///< synchronised in itself
    std::atomic<unsigned int> m_entered{0}; ///< written under m_mutex
};
