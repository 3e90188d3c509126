#include "Patience.h"

#include <sched.h>

#include <algorithm>
#include <utility>

#include "Spin.h"

namespace {

/// Whether a probe of watching has paid off for the calling thread, and it has neither waited nor
/// woken anybody since.
thread_local bool t_probed = false;

bool IsThere(const std::atomic<int>& count)
{
    return count.load(std::memory_order_relaxed) > 0;
}

/// A short time in which all waits of the process yield that have no reason not to.
///
/// One thread that yields among many that park comes last each time, and learns that it does not
/// pay off, though it would if the others did so too. So a probe of one makes all the others try.
/// Those for which it pays off go on afterwards.
class Trial
{
 public:
    static void Begin(std::int64_t now)
    {
        const std::int64_t passed = now - s_begin.load(std::memory_order_relaxed);
        if (passed >= BETWEEN_NSEC || passed < 0) {
            s_begin.store(now, std::memory_order_relaxed);
            s_isOn.store(true, std::memory_order_relaxed);
        }
    }

    /// Whether one is under way. Reads the clock only if it may be.
    static bool IsOn()
    {
        if (!s_isOn.load(std::memory_order_relaxed)) {
            return false;
        }
        const std::int64_t passed = zor::Spin::Now() - s_begin.load(std::memory_order_relaxed);
        if (passed >= 0 && passed < LASTS_NSEC) {
            return true;
        }
        s_isOn.store(false, std::memory_order_relaxed);
        return false;
    }

 private:
    static constexpr std::int64_t LASTS_NSEC = 2000000;
    static constexpr std::int64_t BETWEEN_NSEC = 50000000;

    static inline std::atomic<bool> s_isOn{false};
    static inline std::atomic<std::int64_t> s_begin{-BETWEEN_NSEC}; ///< monotonic clock
};

/// Whether the process keeps a processor busy. Where it does not there is mostly nobody of its own
/// to yield to, and a thread that is woken finds a processor free.
class Load
{
 public:
    /// Judged anew every so often.
    static bool IsHigh(std::int64_t now)
    {
        const std::int64_t before = s_looked.load(std::memory_order_relaxed);
        if (now - before < WINDOW_NSEC && now >= before) {
            return s_isHigh.load(std::memory_order_relaxed);
        }
        const std::int64_t passed = now - s_looked.exchange(now, std::memory_order_relaxed);
        const std::int64_t used = zor::Spin::Used();
        const std::int64_t own = used - s_used.exchange(used, std::memory_order_relaxed);
        const bool isHigh = static_cast<double>(own) > HIGH * static_cast<double>(passed);
        s_isHigh.store(isHigh, std::memory_order_relaxed);
        return isHigh;
    }

 private:
    static constexpr std::int64_t WINDOW_NSEC = 10000000;
    static constexpr double HIGH = 0.9; ///< of one processor

    static inline std::atomic<bool> s_isHigh{false};
    static inline std::atomic<std::int64_t> s_used{0};   ///< by the process, at s_looked
    static inline std::atomic<std::int64_t> s_looked{0}; ///< monotonic clock
};

/// Who gets the processor when a thread yields, for all threads of the process.
///
/// A yield says that all others may go first. Those that handle events go soon; those that compute,
/// of this process or another, stay for a whole slice of theirs, where a thread that parks and is
/// woken would have gone before them. After such a yield nobody yields for a while, and the longer
/// the sooner it happens again. All relaxed: nothing hangs on it but time.
class Neighbours
{
 public:
    /// Above this a yield has let threads go first that do not handle events.
    static constexpr std::int64_t SLICE_NSEC = 2500000;

    static bool Allow(std::int64_t now)
    {
        const std::int64_t left = s_closedUntil.load(std::memory_order_relaxed) - now;
        return left <= 0 || left > MOST_NSEC; // the clock has been set back
    }

    static void WereNotKind(std::int64_t now)
    {
        const std::int64_t last = s_pause.load(std::memory_order_relaxed);
        const std::int64_t open = now - s_closedUntil.load(std::memory_order_relaxed);
        if (!Allow(now)) {
            return; // another thread has said so
        }
        const std::int64_t pause = open > 8 * last ? LEAST_NSEC : std::min(2 * last, MOST_NSEC);
        s_pause.store(pause, std::memory_order_relaxed);
        s_closedUntil.store(now + pause, std::memory_order_relaxed);
    }

