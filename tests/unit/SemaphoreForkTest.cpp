#include <gtest/gtest.h>

#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "MutexSeams.h"
#include "Thread.h"

namespace {

using namespace zortest;

/// Uses semaphores in a child of fork() and says whether that came to an end.
bool ChildUsesSemaphores(TCSemaphore* semaphore)
{
    constexpr unsigned int HANG_SEC = 20;

    const pid_t child = fork();
    if (child == 0) {
        alarm(HANG_SEC);
        semaphore->Give();
        // A sanitizer would look at exit for the threads that only the parent can join.
        syscall(SYS_exit_group, semaphore->Try(0) ? 0 : 1);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
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

} // namespace
