#include "Patience.h"

#include <sched.h>

#include <algorithm>
#include <ctime>

#include "Spin.h"

namespace {

/// Whether the calling thread's last wait was ended by watching.
thread_local bool t_watched = false;

bool IsThere(const std::atomic<int>& count)
{
    return count.load(std::memory_order_relaxed) > 0;
}

/// Who gets the processor when a thread yields, for all threads of the process.
///
/// A yield says that all others may go first. Those of this process go soon; those of other
/// processes stay for a whole slice of theirs, where a thread that parks and is woken would have
/// gone before them. After such a yield nobody yields for a while, and the longer the sooner it
/// happens again. All relaxed: nothing hangs on it but time.
class Neighbours
{
 public:
    static bool Allow(std::int64_t now)
    {
        return now >= s_closedUntil.load(std::memory_order_relaxed);
    }

    /// Judges a yield that has taken long.
    ///
    /// @return whether it was this process that used the processors meanwhile
    static bool AreOwn(std::int64_t now)
    {
        const std::int64_t used = zor::Spin::Used();
        const std::int64_t share = used - s_used.exchange(used, std::memory_order_relaxed);
        const std::int64_t whole =
            (now - s_looked.exchange(now, std::memory_order_relaxed)) * zor::Spin::Processors();
        return share * 10 > whole * 8;
    }

    static void WereNotKind(std::int64_t now)
    {
        if (!Allow(now)) {
            return; // another thread has said so
        }
        const std::int64_t last = s_pause.load(std::memory_order_relaxed);
        const std::int64_t open = now - s_closedUntil.load(std::memory_order_relaxed);
        const std::int64_t pause = open > 8 * last ? LEAST_NSEC : std::min(2 * last, MOST_NSEC);
        s_pause.store(pause, std::memory_order_relaxed);
        s_closedUntil.store(now + pause, std::memory_order_relaxed);
    }

 private:
    static constexpr std::int64_t LEAST_NSEC = 25000000;
    static constexpr std::int64_t MOST_NSEC = 3200000000;

    static inline std::atomic<std::int64_t> s_closedUntil{0}; ///< monotonic clock
    static inline std::atomic<std::int64_t> s_pause{LEAST_NSEC};
    static inline std::atomic<std::int64_t> s_used{0};   ///< by the process, at s_looked
    static inline std::atomic<std::int64_t> s_looked{0}; ///< monotonic clock
};

} // namespace

zor::Habit::Try zor::Habit::Next()
{
    const int left = credit.load(std::memory_order_relaxed);
    if (left > 0) {
        return Try::LIKELY;
    }
    const unsigned waits = skipped.fetch_add(1, std::memory_order_relaxed) + 1;
    if (left == RESCUE) {
        return Try::PROBE;
    }
    return waits % interval.load(std::memory_order_relaxed) == 0 ? Try::PROBE : Try::NONE;
}

void zor::Habit::Paid(Try what)
{
    if (what == Try::PROBE) {
        credit.store(PROBED, std::memory_order_relaxed);
        MakeRarer();
        return;
    }
    const int left = std::max(credit.load(std::memory_order_relaxed), 0);
    if (left < MOST) {
        credit.store(left + 1, std::memory_order_relaxed);
        if (left + 1 == MOST) {
            Refresh();
        }
    }
}

void zor::Habit::Failed(Try what)
{
    if (what == Try::PROBE) {
        credit.store(0, std::memory_order_relaxed);
        MakeRarer();
        return;
    }
    const int left = credit.load(std::memory_order_relaxed);
    credit.store(left == MOST ? RESCUE : std::max(left - 1, 0), std::memory_order_relaxed);
}

void zor::Habit::Refresh()
{
    if (interval.load(std::memory_order_relaxed) != LEAST_INTERVAL) {
        interval.store(LEAST_INTERVAL, std::memory_order_relaxed);
    }
}

