#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "Queue.h"
#include "Wait.h"

namespace zortest {

/// A thread that makes one synchronous put. Its sender must be released before it goes.
class SyncSender
{
 public:
    SyncSender(TCQueue& queue, const TSEvent& event, bool priority = false)
    {
        const std::size_t before = queue.Size();
        m_thread = std::thread([this, &queue, event = TSEvent(event), priority]() mutable {
            m_result = queue.PutSync(&event, true, priority);
            m_syncLeft = event.sync;
            event.wrappedData.reset(); // this share is gone before the return is known
            m_returned.Pass();
        });
        while (queue.Size() == before && !m_returned.IsOpen()) {
            std::this_thread::yield();
        }
    }

    ~SyncSender()
    {
        if (!m_returned.Wait()) {
            fprintf(stderr, "a synchronous sender was never released\n");
            abort();
        }
        m_thread.join();
    }

    SyncSender(const SyncSender&) = delete;
    SyncSender& operator=(const SyncSender&) = delete;

    bool Returned() const { return m_returned.IsOpen(); }

    /// What the put returned; waits for that.
    bool Result()
    {
        EXPECT_TRUE(m_returned.Wait());
        return m_result;
    }

    /// What the put left in the `sync` of the sender's own event; waits for its return.
    TCSemaphore* SyncLeft()
    {
        EXPECT_TRUE(m_returned.Wait());
        return m_syncLeft;
    }

 private:
    std::atomic<bool> m_result{false};
    std::atomic<TCSemaphore*> m_syncLeft{nullptr};
    Gate m_returned;
    std::thread m_thread;
};

} // namespace zortest
