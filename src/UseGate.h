#pragma once

#include <atomic>

#include "Thread.h"

namespace zor {

/// Keeps what the process entry takes down when Main() has returned from being taken down under
/// threads that still use it. Needs no destructor itself.
///
///   user:   count oneself -- closed? -- there? use it -- leave
///   entry:                close -- wait until nobody is in -- take it down -- open
///
/// Either the user sees that the gate is closed, or the entry sees the user: both operations are in
/// the one order of all sequentially consistent ones. A user may enter again while it is in, and is
/// turned away if the gate has been closed meanwhile.
class UseGate
{
 public:
    /// One use, for a scope. Look whether the thing is there when it has been admitted.
    class Use
    {
     public:
        explicit Use(UseGate* gate) : m_gate(gate)
        {
            ++m_gate->m_users;
            m_admitted = !m_gate->m_closed;
        }
        ~Use() { --m_gate->m_users; }

        Use(const Use&) = delete;
        Use& operator=(const Use&) = delete;

        bool IsAdmitted() const { return m_admitted; }

     private:
        UseGate* const m_gate;
        bool m_admitted;
    };

    /// Keeps everybody out, for a scope that begins when the last one has left. One at a time.
    class Closure
    {
     public:
        explicit Closure(UseGate* gate) : m_gate(gate)
        {
            m_gate->m_closed = true;
            while (m_gate->m_users != 0) {
                TCTimeWrapper::Sleep(POLL_MSEC);
            }
        }
        ~Closure() { m_gate->m_closed = false; }

        Closure(const Closure&) = delete;
        Closure& operator=(const Closure&) = delete;

     private:
        static constexpr unsigned long POLL_MSEC = 1; ///< a use lasts for microseconds

        UseGate* const m_gate;
    };

 private:
    std::atomic<int> m_users{0};
    std::atomic<bool> m_closed{false};
};

} // namespace zor
