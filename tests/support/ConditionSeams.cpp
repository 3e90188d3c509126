#include "ConditionSeams.h"

#include <algorithm>
#include <cerrno>

namespace zortest {

Seam<int(clockid_t, timespec*)> clockGettimeSeam("clock_gettime");
Seam<int(pthread_condattr_t*)> condattrInitSeam("pthread_condattr_init");
Seam<int(pthread_condattr_t*, clockid_t)> condattrSetclockSeam("pthread_condattr_setclock");
Seam<int(pthread_condattr_t*)> condattrDestroySeam("pthread_condattr_destroy");
Seam<int(pthread_cond_t*, const pthread_condattr_t*)> condInitSeam("pthread_cond_init");
Seam<int(pthread_cond_t*)> condDestroySeam("pthread_cond_destroy");
Seam<int(pthread_cond_t*, pthread_mutex_t*)> condWaitSeam("pthread_cond_wait");
Seam<int(pthread_cond_t*, pthread_mutex_t*, const timespec*)> condTimedwaitSeam(
    "pthread_cond_timedwait");
Seam<int(pthread_cond_t*, pthread_mutex_t*, clockid_t, const timespec*)> condClockwaitSeam(
    "pthread_cond_clockwait");
Seam<int(pthread_cond_t*)> condSignalSeam("pthread_cond_signal");
Seam<int(pthread_cond_t*)> condBroadcastSeam("pthread_cond_broadcast");

ConditionWatch::ConditionWatch(int failing)
    : m_failing(failing),
      m_init(condInitSeam,
             [this](pthread_cond_t* condition, const pthread_condattr_t* attributes) {
                 return Init(condition, attributes);
             }),
      m_destroy(condDestroySeam,
                [this](pthread_cond_t* condition) {
                    {
                        std::lock_guard<std::mutex> lock(m_mutex);
                        if (const int number = NumberLocked(condition); number != NONE) {
                            m_destroyed.push_back(number);
                        }
                    }
                    return condDestroySeam.Real(condition);
                }),
      m_wait(condWaitSeam, [this](pthread_cond_t* condition, pthread_mutex_t* mutex) {
          {
              std::lock_guard<std::mutex> lock(m_mutex);
              m_waitedFor.push_back(NumberLocked(condition));
          }
          return condWaitSeam.Real(condition, mutex);
      })
{}

int ConditionWatch::Made() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return static_cast<int>(m_made.size());
}

std::vector<int> ConditionWatch::Destroyed() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_destroyed;
}

bool ConditionWatch::WaitedFor(int number) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return std::count(m_waitedFor.begin(), m_waitedFor.end(), number) > 0;
}

std::vector<clockid_t> ConditionWatch::Clocks() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_clocks;
}

int ConditionWatch::Init(pthread_cond_t* condition, const pthread_condattr_t* attributes)
{
    clockid_t clock = CLOCK_REALTIME;
    if (attributes != nullptr) {
        pthread_condattr_getclock(attributes, &clock);
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_clocks.push_back(clock);
    m_made.push_back(condition);
    if (static_cast<int>(m_made.size()) - 1 == m_failing) {
        return EAGAIN;
    }
    return condInitSeam.Real(condition, attributes);
}

/// Looked for from the newest on, because memory is used again.
int ConditionWatch::NumberLocked(const pthread_cond_t* condition) const
{
    const auto found = std::find(m_made.rbegin(), m_made.rend(), condition);
    return found == m_made.rend() ? NONE : static_cast<int>(m_made.rend() - found) - 1;
}

} // namespace zortest

extern "C" {

int clock_gettime(clockid_t id, timespec* now) noexcept
{
    return zortest::clockGettimeSeam(id, now);
}

int pthread_condattr_init(pthread_condattr_t* attributes) noexcept
{
    return zortest::condattrInitSeam(attributes);
}

int pthread_condattr_setclock(pthread_condattr_t* attributes, clockid_t clock) noexcept
{
    return zortest::condattrSetclockSeam(attributes, clock);
}

int pthread_condattr_destroy(pthread_condattr_t* attributes) noexcept
{
    return zortest::condattrDestroySeam(attributes);
}

int pthread_cond_init(pthread_cond_t* condition, const pthread_condattr_t* attributes) noexcept
{
    return zortest::condInitSeam(condition, attributes);
}

int pthread_cond_destroy(pthread_cond_t* condition) noexcept
{
    return zortest::condDestroySeam(condition);
}

int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex)
{
    return zortest::condWaitSeam(condition, mutex);
}

int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                           const timespec* deadline)
{
    return zortest::condTimedwaitSeam(condition, mutex, deadline);
}

int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                           const timespec* deadline)
{
    return zortest::condClockwaitSeam(condition, mutex, clock, deadline);
}

int pthread_cond_signal(pthread_cond_t* condition) noexcept
{
    return zortest::condSignalSeam(condition);
}

int pthread_cond_broadcast(pthread_cond_t* condition) noexcept
{
    return zortest::condBroadcastSeam(condition);
}
}
