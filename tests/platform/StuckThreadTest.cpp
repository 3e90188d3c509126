#include <gtest/gtest.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "PlatformLog.h"
#include "Sanitized.h"
#include "brisk_deadlock.h"
#include "dlog.h"

/// Where the blocked thread hangs; a frame of its stack, so it must be a function that the loader
/// knows. The thread sanitizer lets a signal through to a thread that waits for a semaphore, but
/// not to one that waits for a mutex.
__attribute__((noinline, visibility("default"))) void HangHere(sem_t* end)
{
    while (sem_wait(end) != 0) {
    }
    asm volatile(""); // a call in the last place would have no frame
}

/// Where the spinning thread hangs: the innermost frame of its stack, for nothing is called here.
__attribute__((noinline, visibility("default"))) void SpinHere(const bool* ends)
{
    while (!__atomic_load_n(ends, __ATOMIC_SEQ_CST)) {
    }
}

namespace {

/// What the blocked thread waits for.
struct End
{
    End() { sem_init(&semaphore, 0, 0); }
    ~End() { sem_destroy(&semaphore); }

    End(const End&) = delete;
    End& operator=(const End&) = delete;

    sem_t semaphore{};
};

/// A thread under supervision with a time-out of a second that then runs what it is given.
class TCHungThread
{
 public:
    TCHungThread(const char* name, std::function<void()> body)
        : m_name(name), m_body(std::move(body))
    {
        pthread_create(&m_thread, nullptr, Run, this);
    }

    ~TCHungThread() { pthread_join(m_thread, nullptr); }

    TCHungThread(const TCHungThread&) = delete;
    TCHungThread& operator=(const TCHungThread&) = delete;

 private:
    static void* Run(void* self)
    {
        auto* const thread = static_cast<TCHungThread*>(self);
        pthread_setname_np(pthread_self(), thread->m_name);
        EXPECT_EQ(brisk_deadlock_register_watchdog_service(1), 0);
        thread->m_body();
        return nullptr;
    }

    const char* m_name;
    std::function<void()> m_body;
    pthread_t m_thread{};
};

class StuckThreadTest : public ::testing::Test
{
 protected:
    void SetUp() override { m_log.Clear(); }

    /// What was logged up to the report of that thread, the report included.
    std::vector<TSLogEntry> LogUpToReport(const std::string& name)
    {
        m_log.WaitFor("thread '" + name + "' ");
        return m_log.Entries();
    }

    TCPlatformLog& m_log = TCPlatformLog::Instance();
};

/// The place of the first entry from @p from on that contains @p part; the number of entries if
/// there is none.
size_t Find(const std::vector<TSLogEntry>& log, const std::string& part, size_t from = 0)
{
    while (from < log.size() && log[from].text.find(part) == std::string::npos) {
        ++from;
    }
    return from;
}

TEST_F(StuckThreadTest, BlockedThreadShowsItsOwnStackBeforeTheReport)
{
    End end;
    std::vector<TSLogEntry> log;
    {
        const TCHungThread thread("blocked", [&end] { HangHere(&end.semaphore); });
        log = LogUpToReport("blocked");
        sem_post(&end.semaphore);
    }
    const size_t state = Find(log, "'blocked' (");
    ASSERT_LT(state, log.size());
    EXPECT_NE(log[state].text.find("is blocked: it used 0 ms"), std::string::npos)
        << log[state].text;
    EXPECT_EQ(log[state].priority, DLOG_ERROR);
    EXPECT_EQ(log[state].tag, "ZOR_WATCHDOG");
    const size_t frame = Find(log, "HangHere", state);
    const size_t report = Find(log, "thread 'blocked' ", state);
    EXPECT_LT(frame, report);
    ASSERT_LT(report, log.size());
    EXPECT_EQ(log[state + 1].text.compare(0, 5, "  #0 "), 0) << log[state + 1].text;
}

TEST_F(StuckThreadTest, SpinningThreadIsToldFromABlockedOne)
{
    bool ends = false;
    std::vector<TSLogEntry> log;
    {
        const TCHungThread thread("spinning", [&ends] { SpinHere(&ends); });
        log = LogUpToReport("spinning");
        __atomic_store_n(&ends, true, __ATOMIC_SEQ_CST);
    }
    const size_t state = Find(log, "'spinning' (");
    ASSERT_LT(state, log.size());
    EXPECT_NE(log[state].text.find(" is spinning: "), std::string::npos) << log[state].text;
    // The thread sanitizer keeps a signal from a thread that never waits, and a busy machine may.
    if (log[state].text.find("its stack:") != std::string::npos) {
        const size_t spin = Find(log, "SpinHere", state);
        if (zortest::SLOWER == 1) { // a sanitizer brings a signal with frames of its own
            EXPECT_LE(spin, state + 2) << "the stack begins with frames of the supervisor's";
        }
        ASSERT_LT(spin, log.size());
        EXPECT_NE(log[spin].text.find(" (SpinHere+0x"), std::string::npos) << log[spin].text;
    }
}

TEST_F(StuckThreadTest, ThreadThatBlocksSignalsIsReportedWithoutAStack)
{
    End end;
    std::vector<TSLogEntry> log;
    {
        const TCHungThread thread("deaf", [&end] {
            sigset_t all;
            sigfillset(&all);
            pthread_sigmask(SIG_SETMASK, &all, nullptr);
            HangHere(&end.semaphore);
        });
        log = LogUpToReport("deaf");
        sem_post(&end.semaphore);
    }
    const size_t state = Find(log, "'deaf' (");
    ASSERT_LT(state, log.size());
    EXPECT_NE(log[state].text.find("it gives no stack, for it does not take signals"),
              std::string::npos)
        << log[state].text;
    EXPECT_EQ(Find(log, "  #0 ", state), log.size());
}

/// The signal that the deaf thread has pending meets a handler when it is unblocked, and the next
/// question is not mistaken for it.
TEST_F(StuckThreadTest, LateAnswerIsNobodysStack)
{
    End end;
    std::atomic<bool> unblocked{false};
    std::vector<TSLogEntry> log;
    {
        const TCHungThread deaf("late", [&] {
            sigset_t all;
            sigset_t before;
            sigfillset(&all);
            pthread_sigmask(SIG_SETMASK, &all, &before);
            HangHere(&end.semaphore);
            pthread_sigmask(SIG_SETMASK, &before, nullptr);
            unblocked.store(true);
        });
        LogUpToReport("late");
        sem_post(&end.semaphore);
    }
    EXPECT_TRUE(unblocked.load());
    m_log.Clear();
    {
        const TCHungThread next("next", [&end] { HangHere(&end.semaphore); });
        log = LogUpToReport("next");
        sem_post(&end.semaphore);
    }
    EXPECT_LT(Find(log, "HangHere"), log.size());
}

void Ignore(int) {}

/// In a process of its own, for the choice of the signal is made once.
TEST(StuckThreadProcessTest, SignalOfTheApplicationIsLeftToIt)
{
    EXPECT_EXIT(
        {
            alarm(60);
            for (int number = SIGRTMIN; number <= SIGRTMAX; ++number) {
                signal(number, Ignore);
            }
            End end;
            const TCHungThread thread("kept", [&end] { HangHere(&end.semaphore); });
            const std::string text = TCPlatformLog::Instance().WaitFor("'kept' (")[0].text;
            bool kept = text.find("it gives no stack") != std::string::npos;
            for (int number = SIGRTMIN; number <= SIGRTMAX; ++number) {
                kept = kept && signal(number, Ignore) == Ignore;
            }
            _exit(kept ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

} // namespace
