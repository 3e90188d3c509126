#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "NotifySocket.h"
#include "PlatformLog.h"
#include "Wait.h"
#include "WatchedThread.h"
#include "brisk_deadlock.h"
#include "dlog.h"

// What depends on the environment of the process, or ends it, runs in a program started anew: the
// bodies of death tests. There a failed check ends the process.
#define REQUIRE(condition)                                                    \
    do {                                                                      \
        if (!(condition)) {                                                   \
            fprintf(stderr, "line %d: %s is not so\n", __LINE__, #condition); \
            _exit(1);                                                         \
        }                                                                     \
    } while (false)

namespace {

std::atomic<bool> g_failsThreadCreation{false};
std::atomic<bool> g_stopsClock{false};

} // namespace

/// Stands in for the C library's: fails when a test wants it to.
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*start)(void*), void* argument)
{
    if (g_failsThreadCreation) {
        return EAGAIN;
    }
    using TCreate = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static const auto create = reinterpret_cast<TCreate>(dlsym(RTLD_NEXT, "pthread_create"));
    return create(thread, attributes, start, argument);
}

/// Stands in for the C library's: stands still when a test wants it to.
extern "C" int clock_gettime(clockid_t clock, struct timespec* time) noexcept
{
    if (g_stopsClock) {
        *time = {1000, 0};
        return 0;
    }
    return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
}

/// The thread sanitizer forbids threads in the child of a process with threads unless it is told.
extern "C" const char* __tsan_default_options()
{
    return "die_after_fork=0";
}

