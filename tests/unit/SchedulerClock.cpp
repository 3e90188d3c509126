#include "SchedulerClock.h"

#include <cerrno>
#include <cstring>

#include "Wait.h"

namespace zortest {

namespace {

using std::chrono::duration_cast;
using std::chrono::nanoseconds;
using std::chrono::seconds;

thread_local bool tInside = false;

/// Whether the caller is a scheduler's thread, which takes its name before it reads the time.
bool IsSchedulerThread()
{
    thread_local bool known = false;
    if (!known) {
        char name[16] = "";
        pthread_getname_np(pthread_self(), name, sizeof(name));
        known = strcmp(name, "TimersScheduler") == 0;
    }
    return known;
}

} // namespace

SchedulerClock::Inside::Inside()
{
    tInside = true;
}

SchedulerClock::Inside::~Inside()
{
    tInside = false;
}

SchedulerClock::SchedulerClock(const TCTimersScheduler* scheduler)
    : m_scheduler(scheduler),
      m_now(START.time_since_epoch().count()),
      m_getTime(clockGettimeSeam, [this](clockid_t id, timespec* now) { return GetTime(id, now); }),
      m_wait(condWaitSeam,
             [this](pthread_cond_t* condition, pthread_mutex_t* mutex) {
                 return IsOwn(condition) ? Wait(mutex, std::nullopt)
                                         : condWaitSeam.Real(condition, mutex);
             }),
      m_clockWait(condClockwaitSeam,
                  [this](pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                         const timespec* deadline) {
                      if (!IsOwn(condition)) {
                          return condClockwaitSeam.Real(condition, mutex, clock, deadline);
                      }
                      return Wait(mutex, TimePoint(seconds(deadline->tv_sec) +
                                                   nanoseconds(deadline->tv_nsec)));
                  }),
      m_signal(condSignalSeam, [this](pthread_cond_t* condition) {
          if (!IsOwn(condition)) {
              return condSignalSeam.Real(condition);
          }
          Notify();
          return 0;
      })
{
    // The name of a test program may begin with that of the scheduler's thread.
    pthread_setname_np(pthread_self(), "test");
}

void SchedulerClock::Advance(nanoseconds time)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_now += time.count();
    m_changed.notify_all();
}

bool SchedulerClock::Settle()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, DEADLINE, [this] { return m_waiting && !IsOverLocked(); });
}

std::optional<nanoseconds> SchedulerClock::WakeTime() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_deadline ? std::optional<nanoseconds>(*m_deadline - START) : std::nullopt;
}

unsigned int SchedulerClock::Notifications() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_notifications;
}

/// The scheduler's condition is a member of the scheduler.
bool SchedulerClock::IsOwn(const pthread_cond_t* condition) const
{
    const auto* at = reinterpret_cast<const char*>(condition);
    const auto* begin = reinterpret_cast<const char*>(m_scheduler);
    return at >= begin && at < begin + sizeof(TCTimersScheduler);
}

/// Whether the wait that the thread is in is to end. Needs m_mutex.
bool SchedulerClock::IsOverLocked() const
{
    return m_notified || (m_deadline && *m_deadline <= Now());
}

int SchedulerClock::GetTime(clockid_t id, timespec* now) const
{
    if (id != CLOCK_MONOTONIC || !(tInside || IsSchedulerThread())) {
        return clockGettimeSeam.Real(id, now);
    }
    const nanoseconds time = Now().time_since_epoch();
    now->tv_sec = duration_cast<seconds>(time).count();
    now->tv_nsec = (time % seconds(1)).count();
    return 0;
}

/// The scheduler's mutex is let go while m_mutex is held: a notification that comes as soon as it
/// is free finds the wait begun.
int SchedulerClock::Wait(pthread_mutex_t* mutex, std::optional<TimePoint> deadline)
{
    bool notified = false;
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_waiting = true;
        m_notified = false;
        m_deadline = deadline;
        pthread_mutex_unlock(mutex);
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return IsOverLocked(); });
        m_waiting = false;
        notified = m_notified;
    }
    pthread_mutex_lock(mutex);
    return notified ? 0 : ETIMEDOUT;
}

/// As with any condition, nothing comes of it if nobody waits.
void SchedulerClock::Notify()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    ++m_notifications;
    m_notified = true;
    m_changed.notify_all();
}

} // namespace zortest
