#include "brisk_deadlock.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "PlatformLog.h"
#include "WatchedThread.h"
#include "dlog.h"

namespace {

using std::chrono::steady_clock;
using EDuty = TCWatchedThread::EDuty;

/// What is not reported is proved by what is: a thread that hangs from a later moment on is
/// reported, and by then everything that was due before would have been.
class BriskDeadlockTest : public ::testing::Test
{
 protected:
    void SetUp() override { m_log.Clear(); }

    static std::string Name(const std::string& name) { return "thread '" + name + "' "; }

    TCPlatformLog& m_log = TCPlatformLog::Instance();
};

TEST_F(BriskDeadlockTest, SilentThreadIsReportedOnceAndThoseThatGoOnOrEndedAreNot)
{
    TCWatchedThread busy("busy", 2, EDuty::NOTIFY);
    {
        TCWatchedThread ended("ended", 1, EDuty::HANG);
    }
    TCWatchedThread silent("silent", 1, EDuty::HANG);
    m_log.WaitFor(Name("silent"));
    EXPECT_TRUE(m_log.Entries(Name("ended")).empty());

    TCWatchedThread later("later", 1, EDuty::HANG);
    m_log.WaitFor(Name("later"));
    EXPECT_EQ(m_log.Entries(Name("silent")).size(), 1u);
    EXPECT_TRUE(m_log.Entries(Name("busy")).empty());
    EXPECT_EQ(busy.Errors(), 0);
}

TEST_F(BriskDeadlockTest, ThreadThatLivesAgainIsToldOfOnceWithHowLongItWasSilent)
{
    TCWatchedThread silent("silent", 1, EDuty::HANG);
    m_log.WaitFor(Name("silent"));
    EXPECT_TRUE(m_log.Entries("lives again").empty());
    silent.NotifyOnce();
    const TSLogEntry entry = m_log.WaitFor("lives again")[0];
    EXPECT_EQ(entry.priority, DLOG_WARN);
    EXPECT_EQ(entry.tag, "ZOR_WATCHDOG");
    float seconds = 0;
    const std::string form =
        "'silent' (" + std::to_string(silent.Tid()) + ") lives again after %f s";
    ASSERT_EQ(sscanf(entry.text.c_str(), form.c_str(), &seconds), 1) << entry.text;
    EXPECT_GE(seconds, 1);

    TCWatchedThread later("later", 1, EDuty::HANG);
    m_log.WaitFor(Name("later"));
    EXPECT_EQ(m_log.Entries("lives again").size(), 1u);
}

TEST_F(BriskDeadlockTest, ReportHoldsNameIdAndLateness)
{
    const steady_clock::time_point begin = steady_clock::now();
    TCWatchedThread thread("hung", 1, EDuty::HANG);
    const TSLogEntry report = m_log.WaitFor(Name("hung"))[0];
    const steady_clock::duration waited = steady_clock::now() - begin;
    EXPECT_EQ(report.priority, DLOG_ERROR);
    int tid = -1;
    long lateMsec = -1;
    ASSERT_EQ(sscanf(report.text.c_str(),
                     "thread 'hung' (%d) hangs: no sign of life within 1000 ms, %ld ms late", &tid,
                     &lateMsec),
              2)
        << report.text;
    EXPECT_EQ(tid, thread.Tid());
    EXPECT_GE(lateMsec, 0);
    EXPECT_LE(std::chrono::milliseconds(1000 + lateMsec), waited);
}

TEST_F(BriskDeadlockTest, ThreadThatComesBackAndHangsAgainIsReportedAgain)
{
    TCWatchedThread thread("again", 1, EDuty::HANG);
    m_log.WaitFor(Name("again"));
    const steady_clock::time_point back = steady_clock::now();
    thread.NotifyOnce();
    m_log.WaitFor(Name("again"), 2);
    EXPECT_GE(steady_clock::now() - back, std::chrono::seconds(1));
    EXPECT_EQ(thread.Errors(), 0);
}

TEST_F(BriskDeadlockTest, SecondRegistrationReplacesTheTimeOut)
{
    TCWatchedThread longer("longer", 1, EDuty::HANG);
    TCWatchedThread shorter("shorter", 3600, EDuty::HANG);
    longer.RegisterAgain(ULONG_MAX);
    shorter.RegisterAgain(1);
    m_log.WaitFor(Name("shorter"));
    EXPECT_EQ(longer.Errors() + shorter.Errors(), 0);
    EXPECT_TRUE(m_log.Entries(Name("longer")).empty());
}

TEST_F(BriskDeadlockTest, RegistrationWithoutTimeIsRefused)
{
    std::thread([] {
        EXPECT_EQ(brisk_deadlock_register_watchdog_service(0), EINVAL);
        EXPECT_EQ(brisk_deadlock_watchdog_notify(), ENOENT);
    }).join();
}

TEST_F(BriskDeadlockTest, NotifyOfAnUnregisteredThreadIsAnError)
{
    TCWatchedThread other("other", 3600, EDuty::NOTIFY);
    std::thread([] { EXPECT_EQ(brisk_deadlock_watchdog_notify(), ENOENT); }).join();
    EXPECT_EQ(other.Errors(), 0);
}

struct TSAtThreadEnd
{
    int* registered;
    int* notified;

