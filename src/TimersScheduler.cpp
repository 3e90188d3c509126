#include "TimersScheduler.h"

#include <algorithm>
#include <functional>
#include <utility>

#include "Debug.h"
#include "Task.h"
#include "ThreadUtil.h"
#include "Timer.h"
#include "ZorServiceDebug.h"
#include "ZorServiceDebugOverlay.h"

using std::chrono::duration_cast;
using std::chrono::milliseconds;

namespace {

using Clock = std::chrono::steady_clock;

// How long the thread, with firings to make up, waits for another one to be woken: looks at about
// the time that a wake-up takes, for a millisecond.
constexpr std::chrono::microseconds LOOK_INTERVAL(50);
constexpr int LOOKS = 20;

/// @p interval after @p from, or the end of all time if that comes first.
Clock::time_point After(Clock::time_point from, milliseconds interval)
{
    const auto last = Clock::time_point::max();
    return interval < duration_cast<milliseconds>(last - from) ? from + interval : last;
}

} // namespace

TCTimersScheduler::~TCTimersScheduler()
{
    EndThread();
}

void TCTimersScheduler::EndThread()
{
    {
        const std::unique_lock<std::mutex> lock = Enter();
        m_running = false;
        m_ended = true;
    }
    if (m_thread != nullptr && m_thread->joinable()) {
        m_condition.notify_one();
        m_thread->join();
    }
}

std::size_t TCTimersScheduler::CreateTimer(milliseconds interval, unsigned int count, TSEvent event)
{
    // Of the timer that had the slot before: destroying it may run code that uses timers.
    std::shared_ptr<ZOREventDataBase> released;
    std::unique_lock<std::mutex> lock = Enter();
    if (m_thread == nullptr && !m_ended) {
        m_running = true;
        m_thread = std::make_unique<std::thread>(&TCTimersScheduler::m_TimersSchedulerThread, this);
    }
    if (m_freeIds.empty()) {
        MakeRoomLocked();
    }
    const std::size_t newTimerId = TakeFreeIdLocked();
    if (newTimerId > m_scheduledTimers.size()) {
        TCASSERT(newTimerId <= m_scheduledTimers.size());
        TCDebug::Print("ASSERT!, Func:%s\n", __func__);
        return INVALID_TIMER_ID;
    }
    TimerSchedule& schedule = m_scheduledTimers[newTimerId];
    released = std::move(schedule.event.wrappedData);
    schedule.event = std::move(event);
    schedule.interval = std::max(interval, ITimer::INTERVAL_MIN);
    schedule.fired = 0;
    schedule.count = count;
    schedule.state = TIMER_EXPIRED;
    bool notify = false;
    if (count != 0) {
        schedule.state = TIMER_CREATED;
        const TimerWakeupData wakeup{After(Clock::now(), schedule.interval), newTimerId};
        notify = MustNotifyLocked(wakeup);
        ScheduleLocked(wakeup);
        m_idle = false;
    }
    lock.unlock();
    if (notify) {
        m_condition.notify_one();
    }
    ZOR_LOG(false, DLOG_INFO, "Id[%zu] WakedUp[%d] New timer created!", newTimerId, notify);
    return newTimerId;
}

bool TCTimersScheduler::ResetTimer(std::size_t id, milliseconds interval, unsigned int count)
{
    std::unique_lock<std::mutex> lock = Enter();
    if (id >= m_scheduledTimers.size()) {
        ZOR_LOG(false, DLOG_INFO, "Id[%zu] Timer not found!", id);
        return false;
    }
    TimerSchedule& schedule = m_scheduledTimers[id];
    if (schedule.state == TIMER_DESTROYED) {
        ZOR_LOG(false, DLOG_INFO, "Id[%zu] Timer is destroyed! Can't reset!", id);
        return false;
    }
    schedule.fired = 0;
    schedule.interval = std::max(interval, ITimer::INTERVAL_MIN);
    schedule.count = count;
    // What fired under the old settings must not arrive late.
    schedule.event.receiver->Task()->Delete(schedule.event.receiver, nullptr);

    bool notify = false;
    if (schedule.state == TIMER_PAUSED) {
        m_pausedTimers.erase(id);
    } else {
        FinishResetLocked(id, &schedule, &notify);
    }
    const milliseconds shown = schedule.interval;
    lock.unlock();
    if (notify) {
        m_condition.notify_one();
    }
    ZOR_LOG(false, DLOG_INFO, "Id[%zu] Interv[%lld] Count[%u] WakedUp[%d] Timer reseted!", id,
            static_cast<long long>(shown.count()), count, notify);
    return true;
}

