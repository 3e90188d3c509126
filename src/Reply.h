#pragma once

#include "SemaphoreState.h"
#include "Thread.h"

/// The semaphore that a synchronous sender waits on. It lives on the sender's stack and goes with
/// its scope. Being new each time it cannot learn whether watching it pays off; what the sending
/// thread has learnt from its earlier replies stands in for that.
class Reply : public TCSemaphore
{
 public:
    /// @return whether its state could be allocated
    bool Create()
    {
        if (!TCSemaphore::Create(0)) {
            return false;
        }
        m_state->credit.store(t_credit, std::memory_order_relaxed);
        m_state->skipped.store(t_skipped, std::memory_order_relaxed);
        return true;
    }

    /// Waits for the reply.
    void Wait()
    {
        Take();
        t_credit = m_state->credit.load(std::memory_order_relaxed);
        t_skipped = m_state->skipped.load(std::memory_order_relaxed);
    }

    ~Reply() override
    {
        if (FlagCreate()) {
            Destroy();
        }
    }

 private:
    static inline thread_local int t_credit = State::CREDIT;
    static inline thread_local unsigned t_skipped = 0;
};