    ~TSAtThreadEnd()
    {
        *notified = brisk_deadlock_watchdog_notify();
        *registered = brisk_deadlock_register_watchdog_service(1);
    }
};

TEST_F(BriskDeadlockTest, EndingThreadCannotRegisterAgain)
{
    int registered = 0;
    int notified = 0;
    std::thread([&] {
        // Made before the registration, so destroyed after its end.
        thread_local TSAtThreadEnd atEnd{&registered, &notified};
        atEnd.registered = &registered;
        EXPECT_EQ(brisk_deadlock_register_watchdog_service(3600), 0);
    }).join();
    EXPECT_EQ(notified, ENOENT);
    EXPECT_EQ(registered, ESRCH);
}

/// The value of a field in a thread's status; empty if there is none.
std::string StatusField(const std::string& directory, const std::string& field)
{
    std::ifstream status(directory + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, field.size() + 2, field + ":\t") == 0) {
            return line.substr(field.size() + 2);
        }
    }
    return "";
}

TEST_F(BriskDeadlockTest, OneMonitorRunsWithSignalsBlocked)
{
    TCWatchedThread one("one", 3600, EDuty::HANG);
    TCWatchedThread two("two", 3600, EDuty::HANG);
    // The monitor names itself, so it may still bear its maker's name for a moment.
    std::vector<std::string> masks;
    while (masks.empty()) {
        DIR* tasks = opendir("/proc/self/task");
        while (const dirent* task = readdir(tasks)) {
            const std::string directory = std::string("/proc/self/task/") + task->d_name;
            if (StatusField(directory, "Name") == "zor-watchdog") {
                masks.push_back(StatusField(directory, "SigBlk"));
            }
        }
        closedir(tasks);
    }
    ASSERT_EQ(masks.size(), 1u);
    const unsigned long blocked = std::stoul(masks[0], nullptr, 16);
    for (int signal : {SIGINT, SIGTERM, SIGHUP, SIGUSR1, SIGUSR2, SIGALRM, SIGCHLD}) {
        EXPECT_NE(blocked & (1UL << (signal - 1)), 0u) << signal;
    }
}

TEST_F(BriskDeadlockTest, ManyThreadsComeAndGo)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([] {
            for (int round = 0; round < 50; ++round) {
                std::thread([] {
                    EXPECT_EQ(brisk_deadlock_register_watchdog_service(3600), 0);
                    EXPECT_EQ(brisk_deadlock_watchdog_notify(), 0);
                }).join();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_TRUE(m_log.Entries().empty());
}

} // namespace