 private:
    static constexpr std::int64_t LEAST_NSEC = 25000000;
    static constexpr std::int64_t MOST_NSEC = 3200000000;

    static inline std::atomic<std::int64_t> s_closedUntil{0}; ///< monotonic clock
    static inline std::atomic<std::int64_t> s_pause{LEAST_NSEC};
};

} // namespace

zor::Habit::Try zor::Habit::Next()
{
    const int left = credit.load(std::memory_order_relaxed);
    if (left > 0) {
        return Try::LIKELY;
    }
    const unsigned waits = skipped.fetch_add(1, std::memory_order_relaxed) + 1;
    if (left == RESCUE || waits >= interval.load(std::memory_order_relaxed)) {
        skipped.store(0, std::memory_order_relaxed);
        return Try::PROBE;
    }
    return Try::NONE;
}

void zor::Habit::Pass()
{
    // Where several threads wait this loses a count now and then, or that a probe has begun anew,
    // which is cheaper than to keep them.
    skipped.store(skipped.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

void zor::Habit::Paid(Try what)
{
    if (what != Try::LIKELY) {
        credit.store(PROBED, std::memory_order_relaxed);
        if (what == Try::PROBE) {
            MakeRarer();
        }
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
    if (what == Try::TRIAL) {
        return;
    }
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
    const unsigned enough = interval.load(std::memory_order_relaxed) / HEEDED;
    if (credit.load(std::memory_order_relaxed) == 0 &&
        skipped.load(std::memory_order_relaxed) >= enough) {
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
    const unsigned rarer = RARER * interval.load(std::memory_order_relaxed);
    if (rarer <= GREATEST_INTERVAL) {
        interval.store(rarer, std::memory_order_relaxed);
    }
}

void zor::Patience::Wait(const std::atomic<int>& count)
{
    t_probed = false;
    Habit::Try yielding = m_yielding.Next();
    if (yielding == Habit::Try::NONE && Trial::IsOn()) {
        yielding = Habit::Try::TRIAL;
    }
    const bool isUsual = m_yielding.HasMostCredit();
    const Outcome yielded = YieldFor(count, yielding);
    if (yielded == Outcome::PAID) {
        m_watching.Pass();
    }
    const bool mayWatch = yielded == Outcome::IN_VAIN || yielded == Outcome::NOT_TRIED;
    if (!mayWatch || !Spin::CanHelp()) {
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

void zor::Patience::EncourageWoken()
{
    if (std::exchange(t_probed, false)) {
        m_watching.Encourage();
    }
}

zor::Patience::Outcome zor::Patience::YieldFor(const std::atomic<int>& count, Habit::Try what)
{
    if (what == Habit::Try::NONE) {
        return Outcome::NOT_TRIED;
    }
    const Outcome outcome = Yield(count, what);
    // What takes long has paid off only for a probe: where all others park, one that yields comes
    // last, and where they yield too it does not take long any more.
    if (outcome == Outcome::PAID || (outcome == Outcome::PAID_LATE && what != Habit::Try::LIKELY)) {
        m_yielding.Paid(what);
    } else if (outcome != Outcome::NOT_TRIED) {
        m_yielding.Failed(what);
    }
    return outcome;
}

zor::Patience::Outcome zor::Patience::Yield(const std::atomic<int>& count, Habit::Try what)
{
    // More pay off more rarely, and make rings of threads slow.
    constexpr int YIELDS = 2;
    // Some hundred threads of this process that each handle an event.
    constexpr std::int64_t LONG_NSEC = 500000;

    const std::int64_t begin = Spin::Now();
    if (!Neighbours::Allow(begin) || !Load::IsHigh(begin)) {
        return Outcome::NOT_TRIED;
    }
    if (what == Habit::Try::PROBE) {
        Trial::Begin(begin);
    }
    bool there = false;
    for (int i = 0; i < YIELDS && !there; ++i) {
        sched_yield();
        there = IsThere(count);
    }
    const std::int64_t end = Spin::Now();
    const std::int64_t took = end - begin;
    if (took <= LONG_NSEC) {
        return there ? Outcome::PAID : Outcome::IN_VAIN;
    }
    if (took > Neighbours::SLICE_NSEC) {
        Neighbours::WereNotKind(end);
        return Outcome::TOO_LONG;
    }
    return there ? Outcome::PAID_LATE : Outcome::TOO_LONG;
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
            t_probed = what == Habit::Try::PROBE;
            return;
        }
    }
    m_watching.Failed(what);
}
