#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "MultiQTask.h"
#include "RWLockSeams.h"
#include "TaskSupport.h"

// What a multi-queue task takes down on its own thread while others use it.

namespace {

using namespace zortest;

class EndedMultiQTask : public TCMultiQTask
{
 public:
    bool Start() { return Create("multi", LONG_WAIT_MSEC, TEST_STACK_SIZE, 2, 0); }

    using TCTask::HasEnded;
};

thread_local bool isInRelay = false;

/// Threads of which there is always one that holds the reader-writer lock that they all take: each
/// keeps it until another one has come, for as long as others come.
class Relay
{
 public:
    /// Runs @p turn, which takes and gives the lock, until the relay is stopped.
    template <typename Turn>
    void Run(const Turn& turn)
    {
        isInRelay = true;
        while (!IsStopped()) {
            turn();
        }
        isInRelay = false;
    }

    void Stop()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_stopped = true;
        m_changed.notify_all();
    }

    /// Waits until two threads have met under the lock.
    bool HasBegun()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, DEADLINE, [this] { return m_begun; });
    }

 private:
    /// Nobody else comes: whoever waits for the lock keeps them out.
    static constexpr std::chrono::milliseconds PATIENCE{200};

    bool IsStopped()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_stopped;
    }

    int Lock(pthread_rwlock_t* rwlock)
    {
        const int result = rdlockSeam.Real(rwlock);
        if (isInRelay) {
            const std::lock_guard<std::mutex> lock(m_mutex);
            ++m_inside;
            m_begun = m_begun || m_inside > 1;
            m_changed.notify_all();
        }
        return result;
    }

    int Unlock(pthread_rwlock_t* rwlock)
    {
        if (isInRelay) {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_changed.wait_for(lock, PATIENCE, [this] { return m_inside > 1 || m_stopped; });
            --m_inside;
        }
        return rwlockUnlockSeam.Real(rwlock);
    }

    std::mutex m_mutex; ///< guards what follows
    std::condition_variable m_changed;
    int m_inside = 0;
    bool m_begun = false;
    bool m_stopped = false;

    const Takeover<int(pthread_rwlock_t*)> m_lock{
        rdlockSeam, [this](pthread_rwlock_t* rwlock) { return Lock(rwlock); }};
    const Takeover<int(pthread_rwlock_t*)> m_unlock{
        rwlockUnlockSeam, [this](pthread_rwlock_t* rwlock) { return Unlock(rwlock); }};
};

TEST(MultiQTakeDownTest, SendersThatRelieveEachOtherDoNotKeepTheTaskFromItsEnd)
{
    const TaskRuntime runtime;
    EndedMultiQTask task;
    ASSERT_TRUE(task.Start());
    {
        Relay relay;
        const auto send = [&] {
            TSEvent event = EventTo(&task);
            TCMultiQTask::Send(&event, false, false, 0); // refused when the queue is full
        };
        std::thread one([&] { relay.Run(send); });
        std::thread other([&] { relay.Run(send); });
        EXPECT_TRUE(relay.HasBegun());
        TSEvent exit = EventTo(&task, TCTask::EVENT_EXIT);
        EXPECT_TRUE(Eventually([&] { return TCTask::Send(&exit, false, true); }));
        EXPECT_TRUE(Eventually([&] { return task.HasEnded(); }));
        relay.Stop();
        one.join();
        other.join();
    }
    task.Destroy();
}

/// An attachment that, as it is released, ends a task and waits for that.
class EndsTask
{
 public:
    EndsTask(EndedMultiQTask* task, std::optional<bool>* hasEnded)
        : m_task(task), m_hasEnded(hasEnded)
    {}
    EndsTask(EndsTask&& other) noexcept
        : m_task(std::exchange(other.m_task, nullptr)), m_hasEnded(other.m_hasEnded)
    {}
    ~EndsTask()
    {
        if (m_task != nullptr) {
            *m_hasEnded = Post(m_task, TCTask::EVENT_EXIT) &&
                          Eventually([this] { return m_task->HasEnded(); });
        }
    }

    EndsTask(const EndsTask&) = delete;
    EndsTask& operator=(const EndsTask&) = delete;
    EndsTask& operator=(EndsTask&&) = delete;

 private:
    EndedMultiQTask* m_task;
    std::optional<bool>* m_hasEnded;
};

TEST(MultiQTakeDownTest, WhatAFormerLifeLeftInTheQueueIsReleasedUnderNoLock)
{
    constexpr int SENDS = 10; // more than there are events in the former life

    const TaskRuntime runtime;
    EndedMultiQTask task;
    ASSERT_TRUE(task.Start());
    std::optional<bool> hasEnded;
    std::optional<FunctionHandler> stranger(
        std::in_place, [](const TSEvent*) { return true; }, &task);
    {
        Hold hold(&task);
        EXPECT_TRUE(Post(&task, TCTask::EVENT_EXIT));
        TSEvent left = EventTo(&*stranger);
        left.setWrappedData(EndsTask(&task, &hasEnded));
        EXPECT_TRUE(TCTask::Send(&left, false, false));
    }
    task.Destroy(); // the stranger's event stays
    EXPECT_FALSE(hasEnded.has_value());
    ASSERT_TRUE(task.Start());
    for (int i = 0; i < SENDS && !hasEnded.has_value(); ++i) {
        TSEvent event = EventTo(&*stranger);
        EXPECT_TRUE(TCMultiQTask::Send(&event, false, false, 0));
    }
    EXPECT_EQ(hasEnded, true);
    EXPECT_TRUE(Eventually([&] { return task.HasEnded(); }));
    stranger.reset();
    task.Destroy();
}

} // namespace
