#pragma once

#include <gtest/gtest.h>

#include <pthread.h>

namespace zortest {

/// A thread of the system's that can be cancelled.
class CancelledThread
{
 public:
    /// @param body  what it runs, before a cancellation point of its own; must outlive it
    template <typename Body>
    explicit CancelledThread(Body* body)
    {
        const auto run = [](void* what) -> void* {
            (*static_cast<Body*>(what))();
            pthread_testcancel();
            return nullptr;
        };
        EXPECT_EQ(pthread_create(&m_thread, nullptr, run, body), 0);
    }

    void Cancel() { EXPECT_EQ(pthread_cancel(m_thread), 0); }

    /// Waits for the thread's end.
    ///
    /// @return whether it was cancelled
    bool Join()
    {
        void* result = nullptr;
        EXPECT_EQ(pthread_join(m_thread, &result), 0);
        return result == PTHREAD_CANCELED;
    }

 private:
    pthread_t m_thread{};
};

} // namespace zortest