/// Schedules a timer that is not paused with its new settings. Needs m_mutex.
void TCTimersScheduler::FinishResetLocked(std::size_t id, TimerSchedule* schedule, bool* notify)
{
    const bool wasEarliest = IsEarliestLocked(id);
    UnscheduleLocked(id);
    *notify = wasEarliest;
    if (schedule->count == 0) {
        schedule->state = TIMER_EXPIRED;
        return;
    }
    schedule->state = TIMER_RESET;
    const TimerWakeupData wakeup{After(Clock::now(), schedule->interval), id};
    *notify = *notify || MustNotifyLocked(wakeup);
    ScheduleLocked(wakeup);
    m_idle = false;
}

bool TCTimersScheduler::PauseTimer(std::size_t id)
{
    std::unique_lock<std::mutex> lock = Enter();
    if (id >= m_scheduledTimers.size()) {
        ZOR_LOG(false, DLOG_INFO, "Id[%zu] Timer not found!", id);
        return false;
    }
    TimerSchedule& schedule = m_scheduledTimers[id];
    switch (schedule.state) {
        case TIMER_EXPIRED:
            break;
        case TIMER_CREATED:
        case TIMER_RESET:
        case TIMER_RUNNING:
        case TIMER_RESUMED: {
            if (!IsScheduledLocked(id)) {
                ZOR_LOG(false, DLOG_INFO, "Id[%zu] Can't find wakeup data!", id);
                return false;
            }
            const auto left = m_wakeupIndex[id].scheduled->due - Clock::now();
            m_pausedTimers.try_emplace(id, duration_cast<milliseconds>(left));
            UnscheduleLocked(id);
            break;
        }
        default:
            ZOR_LOG(false, DLOG_INFO, "Id[%zu] State[%u] Wrong state to pause!", id,
                    schedule.state);
            return false;
    }
    schedule.state = TIMER_PAUSED;
    lock.unlock();
    ZOR_LOG(false, DLOG_INFO, "Id[%zu] Timer paused!", id);
    return true;
}

bool TCTimersScheduler::ResumeTimer(std::size_t id)
{
    std::unique_lock<std::mutex> lock = Enter();
    if (id >= m_scheduledTimers.size()) {
        ZOR_LOG(false, DLOG_INFO, "Id[%zu] Timer not found!", id);
        return false;
    }
    TimerSchedule& schedule = m_scheduledTimers[id];
    if (schedule.state != TIMER_PAUSED) {
        ZOR_LOG(false, DLOG_INFO, "Id[%zu] State[%u] Wrong state to resume!", id, schedule.state);
        return false;
    }
    bool notify = false;
    const auto paused = m_pausedTimers.find(id);
    if (paused == m_pausedTimers.end() && schedule.fired >= schedule.count) {
        schedule.state = TIMER_EXPIRED;
    } else {
        milliseconds left = schedule.interval;
        if (paused != m_pausedTimers.end()) {
            left = paused->second;
            m_pausedTimers.erase(paused);
        }
        schedule.state = TIMER_RESUMED;
        const TimerWakeupData wakeup{After(Clock::now(), left), id};
        notify = m_wakeups.empty() || MustNotifyLocked(wakeup);
        ScheduleLocked(wakeup);
        m_idle = false;
    }
    lock.unlock();
    if (notify) {
        m_condition.notify_one();
    }
    ZOR_LOG(false, DLOG_INFO, "Id[%zu] WakedUp[%d] Timer resumed!", id, notify);
    return true;
}

