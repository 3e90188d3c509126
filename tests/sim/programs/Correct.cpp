/// Everything that the simulator takes over, used as it should be: no schedule may find anything.
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <mutex>
#include <shared_mutex>
#include <thread>
#include <vector>

using namespace std::chrono_literals;

namespace {

#define CHECK(condition)                                        \
    do {                                                        \
        if (!(condition)) {                                     \
            std::printf("line %d: %s\n", __LINE__, #condition); \
            std::fflush(stdout);                                \
            std::_Exit(1);                                      \
        }                                                       \
    } while (false)

void CountUnderLocks()
{
    std::recursive_mutex recursive;
    std::timed_mutex timed;
    std::shared_mutex shared;
    int counts[3] = {};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&] {
            for (int turn = 0; turn < 5; ++turn) {
                {
                    const std::lock_guard<std::recursive_mutex> outer(recursive);
                    const std::lock_guard<std::recursive_mutex> inner(recursive);
                    ++counts[0];
                }
                if (timed.try_lock_for(10s)) {
                    ++counts[1];
                    timed.unlock();
                }
                {
                    const std::shared_lock<std::shared_mutex> reads(shared);
                }
                const std::lock_guard<std::shared_mutex> writes(shared);
                ++counts[2];
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    CHECK(counts[0] == 15 && counts[1] == 15 && counts[2] == 15);
}

void PassThroughQueue()
{
    std::mutex lock;
    std::condition_variable changed;
    int filled = 0;
    int taken = 0;
    std::thread taker([&] {
        for (int i = 0; i < 10; ++i) {
            std::unique_lock<std::mutex> guard(lock);
            changed.wait(guard, [&] { return filled > 0; });
            --filled;
            ++taken;
        }
    });
    for (int i = 0; i < 10; ++i) {
        const std::lock_guard<std::mutex> guard(lock);
        ++filled;
        changed.notify_one();
    }
    taker.join();
    CHECK(taken == 10 && filled == 0);
    std::unique_lock<std::mutex> guard(lock);
    const auto begin = std::chrono::steady_clock::now();
    CHECK(!changed.wait_for(guard, 1h, [] { return false; }));
    CHECK(std::chrono::steady_clock::now() - begin >= 1h);
}

std::atomic<int> g_destroyed{0};

struct CountsDestruction
{
    ~CountsDestruction()
    {
        const std::lock_guard<std::mutex> lock(s_lock);
        ++g_destroyed;
    }
    int used = 0;
    static std::mutex s_lock;
};
std::mutex CountsDestruction::s_lock;
thread_local CountsDestruction t_counts;

int Once()
{
    static const int s_value = [] {
        std::this_thread::sleep_for(1ms);
        return 42;
    }();
    return s_value;
}

void EndThreads()
{
    std::vector<std::thread> threads;
    sem_t ended;
    sem_init(&ended, 0, 0);
    std::once_flag flag;
    int calls = 0;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            ++t_counts.used;
            CHECK(Once() == 42);
            std::call_once(flag, [&calls] { ++calls; });
            sem_post(&ended);
        });
    }
    threads.back().detach();
    threads.pop_back();
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (int i = 0; i < 4; ++i) {
        CHECK(sem_wait(&ended) == 0);
    }
    while (g_destroyed < 4) {
        sched_yield(); // the detached one may be in its destructors
    }
    CHECK(calls == 1);
    pthread_t leaver;
    CHECK(pthread_create(
              &leaver, nullptr, [](void*) -> void* { pthread_exit(reinterpret_cast<void*>(7)); },
              nullptr) == 0);
    void* result = nullptr;
    CHECK(pthread_join(leaver, &result) == 0 && result == reinterpret_cast<void*>(7));
}

void UseFiles()
{
    int pipe_[2];
    CHECK(pipe(pipe_) == 0);
    std::thread writer([&] {
        std::this_thread::sleep_for(20ms);
        CHECK(write(pipe_[1], "x", 1) == 1);
    });
    pollfd wanted = {pipe_[0], POLLIN, 0};
    CHECK(poll(&wanted, 1, 5) == 0);
    char letter = 0;
    CHECK(read(pipe_[0], &letter, 1) == 1 && letter == 'x');
    writer.join();

    const int timer = timerfd_create(CLOCK_MONOTONIC, 0);
    const int epoll = epoll_create1(0);
    epoll_event event = {};
    event.events = EPOLLIN;
    CHECK(epoll_ctl(epoll, EPOLL_CTL_ADD, timer, &event) == 0);
    const itimerspec each = {{3600, 0}, {3600, 0}};
    CHECK(timerfd_settime(timer, 0, &each, nullptr) == 0);
    for (int hour = 0; hour < 24; ++hour) {
        CHECK(epoll_wait(epoll, &event, 1, -1) == 1);
        std::uint64_t count = 0;
        CHECK(read(timer, &count, sizeof(count)) == sizeof(count) && count == 1);
    }
    close(timer);
    close(epoll);
    close(pipe_[0]);
    close(pipe_[1]);
}

std::atomic<int> g_handled{0};

void UseSignals()
{
    signal(SIGUSR1, [](int) { ++g_handled; });
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR2);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    std::thread sender([] {
        std::this_thread::sleep_for(5ms);
        kill(getpid(), SIGUSR2);
        std::this_thread::sleep_for(5ms);
        kill(getpid(), SIGUSR1);
    });
    siginfo_t info;
    const timespec none = {0, 1000};
    CHECK(sigtimedwait(&set, &info, &none) < 0);
    CHECK(sigwaitinfo(&set, &info) == SIGUSR2);
    timespec second = {1, 0};
    CHECK(nanosleep(&second, &second) == -1);
    CHECK(second.tv_sec == 0 && second.tv_nsec > 900000000);
    sender.join();
    CHECK(g_handled == 1);
}

void UseChild()
{
    int pipe_[2];
    CHECK(pipe(pipe_) == 0);
    const pid_t child = fork();
    if (child == 0) {
        const bool wrote = write(pipe_[1], "y", 1) == 1;
        _exit(wrote ? 3 : 4);
    }
    char letter = 0;
    CHECK(read(pipe_[0], &letter, 1) == 1 && letter == 'y');
    int status = 0;
    CHECK(waitpid(child, &status, 0) == child && WEXITSTATUS(status) == 3);
}

} // namespace

int main()
{
    CountUnderLocks();
    PassThroughQueue();
    EndThreads();
    UseFiles();
    UseSignals();
    UseChild();
    auto answer = std::async(std::launch::async, [] {
        std::this_thread::sleep_for(1s);
        return 5;
    });
    CHECK(answer.wait_for(10s) == std::future_status::ready && answer.get() == 5);
    std::thread([] { std::this_thread::sleep_for(100h); }).detach();
}
