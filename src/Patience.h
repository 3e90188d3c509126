#pragma once

#include <atomic>
#include <cstdint>

namespace zor {

/// What trying something before parking has taught: whether it pays off.
///
/// A try that pays off earns credit for one that does not, up to MOST. Without credit nothing is
/// tried, but for a probe now and then, and the more rarely the more probes have been of no lasting
/// use. After a good time that ends suddenly one probe comes at once: the thread on the other side
/// has mostly been held up once, and two that answer each other must find together again.
///
///   credit:   RESCUE <- MOST <-> ... <-> 1 <-> 0      <- failed, paid ->
///               |                              |
///               +------- probe: PROBED --------+
///
/// All relaxed: nothing hangs on it but time. Any thread may call any operation.
struct Habit
{
    enum class Try
    {
        NONE,
        LIKELY, ///< it has paid off lately
        PROBE,  ///< to see whether it would
    };

    static constexpr int MOST = 4;                      ///< tries that may fail in a row
    static constexpr int PROBED = 2;                    ///< of them, behind a probe that paid off
    static constexpr int RESCUE = -1;                   ///< the next try is a probe
    static constexpr unsigned LEAST_INTERVAL = 4;       ///< waits
    static constexpr unsigned FIRST_INTERVAL = 32;      ///< waits
    static constexpr unsigned GREATEST_INTERVAL = 1024; ///< waits

    std::atomic<int> credit{0};                     ///< how often in a row a try may still fail
    std::atomic<unsigned> skipped{0};               ///< waits without credit
    std::atomic<unsigned> interval{FIRST_INTERVAL}; ///< of these one is a probe

    /// Whether to try this time. What comes of it is said by Paid() or Failed().
    Try Next();

    void Paid(Try what);
    void Failed(Try what);

    bool HasMostCredit() const { return credit.load(std::memory_order_relaxed) == MOST; }

    /// Lets probes come often again.
    void Refresh();

    /// Makes the next try a probe, if there is no credit; the more rarely the rarer probes are.
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
///              nothing where there is no other thread, but some milliseconds where those of other
///              processes are: the whole process then does without for a while.
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

    /// Tells a waiter that had to be woken that it is the calling thread who gives, if that one's
    /// own last wait was watched: two threads that answer each other gain only if both watch.
    void Encourage();

    void CopyFrom(const Patience& other)
    {
        m_watching.CopyFrom(other.m_watching);
        m_yielding.CopyFrom(other.m_yielding);
    }

 private:
    enum class Outcome
    {
        PAID,
        IN_VAIN,
        TOO_LONG, ///< the processor was somebody else's for long
        NOT_TRIED,
    };

    Outcome Yield(const std::atomic<int>& count);
    Outcome YieldFor(const std::atomic<int>& count, Habit::Try what);
    void Watch(const std::atomic<int>& count, Habit::Try what);

    Habit m_watching;
    Habit m_yielding;
};

} // namespace zor