bool TCTimersScheduler::DestroyTimer(std::size_t id)
{
    std::unique_lock<std::mutex> lock = Enter();
    if (id >= m_scheduledTimers.size()) {
        ZOR_LOG(false, DLOG_INFO, "Id[%zu] Timer not found!", id);
        return false;
    }
    TimerSchedule& schedule = m_scheduledTimers[id];
    if (schedule.state == TIMER_DESTROYED) {
        ZOR_LOG(false, DLOG_INFO, "Id[%zu] Timer already destroyed!", id);
        return false;
    }
    const bool wasEarliest = IsEarliestLocked(id);
    m_pausedTimers.erase(id);
    UnscheduleLocked(id);
    schedule.state = TIMER_DESTROYED;
    m_freeIds.push_back(id);
    std::push_heap(m_freeIds.begin(), m_freeIds.end(), std::greater<>());
    lock.unlock();
    if (wasEarliest) {
        m_condition.notify_one();
    }
    ZOR_LOG(false, DLOG_INFO, "Id[%zu] WakedUp[%d] Timer destroyed!", id, wasEarliest);
    return true;
}

void TCTimersScheduler::m_TimersSchedulerThread()
{
    const TCCallbackNameSetter callbackName("cb-timer");
    TCThreadUtil::SetCurrentThreadName("TimersScheduler");
    std::unique_lock<std::mutex> lock(m_mutex);
    while (m_running) {
        const Clock::time_point now = Clock::now();
        m_ProcessTimerSchedule(now);
        if (m_wakeups.empty()) {
            m_idle = true;
            m_condition.wait(lock, [this] { return !m_idle || !m_running; });
        } else if (now < m_wakeups.begin()->due) {
            // A copy: the entry may be gone when the wait is over.
            const Clock::time_point due = m_wakeups.begin()->due;
            m_condition.wait_until(lock, due);
        } else {
            LetOthersInLocked(&lock);
        }
    }
}