void zor::Habit::Encourage()
{
    const unsigned step = interval.load(std::memory_order_relaxed) / LEAST_INTERVAL;
    const unsigned waits = skipped.load(std::memory_order_relaxed);
    if (credit.load(std::memory_order_relaxed) == 0 && waits % step == 0) {
        credit.store(RESCUE, std::memory_order_relaxed);
    }
}

void zor::Habit::CopyFrom(const Habit& other)
{
    credit.store(other.credit.load(std::memory_order_relaxed), std::memory_order_relaxed);
    skipped.store(other.skipped.load(std::memory_order_relaxed), std::memory_order_relaxed);
    interval.store(other.interval.load(std::memory_order_relaxed), std::memory_order_relaxed);
}

void zor::Habit::MakeRarer()
{
    const unsigned rarer = 2 * interval.load(std::memory_order_relaxed);
    if (rarer <= GREATEST_INTERVAL) {
        interval.store(rarer, std::memory_order_relaxed);
    }
}

void zor::Patience::Wait(const std::atomic<int>& count)
{
    t_watched = false;
    const Habit::Try yielding = m_yielding.Next();
    const bool isUsual = m_yielding.HasMostCredit();
    const Outcome yielded = YieldFor(count, yielding);
    if (yielded == Outcome::PAID && isUsual) {
        m_watching.Refresh(); // where threads come and go so fast, watching may pay off any moment
    }
    if (yielded == Outcome::PAID || yielded == Outcome::TOO_LONG || !Spin::CanHelp()) {
        return;
    }
    Habit::Try watching = m_watching.Next();
    if (watching == Habit::Try::NONE && yielded == Outcome::IN_VAIN && isUsual) {
        watching = Habit::Try::LIKELY; // whoever is to give is on another processor this time
    }
    if (watching != Habit::Try::NONE) {
        Watch(count, watching);
    }
}

void zor::Patience::Encourage()
{
    if (t_watched) {
        m_watching.Encourage();
    }
}

zor::Patience::Outcome zor::Patience::YieldFor(const std::atomic<int>& count, Habit::Try what)
{
    if (what == Habit::Try::NONE) {
        return Outcome::NOT_TRIED;
    }
    const Outcome outcome = Yield(count);
    if (outcome == Outcome::PAID) {
        m_yielding.Paid(what);
    } else if (outcome != Outcome::NOT_TRIED) {
        m_yielding.Failed(what);
    }
    return outcome;
}

zor::Patience::Outcome zor::Patience::Yield(const std::atomic<int>& count)
{
    // More pay off more rarely, and make rings of threads slow.
    constexpr int YIELDS = 2;
    // Some hundred threads of this process that each handle an event.
    constexpr std::int64_t LONG_NSEC = 500000;

    const std::int64_t begin = Spin::Now();
    if (!Neighbours::Allow(begin)) {
        return Outcome::NOT_TRIED;
    }
    bool there = false;
    for (int i = 0; i < YIELDS && !there; ++i) {
        sched_yield();
        there = IsThere(count);
    }
    const std::int64_t end = Spin::Now();
    if (end - begin > LONG_NSEC && !Neighbours::AreOwn(end)) {
        Neighbours::WereNotKind(end);
        return Outcome::TOO_LONG;
    }
    return there ? Outcome::PAID : Outcome::IN_VAIN;
}

void zor::Patience::Watch(const std::atomic<int>& count, Habit::Try what)
{
    // About what parking and waking cost, both threads' share together.
    constexpr int WATCH_NSEC = 5000;
    // Two threads that answer each other must both watch, or each finds the other asleep. A probe
    // is long enough to see the answer of one that has to be woken first. It is worth several
    // parkings, which is why probes are rare.
    constexpr int PROBE_NSEC = 10 * WATCH_NSEC;

    int looks = Spin::PausesIn(what == Habit::Try::PROBE ? PROBE_NSEC : WATCH_NSEC);
    for (; looks > 0; --looks) {
        Spin::Pause();
        if (IsThere(count)) {
            m_watching.Paid(what);
            t_watched = true;
            return;
        }
    }
    m_watching.Failed(what);
}
