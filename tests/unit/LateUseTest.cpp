#include <cxxabi.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <memory>
#include <string>

#include "Task.h"
#include "TaskSupport.h"
#include "ThreadNames.h"
#include "Timer.h"
#include "ZorServiceDebugOverlay.h"

// What a thread finds that still runs while static objects are destroyed, looked at when all those
// of the library have been.

namespace {

using namespace zortest;
using std::chrono::milliseconds;

/// What the process that ends does last; null in all others.
void (*gLast)() = nullptr;

void RunLast(void* /*nothing*/)
{
    if (gLast != nullptr) {
        gLast();
    }
}

/// At exit the loader takes down the program and then its libraries, each with its destructors, in
/// a handler that is registered when all of them have been initialised. Handlers run in the reverse
/// order of their registration, so what nobody's take-down runs (it belongs to no library) and what
/// is registered before any initialiser comes last of all.
void RegisterBeforeAll(int /*argc*/, char** /*argv*/, char** /*environment*/)
{
    abi::__cxa_atexit(&RunLast, nullptr, nullptr);
}

__attribute__((section(".preinit_array"), used)) void (*gRegister)(int, char**,
                                                                   char**) = &RegisterBeforeAll;

void Expect(bool holds, const char* what)
{
    if (!holds) {
        fprintf(stderr, "not so: %s\n", what);
        _exit(1);
    }
}

std::ptrdiff_t CountThreads()
{
    const std::filesystem::directory_iterator threads("/proc/self/task");
    return std::distance(begin(threads), end(threads));
}

class SilentListener : public ITimerListener
{
    bool OnTimer(const TSEvent* /*event*/, void* /*userData*/) override { return true; }
};

/// Objects of the process that ends, which nobody destroys.
TaskRuntime* gRuntime = nullptr;
TestTask* gTask = nullptr;
TCTimer* gTimer = nullptr;

TCTimer* MakeTimer()
{
    ITimer::TimerHandlerParams params;
    params.task = gTask;
    params.listener = std::make_shared<SilentListener>();
    return new TCTimer(params);
}

TEST(LateUseDeathTest, TimersCanStillBeMadeSetAndDestroyedButFireNoMore)
{
    const auto body = [] {
        gRuntime = new TaskRuntime;
        gTask = new TestTask;
        Expect(gTask->Start(), "the task runs");
        gTimer = MakeTimer();
        Expect(gTimer->Restart(milliseconds(10), ITimer::INFINITE_FIRE), "the timer runs");
        gLast = [] {
            Expect(Eventually([] { return CountThreadsNamed("TimersScheduler") == 0; }),
                   "the thread has ended");
            const std::ptrdiff_t threads = CountThreads();
            Expect(gTimer->Pause(), "a timer can be paused");
            Expect(gTimer->Resume(), "a timer can be resumed");
            Expect(gTimer->Restart(milliseconds(20), 1), "a timer can be set");
            TCTimer* const late = MakeTimer();
            Expect(late->Restart(milliseconds(10), 1), "a timer can be made");
            Expect(CountThreads() == threads, "no thread has been started");
            delete late;
            delete gTimer;
            _exit(42);
        };
        exit(1);
    };
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(body(), testing::ExitedWithCode(42), "");
}

TEST(LateUseDeathTest, LoggersStillHaveTheirIds)
{
    const auto body = [] {
        ZORLoggerLegacy::Instance();
        gLast = [] {
            Expect(ZORLoggerDLOG::Instance()->GetLoggerId() == "ZOR DLOG logger", "the default");
            Expect(ZORLoggerDLOG2023::Instance()->GetLoggerId() == "ZOR DLOG logger 2023", "2023");
            Expect(ZORLoggerLegacy::Instance()->GetLoggerId() == "ZOR Legacy logger", "legacy");
            ZORLogs::getInstance()->SetLoggingSystem(ZORLoggerDLOG2023::Instance());
            ZOR_LOG(false, DLOG_INFO, "late");
            _exit(42);
        };
        exit(1);
    };
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(body(), testing::ExitedWithCode(42), "");
}

} // namespace