/// Takes m_mutex for an operation.
std::unique_lock<std::mutex> TCTimersScheduler::Enter()
{
    std::unique_lock<std::mutex> lock(m_mutex, std::defer_lock);
    // Both numbers relaxed: they only say that somebody waits, the mutex orders all else.
    m_arrived.fetch_add(1, std::memory_order_relaxed);
    try {
        lock.lock();
    } catch (...) {
        m_arrived.fetch_sub(1, std::memory_order_relaxed);
        throw;
    }
    m_entered.store(m_entered.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    return lock;
}

/// Lets go of m_mutex until one of the operations that wait for it has got it. Needs m_mutex.
///
/// To unlock and lock again would not do: the mutex goes to whoever comes first, and a thread that
/// has to be woken comes later than one that runs.
///
///   thread:     fires late -- unlock -- sleeps ........................ lock -- fires late
///   operation:       arrives, waits .......... lock -- enters -- works -- unlock
///
/// The sleep, and not a yield, lets an operation in whose thread has a lower priority; it has an
/// end, because who waits may not be let run by somebody else.
void TCTimersScheduler::LetOthersInLocked(std::unique_lock<std::mutex>* lock) const
{
    const unsigned int entered = m_entered.load(std::memory_order_relaxed);
    if (m_arrived.load(std::memory_order_relaxed) == entered) {
        return;
    }
    lock->unlock();
    for (int look = 0; look < LOOKS && m_entered.load(std::memory_order_relaxed) == entered;
         ++look) {
        std::this_thread::sleep_for(LOOK_INTERVAL);
    }
    lock->lock();
}

/// Fires the earliest timer if it is due at @p now, and schedules its next firing. Needs m_mutex.
void TCTimersScheduler::m_ProcessTimerSchedule(Clock::time_point now)
{
    if (m_wakeups.empty() || now < m_wakeups.begin()->due) {
        return;
    }
    const TimerWakeupData wakeup = *m_wakeups.begin();
    UnscheduleLocked(wakeup.id);
    TimerSchedule& schedule = m_scheduledTimers[wakeup.id];
    if (duration_cast<milliseconds>(now - wakeup.due) / 2 >= schedule.interval) {
        ZOR_LOG(false, DLOG_WARN, "Id[%zu] Can't keep up!", wakeup.id);
    }
    if (!m_FireTimer(wakeup.id, &schedule)) {
        ScheduleLocked({After(wakeup.due, schedule.interval), wakeup.id});
    }
}

/// Sends the timer's event. Needs m_mutex.
///
/// @return whether this was the timer's last firing
bool TCTimersScheduler::m_FireTimer(std::size_t id, TimerSchedule* schedule)
{
    schedule->event.param1 = schedule->count;
    schedule->event.param2 = schedule->fired;
    ++schedule->fired;
    ZOR_LOG(false, DLOG_DEBUG, "Id[%zu] Timer fire!", id);
    TCTask::Send(&schedule->event, false, false);
    const bool finished =
        schedule->fired >= schedule->count && schedule->count != ITimer::INFINITE_FIRE;
    schedule->state = finished ? TIMER_EXPIRED : TIMER_RUNNING;
    return finished;
}

/// Makes one more slot, and what scheduling, firing and destroying its timer will ever need: they
/// allocate nothing, so they cannot fail half-way. (Pausing does allocate, before it changes
/// anything.) Needs m_mutex.
void TCTimersScheduler::MakeRoomLocked()
{
    const std::size_t id = m_scheduledTimers.size();
    Wakeups wakeup;
    wakeup.insert({Clock::time_point(), id});
    constexpr std::size_t FEWEST = 16;
    if (id == m_scheduledTimers.capacity()) {
        m_scheduledTimers.reserve(std::max(FEWEST, 2 * id));
    }
    if (id == m_wakeupIndex.capacity()) {
        m_wakeupIndex.reserve(std::max(FEWEST, 2 * id));
    }
    if (id == m_freeIds.capacity()) {
        m_freeIds.reserve(std::max(FEWEST, 2 * id)); // as many as there are timers
    }
    m_scheduledTimers.emplace_back();
    m_wakeupIndex.push_back({m_wakeups.end(), wakeup.extract(wakeup.begin())});
    m_freeIds.push_back(id);
}

/// The lowest id that no timer has. Needs m_mutex.
std::size_t TCTimersScheduler::TakeFreeIdLocked()
{
    std::pop_heap(m_freeIds.begin(), m_freeIds.end(), std::greater<>());
    const std::size_t id = m_freeIds.back();
    m_freeIds.pop_back();
    return id;
}

/// Whether the thread must hear of a new entry before it is made. Needs m_mutex.
bool TCTimersScheduler::MustNotifyLocked(const TimerWakeupData& wakeup) const
{
    return m_idle || (!m_wakeups.empty() && wakeup < *m_wakeups.begin());
}

bool TCTimersScheduler::IsEarliestLocked(std::size_t id) const
{
    return !m_wakeups.empty() && m_wakeups.begin()->id == id;
}

/// Enters a timer that is not scheduled. Needs m_mutex.
void TCTimersScheduler::ScheduleLocked(const TimerWakeupData& wakeup)
{
    WakeupPlace& place = m_wakeupIndex[wakeup.id];
    place.spare.value() = wakeup;
    // Most timers are due after all others, because most have about the same interval.
    place.scheduled = m_wakeups.insert(m_wakeups.end(), std::move(place.spare));
}

bool TCTimersScheduler::IsScheduledLocked(std::size_t id) const
{
    return m_wakeupIndex[id].spare.empty();
}

/// Takes a timer out of the schedule, if it is there, and keeps its entry. Needs m_mutex.
void TCTimersScheduler::UnscheduleLocked(std::size_t id)
{
    WakeupPlace& place = m_wakeupIndex[id];
    if (place.spare.empty()) {
        place.spare = m_wakeups.extract(place.scheduled);
    }
}
