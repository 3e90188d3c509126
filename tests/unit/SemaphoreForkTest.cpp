#include <gtest/gtest.h>

#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "ConditionSeams.h"
#include "MutexSeams.h"
#include "Thread.h"
#include "Wait.h"

namespace {

using namespace zortest;

/// Runs @p body in a child of fork().
///
/// @return whether it came to an end there and answered true
template <typename Body>
bool IsTrueInAChild(const Body& body)
{
    constexpr unsigned int HANG_SEC = 20;

    const pid_t child = fork();
    if (child == 0) {
        alarm(HANG_SEC);
        // A sanitizer would look at exit for the threads that only the parent can join.
        syscall(SYS_exit_group, body() ? 0 : 1);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool ChildUsesSemaphores(TCSemaphore* semaphore)
{
    return IsTrueInAChild([semaphore] {
        semaphore->Give();
        return semaphore->Try(0);
    });
}

/// The process-wide mutex is held by another thread at the moment of the fork, as far as that can
/// be: whoever forks waits for it.
TEST(SemaphoreForkTest, ChildFindsTheMutexOfAllSemaphoresFree)
{
    constexpr std::chrono::milliseconds TIME_TO_FORK(100);

    TCSemaphore semaphore;
    ASSERT_TRUE(semaphore.Create(0));
    std::atomic<bool> holding{false};
    std::atomic<bool> armed{true};
    const Takeover unlock(mutexUnlockSeam, [&](pthread_mutex_t* mutex) {
        // The next thing that the giver unlocks is that mutex.
        if (armed.exchange(false)) {
            holding = true;
            std::this_thread::sleep_for(TIME_TO_FORK);
        }
        return mutexUnlockSeam.Real(mutex);
    });
    std::thread giver([&semaphore] { semaphore.Give(); });
    while (!holding) {
        std::this_thread::yield();
    }
    EXPECT_TRUE(ChildUsesSemaphores(&semaphore));
    giver.join();
    semaphore.Destroy();
}

TEST(SemaphoreForkTest, ForksAmongPutsAndTakesLeaveAUsableChildEachTime)
{
    constexpr int FORKS = 50;

    TCSemaphore semaphore;
    TCSemaphore other;
    ASSERT_TRUE(semaphore.Create(0));
    ASSERT_TRUE(other.Create(1));
    std::atomic<bool> stop{false};
    std::thread storm([&] {
        while (!stop) {
            other.Take();
            other.Give();
        }
    });
    for (int i = 0; i < FORKS; ++i) {
        EXPECT_TRUE(ChildUsesSemaphores(&semaphore));
    }
    stop = true;
    storm.join();
    semaphore.Destroy();
    other.Destroy();
}

/// They are not in the child, and waking them, or waiting until they are awake, would not end.
TEST(SemaphoreForkTest, ChildForgetsTheThreadsThatWereParked)
{
    constexpr int PARKED = 4;

    TCSemaphore semaphore;
    ASSERT_TRUE(semaphore.Create(0));
    std::atomic<int> waits{0};
    const Takeover wait(condWaitSeam, [&waits](pthread_cond_t* condition, pthread_mutex_t* mutex) {
        ++waits;
        return condWaitSeam.Real(condition, mutex);
    });
    std::vector<std::thread> parked;
    for (int i = 0; i < PARKED; ++i) {
        parked.emplace_back([&semaphore] { semaphore.Take(); });
        ASSERT_TRUE(Eventually([&] { return waits > i; }));
        if (i == 0) {
            // The condition variable knows the first as one of a group of its own.
            semaphore.Give();
            parked.back().join();
            parked.back() = std::thread([&semaphore] { semaphore.Take(); });
            ASSERT_TRUE(Eventually([&] { return waits > i + 1; }));
            waits = 1;
        }
    }
    EXPECT_TRUE(IsTrueInAChild([&semaphore] {
        for (int i = 0; i < 2 * PARKED; ++i) {
            semaphore.Give();
        }
        bool taken = true;
        for (int i = 0; i < 2 * PARKED; ++i) {
            taken = taken && semaphore.Try(0);
        }
        taken = taken && !semaphore.Try(1);
        semaphore.Destroy();
        return taken;
    }));
    for (int i = 0; i < PARKED; ++i) {
        semaphore.Give();
    }
    for (std::thread& thread : parked) {
        thread.join();
    }
    semaphore.Destroy();
}

} // namespace
