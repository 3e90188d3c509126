#pragma once

#include "NoCancellation.h"
#include "SemaphoreState.h"
#include "Thread.h"

namespace zor {

/// The semaphore that a synchronous sender waits on. It lives on the sender's stack and goes with
/// its scope, and the queued event points to it: the sender must not be cancelled until the reply
/// has been given. Being new each time it cannot learn whether patience with it pays off; what the
/// sending thread has learnt from its earlier replies stands in for that.
class Reply : public TCSemaphore
{
 public:
    /// @return whether its state could be allocated
    bool Create()
    {
        if (!TCSemaphore::Create(0)) {
            return false;
        }
        m_state->patience.CopyFrom(t_patience);
        return true;
    }

    /// Waits for the reply, and destroys the semaphore in the critical section in which that was
    /// taken: who has given it has left its own.
    void Wait()
    {
        State* const state = m_state;
        state->Watch();
        {
            const TimeMutexLock lock;
            state->TakeLocked();
            m_state = nullptr;
        }
        t_patience.CopyFrom(state->patience);
        state->LetGo();
    }

    ~Reply() override
    {
        if (FlagCreate()) {
            Destroy();
        }
    }

 private:
    const NoCancellation m_noCancellation;

    static inline thread_local Patience t_patience;
};

} // namespace zor
