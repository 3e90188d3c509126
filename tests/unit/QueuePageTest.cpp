#include <gtest/gtest.h>

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <new>

#include "MutexSeams.h"
#include "Queue.h"

namespace {

using namespace zortest;

/// How many mutexes of the system the calling thread holds. The process-wide mutex is the only one
/// that a put or a get locks.
thread_local int t_held = 0;

std::atomic<int> g_faults{0};
std::atomic<int> g_faultsWithTheMutex{0};
std::uintptr_t g_begin = 0;
std::uintptr_t g_end = 0;

/// Makes the page there that has been missed, as the system does it when a page is touched.
void BringPage(int /*signal*/, siginfo_t* info, void* /*context*/)
{
    const auto at = reinterpret_cast<std::uintptr_t>(info->si_addr);
    const long page = sysconf(_SC_PAGESIZE);
    if (at < g_begin || at >= g_end) {
        _exit(t_held == 0 ? 7 : 8);
    }
    ++g_faults;
    g_faultsWithTheMutex += t_held > 0 ? 1 : 0;
    mprotect(reinterpret_cast<void*>(at / page * page), page, PROT_READ | PROT_WRITE);
}

/// Pages of the system's, all of them there.
class Pages
{
 public:
    explicit Pages(std::size_t size)
        : m_size(size),
          m_memory(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))
    {
        EXPECT_NE(m_memory, MAP_FAILED);
    }
    ~Pages() { munmap(m_memory, m_size); }

    Pages(const Pages&) = delete;
    Pages& operator=(const Pages&) = delete;

    char* Begin() { return static_cast<char*>(m_memory); }

 private:
    std::size_t m_size;
    void* m_memory;
};

/// Tells when memory is touched for the first time, and whether under the process-wide mutex.
class QueuePageTest : public ::testing::Test
{
 protected:
    QueuePageTest()
        : m_lock(mutexLockSeam,
                 [](pthread_mutex_t* mutex) { return Counted(mutexLockSeam.Real(mutex)); }),
          m_trylock(mutexTrylockSeam,
                    [](pthread_mutex_t* mutex) { return Counted(mutexTrylockSeam.Real(mutex)); }),
          m_unlock(mutexUnlockSeam, [](pthread_mutex_t* mutex) {
              --t_held;
              return mutexUnlockSeam.Real(mutex);
          })
    {
        t_held = 0;
        g_faults = 0;
        g_faultsWithTheMutex = 0;
        struct sigaction action = {};
        action.sa_sigaction = BringPage;
        action.sa_flags = SA_SIGINFO | SA_NODEFER;
        sigaction(SIGSEGV, &action, &m_before);
    }

    ~QueuePageTest() override { sigaction(SIGSEGV, &m_before, nullptr); }

    /// From here on the pages that lie wholly within these bytes are missing.
    static void Withhold(void* begin, std::size_t size)
    {
        const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
        const auto address = reinterpret_cast<std::uintptr_t>(begin);
        g_begin = (address + page - 1) / page * page;
        g_end = (address + size) / page * page;
        ASSERT_LT(g_begin, g_end);
        ASSERT_EQ(mprotect(reinterpret_cast<void*>(g_begin), g_end - g_begin, PROT_NONE), 0);
    }

 private:
    static int Counted(int result)
    {
        t_held += result == 0 ? 1 : 0;
        return result;
    }

    Takeover<int(pthread_mutex_t*)> m_lock;
    Takeover<int(pthread_mutex_t*)> m_trylock;
    Takeover<int(pthread_mutex_t*)> m_unlock;
    struct sigaction m_before = {};
};

TEST_F(QueuePageTest, RingIsNotTouchedForTheFirstTimeUnderTheProcessWideMutex)
{
    constexpr int NORMAL = 240;
    constexpr int PRIORITY = 16;

    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    for (const std::size_t shift : {std::size_t{0}, std::size_t{64}, page - 128, page - 64}) {
        Pages pages(sizeof(TCQueue) + 2 * page);
        char* const memory = pages.Begin();
        auto* const queue = new (memory + shift) TCQueue;
        ASSERT_TRUE(queue->Create());
        const std::size_t members = sizeof(TCQueue) - 256 * sizeof(TSEvent);
        Withhold(memory + shift + members, 256 * sizeof(TSEvent));
        TSEvent event;
        for (int i = 0; i < PRIORITY; ++i) {
            ASSERT_TRUE(queue->Put(&event, true));
        }
        for (int i = 0; i < NORMAL - PRIORITY; ++i) {
            ASSERT_TRUE(queue->Put(&event, false));
        }
        EXPECT_GE(g_faults, 6);
        EXPECT_EQ(g_faultsWithTheMutex, 0) << "shift " << shift;
        for (int i = 0; i < NORMAL; ++i) {
            ASSERT_TRUE(queue->GetSync(&event, 0, false));
        }
        queue->Destroy();
        queue->~TCQueue();
    }
}

/// The events of sender and taker may lie in pages that are not there, on a new stack for instance.
TEST_F(QueuePageTest, EventsOfTheCallerAreNotTouchedForTheFirstTimeUnderTheProcessWideMutex)
{
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    Pages pages(4 * page);
    char* const memory = pages.Begin();
    TCQueue queue;
    ASSERT_TRUE(queue.Create());
    TSEvent usual;
    ASSERT_TRUE(queue.Put(&usual, false));                    // the ring's first page is there
    auto* const event = new (memory + 2 * page - 64) TSEvent; // on two pages
    Withhold(memory, 4 * page);
    EXPECT_TRUE(queue.Put(event, false));
    EXPECT_EQ(g_faults, 2);
    Withhold(memory, 4 * page);
    EXPECT_TRUE(queue.GetSync(event, 0, false));
    EXPECT_EQ(g_faults, 4);
    Withhold(memory, 4 * page);
    EXPECT_TRUE(queue.GetSyncQData(event, false));
    EXPECT_EQ(g_faults, 6);
    EXPECT_EQ(g_faultsWithTheMutex, 0);
    event->~TSEvent();
    queue.Destroy();
}

using QueuePageDeathTest = QueuePageTest;

/// In a release build, where the assertion returns.
TEST_F(QueuePageDeathTest, NullEventEndsTheProcessWithoutTheMutex)
{
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer ends the process before it touches the event";
#endif
    test::TSCustomAssert::callback = [](const char*, unsigned long) {};
    TCQueue queue;
    ASSERT_TRUE(queue.Create());
    EXPECT_EXIT(queue.PutSync(nullptr, false, false), ::testing::ExitedWithCode(7), "");
    EXPECT_EXIT(queue.GetSync(nullptr, 0, false), ::testing::ExitedWithCode(7), "");
    test::TSCustomAssert::callback = nullptr;
    queue.Destroy();
}

} // namespace