namespace {

using std::chrono::steady_clock;
using zortest::NotifySocket;
using EDuty = TCWatchedThread::EDuty;

std::string Name(const std::string& name)
{
    return "thread '" + name + "' ";
}

TCPlatformLog& Log()
{
    return TCPlatformLog::Instance();
}

TEST(SupervisorProcessTest, AbortModeEndsTheProcess)
{
    EXPECT_EXIT(
        {
            setenv("ZOR_WATCHDOG", "abort", 1);
            Log().EchoToStandardError();
            TCWatchedThread silent("silent", 1, EDuty::HANG);
            alarm(60);
            for (;;) {
                pause();
            }
        },
        ::testing::KilledBySignal(SIGABRT), "7 thread 'silent' \\([0-9]+\\) hangs: .*; aborting");
}

void LeaveNoCore()
{
    const struct rlimit none = {0, 0};
    REQUIRE(setrlimit(RLIMIT_CORE, &none) == 0);
    REQUIRE(prctl(PR_SET_DUMPABLE, 0) ==
            0); // where a program takes cores, no limit keeps it from it
}

TEST(SupervisorProcessTest, AbortThatLeavesNoCoreSaysSoFromTheBeginningAndAtTheEnd)
{
    const std::string reason = "(the limit of its size is 0|the process is not dumpable) \\(";
    EXPECT_EXIT(
        {
            setenv("ZOR_WATCHDOG", "abort", 1);
            LeaveNoCore();
            Log().EchoToStandardError();
            TCWatchedThread silent("silent", 1, EDuty::HANG);
            alarm(60);
            for (;;) {
                pause();
            }
        },
        ::testing::KilledBySignal(SIGABRT),
        "5 ZOR_WATCHDOG: abort will leave no core: " + reason +
            "(.|\n)*; aborting without a core: " + reason);
}

TEST(SupervisorProcessTest, UnknownModeIsNamedAndCountsAsLog)
{
    EXPECT_EXIT(
        {
            setenv("ZOR_WATCHDOG", "restart", 1);
            TCWatchedThread busy("busy", 3600, EDuty::NOTIFY);
            const TSLogEntry entry = Log().WaitFor("ZOR_WATCHDOG")[0];
            REQUIRE(entry.priority == DLOG_WARN);
            REQUIRE(entry.text ==
                    "ZOR_WATCHDOG: 'restart' is none of log, abort; a hung thread is logged");
            exit(0);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST(SupervisorProcessTest, RegistrationFailsWithoutAMonitorAndSucceedsLater)
{
    EXPECT_EXIT(
        {
            g_failsThreadCreation = true;
            REQUIRE(brisk_deadlock_register_watchdog_service(3600) == EAGAIN);
            REQUIRE(brisk_deadlock_watchdog_notify() == ENOENT);
            g_failsThreadCreation = false;
            REQUIRE(brisk_deadlock_register_watchdog_service(3600) == 0);
            REQUIRE(brisk_deadlock_watchdog_notify() == 0);
            exit(0);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST(SupervisorProcessTest, LogModeReportsOnlyAndTheProgramsClockDoesNotPreventIt)
{
    EXPECT_EXIT(
        {
            setenv("ZOR_WATCHDOG", "log", 1);
            g_stopsClock = true;
            TCWatchedThread silent("silent", 1, EDuty::HANG);
            REQUIRE(Log().WaitFor(Name("silent"))[0].priority == DLOG_ERROR);
            REQUIRE(Log().Entries("thread '").size() == 1);
            exit(0);
        },
        ::testing::ExitedWithCode(0), "");
}

constexpr std::chrono::milliseconds SERVICE_INTERVAL(200);

void BeServiceWithWatchdog(pid_t pid)
{
    const auto usec = std::chrono::microseconds(SERVICE_INTERVAL).count();
    setenv("WATCHDOG_USEC", std::to_string(usec).c_str(), 1);
    setenv("WATCHDOG_PID", std::to_string(pid).c_str(), 1);
}

void KeepAliveComesAtHalfOfTheInterval(NotifySocket* manager)
{
    const steady_clock::time_point begin = steady_clock::now();
    TCWatchedThread busy("busy", 3600, EDuty::NOTIFY);
    REQUIRE(manager->Next() == "READY=1");
    REQUIRE(manager->Next() == "WATCHDOG=1");
    steady_clock::time_point last = steady_clock::now();
    steady_clock::duration shortest = std::chrono::hours(1);
    for (int i = 0; i < 4; ++i) {
        REQUIRE(manager->Next() == "WATCHDOG=1");
        const steady_clock::time_point now = steady_clock::now();
        shortest = std::min(shortest, now - last);
        last = now;
    }
    REQUIRE(last - begin >= 4 * SERVICE_INTERVAL / 2);
    REQUIRE(shortest < SERVICE_INTERVAL);
}

TEST(SupervisorProcessTest, ServiceManagerHearsAtHalfOfItsInterval)
{
    EXPECT_EXIT(
        {
            NotifySocket manager;
            setenv("NOTIFY_SOCKET", manager.Address().c_str(), 1);
            BeServiceWithWatchdog(getpid());
            KeepAliveComesAtHalfOfTheInterval(&manager);
            exit(0);
        },
        ::testing::ExitedWithCode(0), "");
}

void KeepAliveStopsWhileAThreadHangs(NotifySocket* manager)
{
    TCWatchedThread busy("busy", 3600, EDuty::NOTIFY);
    TCWatchedThread silent("silent", 1, EDuty::HANG);
    REQUIRE(manager->Next() == "READY=1");
    REQUIRE(manager->Next() == "WATCHDOG=1");
    // Read all the while: a sender waits when a socket holds a few unread messages.
    alarm(60);
    while (Log().Entries(Name("silent")).empty()) {
        manager->Drain();
    }
    manager->Drain();
    // Ten times of sending pass until the next one is reported.
    TCWatchedThread later("later", 1, EDuty::HANG);
    Log().WaitFor(Name("later"));
    REQUIRE(manager->Take().empty());
    silent.NotifyOnce();
    later.NotifyOnce();
    REQUIRE(manager->Next() == "WATCHDOG=1");
}

TEST(SupervisorProcessTest, ServiceManagerHearsNothingWhileAThreadHangs)
{
    EXPECT_EXIT(
        {
            NotifySocket manager;
            setenv("NOTIFY_SOCKET", manager.Address().c_str(), 1);
            BeServiceWithWatchdog(getpid());
            KeepAliveStopsWhileAThreadHangs(&manager);
            exit(0);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST(SupervisorProcessTest, ServiceManagerHearsFromTheStartOfAProcessThatSupervisesNobody)
{
    // Both are in the environment that the program is started with, and stay as they are: it is
    // read from the start on. The process id is not there, as that is known only then.
    if (!::testing::internal::InDeathTestChild()) {
        const auto usec = std::chrono::microseconds(SERVICE_INTERVAL).count();
        setenv("WATCHDOG_USEC", std::to_string(usec).c_str(), 1);
        const std::string address = "@zor-notify-from-the-start-" + std::to_string(getpid());
        setenv("NOTIFY_SOCKET", address.c_str(), 1);
    }
    EXPECT_EXIT(
        {
            NotifySocket manager(getenv("NOTIFY_SOCKET") + 1);
            REQUIRE(manager.Next() == "WATCHDOG=1");
            REQUIRE(manager.Next() == "WATCHDOG=1");
            exit(0);
        },
        ::testing::ExitedWithCode(0), "");
    unsetenv("WATCHDOG_USEC");
    unsetenv("NOTIFY_SOCKET");
}

TEST(SupervisorProcessTest, AnotherProcessWatchdogIsLeftAlone)
{
    EXPECT_EXIT(
        {
            NotifySocket manager;
            setenv("NOTIFY_SOCKET", manager.Address().c_str(), 1);
            BeServiceWithWatchdog(getppid());
            TCWatchedThread silent("silent", 1, EDuty::HANG);
            Log().WaitFor(Name("silent"));
            REQUIRE(manager.Take() == "READY=1");
            REQUIRE(manager.Take().empty());
            exit(0);
        },
        ::testing::ExitedWithCode(0), "");
}

/// Stops this process for longer than the smallest time-out, and lets it go on.
void StandStill()
{
    const pid_t helper = fork();
    if (helper == 0) {
        kill(getppid(), SIGSTOP);
        const struct timespec pause = {1, 300 * 1000 * 1000};
        nanosleep(&pause, nullptr);
        kill(getppid(), SIGCONT);
        _exit(0);
    }
    waitpid(helper, nullptr, 0);
}

TEST(SupervisorProcessTest, StandstillOfTheProcessIsNobodysSilence)
{
    EXPECT_EXIT(
        {
            TCWatchedThread busy("busy", 1, EDuty::NOTIFY);
            const steady_clock::time_point begin = steady_clock::now();
            StandStill();
            REQUIRE(steady_clock::now() - begin > std::chrono::milliseconds(1300));
            TCWatchedThread later("later", 1, EDuty::HANG);
            Log().WaitFor(Name("later"));
            REQUIRE(Log().Entries(Name("busy")).empty());
            exit(0);
        },
        ::testing::ExitedWithCode(0), "");
}

int StatusOfChild(pid_t child)
{
    int status = -1;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

/// Whether all threads but the calling one sleep.
bool OthersRest()
{
    const std::string self = std::to_string(gettid());
    for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string stat;
        std::getline(std::ifstream(thread.path() / "stat"), stat);
        const std::size_t name = stat.rfind(") "); // its end; none if the thread is gone
        if (thread.path().filename() != self &&
            (name == std::string::npos || stat.compare(name + 2, 1, "S") != 0)) {
            return false;
        }
    }
    return true;
}

TEST(SupervisorProcessTest, ChildOfAForkStartsWithoutSupervision)
{
    EXPECT_EXIT(
        {
            TCWatchedThread other("other", 1, EDuty::NOTIFY);
            REQUIRE(brisk_deadlock_register_watchdog_service(3600) == 0);
            // A sanitizer keeps a table of threads, which is locked while one of them starts. The
            // child starts one too, and nobody would unlock the table there.
            REQUIRE(zortest::Eventually(OthersRest));
            const pid_t child = fork();
            if (child == 0) {
                alarm(60);
                REQUIRE(brisk_deadlock_watchdog_notify() == ENOENT);
                REQUIRE(brisk_deadlock_register_watchdog_service(1) == 0);
                REQUIRE(brisk_deadlock_watchdog_notify() == 0);
                Log().WaitFor("hangs");
                // The other thread, which does not exist here, is not what was reported.
                REQUIRE(Log().Entries(Name("other")).empty());
                _exit(0);
            }
            REQUIRE(StatusOfChild(child) == 0);
            REQUIRE(brisk_deadlock_watchdog_notify() == 0);
            REQUIRE(Log().Entries().empty());
            exit(0);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST(SupervisorProcessTest, ServiceManagerHearsOnceThatTheServiceIsReadyFromTheFirstRegistration)
{
    EXPECT_EXIT(
        {
            NotifySocket manager;
            setenv("NOTIFY_SOCKET", manager.Address().c_str(), 1);
            REQUIRE(brisk_deadlock_watchdog_notify() == ENOENT);
            REQUIRE(manager.Take().empty());
            REQUIRE(brisk_deadlock_register_watchdog_service(3600) == 0);
            REQUIRE(manager.Next() == "READY=1");
            TCWatchedThread silent("silent", 1, EDuty::HANG);
            Log().WaitFor(Name("silent"));
            REQUIRE(manager.Take().empty());

            REQUIRE(zortest::Eventually(OthersRest)); // see above
            const pid_t child = fork();
            if (child == 0) {
                alarm(60);
                REQUIRE(brisk_deadlock_register_watchdog_service(1) == 0);
                while (Log().Entries("hangs").size() < 2) { // the first is the parent's
                    usleep(1000);
                }
                _exit(0);
            }
            REQUIRE(StatusOfChild(child) == 0);
            REQUIRE(manager.Take().empty());
            exit(0);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST(SupervisorProcessTest, ForkNeverFindsTheSupervisorLocked)
{
    EXPECT_EXIT(
        {
            std::atomic<bool> ends{false};
            std::thread churn([&ends] {
                while (!ends) {
                    std::thread([] { brisk_deadlock_register_watchdog_service(3600); }).join();
                }
            });
            for (int i = 0; i < 50; ++i) {
                const pid_t child = fork();
                if (child == 0) {
                    alarm(60);
                    // Refused only after the lock could be taken.
                    g_failsThreadCreation = true;
                    _exit(brisk_deadlock_register_watchdog_service(3600) == EAGAIN ? 0 : 1);
                }
                REQUIRE(StatusOfChild(child) == 0);
            }
            ends = true;
            churn.join();
            exit(0);
        },
        ::testing::ExitedWithCode(0), "");
}

} // namespace
