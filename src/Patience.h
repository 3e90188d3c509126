#pragma once

#include <atomic>
#include <cstdint>

namespace zor {

/// What trying something before parking has taught: whether it pays off.
///
/// A try that pays off earns credit for one that does not. Without credit nothing is tried, but for
/// a probe now and then, and the more rarely the more probes have been of no lasting use. Where all
/// tries have paid off for a while and one fails, a probe comes at once: the thread on the other
/// side has mostly been held up once, and two that answer each other must find together again.
///
///   credit:   0 <-> 1 <-> 2 <-> 3 -> MOST      right: a try paid off; left: one failed
///             ^           ^            |
///             |         paid         failed
///             |           |            |
///             +- failed - probe <- RESCUE      a probe comes now and then from 0 too
///
/// All relaxed: nothing hangs on it but time. Any thread may call any operation.
struct Habit
{
    enum class Try
    {
        NONE,
        LIKELY, ///< it has paid off lately
        PROBE,  ///< to see whether it would
        TRIAL,  ///< the same, because others do
    };

    static constexpr int MOST = 4;                      ///< of credit
    static constexpr int PROBED = 2;                    ///< credit behind a probe that paid off
    static constexpr int RESCUE = -1;                   ///< the next try is a probe
    static constexpr unsigned LEAST_INTERVAL = 4;       ///< waits
    static constexpr unsigned FIRST_INTERVAL = 64;      ///< waits
    static constexpr unsigned GREATEST_INTERVAL = 1024; ///< waits
    static constexpr unsigned RARER = 16; ///< by which a probe multiplies the interval
    static constexpr unsigned HEEDED = 8; ///< into so many parts encouragement divides the interval

    std::atomic<int> credit{0};       ///< RESCUE to MOST
    std::atomic<unsigned> skipped{0}; ///< waits since the last probe that used no credit
    std::atomic<unsigned> interval{FIRST_INTERVAL}; ///< of these one is a probe

    /// Whether to try this time. What comes of it is said by Paid() or Failed().
    Try Next();

    /// Counts a wait that was over before this could be tried. So the first wait behind many of
    /// those may be a probe, but among all of them there is no more than one in an interval.
    void Pass();

    void Paid(Try what);
    void Failed(Try what);

    bool HasMostCredit() const { return credit.load(std::memory_order_relaxed) == MOST; }

    /// Has the interval begin anew.
    void Refresh();

    /// Makes the next try a probe, if there is no credit and the last probe is an eighth of the
    /// interval ago.
    void Encourage();

    void CopyFrom(const Habit& other);

 private:
    void MakeRarer();
};

/// How a wait for a unit spends its time before it parks, which costs two switches and a call that
/// wakes it. Learnt, for each semaphore, from what has paid off lately:
///
///   yielding   where other threads wait for this processor. Whoever is to give is mostly one of
///              them, and mostly has given when the processor comes back. In vain it costs next to
///              nothing where there is no other thread, but some milliseconds where there are some
///              that compute: the whole process then does without for a while.
///   watching   where whoever is to give runs on another processor at this moment
///   neither    where it takes longer than parking does
class Patience
{
 public:
    /// Passes the time until there may be a unit, as long as that promises to pay off. What has
    /// been seen means nothing until the mutex is held.
    ///
    /// @param count  the semaphore's, seen to be no more than 0
    void Wait(const std::atomic<int>& count);

    /// Called by the thread that gives, for a waiter that it has to wake: encourages the waiter to
    /// probe watching if the calling thread's last wait was a probe that paid off, and nobody has
    /// been woken since. Two that answer each other gain only if both watch, and rare as probes are
    /// they would not meet by chance.
    void EncourageWoken();

    void CopyFrom(const Patience& other)
    {
        m_watching.CopyFrom(other.m_watching);
        m_yielding.CopyFrom(other.m_yielding);
    }

 private:
    enum class Outcome
    {
        PAID,
        PAID_LATE, ///< many threads of the process went first
        IN_VAIN,
        TOO_LONG,
        NOT_TRIED,
    };

    Outcome Yield(const std::atomic<int>& count, Habit::Try what);
    Outcome YieldFor(const std::atomic<int>& count, Habit::Try what);
    void Watch(const std::atomic<int>& count, Habit::Try what);

    Habit m_watching;
    Habit m_yielding;
};

} // namespace zor
